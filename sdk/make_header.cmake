# Makes the one header that is installed of those that the library itself is built from:
#   cmake -DOUTPUT=tarnis.h -DVERSION=1.0.0 "-DPARTS=a.h;b.h" -P make_header.cmake
# Of each part everything after "#pragma once", without the includes of other parts.
set(text "// Kestra cards for programs: finds the cards, opens them, grabs frames and decodes them. C11 and C++; C linkage.
// Version ${VERSION}. doc/sdk.md says how it all goes together.
#pragma once
")
foreach(part IN LISTS PARTS)
  file(READ ${part} content)
  string(FIND "${content}" "#pragma once\n" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "${part} has no #pragma once")
  endif()
  math(EXPR at "${at} + 13")
  string(SUBSTRING "${content}" ${at} -1 content)
  string(REGEX REPLACE "\n#include \"[^\n]*" "" content "${content}")
  string(REGEX REPLACE "\n\n\n+" "\n\n" content "${content}")
  string(APPEND text "${content}")
endforeach()
file(WRITE ${OUTPUT} "${text}")
