# ./kestra coverage [TEST...]: which lines and branches of the product the tests run. Builds a copy of the tree with gcov's
# counters, natively and for Windows, runs its tests (all, or those whose names match), merges both and writes out/coverage.
# Sourced by ./kestra.
#
# Branches that only an exception takes do not count, and the build (cmake/KestraCoverage.cmake) keeps the compiler from adding some
# of its own. What a process did that another one killed is lost: it never wrote its counters.

coverage_folders=(baseclasses capture decode device imagelib interfaces log pages protocol server sync trace win32)
coverage_tools=(ctl compliance) # beside the product
coverage_tree=$root/build/coverage/tree
coverage_lines=98 coverage_branches=90 # per cent of the product; less fails

# mirror_tree FOLDER: makes or refreshes a copy of the tree to build and run in, with what npm has brought. A file that has become
# newer there stays as it is.
mirror_tree() {
    local file
    mkdir -p "$1/build"
    (cd "$root" && git ls-files -z --cached --others --exclude-standard | while IFS= read -r -d '' file; do
        [ ! -e "$file" ] || printf '%s\0' "$file"
    done > "$1/build/files" && xargs -0 cp --parents -pu -t "$1" < "$1/build/files")
    # What the tree has no more.
    find "$1" -path "$1/build" -prune -o -path "$1/out" -prune -o -type f -printf '%P\0' | sort -z |
        comm -z -13 <(sort -z "$1/build/files") - | (cd "$1" && xargs -0 -r rm)
    local brought
    for brought in clang-format ffmpeg; do
        [ ! -d "$root/build/$brought" ] || ln -sfnT "$root/build/$brought" "$1/build/$brought"
    done
}

# coverage_count PRESET GCOV: the counters of that build as gcovr's JSON.
# Not those of other builds, to which a Wine prefix leads.
coverage_count() {
    local filters=() folder
    for folder in "${coverage_folders[@]}" "${coverage_tools[@]}"; do filters+=(--filter "$folder/"); done
    (cd "$coverage_tree" && gcovr --root . "${filters[@]}" --gcov-executable "$2" --exclude-throw-branches \
        --exclude-unreachable-branches --gcov-ignore-parse-errors --exclude-directories '.*/wineprefix' -j "$(nproc)" --json "../$1.json" "build/$1") > "$root/build/coverage/$1.log" 2>&1 ||
        die "gcovr failed; see build/coverage/$1.log"
    # Two systems' functions of one name begin at different lines, which gcovr does not merge.
    python3 -c 'import json, sys
with open(sys.argv[1]) as file: counts = json.load(file)
for entry in counts["files"]: entry["functions"] = []
with open(sys.argv[1], "w") as file: json.dump(counts, file)' "$root/build/coverage/$1.json"
}

coverage_build() {
    local preset
    for preset in "$@"; do
        [ -f "$coverage_tree/build/$preset/build.ninja" ] ||
            (cd "$coverage_tree" && quietly "build/coverage/$preset-configure.log" cmake --preset "$preset" -DKESTRA_COVERAGE=ON)
        step "building with counters: $preset"
        visibly "build/coverage/$preset-build.log" '^(\[[0-9]+/[0-9]+\] .*)$' cmake --build "$coverage_tree/build/$preset"
    done
}

# coverage_run PRESET [CTEST-ARGUMENT...]: counts from zero. A failed test counts what it ran, too; it is named.
coverage_run() {
    local preset=$1
    shift
    step "tests with counters: $preset"
    find "$coverage_tree/build/$preset" -name '*.gcda' -delete
    (cd "$coverage_tree" && ctest --preset "$preset" --no-tests=error --timeout 1800 "$@" > "$root/build/coverage/$preset-tests.log" 2>&1) ||
        say "tests failed in the build with counters: build/coverage/$preset-tests.log"
    tail -n 3 "$root/build/coverage/$preset-tests.log"
}

verb_coverage() {
    with_tests=ON
    setup build demo test coverage
    install_windows_ffmpeg
    local chosen=() here=$root
    if [ $# -gt 0 ]; then
        chosen=(-R "$(IFS='|'; echo "$*")")
        coverage_lines=0 coverage_branches=0 # the aims are all tests'
    fi
    mirror_tree "$coverage_tree"
    coverage_build native windows
    coverage_run native -j "$(nproc)" "${chosen[@]}"
    coverage_count native gcov
    # The copy's own Wine prefix; its tests find everything else by where they lie.
    windows_build=$coverage_tree/build/windows
    root=$coverage_tree session_start
    GCOV_PREFIX=Z: coverage_run windows -j 1 "${chosen[@]}"
    coverage_count windows x86_64-w64-mingw32-gcov-posix
    coverage_report
}

coverage_report() {
    step "coverage"
    local out=$root/out/coverage
    rm -rf "$out"
    mkdir -p "$out"
    (cd "$coverage_tree" && gcovr --root . -a ../native.json -a ../windows.json --html-details "$out/index.html" \
        --html-title "Kestra capture module: coverage" --json "$root/build/coverage/all.json" > /dev/null)
    "$root/tools/coverage-table" "$root/build/coverage/all.json" --product "${coverage_folders[@]}" --tools "${coverage_tools[@]}" \
        --least "$coverage_lines" "$coverage_branches" | tee "$out/table.txt"
    say "each line: out/coverage/index.html; lines that no test runs: ./tools/coverage-table build/coverage/all.json --missing FOLDER"
}
