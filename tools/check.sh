# The checks that need no run: formatting, both compilers, clang-tidy. Sourced by ./kestra.

# One pinned version on every system: two releases of clang-format do not agree on this tree.
clang_format_version=1.8.0 # of the npm package, which holds LLVM's 15.0.0
clang_format=$root/build/clang-format/node_modules/clang-format/bin/linux_x64/clang-format

install_clang_format() {
    [ ! -f "$clang_format" ] || return 0
    say "fetching clang-format"
    install_npm_package clang-format "clang-format@$clang_format_version"
}

# format_tree OPTION...: clang-format with these options over all of it.
format_tree() {
    (cd "$root" && git ls-files -z '*.h' '*.cpp' '*.c' | xargs -0 "$clang_format" "$@")
}

check_format() {
    step "formatting ($("$clang_format" --version))"
    format_tree --dry-run --Werror || die "run ./kestra format"
}

check_clang() {
    step "second compiler ($(clang --version | head -n 1), warnings are errors)"
    build_preset windows-clang
}

# clang-tidy over what the clang build compiles of the product, the simulated card and the tools.
check_tidy() {
    step "$(clang-tidy --version | grep -m 1 -i version)"
    local files
    mapfile -t files < <(cd "$root" && git ls-files '*.cpp' |
        grep -E '^(log|ctl|device|decode|capture|pages|server|baseclasses|imagelib|simcard)/' |
        while read -r file; do grep -qF "\"file\": \"$root/$file\"" build/windows-clang/compile_commands.json && echo "$file"; done)
    [ "${#files[@]}" -gt 0 ] || return 0
    (cd "$root" && printf '%s\0' "${files[@]}" |
        xargs -0 -n 4 -P "$(nproc)" clang-tidy -p build/windows-clang --quiet 2> build/tidy.err) ||
        die "clang-tidy has findings (above)"
}
