# Installs the library for programs and uses it as a stranger would: nothing of the source tree but what was installed.
file(REMOVE_RECURSE ${WORK})
set(sdk ${WORK}/sdk)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    string(JOIN " " command ${ARGN})
    message(FATAL_ERROR "${command}\nended with ${result}:\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK} --component sdk)
file(GLOB_RECURSE files RELATIVE ${sdk} ${sdk}/*)
list(SORT files)
set(expected LICENSE THIRD_PARTY.md bin/tarnis.dll doc/sdk-states.svg doc/sdk.md include/tarnis.h
  lib/cmake/tarnis/tarnisConfig.cmake lib/cmake/tarnis/tarnisConfigVersion.cmake lib/libtarnis.dll.a
  lib/pkgconfig/tarnis.pc lib/tarnis.lib samples/CMakeLists.txt samples/grab.c samples/grab.py samples/recover.c)
if(NOT files STREQUAL expected)
  message(FATAL_ERROR "installed is\n  ${files}\nand not\n  ${expected}")
endif()
foreach(file IN LISTS files)
  if(NOT file MATCHES "^bin/|^lib/[^/]*$")
    file(READ ${sdk}/${file} text)
    string(FIND "${text}" "${SOURCE}/" at)
    if(NOT at EQUAL -1)
      message(FATAL_ERROR "${file} holds a path of this machine")
    endif()
  endif()
endforeach()

# What is exported by name, what the list says, what the header declares and what the documentation explains are the same.
run(x86_64-w64-mingw32-objdump -p ${sdk}/bin/tarnis.dll)
string(REGEX MATCH "Ordinal/Name Pointer\\] Table.*" table "${output}")
string(REGEX MATCHALL "[A-Za-z_]*TARNIS_[A-Za-z0-9]+" exported "${table}")
file(READ ${SOURCE}/sdk/tarnis.def definition)
string(REGEX MATCHALL "[A-Za-z_]*TARNIS_[A-Za-z0-9]+" listed "${definition}")
file(STRINGS ${sdk}/include/tarnis.h lines REGEX "^[A-Za-z].*TARNIS_[A-Za-z0-9]+\\(")
set(declared "")
foreach(line IN LISTS lines)
  string(REGEX MATCH "([A-Za-z_]*TARNIS_[A-Za-z0-9]+)\\(" match "${line}")
  list(APPEND declared ${CMAKE_MATCH_1})
endforeach()
file(STRINGS ${sdk}/doc/sdk.md lines REGEX "^#### ")
set(documented "")
foreach(line IN LISTS lines)
  string(REGEX MATCH "([A-Za-z_]*TARNIS_[A-Za-z0-9]+)\\(" match "${line}")
  list(APPEND documented ${CMAKE_MATCH_1})
endforeach()
list(LENGTH listed count)
if(NOT count EQUAL 20)
  message(FATAL_ERROR "the list has ${count} functions, not 20")
endif()
foreach(set exported declared documented)
  list(SORT ${set})
  list(SORT listed)
  if(NOT ${set} STREQUAL listed)
    message(FATAL_ERROR "${set} is\n  ${${set}}\nand not\n  ${listed}")
  endif()
endforeach()

# The header alone, in both languages.
set(strict -Wall -Wextra -Werror -pedantic-errors -fsyntax-only -I${sdk}/include)
file(WRITE ${WORK}/header.c "#include <tarnis.h>\n_Static_assert(sizeof(TarnisCameraData) == 28, \"layout\");\n_Static_assert(sizeof(TarnisFrameInfo) == 32, \"layout\");\n")
file(COPY_FILE ${WORK}/header.c ${WORK}/header.cpp)
file(WRITE ${WORK}/header.cpp "#include <tarnis.h>\n#include <tarnis.h>\n")
run(${CC} -std=c11 ${strict} ${WORK}/header.c)
foreach(standard 11 20)
  run(${CXX} -std=c++${standard} ${strict} ${WORK}/header.cpp)
endforeach()

# The samples by the documentation's own commands: through the CMake package, and one of them through pkg-config.
file(READ ${sdk}/doc/sdk.md text)
if(NOT text MATCHES "```sh\n([^`]*)```")
  message(FATAL_ERROR "the documentation has no commands")
endif()
file(WRITE ${WORK}/commands "${CMAKE_MATCH_1}")
set(ENV{CMAKE_GENERATOR} Ninja)
set(ENV{CFLAGS} "-Wall -Wextra -Werror -pedantic-errors")
run(${CMAKE_COMMAND} -E chdir ${sdk} bash -e ${WORK}/commands)
set(others ${WORK}/others)
file(COPY ${sdk}/bin/tarnis.dll ${sdk}/grab.exe DESTINATION ${others})

# And the library for other linkers through one that is not GNU's, without any C library.
file(WRITE ${others}/bare.c "#include <tarnis.h>
int start(void) {
    TarnisConverterParams parameters = {0};
    return TARNIS_GetDefaultColorSpaceConverterParams(&parameters) == TARNIS_SUCCESS && parameters.YOff == 64 ? 42 : 1;
}
")
run(${CC} -std=c11 -c -I${sdk}/include ${others}/bare.c -o ${others}/bare.obj)
run(lld-link /nologo /nodefaultlib /subsystem:console /entry:start /out:${others}/bare.exe ${others}/bare.obj ${sdk}/lib/tarnis.lib)

# Python for Windows is in no package: the sample's records are compared with the header's, and its picture is read back.
file(WRITE ${WORK}/check.py "
import ctypes, sys, zlib
sys.dont_write_bytecode = True
sys.path.insert(0, r'${sdk}/samples')
import grab
assert ctypes.sizeof(grab.CameraStatus) == 16 and grab.CameraStatus.width.offset == 10 and grab.CameraStatus.signalFlags.offset == 15
assert ctypes.sizeof(grab.CameraData) == 28 and grab.CameraData.status.offset == 8 and grab.CameraData.extra.offset == 24
assert ctypes.sizeof(grab.DeviceEnumData) == 24 and grab.DeviceEnumData.interfaceDetail.offset == 8
padded = bytes([3, 2, 1, 6, 5, 4, 0, 0, 9, 8, 7, 12, 11, 10, 0, 0])
rgb = grab.rgb_of(padded, 8, 2, 2)
assert rgb == bytes(range(1, 13)), rgb
open(r'${WORK}/picture.png', 'wb').write(grab.png_of(2, 2, rgb))
")
run(python3 ${WORK}/check.py)
run(convert ${WORK}/picture.png -depth 8 txt:-)
foreach(colour "#010203" "#040506" "#070809" "#0A0B0C")
  if(NOT output MATCHES "${colour}")
    message(FATAL_ERROR "the picture lacks ${colour}:\n${output}")
  endif()
endforeach()
