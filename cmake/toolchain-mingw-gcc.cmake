# MinGW-w64 GCC with the POSIX thread model: the compiler that builds what ships.
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-mingw-common.cmake)
set(CMAKE_C_COMPILER ${KESTRA_MINGW}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KESTRA_MINGW}-g++-posix)
