# Every target of this project is built for 32-bit x86. The -m32 flag is part
# of the compiler command itself, so flags given later on the command line
# (sanitizers, for example) can never drop it and produce a 64-bit build.
# CMAKE_SYSTEM_NAME is left unset on purpose: the host runs i386 code
# natively, and cross-compiling mode breaks check_cxx_source_runs.
set(CMAKE_C_COMPILER gcc -m32)
set(CMAKE_CXX_COMPILER g++ -m32)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR i686)
