# Builds the module on another folder's base classes and proves that not one file of ours takes part. The other folder
# holds what the public documentation names, and nothing that works: a class, a member or a declaration that only our own
# layer has does not compile there, and a function that it lacks does not link.
# Usage: cmake -DSOURCE=<project> -DCONTROL=<a build without the option> -DWORK=<folder to use> -DTOOLCHAIN=<file> -P this

# Sets COUNT to how many of a build's compilations take a source file, an include folder or a header check of ours.
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

# Sets LINES to how many files below FOLDER the compiler has read, over all that has been built.
function(count_read build folder lines)
  execute_process(COMMAND ${NINJA} -C ${build} -t deps OUTPUT_VARIABLE read RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "${build} does not tell what it has read")
  endif()
  file(RELATIVE_PATH relative ${build} ${folder}) # which is what a compiler cache may make of a path
  string(REGEX MATCHALL "\n +(${folder}|${relative})/" found "${read}")
  list(LENGTH found length)
  set(${lines} ${length} PARENT_SCOPE)
endfunction()

function(run)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE failed)
  if(failed)
    string(REPLACE ";" " " command "${ARGN}")
    message(FATAL_ERROR "${command}\n${output}")
  endif()
endfunction()

find_program(NINJA ninja REQUIRED)
count_ours(${CONTROL} ours)
if(ours LESS 10)
  message(FATAL_ERROR "without the option ours should be compiled, but only ${ours} compilations know of it")
endif()
count_read(${CONTROL} "${SOURCE}/baseclasses" ours)
if(ours LESS 10)
  message(FATAL_ERROR "without the option ours should be read, but only ${ours} files of it were")
endif()

file(REMOVE_RECURSE ${WORK})
file(GLOB files ${SOURCE}/tests/com/documented_streams/*)
file(COPY ${files} DESTINATION ${WORK}/platform)
run(${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build -G Ninja -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCMAKE_BUILD_TYPE=Debug
    -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DKESTRA_BASECLASSES_DIR=${WORK}/platform)
count_ours(${WORK}/build ours)
if(NOT ours EQUAL 0)
  message(FATAL_ERROR "with the option ${ours} compilations still know of our base classes")
endif()
run(${CMAKE_COMMAND} --build ${WORK}/build --parallel 2 --target KestraCapture)
if(NOT EXISTS ${WORK}/build/server/KestraCapture.dll)
  message(FATAL_ERROR "the module was not linked")
endif()
count_read(${WORK}/build "${SOURCE}/baseclasses" ours)
if(NOT ours EQUAL 0)
  message(FATAL_ERROR "with the option ${ours} files of our base classes were read")
endif()
count_read(${WORK}/build "${WORK}/platform" theirs)
if(theirs LESS 10)
  message(FATAL_ERROR "the files of the folder that the option names were read only ${theirs} times")
endif()

# What only we declare must be missed: the test is of no use where it is not.
file(READ ${WORK}/platform/documented.inc list)
string(REPLACE "METHOD(HRESULT, AgreeMediaType" "METHOD(HRESULT, NotAgreeMediaType" list "${list}")
file(WRITE ${WORK}/platform/documented.inc "${list}")
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK}/build --target capture
                OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE failed)
if(NOT failed OR NOT output MATCHES "AgreeMediaType")
  message(FATAL_ERROR "a member that is not documented is not missed:\n${output}")
endif()

file(REMOVE ${WORK}/platform/streams.h)
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build
                OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE failed)
if(NOT failed OR NOT output MATCHES "no streams.h in")
  message(FATAL_ERROR "a folder without streams.h is taken:\n${output}")
endif()
file(REMOVE_RECURSE ${WORK})
