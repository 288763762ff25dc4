# clang for the same target, with GCC's runtime and C++ library. GCC's driver links, because it knows
# where its own start-up files and libraries lie.
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-mingw-common.cmake)
set(CMAKE_C_COMPILER clang-14)
set(CMAKE_CXX_COMPILER clang++-14)
set(CMAKE_C_COMPILER_TARGET ${KESTRA_MINGW})
set(CMAKE_CXX_COMPILER_TARGET ${KESTRA_MINGW})
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

execute_process(COMMAND ${KESTRA_MINGW}-g++-posix -print-libgcc-file-name
                OUTPUT_VARIABLE KESTRA_LIBGCC OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
get_filename_component(KESTRA_GCC_DIR ${KESTRA_LIBGCC} DIRECTORY)
set(CMAKE_CXX_FLAGS_INIT
    "-stdlib++-isystem ${KESTRA_GCC_DIR}/include/c++ -cxx-isystem ${KESTRA_GCC_DIR}/include/c++/${KESTRA_MINGW}")

find_program(KESTRA_LINK_DRIVER ${KESTRA_MINGW}-g++-posix REQUIRED)
set(CMAKE_CXX_LINK_EXECUTABLE
    "${KESTRA_LINK_DRIVER} <CMAKE_CXX_LINK_FLAGS> <LINK_FLAGS> <OBJECTS> -o <TARGET> <LINK_LIBRARIES>")
set(CMAKE_CXX_CREATE_SHARED_LIBRARY
    "${KESTRA_LINK_DRIVER} <CMAKE_SHARED_LIBRARY_CXX_FLAGS> <LANGUAGE_COMPILE_FLAGS> <LINK_FLAGS> -shared -o <TARGET> -Wl,--out-implib,<TARGET_IMPLIB> <OBJECTS> <LINK_LIBRARIES>")
