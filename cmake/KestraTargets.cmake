# The project's own target functions: one way to declare a library, a test, a header check.

# Compile options for our own code; third-party code (GoogleTest) is built without them.
add_library(kestra_options INTERFACE)
target_compile_features(kestra_options INTERFACE cxx_std_20)
target_compile_options(kestra_options INTERFACE -Wall -Wextra -Werror -ffp-contract=off
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
target_include_directories(kestra_options INTERFACE ${PROJECT_SOURCE_DIR})
if(WIN32)
  target_compile_definitions(kestra_options INTERFACE
    UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX _WIN32_WINNT=0x0A00 NTDDI_VERSION=0x0A000000)
  target_link_options(kestra_options INTERFACE -static)
endif()
if(KESTRA_SANITIZE OR KESTRA_SANITIZE_THREADS)
  target_compile_definitions(kestra_options INTERFACE _GLIBCXX_ASSERTIONS)
endif()
if(KESTRA_SANITIZE)
  target_compile_options(kestra_options INTERFACE
    -fsanitize=address,undefined,fuzzer-no-link -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(kestra_options INTERFACE -fsanitize=address,undefined)
endif()
if(KESTRA_SANITIZE_THREADS)
  target_compile_options(kestra_options INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(kestra_options INTERFACE -fsanitize=thread)
endif()

if(KESTRA_PAGE_HEAP)
  include(cmake/KestraPageHeap.cmake)
endif()
if(KESTRA_COVERAGE)
  include(cmake/KestraCoverage.cmake)
endif()

# kestra_library(NAME SOURCES file... [HEADERS file...] [LINKS target...])
# A static library of this folder. Every header named (public or not) must compile on its own: an object
# library with one generated source per header proves that at build time.
function(kestra_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;HEADERS;LINKS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES} ${ARG_HEADERS})
  target_link_libraries(${name} PUBLIC kestra_options ${ARG_LINKS})
  kestra_check_headers(${name} ${ARG_HEADERS})
endfunction()

function(kestra_check_headers name)
  if(KESTRA_COVERAGE) # it counts nothing there
    return()
  endif()
  set(stubs "")
  foreach(header IN LISTS ARGN)
    string(MAKE_C_IDENTIFIER ${header} id)
    set(stub ${CMAKE_CURRENT_BINARY_DIR}/header_check/${id}.cpp)
    file(CONFIGURE OUTPUT ${stub} CONTENT "#include \"${CMAKE_CURRENT_SOURCE_DIR}/${header}\"\n" @ONLY)
    list(APPEND stubs ${stub})
  endforeach()
  if(stubs)
    add_library(${name}_headers OBJECT ${stubs})
    target_link_libraries(${name}_headers PRIVATE ${name})
  endif()
endfunction()

# kestra_test_limit(NAME [seconds]): how long a test may take: 300 s if it does not say, and all the same in a long run.
set(KESTRA_TEST_LIMIT 0 CACHE STRING "Seconds that any test may take; 0: as long as each says")
function(kestra_test_limit name)
  set(seconds ${ARGN} 300)
  list(GET seconds 0 seconds)
  if(KESTRA_TEST_LIMIT)
    set(seconds ${KESTRA_TEST_LIMIT})
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${seconds})
endfunction()

# kestra_test(NAME SOURCES file... [LINKS target...] [LABELS label...] [CARD] [TIMEOUT seconds])
# One GoogleTest program, registered with CTest as one test. CARD: it uses the simulated card, which all
# such programs share, so they never run at the same time, and the card is installed before the first.
function(kestra_test name)
  cmake_parse_arguments(ARG "CARD" "TIMEOUT" "SOURCES;LINKS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE kestra_options ${ARG_LINKS} kestra_test_main)
  add_test(NAME ${name} COMMAND ${name} --gtest_color=no)
  kestra_test_limit(${name} ${ARG_TIMEOUT})
  set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}")
  if(ARG_CARD)
    set_tests_properties(${name} PROPERTIES RESOURCE_LOCK simulated_card FIXTURES_REQUIRED simulated_card)
  endif()
endfunction()

# kestra_command_test(NAME COMMAND command... [DEPENDS target...] [LABELS label...] [TIMEOUT seconds])
# A test that is more than one program of ours. A target of its name builds what it needs.
function(kestra_command_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "COMMAND;DEPENDS;LABELS" ${ARGN})
  add_test(NAME ${name} COMMAND ${ARG_COMMAND})
  kestra_test_limit(${name} ${ARG_TIMEOUT})
  set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}")
  add_custom_target(${name} DEPENDS ${ARG_DEPENDS})
endfunction()
