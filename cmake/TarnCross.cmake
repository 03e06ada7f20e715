# Toolchain of Debian's cross compilers. TARN_TARGET names one by its prefix, as in
# "s390x-linux-gnu"; what it makes runs under qemu-user, unless this machine runs it anyway.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TARN_TARGET)
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR ${TARN_TARGET})
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${TARN_TARGET}-gcc)
set(CMAKE_CXX_COMPILER ${TARN_TARGET}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${TARN_TARGET})
foreach(what LIBRARY INCLUDE PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_${what} ONLY)
endforeach()

# The loader and the libraries that lie there, for programs that are run.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath,/usr/${TARN_TARGET}/lib")
if(CMAKE_SYSTEM_PROCESSOR STREQUAL i686)
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT
         " -Wl,--dynamic-linker=/usr/${TARN_TARGET}/lib/ld-linux.so.2")
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${CMAKE_SYSTEM_PROCESSOR};-L;/usr/${TARN_TARGET})
endif()
