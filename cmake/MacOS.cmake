# What the macOS bundle is made of, besides cmake/Product.cmake. The property lists and entitlements
# are written on every system: their tests run on Linux.
set(TAVELIN_MACOS_MINIMUM 15.4)
set(TAVELIN_HOST_EXECUTABLE Tavelin)
set(TAVELIN_EXTENSION_EXECUTABLE TavelinModule)
set(TAVELIN_PRINCIPAL_CLASS TavelinFileSystem)
set(TAVELIN_SIGNING_IDENTITY - CACHE STRING "Code signing identity; - signs ad hoc")
set(TAVELIN_EXTENSION_PROFILE "" CACHE FILEPATH "Provisioning profile of the extension")
set(TAVELIN_HOST_PROFILE "" CACHE FILEPATH "Provisioning profile of the host application")

set(TAVELIN_NOTARY_PROFILE "" CACHE STRING "Keychain profile for notarising the disk image")

set(TAVELIN_BUNDLE_INPUTS ${PROJECT_BINARY_DIR}/bundle)
function(tavelin_bundle_input template name)
  configure_file(${template} ${TAVELIN_BUNDLE_INPUTS}/${name} @ONLY NEWLINE_STYLE LF)
endfunction()
