# ./kestra release: everything that is handed out, in out/release; the same commit gives the same bytes wherever it is
# built. Sourced by ./kestra. KESTRA_SIGN: a command that signs one file in place.

release=$root/out/release
release_build=$root/build/release
release_work=$release_build/package

# release_zip FOLDER ZIP: without times, owners or an order of this machine.
release_zip() {
    find "$1" -type f -exec chmod 644 {} +
    find "$1" -exec touch -h -d "@$SOURCE_DATE_EPOCH" {} +
    rm -f "$2"
    (cd "$1" && find . -type f -printf '%P\n' | LC_ALL=C sort | TZ=UTC zip -X -D -q -9 -@ "$2")
}

# release_notes VERSION: the subjects of the commits since the release before this one.
release_notes() {
    local since range=HEAD heading='All changes'
    since=$(git -C "$root" describe --tags --abbrev=0 --match 'v[0-9]*' HEAD^ 2> /dev/null || true)
    [ -z "$since" ] || range=$since..HEAD heading="Changes since $since"
    printf '# Kestra Capture %s\n\n' "$1"
    [ -n "${KESTRA_SIGN:-}" ] || printf 'These files are unsigned.\n\n'
    printf '%s:\n\n' "$heading"
    git -C "$root" log --no-merges --format='- %s' "$range"
}

# release_package ID NAME VERSION LICENCE SUPPLIER: one package of the list of components.
release_package() {
    printf '    {"SPDXID": "SPDXRef-%s", "name": "%s", "versionInfo": "%s", "supplier": "Organization: %s", ' "$1" "$2" "$3" "$5"
    printf '"downloadLocation": "NOASSERTION", "filesAnalyzed": false, "licenseConcluded": "%s", ' "$4"
    printf '"licenseDeclared": "%s", "copyrightText": "NOASSERTION"}' "$4"
}

# release_components VERSION: what is inside, as SPDX 2.3: our own files, and the libraries that are linked into them.
release_components() {
    local gcc mingw nsis file separator='' id=0 relations='' component name licence supplier
    gcc=$(dpkg-query -W -f '${Version}' g++-mingw-w64-x86-64-posix)
    mingw=$(dpkg-query -W -f '${Version}' mingw-w64-x86-64-dev)
    nsis=$(dpkg-query -W -f '${Version}' nsis)
    cat << JSON
{
  "spdxVersion": "SPDX-2.3",
  "dataLicense": "CC0-1.0",
  "SPDXID": "SPDXRef-DOCUMENT",
  "name": "KestraCapture-$1",
  "documentNamespace": "urn:kestra-capture:release:$1",
  "creationInfo": {"created": "$(date -u -d "@$SOURCE_DATE_EPOCH" +%Y-%m-%dT%H:%M:%SZ)", "creators": ["Tool: kestra-release"]},
  "packages": [
JSON
    local exception='GPL-3.0-or-later WITH GCC-exception-3.1'
    release_package Kestra "Kestra Capture" "$1" MIT "The Kestra Capture authors" && printf ',\n'
    for component in libgcc libstdc++ libgomp; do
        release_package "${component//+/p}" $component "$gcc" "$exception" "Free Software Foundation" && printf ',\n'
    done
    release_package mingw-w64 "mingw-w64 runtime" "$mingw" "ZPL-2.1" "mingw-w64 project" && printf ',\n'
    release_package winpthreads winpthreads "$mingw" "MIT AND BSD-3-Clause" "mingw-w64 project" && printf ',\n'
    while read -r component name licence supplier; do
        release_package "$component" "$name" "$(dpkg-query -W -f '${Version}' "$component")" "$licence" "$supplier" && printf ',\n'
    done << 'LIST'
libcli11-dev CLI11 BSD-3-Clause CLI11 contributors
nlohmann-json3-dev nlohmann-json MIT nlohmann-json contributors
libstb-dev stb MIT stb contributors
LIST
    release_package nsis "NSIS stub and plug-ins, in the setup program" "$nsis" "Zlib AND CPL-1.0" "NSIS contributors" && printf '\n'
    printf '  ],\n  "files": [\n'
    while read -r file; do
        id=$((id + 1))
        printf '%s    {"SPDXID": "SPDXRef-File-%d", "fileName": "./%s", "licenseConcluded": "MIT", "licenseInfoInFiles": ["NOASSERTION"], ' \
            "$separator" $id "$file"
        printf '"copyrightText": "NOASSERTION", "checksums": [{"algorithm": "SHA1", "checksumValue": "%s"}, ' \
            "$(sha1sum < "$release_work/shipped/$file" | cut -d' ' -f1)"
        printf '{"algorithm": "SHA256", "checksumValue": "%s"}]}' "$(sha256sum < "$release_work/shipped/$file" | cut -d' ' -f1)"
        separator=$',\n'
        relations+=$(printf ',\n    {"spdxElementId": "SPDXRef-Kestra", "relationshipType": "CONTAINS", "relatedSpdxElement": "SPDXRef-File-%d"}' $id)
    done < <(cd "$release_work/shipped" && find . -type f -printf '%P\n' | LC_ALL=C sort)
    for component in libgcc libstdcpp libgomp mingw-w64 winpthreads libcli11-dev nlohmann-json3-dev libstb-dev; do
        relations+=$(printf ',\n    {"spdxElementId": "SPDXRef-Kestra", "relationshipType": "STATIC_LINK", "relatedSpdxElement": "SPDXRef-%s"}' $component)
    done
    cat << JSON

  ],
  "relationships": [
    {"spdxElementId": "SPDXRef-DOCUMENT", "relationshipType": "DESCRIBES", "relatedSpdxElement": "SPDXRef-Kestra"},
    {"spdxElementId": "SPDXRef-Kestra", "relationshipType": "CONTAINS", "relatedSpdxElement": "SPDXRef-nsis"}$relations
  ]
}
JSON
}

verb_release() {
    local version numbers program programs
    setup build release
    SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git -C "$root" log -1 --format=%ct)} || die "a release is built from a commit, or with SOURCE_DATE_EPOCH"
    export SOURCE_DATE_EPOCH
    export CCACHE_DISABLE=1 # nothing of an earlier build is handed out
    build_preset release ships
    version=$(sed -n 's/^#define KESTRA_VERSION_TEXT "\(.*\)"/\1/p' "$release_build/version/kestra_version.h")
    numbers=$(sed -n 's/^#define KESTRA_VERSION_NUMBERS //p' "$release_build/version/kestra_version.h" | tr , .)
    step "packing version $version"
    rm -rf "$release" "$release_work"
    mkdir -p "$release" "$release_work"
    cmake --install "$release_build" --prefix "$release_work/out" > "$release_work/install.log"

    local files=$release_work/shipped symbols=$release_work/symbols
    "$root/packaging/stage" "$release_build" "$files" "$symbols"
    # The manual package: the same files, with two scripts in place of the setup.
    cp -r "$files" "$release_work/manual"
    for program in install uninstall; do
        sed 's/$/\r/' "$root/packaging/$program.cmd" > "$release_work/manual/$program.cmd"
    done
    release_zip "$release_work/manual" "$release/KestraCapture-$version.zip"
    find "$files" -exec touch -h -d "@$SOURCE_DATE_EPOCH" {} +
    "$root/packaging/make-setup" "$files" "$release/KestraSetup-$version.exe" "$version" "$numbers"
    # For developers: the simulated card, which no setup holds, and the library for programs.
    for program in kestrasim.sys kestrasimctl.exe; do
        "$root/packaging/strip-program" "$release_work/out/$program" "$release_work/card/$program" "$symbols"
    done
    cp "$release_work/out/kestrasim.inf" "$release_work/out/LICENSE" "$release_work/card/"
    release_zip "$release_work/card" "$release/KestraSimulatedCard-$version.zip"
    # For authors of filters, any filters.
    "$root/packaging/strip-program" "$release_work/out/kestra-compliance.exe" "$release_work/compliance/kestra-compliance.exe" "$symbols"
    cp -r "$release_work/out/profiles" "$release_work/out/LICENSE" "$release_work/compliance/"
    release_zip "$release_work/compliance" "$release/KestraCompliance-$version.zip"
    if [ -d "$release_work/out/sdk" ]; then
        while read -r program; do
            "$root/packaging/strip-program" "$program" "$release_work/stripped/$(basename "$program")" "$symbols"
            mv "$release_work/stripped/$(basename "$program")" "$program"
        done < <(find "$release_work/out/sdk" -name '*.dll' -o -name '*.exe')
        release_zip "$release_work/out/sdk" "$release/KestraSDK-$version.zip"
    fi
    # Another compiler's runtime may want more of the system.
    mapfile -t programs < <(find "$files" "$release_work"/{card,compliance,out/sdk} -name '*.dll' -o -name '*.exe' -o -name '*.sys')
    quietly build/release/binaries.log "$root/tests/packaging/check-binaries" "${programs[@]}"
    release_zip "$symbols" "$release/KestraSymbols-$version.zip"
    release_components "$version" > "$release/KestraCapture-$version.spdx.json"
    release_notes "$version" > "$release/RELEASE_NOTES.md"
    (cd "$release" && sha256sum -- * > "$release_work/SHA256SUMS" && mv "$release_work/SHA256SUMS" .)
    say "in out/release/:"
    (cd "$release" && ls -l | awk 'NF > 5 { printf "  %9d  %s\n", $5, $NF }')
    [ -n "${KESTRA_SIGN:-}" ] || say "unsigned: KESTRA_SIGN names no command that signs a file"
}
