# The one place for what the product is called and which version it is. The generated
# platform/product.hpp, the property lists, the man page and the packages all read it here.
set(TAVELIN_VERSION 0.1.0)
set(TAVELIN_BUILD 1 CACHE STRING "Build number, CFBundleVersion")
set(TAVELIN_SHORT_NAME tavelin)
set(TAVELIN_HOST_BUNDLE_ID org.tavelin.Tavelin CACHE STRING
    "Bundle identifier of the host application")
set(TAVELIN_TEAM TEAMID CACHE STRING "Developer team identifier the bundle is signed for")
# What follows from other settings is kept out of the cache, so that it follows their changes too.
set(TAVELIN_EXTENSION_BUNDLE_ID "" CACHE STRING
    "Bundle identifier of the file-system extension; empty: the host's and .fsmodule")
if(NOT TAVELIN_EXTENSION_BUNDLE_ID)
  set(TAVELIN_EXTENSION_BUNDLE_ID ${TAVELIN_HOST_BUNDLE_ID}.fsmodule)
endif()
set(TAVELIN_GROUP "" CACHE STRING
    "App group shared by the extension and its host application; empty: named after the team")
if(NOT TAVELIN_GROUP)
  # A group named after the team needs no entry in a profile. Without a team nothing can claim a
  # group, and the name stands for the place of the state on other systems.
  if(TAVELIN_TEAM STREQUAL "TEAMID")
    set(TAVELIN_GROUP group.${TAVELIN_HOST_BUNDLE_ID})
  else()
    set(TAVELIN_GROUP ${TAVELIN_TEAM}.${TAVELIN_HOST_BUNDLE_ID})
  endif()
endif()
