# The checks that need no run: formatting, both compilers, clang-tidy. Sourced by ./kestra.

check_format() {
    step "formatting (clang-format 14)"
    local files
    mapfile -t files < <(cd "$root" && git ls-files '*.h' '*.cpp' '*.c')
    (cd "$root" && clang-format-14 --dry-run --Werror "${files[@]}") || die "run ./kestra format"
}

check_clang() {
    step "second compiler (clang 14, warnings are errors)"
    configure windows-clang
    quietly build/windows-clang/build.log cmake --build "$root/build/windows-clang"
}

# clang-tidy over what the clang build compiles of the product, the simulated card and the tools.
check_tidy() {
    step "clang-tidy 14"
    local files
    mapfile -t files < <(cd "$root" && git ls-files '*.cpp' |
        grep -E '^(log|device|decode|capture|pages|server|baseclasses|imagelib|simcard)/' |
        while read -r file; do grep -qF "\"file\": \"$root/$file\"" build/windows-clang/compile_commands.json && echo "$file"; done)
    [ "${#files[@]}" -gt 0 ] || return 0
    (cd "$root" && printf '%s\0' "${files[@]}" |
        xargs -0 -n 4 -P "$(nproc)" clang-tidy-14 -p build/windows-clang --quiet 2> build/tidy.err) ||
        die "clang-tidy has findings (above)"
}
