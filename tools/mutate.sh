# ./kestra mutate [FOLDER...]: breaks the product in one place at a time and looks whether a test finds it.
#
#   --minutes N   how long to run mutants in each of the two builds; without it: until all have run
#   --seed N      another order
#   --windows     then the Windows build, too, through Wine; without it only what runs natively
#
# Copies of the tree below build/mutate: one to be read, and for each of the two builds one that holds every mutant at once
# (tools/mutate/mutant.h), built once; a program is told at its start which mutant is alive. The results, a line each, stay in
# build/mutate/results.jsonl, and a further run goes on where the last one ended. Sourced by ./kestra.

mutate_folder=$root/build/mutate
mutate_folders=(protocol sync win32 log trace device decode imagelib baseclasses capture pages server)

# mutate_build PRESET: drops the mutants that do not compile, until the rest does.
mutate_build() {
    local preset=$1 mutate_tree=$mutate_folder/$1 round targets
    [ -f "$mutate_tree/build/$preset/build.ninja" ] ||
        (cd "$mutate_tree" && quietly "build/mutate/$preset-configure.log" cmake --preset "$preset" -DCMAKE_CXX_FLAGS_RELEASE=-O1 \
            -DCMAKE_PROJECT_KestraCapture_INCLUDE="$root/tools/mutate/mutants.cmake")
    for round in 1 2 3 4 5 6; do
        step "building with mutants: $preset, round $round"
        mapfile -t targets < <(mutate_targets "$preset")
        if cmake --build "$mutate_tree/build/$preset" --target "${targets[@]}" -- -k 0 > "$mutate_folder/$preset-build.log" 2>&1; then
            return 0
        fi
        mutate_drop "$preset" || die "the build fails beside the mutants: build/mutate/$preset-build.log"
        mutate_plant "$preset"
    done
    die "some mutants still do not compile: build/mutate/$preset-build.log"
}

# The test programs that count their tests, and what the Windows ones need beside them.
mutate_targets() {
    (cd "$mutate_tree" && ctest --preset "$1" --show-only=json-v1) | /usr/bin/python3 -c '
import json, sys
for test in json.load(sys.stdin)["tests"]: # one that has not been built has no command yet
    if "--gtest_color=no" in test.get("command", ["--gtest_color=no"]):
        print(test["name"])' |
        grep -vE '_NOT_BUILT$|^(planted_faults|clients|sdk|setup|shipped|compliance|kept_format|profile|ctl|doctor|sound_check)'
    [ "$1" != windows ] || printf '%s\n' KestraCapture ippLib kestrasim kestrasimctl
}

# mutate_drop PRESET: notes the lines that did not compile. Fails if there are no new ones.
mutate_drop() {
    local kept=$mutate_folder/$1/build/not-compiling.txt folders before after
    folders=$(IFS='|'; echo "${mutate_folders[*]}")
    touch "$kept"
    before=$(wc -l < "$kept")
    grep -E '(error|required from|in expansion|in .constexpr)' "$mutate_folder/$1-build.log" |
        sed -nE "s#^(\.\./\.\./|$mutate_folder/$1/)?(($folders)/[a-z0-9_/]+\.(cpp|h)):([0-9]+).*#\2:\5#p" | sort -u - "$kept" > "$kept.new"
    mv "$kept.new" "$kept"
    after=$(wc -l < "$kept")
    say "$((after - before)) more lines whose mutants do not compile"
    [ "$after" -gt "$before" ]
}

# mutate_plant PRESET: of the sources that this build compiles, and of those that Windows adds.
mutate_plant() {
    local builds=(build/native)
    [ "$1" = native ] || builds+=(build/windows-clang)
    (cd "$mutate_folder" && "$root/tools/mutate/plant.py" clean "$1" "${builds[@]}" -- "${mutate_folders[@]}") ||
        die "the mutants could not be planted"
}

# mutate_prepare PRESET: both copies, as the tree is now.
mutate_prepare() {
    local copy preset
    for copy in clean "$1"; do mirror_tree "$mutate_folder/$copy"; done
    cp -p "$root/tools/mutate/test_main.cpp" "$mutate_folder/$1/tests/support/"
    for preset in native windows-clang; do
        [ "$1" != native ] || [ "$preset" = native ] || continue
        [ -f "$mutate_folder/clean/build/$preset/build.ninja" ] ||
            (cd "$mutate_folder/clean" && quietly "build/mutate/clean-$preset.log" cmake --preset "$preset")
        ninja -C "$mutate_folder/clean/build/$preset" kestra_version_header > /dev/null
    done
    [ "$1" = native ] || ninja -C "$mutate_folder/clean/build/windows-clang" kestra_interfaces > /dev/null
    step "planting mutants: $1"
    mutate_plant "$1"
}

verb_mutate() {
    local minutes=100000 seed=1 windows='' folders=()
    while [ $# -gt 0 ]; do
        case $1 in
            --minutes) minutes=$2; shift ;;
            --seed) seed=$2; shift ;;
            --windows) windows=1 ;;
            *) folders+=("$1") ;;
        esac
        shift
    done
    [ "${#folders[@]}" -gt 0 ] || folders=("${mutate_folders[@]}")
    with_tests=ON
    setup build test mutate
    export CCACHE_DISABLE=1
    # shellcheck source=tools/coverage.sh
    . "$root/tools/coverage.sh"
    mutate_prepare native
    mutate_build native
    mutate_run native "$minutes" "$seed" "${folders[@]}"
    if [ -n "$windows" ]; then
        mutate_prepare windows
        mutate_build windows
        windows_build=$mutate_folder/windows/build/windows
        root=$mutate_folder/windows session_start
        "$mutate_folder/windows/tests/support/simulated-card" install "$windows_build/simcard/kestrasimctl.exe" \
            "$windows_build/simcard/kestrasim.inf" > /dev/null
        mutate_run windows "$minutes" "$seed" "${folders[@]}"
    fi
    "$root/tools/mutate/summary.py" "$mutate_folder" "${mutate_folders[@]}"
}

mutate_run() {
    step "mutants: $1"
    local more=()
    # A program that hangs may hold the driver: both begin anew.
    [ "$1" != windows ] || more=(--restart "'$root/tools/mutate/restart-windows' '$mutate_folder/windows'")
    nice -n 15 "$root/tools/mutate/run.py" "$mutate_folder/$1" "$1" --results "$mutate_folder/results.jsonl" \
        --seconds $(($2 * 60)) --seed "$3" "${more[@]}" "${@:4}"
}
