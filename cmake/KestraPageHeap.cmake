# Every allocation at a guard page (tests/support/page_heap.h), in each program and module: one byte past its end, and a use
# after its end, stop the program on the spot. The C++ library checks its callers, too.
add_library(page_heap STATIC ${PROJECT_SOURCE_DIR}/tests/support/page_heap.cpp)
target_compile_features(page_heap PRIVATE cxx_std_20)
target_compile_options(page_heap PRIVATE -fno-builtin)
target_include_directories(page_heap PUBLIC ${PROJECT_SOURCE_DIR})
target_compile_definitions(kestra_options INTERFACE _GLIBCXX_ASSERTIONS KESTRA_PAGE_HEAP)
# Not the image library: it is loaded for each analysis, allocates nothing, and would leave its range of addresses each time.
set(kestra_is_guarded $<NOT:$<STREQUAL:$<TARGET_PROPERTY:NAME>,ippLib>>)
target_link_libraries(kestra_options INTERFACE $<${kestra_is_guarded}:page_heap>)
# Before the C library's own is looked for.
target_link_options(kestra_options INTERFACE $<${kestra_is_guarded}:-Wl,-u,malloc>)
