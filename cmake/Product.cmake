# The one place for what the product is called and which version it is. The generated
# platform/product.hpp, the property lists, the man page and the packages all read it here.
set(TAVELIN_VERSION 0.1.0)
set(TAVELIN_BUILD 1 CACHE STRING "Build number, CFBundleVersion")
set(TAVELIN_SHORT_NAME tavelin)
set(TAVELIN_HOST_BUNDLE_ID org.tavelin.Tavelin CACHE STRING
    "Bundle identifier of the host application")
set(TAVELIN_EXTENSION_BUNDLE_ID ${TAVELIN_HOST_BUNDLE_ID}.fsmodule CACHE STRING
    "Bundle identifier of the file-system extension")
set(TAVELIN_GROUP group.org.tavelin.Tavelin CACHE STRING
    "App group shared by the extension and its host application")
