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

# clang-tidy over the product, the simulated card and the tools, as far as the clang build compiles them: over each source that
# has changed since it was last checked, or of which a header or clang-tidy's configuration has.
check_tidy() {
    step "$(clang-tidy --version | grep -m 1 -i version)"
    local build=$root/build/windows-clang stamps=$root/build/tidy file files=()
    ninja -C "$build" -t deps > "$root/build/tidy-deps"
    : > "$root/build/tidy.err"
    while read -r file; do
        [ ! -f "$stamps/$file" ] || [ -n "$(check_newer "$stamps/$file" "$file")" ] || continue
        files+=("$file")
    done < <(cd "$root" && git ls-files '*.cpp' |
        grep -E '^(baseclasses|capture|compliance|ctl|decode|device|imagelib|log|pages|sdk|server|simcard|trace)/' |
        while read -r file; do ! grep -qF "\"file\": \"$root/$file\"" "$build/compile_commands.json" || echo "$file"; done)
    say "${#files[@]} files changed"
    [ "${#files[@]}" -gt 0 ] || return 0
    export build stamps
    (cd "$root" && printf '%s\0' "${files[@]}" | xargs -0 -n 1 -P "$(nproc)" bash -euc '
        mkdir -p "$(dirname "$stamps/$0")"
        touch "$stamps/$0.begun"
        clang-tidy -p "$build" --quiet "$0" 2>> build/tidy.err
        mv "$stamps/$0.begun" "$stamps/$0"') || die "clang-tidy has findings (above, or in build/tidy.err)"
}

# check_newer STAMP FILE: names a file that is newer than STAMP, of those that FILE is compiled from and clang-tidy's configuration.
check_newer() {
    (cd "$root/build/windows-clang" && {
        printf '%s\n' "$root/.clang-tidy" "$root/$2"
        awk -v file="$root/$2" -v same="../../$2" '/^[^ ]/ { n = 0 } { line[n++] = $1 } $1 == file || $1 == same { found = 1 }
            /^$/ { if (found) { for (i = 1; i < n - 1; ++i) print line[i]; exit }; found = 0 }' "$root/build/tidy-deps"
    } | tr '\n' '\0' | xargs -0 -I{} find {} -maxdepth 0 -newer "$1" 2> /dev/null | head -n 1)
}
