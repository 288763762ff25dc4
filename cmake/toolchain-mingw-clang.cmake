# clang for the same target, with GCC's C++ library, for a second opinion on the code: it compiles only.
# The link steps are made empty once the platform's own rules are loaded (KESTRA_COMPILE_ONLY).
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-mingw-common.cmake)
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET ${KESTRA_MINGW})
set(CMAKE_CXX_COMPILER_TARGET ${KESTRA_MINGW})
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

execute_process(COMMAND ${KESTRA_MINGW}-g++-posix -print-libgcc-file-name
                OUTPUT_VARIABLE KESTRA_LIBGCC OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
get_filename_component(KESTRA_GCC_DIR ${KESTRA_LIBGCC} DIRECTORY)
set(CMAKE_CXX_FLAGS_INIT
    "-stdlib++-isystem ${KESTRA_GCC_DIR}/include/c++ -cxx-isystem ${KESTRA_GCC_DIR}/include/c++/${KESTRA_MINGW}")
set(KESTRA_COMPILE_ONLY ON)
