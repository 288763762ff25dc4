# ./kestra pictures: shows every property page of the filters in each of its states, on the simulated card, and keeps
# pictures in docs/pages: of all at 100 %, of the ordinary states also at 150 %. Fails if a text is cut. Sourced by
# ./kestra.

# pictures_take DPI SUFFIX FOLDER: the pictures of one resolution, as bitmaps.
pictures_take() {
    local desktop='HKCU\Control Panel\Desktop'
    "$root/tools/run-windows" reg.exe add "$desktop" /v LogPixels /t REG_DWORD /d "$1" /f > /dev/null
    timeout 120 "$root/tools/run-windows" "$windows_build/tests/com/page_pictures.exe" "$1" "Z:${3//\//\\}" "$2" \
        < /dev/null || die "at $1 dots per inch a page is not as it should be (above)"
}

verb_pictures() {
    with_tests=ON
    setup build test
    build_preset windows page_pictures kestrasimctl kestrasim
    session_start
    "$root/tests/support/simulated-card" install "$windows_build/simcard/kestrasimctl.exe" \
        "$windows_build/simcard/kestrasim.inf" > /dev/null
    step "the property pages at 96 and 144 dots per inch"
    local folder=$root/build/pictures bitmap name
    rm -rf "$folder"
    mkdir -p "$folder" "$root/docs/pages"
    pictures_take 144 -144 "$folder"
    pictures_take 96 '' "$folder"
    "$root/tests/support/simulated-card" remove "$windows_build/simcard/kestrasimctl.exe" > /dev/null
    rm -f "$root"/docs/pages/*.png
    for bitmap in "$folder"/*.bmp; do
        name=$(basename "$bitmap" .bmp)
        case $name in
        page-converter-144 | page-gain-144 | page-audio-144) ;;
        *-144) continue ;; # the other states were checked, and look alike
        esac
        convert "$bitmap" -strip -define png:exclude-chunks=date,time "$root/docs/pages/${name#page-}.png"
    done
    say "docs/pages: $(cd "$root/docs/pages" && ls | tr '\n' ' ')"
}
