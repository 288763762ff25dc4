# ./kestra analyze [FOLDER...]: what takes too long for ./kestra check: clang's static analyzer and GCC's over the product.
# Sourced by ./kestra.
#
# GCC 12's analyzer was made for C: of C++ it follows neither exceptions nor virtual calls, and knows little of the library's
# containers and owners (tools/analyze-with-gcc says what is left out for that). What it finds in plain code counts.

analyze_folders=(baseclasses capture ctl decode device imagelib log pages server trace)

verb_analyze() {
    with_tests=ON
    setup build test
    local folders=("$@")
    [ "${#folders[@]}" -gt 0 ] || folders=("${analyze_folders[@]}")
    build_preset windows-clang
    configure windows
    build_preset windows kestra_interfaces kestra_version_header
    analyze_clang "${folders[@]}"
    analyze_gcc "${folders[@]}"
}

# analyze_sources PRESET FOLDER...: the sources of these folders that this build compiles.
analyze_sources() {
    local build=$root/build/$1
    shift
    (cd "$root" && git ls-files '*.cpp') | grep -E "^($(IFS='|'; echo "$*"))/" | while read -r file; do
        ! grep -qF "\"file\": \"$root/$file\"" "$build/compile_commands.json" || echo "$file"
    done
}

analyze_clang() {
    step "clang's analyzer ($(clang-tidy --version | grep -m 1 -i version))"
    local files
    mapfile -t files < <(analyze_sources windows-clang "$@")
    (cd "$root" && printf '%s\0' "${files[@]}" | xargs -0 -n 1 -P "$(nproc)" clang-tidy -p build/windows-clang --quiet \
        --config='{}' --checks='-*,clang-analyzer-*' --warnings-as-errors='*' 2> build/analyze.err) ||
        die "clang's analyzer has findings (above, or in build/analyze.err)"
    say "${#files[@]} files, no findings"
}

analyze_gcc() {
    step "GCC's analyzer ($(x86_64-w64-mingw32-g++-posix --version | head -n 1))"
    local files
    mapfile -t files < <(analyze_sources windows "$@")
    (cd "$root" && printf '%s\0' "${files[@]}" | xargs -0 -n 1 -P "$(nproc)" tools/analyze-with-gcc build/windows) ||
        die "GCC's analyzer has findings (above)"
    say "${#files[@]} files, no findings"
}
