# tavelin_type_check(NAME FILE [OPTION...]): a test that compiles the file as macOS code, without
# output.
function(tavelin_type_check name file)
  add_test(NAME binding.${name} COMMAND ${TAVELIN_MACOS_CHECK} ${ARGN} ${file})
  set_tests_properties(binding.${name} PROPERTIES LABELS binding)
endfunction()

file(GLOB_RECURSE objective_cxx CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/Sources/extension/*.mm)
foreach(file IN LISTS objective_cxx)
  cmake_path(GET file STEM stem)
  tavelin_type_check(type_check.${stem} ${file})
  tavelin_type_check(type_check_sdk26.${stem} ${file} -D__MAC_OS_X_VERSION_MAX_ALLOWED=260000)
endforeach()

# That the check sees what it is for: each of these must fail, for the reason its first line gives.
file(GLOB mistakes CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/mistakes/*.mm)
foreach(file IN LISTS mistakes)
  cmake_path(GET file STEM stem)
  file(STRINGS ${file} first LIMIT_COUNT 1)
  string(REGEX REPLACE "^// expect: " "" reason "${first}")
  tavelin_type_check(type_check_finds.${stem} ${file})
  set_tests_properties(binding.type_check_finds.${stem} PROPERTIES
    PASS_REGULAR_EXPRESSION "error: .*${reason}")
endforeach()
