# ./kestra guard [CTEST-ARGUMENT...]: tests with every allocation of programs and modules, and the task allocator's, at a guard
# page (tests/support/page_heap.h): device library, decoder, filters and both walks, or those that ctest selects. Built and run
# beside the usual tests, in build/windows-page-heap. Sourced by ./kestra.

verb_guard() {
    local chosen=("$@")
    [ $# -gt 0 ] || chosen=(-L '^(capture|com|decode|device|walk)$')
    with_tests=ON
    setup build demo test release
    rm -f "$test_tally"
    build_preset windows-page-heap
    windows_build=$root/build/windows-page-heap
    session_start
    test_run windows-page-heap "${chosen[@]}"
    test_end
}
