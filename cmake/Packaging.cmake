# What `cmake --install` puts where. debian/ makes a package of it.
if(NOT TAVELIN_HOSTS)
  return()
endif()
foreach(page tavelin.1 tavelin-copy.1 tavelin-shell.1)
  configure_file(${PROJECT_SOURCE_DIR}/docs/${page}.in
                 ${PROJECT_BINARY_DIR}/generated/${page} @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/generated/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endforeach()

install(TARGETS tavelin RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/Sources/hosts/cli/completions/tavelin.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tavelin)
install(FILES ${PROJECT_SOURCE_DIR}/Sources/hosts/cli/completions/_tavelin
        DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
# README.md points to the others by their paths.
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION ${CMAKE_INSTALL_DOCDIR}
        FILES_MATCHING PATTERN "*.md")
if(TAVELIN_FUSE)
  # mount(8) looks for its helpers in /sbin only, which is /usr/sbin: README.md says what to do with
  # another prefix.
  install(PROGRAMS ${PROJECT_SOURCE_DIR}/packaging/mount.fuse.tavelin
          DESTINATION ${CMAKE_INSTALL_SBINDIR})
  configure_file(${PROJECT_SOURCE_DIR}/docs/mount.tavelin.8.in
                 ${PROJECT_BINARY_DIR}/generated/mount.tavelin.8 @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/generated/mount.tavelin.8
          DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
  set(links ${PROJECT_BINARY_DIR}/links)
  file(MAKE_DIRECTORY ${links})
  file(CREATE_LINK mount.fuse.tavelin ${links}/mount.tavelin SYMBOLIC)
  file(CREATE_LINK mount.tavelin.8 ${links}/mount.fuse.tavelin.8 SYMBOLIC)
  install(FILES ${links}/mount.tavelin DESTINATION ${CMAKE_INSTALL_SBINDIR})
  install(FILES ${links}/mount.fuse.tavelin.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
endif()
