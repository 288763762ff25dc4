# Pages that draw figures: one file each, nothing else needed. Sourced by ./kestra's verbs that make one.

# page_data NAME FILE: JSON of where and when, and under NAME the JSON objects of FILE, one a line.
page_data() {
    printf '{"commit":"%s","date":"%s","processor":"%s","cores":%d,"%s":[\n' \
        "$(git -C "$root" describe --always --dirty 2> /dev/null || echo unknown)" "$(date -u +%FT%TZ)" \
        "$(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -n 1 | tr -d '"\\')" "$(nproc)" "$1"
    sed '$!s/$/,/' "$2"
    printf ']}\n'
}

# page_write TEMPLATE DATA PAGE: fills in @RESULTS@ and what the pages have in common, @STYLE@ and @SCRIPT@.
page_write() {
    mkdir -p "$(dirname "$3")"
    sed -e "/@RESULTS@/{r $2" -e 'd}' -e "/@STYLE@/{r $root/tools/page.css" -e 'd}' \
        -e "/@SCRIPT@/{r $root/tools/page.js" -e 'd}' "$1" > "$3"
    say "figures: ${2#"$root"/}, drawn: ${3#"$root"/}"
}
