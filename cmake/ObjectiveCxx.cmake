# Objective-C++ for the FSKit binding. On a Mac it is the system's compiler. Elsewhere it is clang,
# whatever compiles the rest, in two ways: for GNUstep, to run the binding, and as macOS code, to
# check its types only.
if(NOT APPLE AND NOT DEFINED CMAKE_OBJCXX_COMPILER)
  find_program(CMAKE_OBJCXX_COMPILER NAMES clang++ clang++-14 REQUIRED)
endif()
# Enabling clang for one language makes CMake write every language's precompiled headers its way.
set(extension ${CMAKE_PCH_EXTENSION})
set(prologue ${CMAKE_PCH_PROLOGUE})
enable_language(OBJCXX)
set(CMAKE_PCH_EXTENSION ${extension})
set(CMAKE_PCH_PROLOGUE ${prologue})
set(CMAKE_OBJCXX_STANDARD 20)
set(CMAKE_OBJCXX_STANDARD_REQUIRED ON)
set(CMAKE_OBJCXX_EXTENSIONS OFF)

set(TAVELIN_SDK ${PROJECT_SOURCE_DIR}/Sources/extension/sdk)

# tavelin_compile_as_one(VARIABLE FILE...): sets VARIABLE to a source that includes the given ones,
# since nearly all their time goes into the same headers. CMake does this for C++ alone.
function(tavelin_compile_as_one variable)
  if(NOT TAVELIN_UNITY OR TAVELIN_LAYERS_APART)
    set(${variable} ${ARGN} PARENT_SCOPE)
    return()
  endif()
  set(text)
  foreach(file IN LISTS ARGN)
    cmake_path(ABSOLUTE_PATH file NORMALIZE)
    string(APPEND text "#include \"${file}\"\n")
  endforeach()
  set(file ${CMAKE_CURRENT_BINARY_DIR}/${variable}.mm)
  file(CONFIGURE OUTPUT ${file} CONTENT "${text}" @ONLY)
  set(${variable} ${file} PARENT_SCOPE)
endfunction()

if(NOT APPLE)
  # GNUstep stands on gcc's Objective-C runtime. Its headers lie among gcc's own, which clang must
  # not see, so a link leads to them alone. That runtime knows no automatic reference counting.
  execute_process(COMMAND gcc -print-file-name=include OUTPUT_VARIABLE gcc_headers
                  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/gnustep)
  file(CREATE_LINK ${gcc_headers}/objc ${PROJECT_BINARY_DIR}/gnustep/objc SYMBOLIC)
  add_library(tavelin_gnustep INTERFACE)
  # Only tests use it here, and the build is longer than all they do.
  target_compile_options(tavelin_gnustep INTERFACE
    "$<$<COMPILE_LANGUAGE:OBJCXX>:-O0;-U_FORTIFY_SOURCE>"
    "$<$<COMPILE_LANGUAGE:OBJCXX>:-fobjc-runtime=gcc;-fblocks;-fexceptions;-fobjc-exceptions>"
    $<$<COMPILE_LANGUAGE:OBJCXX>:-fconstant-string-class=NSConstantString>)
  target_compile_definitions(tavelin_gnustep INTERFACE
    GNUSTEP GNUSTEP_BASE_LIBRARY=1 GNU_RUNTIME=1 _NATIVE_OBJC_EXCEPTIONS)
  target_include_directories(tavelin_gnustep SYSTEM INTERFACE
    ${TAVELIN_SDK}/gnustep ${PROJECT_BINARY_DIR}/gnustep /usr/include/GNUstep)
  target_include_directories(tavelin_gnustep INTERFACE ${TAVELIN_SDK}/any)
  # The blocks' own library comes first: gnustep-base has functions of the same names, which copy
  # nothing.
  target_link_libraries(tavelin_gnustep INTERFACE BlocksRuntime gnustep-base objc)
  # See Sources/extension/sdk/gnustep/personality.cpp.
  target_link_options(tavelin_gnustep INTERFACE LINKER:--wrap=__gnu_objc_personality_v0)

  # On macOS the 64-bit integers are long long, here they are long: overloads and deduced types
  # would differ.
  foreach(directory IN LISTS CMAKE_OBJCXX_IMPLICIT_INCLUDE_DIRECTORIES)
    set(architecture ${directory}/${CMAKE_LIBRARY_ARCHITECTURE})
    foreach(header ${directory}/bits/types.h ${architecture}/bits/types.h)
      if(EXISTS ${header})
        file(READ ${header} types)
      endif()
    endforeach()
  endforeach()
  string(REGEX REPLACE "(signed) long int (__u?int64_t)" "\\1 long long int \\2" types "${types}")
  file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/macos-check/bits/types.h CONTENT "${types}" @ONLY)

  # The macOS target with the standard headers of this system: _GNU_SOURCE is what clang defines by
  # itself for Linux, __nonnull what it defines for macOS and the C library wants for itself.
  set(TAVELIN_MACOS_CHECK
    ${CMAKE_OBJCXX_COMPILER} --target=x86_64-apple-macos15.4 -std=c++20
    -fobjc-runtime=macosx-15.0 -fobjc-arc -fblocks -fapplication-extension -fsyntax-only
    -Wall -Wextra -Wshadow -Wthread-safety -Wunguarded-availability-new -Wprotocol -Werror
    -D_GNU_SOURCE -U__nonnull -nostdinc -nostdinc++
    -isystem ${PROJECT_BINARY_DIR}/macos-check
    -I${TAVELIN_SDK}/apple -I${TAVELIN_SDK}/any -I${PROJECT_SOURCE_DIR}/Sources
    -I${PROJECT_BINARY_DIR}/generated)
  foreach(directory IN LISTS CMAKE_OBJCXX_IMPLICIT_INCLUDE_DIRECTORIES)
    list(APPEND TAVELIN_MACOS_CHECK -isystem ${directory})
  endforeach()
  list(APPEND TAVELIN_MACOS_CHECK -x objective-c++)
endif()
