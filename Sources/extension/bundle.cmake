# Builds Tavelin.app with the extension inside: programs here, the bundle by the packaging scripts.

# Both programs are plain executables, with their objects on the link line: out of an archive the
# linker would take no Objective-C class that nothing refers to by symbol.
add_executable(appex ${binding_sources} ${service_sources} entry.mm)
target_compile_options(appex PRIVATE -fobjc-arc -fblocks -fapplication-extension)
target_link_options(appex PRIVATE -fapplication-extension LINKER:-e,_NSExtensionMain)
target_link_libraries(appex PRIVATE tavelin_flags tavelin::fskit
  "-framework FSKit" "-framework Foundation" "-framework CoreFoundation" -lobjc)
set_target_properties(appex PROPERTIES OUTPUT_NAME ${TAVELIN_EXTENSION_EXECUTABLE})

add_executable(app ${application_sources} ${service_sources} information.mm text.mm)
target_compile_options(app PRIVATE -fobjc-arc -fblocks)
target_link_libraries(app PRIVATE tavelin_flags tavelin::diagnostics
  "-framework AppKit" "-framework FSKit" "-framework Foundation" -lobjc)
set_target_properties(app PROPERTIES OUTPUT_NAME ${TAVELIN_HOST_EXECUTABLE})

set(profiles)
if(TAVELIN_EXTENSION_PROFILE)
  list(APPEND profiles --extension-profile ${TAVELIN_EXTENSION_PROFILE})
endif()
if(TAVELIN_HOST_PROFILE)
  list(APPEND profiles --host-profile ${TAVELIN_HOST_PROFILE})
endif()
set(scripts ${PROJECT_SOURCE_DIR}/packaging/macos)
set(application ${PROJECT_BINARY_DIR}/${TAVELIN_HOST_EXECUTABLE}.app)
add_custom_target(bundle ALL
  COMMAND ${scripts}/assemble-bundle --output ${PROJECT_BINARY_DIR}
          --license ${PROJECT_SOURCE_DIR}/LICENSE
          --host ${TAVELIN_HOST_EXECUTABLE}=$<TARGET_FILE:app>
          --host-plist ${TAVELIN_BUNDLE_INPUTS}/host-Info.plist
          --extension ${TAVELIN_EXTENSION_EXECUTABLE}=$<TARGET_FILE:appex>
          --extension-plist ${TAVELIN_BUNDLE_INPUTS}/extension-Info.plist ${profiles}
  COMMAND ${scripts}/sign-bundle ${application} ${TAVELIN_SIGNING_IDENTITY}
          ${TAVELIN_BUNDLE_INPUTS}/extension.entitlements ${TAVELIN_BUNDLE_INPUTS}/host.entitlements
          ${TAVELIN_BUNDLE_INPUTS}/unprofiled.entitlements
  DEPENDS appex app
  VERBATIM)
add_custom_target(image
  COMMAND ${scripts}/make-image ${application}
          ${PROJECT_BINARY_DIR}/${TAVELIN_HOST_EXECUTABLE}-${TAVELIN_VERSION}.dmg
          ${TAVELIN_NOTARY_PROFILE}
  DEPENDS bundle
  VERBATIM)
