# clang for 32-bit x86, for the fuzz targets (gcc has no libFuzzer). As in
# i386-toolchain.cmake, -m32 is part of the compiler command itself.
set(CMAKE_C_COMPILER clang -m32)
set(CMAKE_CXX_COMPILER clang++ -m32)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR i686)
