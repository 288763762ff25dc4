# ./kestra soak [CTEST-ARGUMENT...]: the long forms of the tests, one at a time; draws what each left behind over time on
# one page, out/soak.html. KESTRA_SOAK_PART=0.1: a tenth of the full numbers. Sourced by ./kestra.
# shellcheck source=tools/page.sh
. "$root/tools/page.sh"

soak_counts=$root/build/soak/counts # a JSON object a line; of a test that ran several times, the last is drawn

verb_soak() {
    with_tests=ON
    setup build demo test release
    install_windows_ffmpeg
    rm -f "$test_tally"
    build_preset windows
    build_preset native
    build_preset native-thread
    mkdir -p "${soak_counts%/*}"
    local -x KESTRA_LONG=1 KESTRA_SOAK_RESULTS=$soak_counts
    local -x KESTRA_SOAK_COMMIT
    KESTRA_SOAK_COMMIT=$(git -C "$root" describe --always --dirty)
    local preset
    for preset in native-thread native windows; do
        [ -n "$(test_list "$preset" "$@")" ] || continue
        [ "$preset" != windows ] || session_start
        test_run "$preset" -j 1 "$@"
    done
    if [ -s "$soak_counts" ]; then
        page_data counts "$soak_counts" > "$root/build/soak/results.json"
        page_write "$root/tests/support/soak_page.html" "$root/build/soak/results.json" "$root/out/soak.html"
    fi
    test_end
}
