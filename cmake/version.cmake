# Writes kestra_version.h if it would change. In: SOURCE, VERSION, HEADER.
# A release is a commit with the tag vX.Y.Z; any other tree counts from the last one, or from the first commit. A tree
# without git is taken for the release that it names.
set(text ${VERSION})
set(commits 0)
function(git result)
  execute_process(COMMAND git -C ${SOURCE} ${ARGN} OUTPUT_VARIABLE output OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE status ERROR_QUIET)
  if(status EQUAL 0)
    set(${result} "${output}" PARENT_SCOPE)
  else()
    set(${result} "" PARENT_SCOPE)
  endif()
endfunction()

git(head rev-parse --short=9 HEAD)
if(head)
  git(described describe --tags --long --dirty --abbrev=9 --match "v[0-9]*")
  if(described MATCHES "^v([0-9.]+)-([0-9]+)-g[0-9a-f]+(-dirty)?$")
    if(NOT CMAKE_MATCH_1 STREQUAL VERSION)
      message(FATAL_ERROR "the last tag is v${CMAKE_MATCH_1}, but CMakeLists.txt says ${VERSION}: a release changes both")
    endif()
    set(commits ${CMAKE_MATCH_2})
    set(dirty "${CMAKE_MATCH_3}")
  else()
    git(commits rev-list --count HEAD)
    git(changes status --porcelain --untracked-files=no)
    if(changes)
      set(dirty -dirty)
    endif()
  endif()
  if(commits GREATER 0)
    set(text ${VERSION}-${commits}-g${head})
  endif()
  string(APPEND text "${dirty}")
endif()
if(commits GREATER 65535)
  set(commits 65535)
endif()
string(REPLACE "." "," numbers ${VERSION}.${commits})
file(CONFIGURE OUTPUT ${HEADER} @ONLY CONTENT [[
#pragma once
#define KESTRA_VERSION_TEXT "@text@"
#define KESTRA_VERSION_NUMBERS @numbers@
]])
