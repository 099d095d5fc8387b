# Refuses a libntfs-3g older than the release that fixed what was published up to 2022, and warns of
# a Debian build of it that lacks later fixes. SECURITY.md lists the advisories.
set(TAVELIN_NTFS3G_LEAST 2022.10.3)
if(NTFS3G_VERSION VERSION_LESS TAVELIN_NTFS3G_LEAST)
  message(FATAL_ERROR "libntfs-3g ${NTFS3G_VERSION} has published holes (CVE-2022-40284 and "
    "older): ${TAVELIN_NTFS3G_LEAST} or later is needed")
endif()

# Debian fixes its stable releases in place, so that the release number does not tell. A version
# before these, and not before the one that they are fixes of, lacks some.
set(TAVELIN_NTFS3G_FIXED 1:2022.10.3-1+deb12u4 1:2022.10.3-5+deb13u3)
find_program(DPKG dpkg)
if(DPKG AND NOT TAVELIN_NTFS3G_PREFIX)
  execute_process(COMMAND dpkg-query -W -f=\${Version} ntfs-3g-dev
                  OUTPUT_VARIABLE installed ERROR_QUIET)
  foreach(fixed IN LISTS TAVELIN_NTFS3G_FIXED)
    string(REGEX REPLACE "[+]deb.*" "" base ${fixed})
    execute_process(COMMAND ${DPKG} --compare-versions "${installed}" ge ${base}
                    RESULT_VARIABLE before)
    execute_process(COMMAND ${DPKG} --compare-versions "${installed}" lt ${fixed}
                    RESULT_VARIABLE after)
    if(installed AND before EQUAL 0 AND after EQUAL 0)
      message(WARNING "ntfs-3g ${installed} has published holes, which ${fixed} does not have: "
        "see SECURITY.md, and update it")
    endif()
  endforeach()
endif()
