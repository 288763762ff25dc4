# ./kestra breaks [NAME...]: puts each fault of tests/walk/breaks (all, or those named) into a copy of the tree below
# build/breaks, alone, and looks whether the walk that it names finds it. Prints after how many calls, to how many steps the
# walk was shortened, and what it said. Fails if a fault stays unseen. Sourced by ./kestra.
# shellcheck source=tools/coverage.sh
. "$root/tools/coverage.sh"

breaks_tree=$root/build/breaks/tree
breaks_seeds=(1 1001 2001) # a fault that the first walk does not meet, the next one may

verb_breaks() {
    with_tests=ON
    setup build test
    mirror_tree "$breaks_tree"
    [ -f "$breaks_tree/build/windows/build.ninja" ] ||
        (cd "$breaks_tree" && quietly build/breaks-configure.log cmake --preset windows)
    local patch names=() name missed=0
    for patch in "$root"/tests/walk/breaks/*.patch; do names+=("$(basename "$patch" .patch)"); done
    [ $# -eq 0 ] || names=("$@")
    for name in "${names[@]}"; do breaks_restore "$name"; done
    step "building the copy"
    visibly build/breaks/build.log '^(\[[0-9]+/[0-9]+\] .*)$' cmake --build "$breaks_tree/build/windows" --target \
        device_walk_test filters_walk_test kestrasim kestrasimctl
    windows_build=$breaks_tree/build/windows
    session_start
    "$root/tests/support/simulated-card" install "$windows_build/simcard/kestrasimctl.exe" \
        "$windows_build/simcard/kestrasim.inf" > /dev/null
    step "faults"
    for name in "${names[@]}"; do breaks_find "$name" || missed=$((missed + 1)); done
    say "$((${#names[@]} - missed)) of ${#names[@]} faults found"
    [ "$missed" -eq 0 ]
}

# breaks_restore NAME: the files of that fault as they are here, and new, so that they are compiled.
breaks_restore() {
    local patch=$root/tests/walk/breaks/$1.patch file
    [ -f "$patch" ] || die "there is no fault of that name: $1"
    for file in $(sed -n 's#^+++ b/##p' "$patch"); do cp "$root/$file" "$breaks_tree/$file"; done
}

# breaks_find NAME: plants that fault and walks.
breaks_find() {
    local patch=$root/tests/walk/breaks/$1.patch walk seed log=$root/build/breaks/$1.log
    walk=$(sed -n 's/^Found by: //p' "$patch")
    patch -s -d "$breaks_tree" -p1 < "$patch" || die "$1 does not fit the tree any more"
    cmake --build "$breaks_tree/build/windows" --target "${walk}_test" > "$log" 2>&1 || die "$1 does not compile; see ${log#"$root"/}"
    breaks_restore "$1"
    for seed in "${breaks_seeds[@]}"; do
        KESTRA_SEED=$seed "$root/tools/run-windows" "$windows_build/tests/walk/${walk}_test.exe" > "$log" 2>&1 < /dev/null && continue
        breaks_row "$1" "$seed" < "$log"
        return 0
    done
    printf '  %-32s not found in %d walks\n' "$1" "${#breaks_seeds[@]}"
    return 1
}

# breaks_row NAME SEED < log: what the walk's test said of the fault.
breaks_row() {
    awk -v name="$1" -v seed="$2" '
        /^FAILED [a-z]+: / && !said { said = $0; sub(/^FAILED /, "", said); sub(/ in act 0x.*/, "", said) }
        /^ +after [0-9]+ calls/ && !calls { calls = $2 }
        /fails with [0-9]+ steps/ { for (i = 1; i < NF; ++i) if ($i == "with") steps = $(i + 1) }
        END { printf "  %-32s walk %d, after %d calls, %s: %s\n", name, seed, calls, steps ? "shortened to " steps " steps" : "not shortened", said }'
}
