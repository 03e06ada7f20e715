# Options, compiler flags and the default build type.

string(COMPARE EQUAL "${CMAKE_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}" at_the_top)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES AND at_the_top)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

# Tests and tools are on at the top level when what they need is installed; asking for them by name
# makes the packages mandatory.
set(tests_default OFF)
set(tools_default OFF)
if(at_the_top)
  find_package(GTest QUIET)
  find_package(CLI11 QUIET)
  find_package(fmt QUIET)
  find_package(OpenSSL QUIET COMPONENTS Crypto)
  if(CLI11_FOUND AND fmt_FOUND AND OPENSSL_FOUND)
    set(tools_default ON)
  endif()
  find_path(TARN_RAPIDCHECK_INCLUDE rapidcheck.h)
  if(GTest_FOUND AND TARN_RAPIDCHECK_INCLUDE AND CLI11_FOUND AND fmt_FOUND)
    set(tests_default ON)
  endif()
  foreach(what tests tools)
    if(NOT ${what}_default)
      message(STATUS "tarn: ${what} are not built by default, packages are missing (scripts/setup installs them)")
    endif()
  endforeach()
endif()

option(TARN_BUILD_TESTS "Build the tests" ${tests_default})
option(TARN_BUILD_TOOLS "Build the command line tool" ${tools_default})
option(TARN_BUILD_BENCH "Build the benchmarks" OFF)
option(TARN_BUILD_EXAMPLES "Build the examples" OFF)
option(TARN_WERROR "Treat warnings as errors" OFF)
option(TARN_INSTALL "Install the libraries, the headers and what finds them" ${at_the_top})
set(TARN_SANITIZE "" CACHE STRING "Sanitizers: address,undefined or thread")

add_library(tarn_flags INTERFACE)
target_compile_features(tarn_flags INTERFACE cxx_std_17)
target_compile_options(tarn_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wcast-align
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual>
  $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety>
  $<$<BOOL:${TARN_WERROR}>:-Werror>)
set(CMAKE_CXX_EXTENSIONS OFF)

# What links the static library into a C program.
set(TARN_CXX_RUNTIME stdc++)
if("c++" IN_LIST CMAKE_CXX_IMPLICIT_LINK_LIBRARIES)
  set(TARN_CXX_RUNTIME c++)
endif()

# ccache keeps nothing that was compiled with precompiled headers, unless its user allows it to be
# careless.
if(CMAKE_CXX_COMPILER_LAUNCHER MATCHES ccache)
  set(CMAKE_DISABLE_PRECOMPILE_HEADERS ON)
endif()

if(TARN_SANITIZE)
  target_compile_options(tarn_flags INTERFACE
    -fsanitize=${TARN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g1)
  if(TARN_SANITIZE MATCHES undefined)
    # This one check opens a pipe for every object that it looks at: without descriptors to be had,
    # as some tests want it, every object looks wrong to it.
    target_compile_options(tarn_flags INTERFACE -fno-sanitize=vptr)
  endif()
  # On the libraries' users as well: a shared library with a sanitizer needs its runtime first.
  add_link_options(-fsanitize=${TARN_SANITIZE})
endif()
