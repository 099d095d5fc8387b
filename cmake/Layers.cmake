# Clang gets no precompiled headers: they would name the headers of whichever source tree they were
# made in, which a compiler cache does not notice. It keys those of gcc by -fpch-preprocess.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT TAVELIN_SANITIZE)
  set(TAVELIN_COMMON_HEADERS <algorithm> <chrono> <filesystem> <fmt/format.h> <fstream> <functional>
      <map> <memory> <optional> <ranges> <sstream> <string> <unordered_map> <variant> <vector>)
endif()

# For C++ alone: several sources at once, and the common headers precompiled.
function(tavelin_compile_together name)
  if(TAVELIN_UNITY)
    set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 16)
  endif()
  if(NOT TAVELIN_COMMON_HEADERS)
    return()
  endif()
  target_compile_options(${name} PRIVATE -fpch-preprocess)
  if(name STREQUAL "platform")
    target_precompile_headers(platform PRIVATE ${TAVELIN_COMMON_HEADERS})
  else()
    target_precompile_headers(${name} REUSE_FROM platform)
  endif()
endfunction()

# tavelin_layer(NAME [SEPARATE] [COLD] DEPENDS layer... LIBRARIES lib... SOURCES file...)
#
# One static library per directory of Sources/, named after the directory. Includes are written from
# Sources/ ("core/ntfs_volume.hpp"). DEPENDS names the layers below, whose headers may appear in
# this layer's public headers; LIBRARIES are outside libraries used by the implementation.
#
# The sources of a layer are compiled a few at a time, since most of the time would go into the same
# headers again: names in their anonymous namespaces are distinct throughout the layer. SEPARATE
# compiles each alone, for a layer whose files are twins. COLD has the compiler optimise less, for a
# layer whose code runs once a command or once a mount.
#
# gcc also reads the headers that most of them include in the form that it compiled them to with the
# lowest layer, which takes the same options for all: so every layer is given {fmt}.
function(tavelin_layer name)
  cmake_parse_arguments(ARG "SEPARATE;COLD" "" "DEPENDS;LIBRARIES;SOURCES" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  add_library(tavelin::${name} ALIAS ${name})
  set_target_properties(${name} PROPERTIES OUTPUT_NAME tavelin_${name})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/Sources)
  foreach(layer IN LISTS ARG_DEPENDS)
    target_link_libraries(${name} PUBLIC tavelin::${layer})
  endforeach()
  target_link_libraries(${name} PRIVATE tavelin_flags ${TAVELIN_FMT} ${ARG_LIBRARIES})
  if(ARG_COLD)
    target_compile_options(${name} PRIVATE $<$<CONFIG:Release>:-O1>)
    if(TAVELIN_SANITIZE)
      target_compile_options(${name} PRIVATE -O0)
    endif()
  endif()
  if(NOT ARG_SEPARATE AND NOT ARG_SOURCES MATCHES "[.]mm")
    tavelin_compile_together(${name})
  endif()
  if(TAVELIN_LAYERS_APART)
    set_target_properties(${name} PROPERTIES UNITY_BUILD OFF)
  endif()
  if(TAVELIN_SANITIZE)
    target_link_options(${name} PUBLIC -fsanitize=${TAVELIN_SANITIZE})
  endif()
endfunction()

# tavelin_test_library(NAME [PRIVATE lib...] [PUBLIC lib...] SOURCES file...)
#
# What several test programs share. Optimised, since volumes are copied and compared in it.
function(tavelin_test_library name)
  cmake_parse_arguments(ARG "" "" "PRIVATE;PUBLIC;SOURCES" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/Tests)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC}
    PRIVATE tavelin_flags ${TAVELIN_FMT} ${ARG_PRIVATE})
  target_compile_options(${name} PRIVATE $<$<CONFIG:Release>:-O1>)
  tavelin_compile_together(${name})
endfunction()

# The sources of a test program, not what it tests, are compiled for a short build.
function(tavelin_compile_for_tests name)
  target_link_libraries(${name} PRIVATE tavelin_flags test_flags)
  set_target_properties(${name} PROPERTIES UNITY_BUILD ${TAVELIN_UNITY} UNITY_BUILD_BATCH_SIZE 16)
  if(TARGET test_headers)
    target_precompile_headers(${name} REUSE_FROM test_headers)
  endif()
endfunction()

# tavelin_test(NAME LABEL label LAYERS layer... SOURCES file... [THREADS]
#              [TIMEOUT seconds] [LIBRARIES lib...])
#
# One GoogleTest program, registered with CTest as one test per TEST() under LABEL:
# unit, image, mount, binding or fault. THREADS makes that unit-threads and so on: the target
# thread_suites and `ctest -L threads` are what the thread-sanitizer run builds and covers.
add_custom_target(thread_suites)
function(tavelin_test name)
  cmake_parse_arguments(ARG "THREADS;ALONE" "LABEL;TIMEOUT" "LAYERS;LIBRARIES;SOURCES" ${ARGN})
  # gtest_discover_tests() breaks a list of labels apart, so the two make one word.
  if(ARG_THREADS)
    string(APPEND ARG_LABEL -threads)
  endif()
  if(NOT ARG_TIMEOUT)
    # Against a test without an end, so generous: sanitizers take ten times as long, and a machine
    # may have other work.
    set(ARG_TIMEOUT 900)
    if(TAVELIN_SANITIZE)
      set(ARG_TIMEOUT 2700)
    endif()
  endif()
  add_executable(${name} ${ARG_SOURCES})
  if(ARG_SOURCES MATCHES "[.]mm")
    target_link_libraries(${name} PRIVATE tavelin_flags test_flags)
  else()
    tavelin_compile_for_tests(${name})
  endif()
  if(ARG_THREADS)
    add_dependencies(thread_suites ${name})
  endif()
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/Tests)
  target_link_libraries(${name} PRIVATE test_support GTest::gtest_main ${ARG_LIBRARIES})
  foreach(layer IN LISTS ARG_LAYERS)
    target_link_libraries(${name} PRIVATE tavelin::${layer})
  endforeach()
  # The longest begin first, or one processor waits for them at the end.
  set(cost 0)
  if(ARG_LABEL STREQUAL "fault")
    set(cost 100)
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 120
    PROPERTIES LABELS ${ARG_LABEL} COST ${cost} TIMEOUT ${ARG_TIMEOUT} RUN_SERIAL ${ARG_ALONE}
      SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]"
    # Keeps the event log of whatever a test runs out of the developer's home.
    ENVIRONMENT "TAVELIN_GROUP_CONTAINER=${CMAKE_CURRENT_BINARY_DIR}/${name}-group")
endfunction()
