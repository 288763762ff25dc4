# What ./kestra coverage builds: the product counts its lines and branches, and the C++ library checks its callers (indices,
# empty containers and pointers). Optimised so far that each condition has just its two branches: without, the compiler adds some
# of its own for the ways by which a scope with destructors ends. What would make one branch of several conditions is off, and so
# is inlining, so that each function counts once. The frame decoder keeps its optimisation, or its exhaustive tests would take hours.
set(kestra_covered "")
foreach(folder baseclasses capture compliance ctl device imagelib interfaces log pages protocol server sync trace win32)
  list(APPEND kestra_covered ${PROJECT_SOURCE_DIR}/${folder})
endforeach()
set(kestra_covered_optimised ${PROJECT_SOURCE_DIR}/decode)
# What a program has of a header's function is one copy, which may be a test's: the tests count, too.
foreach(folder com device sdk trace traces unit)
  list(APPEND kestra_covered ${PROJECT_SOURCE_DIR}/tests/${folder})
endforeach()
# The others need not be fast, and build sooner so.
set(kestra_slow_tests "")
foreach(folder clients compliance ctl)
  list(APPEND kestra_slow_tests ${PROJECT_SOURCE_DIR}/tests/${folder})
endforeach()
set(kestra_counters --coverage -fprofile-update=atomic --param=logical-op-non-short-circuit=0 -fno-tree-reassoc -fno-ssa-phiopt)
target_compile_options(kestra_options INTERFACE
  "$<$<AND:$<IN_LIST:$<TARGET_PROPERTY:SOURCE_DIR>,${kestra_covered}>,$<NOT:$<STREQUAL:$<TARGET_PROPERTY:NAME>,decode_test>>>:${kestra_counters};-Og;-fno-inline>"
  "$<$<IN_LIST:$<TARGET_PROPERTY:SOURCE_DIR>,${kestra_covered_optimised}>:${kestra_counters};-O1>"
  "$<$<IN_LIST:$<TARGET_PROPERTY:SOURCE_DIR>,${kestra_slow_tests}>:-O0>")
target_link_options(kestra_options INTERFACE --coverage)
if(WIN32)
  # A Windows program writes its counters through an end of our own, also where it ends itself abruptly.
  add_library(kestra_coverage_end STATIC ${PROJECT_SOURCE_DIR}/tests/support/coverage_end.cpp)
  target_link_options(kestra_options INTERFACE -Wl,-u,kestra_coverage_end -Wl,--wrap=__imp_TerminateProcess)
  target_link_libraries(kestra_options INTERFACE kestra_coverage_end gcov kernel32)
endif()
