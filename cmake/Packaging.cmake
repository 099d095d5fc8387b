# What `cmake --install` puts where, and the Debian package that `cpack` makes of it in a build
# directory (`cpack -G DEB`, `cpack -G TGZ`).
set(man ${PROJECT_BINARY_DIR}/generated/tavelin.1)
configure_file(${PROJECT_SOURCE_DIR}/docs/tavelin.1.in ${man} @ONLY)

install(TARGETS tavelin RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${man} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${PROJECT_SOURCE_DIR}/Sources/hosts/cli/completions/tavelin.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tavelin)
install(FILES ${PROJECT_SOURCE_DIR}/Sources/hosts/cli/completions/_tavelin
        DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${PROJECT_SOURCE_DIR}/packaging/debian/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
if(TAVELIN_FUSE)
  # mount(8) looks for its helpers in /sbin only, which is /usr/sbin: README.md says what to do with
  # another prefix.
  install(PROGRAMS ${PROJECT_SOURCE_DIR}/packaging/mount.fuse.tavelin
          DESTINATION ${CMAKE_INSTALL_SBINDIR})
endif()

set(CPACK_PACKAGE_NAME tavelin)
set(CPACK_PACKAGE_VERSION ${TAVELIN_VERSION})
set(CPACK_PACKAGE_VENDOR "Tavelin")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "read and write NTFS volumes, mounted or not")
set(CPACK_PACKAGE_DESCRIPTION
    "Lists, reads, writes and mounts NTFS volumes in image files and on block devices,
over libntfs-3g and FUSE. Most commands need neither a mount nor root.")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR "TGZ")
find_program(DPKG_DEB dpkg-deb)
if(DPKG_DEB)
  list(PREPEND CPACK_GENERATOR "DEB")
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Tavelin maintainers <maintainers@tavelin.invalid>")
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON) # the libraries the program is linked with
set(CPACK_DEBIAN_PACKAGE_DEPENDS "")
if(TAVELIN_FUSE)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "fuse3") # fusermount3, for mounts without root
endif()
include(CPack)
