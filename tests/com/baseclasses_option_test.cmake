# Configures the project with a folder of somebody else's base classes and proves that none of ours is compiled.
# Usage: cmake -DSOURCE=<project> -DCONTROL=<a build without the option> -DWORK=<folder to use> -DTOOLCHAIN=<file> -P this

# Sets COUNT to how many of a build's compilations take a file, an include folder or a header check of ours.
function(count_ours build count)
  file(READ ${build}/compile_commands.json commands)
  string(JSON entries LENGTH ${commands})
  set(found 0)
  math(EXPR last "${entries} - 1")
  foreach(i RANGE ${last})
    string(JSON file GET "${commands}" ${i} file)
    string(JSON command GET "${commands}" ${i} command)
    string(FIND "${file}" "${SOURCE}/baseclasses/" inFolder)
    string(FIND "${file}" "${build}/baseclasses/header_check/" inChecks)
    string(FIND "${command} " "-I${SOURCE}/baseclasses " included)
    if(inFolder EQUAL 0 OR inChecks EQUAL 0 OR included GREATER_EQUAL 0)
      math(EXPR found "${found} + 1")
    endif()
  endforeach()
  set(${count} ${found} PARENT_SCOPE)
endfunction()

count_ours(${CONTROL} ours)
if(ours LESS 10)
  message(FATAL_ERROR "without the option ours should be compiled, but only ${ours} compilations know of it")
endif()

file(REMOVE_RECURSE ${WORK})
file(WRITE ${WORK}/platform/streams.h "#pragma once\nint fromThePlatform();\n")
file(WRITE ${WORK}/platform/platform.cpp "#include <streams.h>\nint fromThePlatform() { return 1; }\n")
execute_process(
  COMMAND ${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build -G Ninja -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN}
          -DCMAKE_BUILD_TYPE=Release -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DKESTRA_BASECLASSES_DIR=${WORK}/platform
  OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "the project does not configure with the option:\n${output}")
endif()
count_ours(${WORK}/build ours)
if(NOT ours EQUAL 0)
  message(FATAL_ERROR "with the option ${ours} compilations still know of our base classes")
endif()
file(READ ${WORK}/build/compile_commands.json commands)
foreach(wanted "${WORK}/platform/platform.cpp" "-isystem ${WORK}/platform ")
  string(FIND "${commands}" "${wanted}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "nothing in the build says ${wanted}")
  endif()
endforeach()

execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK}/build --target baseclasses
                OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "the platform's files are not built:\n${output}")
endif()

execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build -DKESTRA_BASECLASSES_DIR=${WORK}/nowhere
                OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE failed)
if(NOT failed OR NOT output MATCHES "no streams.h in")
  message(FATAL_ERROR "a folder without streams.h is taken:\n${output}")
endif()
file(REMOVE_RECURSE ${WORK})
