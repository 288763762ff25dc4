# The checks that run nothing: formatting, both compilers, clang-tidy. Sourced by ./kestra.

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

# clang-tidy over the product, the simulated card and the tools, as far as the clang build compiles them. What it has passed once,
# in any working tree, is not looked at again until the source, a header, the configuration or the compiler's options change: a
# stamp of all that stands in the user's cache.
check_tidy() {
    local version build=$root/build/windows-clang stamps=${XDG_CACHE_HOME:-$HOME/.cache}/kestra/clang-tidy key file changed=()
    version=$(clang-tidy --version)
    step "$(grep -m 1 -i version <<< "$version")"
    mkdir -p "$stamps"
    find "$stamps" -type f -mtime +30 -delete
    : > "$root/build/tidy.err"
    (cd "$root" && git ls-files '*.cpp' |
        grep -E '^(baseclasses|capture|compliance|ctl|decode|device|imagelib|log|pages|sdk|server|simcard|trace)/' |
        xargs tools/tidy-keys "$version" "$build") > "$root/build/tidy-keys"
    [ -s "$root/build/tidy-keys" ] || die "clang-tidy would look at nothing: the clang build is not there"
    while read -r key file; do
        [ -e "$stamps/$key" ] && touch "$stamps/$key" || changed+=("$key" "$file")
    done < "$root/build/tidy-keys"
    say "$((${#changed[@]} / 2)) of $(wc -l < "$root/build/tidy-keys") files changed"
    [ "${#changed[@]}" -gt 0 ] || return 0
    export build stamps
    (cd "$root" && printf '%s\0' "${changed[@]}" | xargs -0 -n 2 -P "$(nproc)" bash -euc '
        clang-tidy -p "$build" --quiet "$1" 2>> build/tidy.err
        touch "$stamps/$0"') || die "clang-tidy has findings (above, or in build/tidy.err)"
}
