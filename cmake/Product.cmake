# The one place for what the product is called and which version it is. The generated
# platform/product.hpp, the property lists, the man page and the packages all read it here.
set(TAVELIN_VERSION 0.1.0)
set(TAVELIN_BUILD 1 CACHE STRING "Build number, CFBundleVersion")
set(TAVELIN_SHORT_NAME tavelin)
set(TAVELIN_HOST_BUNDLE_ID org.tavelin.Tavelin CACHE STRING
    "Bundle identifier of the host application")
set(TAVELIN_EXTENSION_BUNDLE_ID ${TAVELIN_HOST_BUNDLE_ID}.fsmodule CACHE STRING
    "Bundle identifier of the file-system extension")
set(TAVELIN_TEAM TEAMID CACHE STRING "Developer team identifier the bundle is signed for")
# A group named after the team needs no entry in a profile. Without a team nothing can claim a
# group, and the name stands for the place of the state on other systems.
set(default_group group.${TAVELIN_HOST_BUNDLE_ID})
if(NOT TAVELIN_TEAM STREQUAL "TEAMID")
  set(default_group ${TAVELIN_TEAM}.${TAVELIN_HOST_BUNDLE_ID})
endif()
set(TAVELIN_GROUP ${default_group} CACHE STRING
    "App group shared by the extension and its host application")
