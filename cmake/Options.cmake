# Build options. The presets in CMakePresets.json set them; a plain configure gets the defaults.
option(TAVELIN_TESTS "Build the tests" ON)
option(TAVELIN_BENCHMARKS "Build the benchmarks behind script/bench" OFF)
option(TAVELIN_WERROR "Treat warnings as errors" ON)
option(TAVELIN_HOSTS "Build the command line and the FUSE host" ON)
option(TAVELIN_FUSE "Build the FUSE host" ON)
option(TAVELIN_BINDING "Build and run the FSKit binding on GNUstep (needs clang)" OFF)
option(TAVELIN_UNITY "Compile several sources at once; OFF for tools that read the commands" ON)
option(TAVELIN_LAYERS_APART "Compile each source of a layer alone, for script/mutate" OFF)
option(TAVELIN_FUZZERS "Build what libFuzzer runs; with clang" OFF)
option(TAVELIN_CCACHE "Take from ccache what was compiled before, where it is installed" ON)
set(TAVELIN_SANITIZE "" CACHE STRING "Sanitizers to build with, as given to -fsanitize=")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported(LANGUAGES C CXX)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

find_program(TAVELIN_CCACHE_PROGRAM ccache)
mark_as_advanced(TAVELIN_CCACHE_PROGRAM)
if(TAVELIN_CCACHE AND TAVELIN_CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  # Paths count relative to the tree, so that one clone finds what another has compiled. The rest is
  # what precompiled headers need.
  foreach(language C CXX OBJCXX)
    set(CMAKE_${language}_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env
      CCACHE_BASEDIR=${PROJECT_SOURCE_DIR} CCACHE_NOHASHDIR=1
      CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
      ${TAVELIN_CCACHE_PROGRAM})
  endforeach()
endif()

add_library(tavelin_flags INTERFACE)
target_compile_options(tavelin_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast -Wextra-semi>
  $<$<BOOL:${TAVELIN_WERROR}>:-Werror>
  # clang proves the lock discipline annotated in platform/mutex.hpp.
  $<$<COMPILE_LANG_AND_ID:CXX,Clang,AppleClang>:-Wthread-safety -Wthread-safety-beta>)

# Hardening, in every preset; Hardening.OfTheProgram reads it back from the binary.
target_compile_options(tavelin_flags INTERFACE -fstack-protector-strong)
if(NOT APPLE)
  target_compile_options(tavelin_flags INTERFACE -fstack-clash-protection)
  target_link_options(tavelin_flags INTERFACE
    LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|amd64|AMD64|i[3-6]86")
    target_compile_options(tavelin_flags INTERFACE -fcf-protection)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
    target_compile_options(tavelin_flags INTERFACE -mbranch-protection=standard)
  endif()
endif()
if(NOT TAVELIN_SANITIZE)
  # Sanitizers check the same calls themselves, and unoptimised code has nothing to check.
  target_compile_options(tavelin_flags INTERFACE
    "$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
endif()

if(TAVELIN_SANITIZE)
  target_compile_options(tavelin_flags INTERFACE
    -fsanitize=${TAVELIN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(tavelin_flags INTERFACE -fsanitize=${TAVELIN_SANITIZE})
  # Turns on the assertions of platform/assert.hpp, whatever the build type.
  target_compile_definitions(tavelin_flags INTERFACE TAVELIN_SANITIZE)
endif()
