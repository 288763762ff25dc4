# ./kestra test [NAME...]: all tests, or those of a folder (device, log, com, ...), or those whose names contain NAME.
# Sourced by ./kestra.

test_tally=$root/build/tests.txt # a line for each test program that ran

# run_ctest PRESET [ARGUMENT...]: fails if a test failed; notes what ran in the tally.
run_ctest() {
    step "tests: $1"
    # Shorter than a test's time limit, so that a hung test can still be asked what it was doing.
    [ "$1" != windows ] || [ -n "${KESTRA_LONG:-}" ] || local -x KESTRA_WATCH_SECONDS=280
    test_limit "$1"
    local status=0
    (cd "$root" && ctest --preset "$1" --no-tests=error -j "$(nproc)" "${@:2}") || status=$?
    # Listing tests would overwrite what ctest has written.
    mv "$root/build/$1/Testing/Temporary/LastTest.log" "$root/build/$1/tests.log"
    test_note "$1"
    return "$status"
}

# test_limit PRESET: in a long run no test's own limit holds.
test_limit() {
    local limit=${KESTRA_LONG:+172800}
    grep -q "^KESTRA_TEST_LIMIT:STRING=${limit:-0}\$" "$root/build/$1/CMakeCache.txt" ||
        quietly "build/$1/configure.log" cmake "$root/build/$1" -DKESTRA_TEST_LIMIT="${limit:-0}"
}

test_ctest() { (cd "$root" && ctest --preset "$@"); }

# test_list PRESET ARGUMENT...: the names of the tests that ctest selects by these arguments.
test_list() { test_ctest "$1" -N "${@:2}" | sed -nE 's/^ *Test +#[0-9]+: ([^ ]+).*/\1/p'; }

# test_folders PRESET: a line for each test with its folder, that is its first label.
test_folders() {
    local label
    for label in $(test_ctest "$1" --print-labels | sed -n 's/^  //p'); do
        test_list "$1" -L "^$label\$" | sed "s/^/$label /"
    done
}

# test_note PRESET: adds what ctest has just run to the tally: folder, program, preset, 1 if it failed, seconds, and how
# many of its tests passed, failed and were skipped. A program that does not count its tests is one.
test_note() {
    awk -v preset="$1" '
        FNR == NR { if (!($2 in folder)) folder[$2] = $1; next }
        /^[0-9]+\/[0-9]+ Test: / { name = $3; bad = 1; seconds = passed = failed = skipped = 0 }
        /^\[  PASSED  \] [0-9]+ tests?\./ { passed = $4 }
        /^\[  FAILED  \] [0-9]+ tests?, listed below/ { failed = $4 }
        /^\[  SKIPPED \] [0-9]+ tests?, listed below/ { skipped = $4 }
        /^Test time = / { seconds = $4 }
        /^Test Passed\./ { bad = 0 }
        /^".*" time elapsed: / {
            if (bad && failed == 0) failed = 1
            if (!bad && passed + skipped == 0) passed = 1
            if (name in folder || bad)
                print (name in folder ? folder[name] : "support"), name, preset, bad, seconds, passed, failed, skipped
        }' <(test_folders "$1") "$root/build/$1/tests.log" >> "$test_tally"
}

# The end of a run: what each folder has, what took longest, and whether all is well.
test_summary() {
    step "summary"
    sort "$test_tally" | awk '
        function row() { if (folder != "") printf "  %-12s %9d %7d %7d %8.1f\n", folder, programs, passed, failed, seconds }
        BEGIN { printf "  %-12s %9s %7s %7s %8s\n", "folder", "programs", "passed", "failed", "s" }
        $1 != folder { row(); folder = $1; programs = passed = failed = seconds = 0 }
        { ++programs; seconds += $5; passed += $6; failed += $7 }
        END { row() }'
    printf '  slowest: %s\n' "$(sort -k 5,5nr "$test_tally" | awk 'NR <= 5 { printf "%s%s %.1f s", (NR > 1 ? ", " : ""), $2, $5 }')"
    printf '  all: %d min %02d s\n' $((SECONDS / 60)) $((SECONDS % 60))
    awk '$4 { printf "  failed: %s (%s)\n", $2, $3 }' "$test_tally"
    awk '{ passed += $6; failed += $7; skipped += $8 }
         END { printf "%d passed, %d failed%s\n", passed, failed, skipped ? ", " skipped " skipped" : ""; exit failed > 0 }' "$test_tally"
}

# test_run PRESET [ARGUMENT...]: runs tests, and goes on if some fail.
test_failed=0
test_run() { run_ctest "$@" || test_failed=1; }

# test_end: prints the summary; fails if a test failed.
test_end() { test_summary && [ "$test_failed" -eq 0 ]; }

# test_some NAME...: builds what the tests of these names need, and runs them.
test_some() {
    local preset name found=0 wanted targets label pattern
    label="^($(IFS='|'; echo "$*"))\$" pattern=$(IFS='|'; echo "$*")
    for preset in windows native-sanitize native-thread; do
        configure "$preset"
        mapfile -t wanted < <({ test_list "$preset" -L "$label"; test_list "$preset" -R "$pattern"; } | sort -u)
        [ "${#wanted[@]}" -gt 0 ] || continue
        found=1
        # A test that is more than its program has a target of its name, which builds what it needs.
        targets=()
        for name in "${wanted[@]}"; do
            ! grep -q "^build $name: phony" "$root/build/$preset/build.ninja" || targets+=("$name")
        done
        [ "${#targets[@]}" -eq "${#wanted[@]}" ] || targets=()
        build_preset "$preset" "${targets[@]}"
        if [ "$preset" = windows ]; then
            [[ " ${wanted[*]} " != *" e2e_"* && " ${wanted[*]} " != *" clients_"* ]] || build_preset native check_recording check_synchrony
            [[ " ${wanted[*]} " != *" ctl_"* ]] || build_preset native check_film
            session_start
        fi
        test_run "$preset" -R "^($(IFS='|'; echo "${wanted[*]}"))\$"
    done
    [ "$found" -eq 1 ] || die "no test and no folder is called that: $*"
}

# Everything.
test_all() {
    build_preset windows
    install_out
    build_preset native-sanitize
    build_preset native-thread
    build_preset native check_film check_recording check_synchrony
    bench_build
    check_format
    check_clang
    check_tidy
    test_run native-sanitize
    test_run native-thread
    session_start
    test_run windows
    step "benchmarks, their shortest forms"
    bench_short
}

verb_test() {
    with_tests=ON
    setup build demo test bench release
    install_windows_ffmpeg
    install_clang_format
    rm -f "$test_tally"
    if [ $# -gt 0 ]; then
        test_some "$@"
    else
        test_all
    fi
    test_end
}
