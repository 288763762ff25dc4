# ./kestra bare [12|13] [demo|test|release] [NAME...]: what a newcomer on a fresh Debian gets. Makes a bare system below
# build/bare with debootstrap, runs the verb on a clone of the present commit in it, prints how long each stage took, and
# removes it all; a release stays, in build/bare/release-12 or -13. KESTRA_BARE_KEEP=1: the system stays too, to be looked
# into.
# Sourced by ./kestra.

bare_suites=([12]=bookworm [13]=trixie)

# Runs in its own namespaces, so that no process and no mount outlives it, however it ends.
bare_run() {
    unshare --mount --pid --fork --kill-child bash -euc '
        root=$1
        shift
        mount -t proc proc "$root/proc"
        mount -t sysfs sysfs "$root/sys"
        mount --rbind /dev "$root/dev"
        exec chroot "$root" env -i HOME=/root LANG=C.UTF-8 PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin "$@"
    ' bare "$@"
}

# bare_table TIMES END: how many seconds each stage of a run took, from the marks that it left.
bare_table() {
    awk -v end="$2" '
        function stage(title) {
            return title ~ /^(installing|fetching)/ ? "packages" : title ~ /^building/ ? "build" : \
                   title ~ /prefix/ ? "prefix" : title ~ /^first frame/ ? "" : "run"
        }
        { title = $0; sub(/^[0-9]+ /, "", title); if (NR == 1) begin = $1
          if (title ~ /^first frame/) { first = $1 - begin; next }
          if (current) spent[current] += $1 - since
          current = stage(title); since = $1 }
        END { spent[current] += end - since
              printf "  %-10s %6s\n", "stage", "s"
              split("packages build prefix run", order, " ")
              for (i = 1; i in order; ++i) printf "  %-10s %6d\n", order[i], spent[order[i]]
              if (first) printf "  %-10s %6d (from the start)\n", "first frame", first
              printf "  %-10s %6d\n", "all", end - begin }' "$1"
}

verb_bare() {
    local release=${1:-12} verb=${2:-demo} words=("${@:3}") suite folder status=0
    suite=${bare_suites[$release]:-}
    [ -n "$suite" ] || die "there is no Debian $release here: 12 or 13"
    [ "$(id -u)" -eq 0 ] || die "making a bare system needs root: run it with sudo"
    command -v debootstrap > /dev/null || visibly build/apt.log '^(Get:.*)$' apt-get install -y --no-install-recommends debootstrap
    folder=$root/build/bare/$release
    [ -n "${KESTRA_BARE_KEEP:-}" ] || trap 'rm -rf --one-file-system "$root/build/bare/'"$release"'"' EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM HUP
    rm -rf --one-file-system "$folder"
    mkdir -p "$folder"
    step "making a bare Debian $release ($suite)"
    visibly build/bare.log '^I: (.*)$' debootstrap --variant=minbase "$suite" "$folder"
    # The bare system reaches the outside as this machine does.
    cp -r /usr/local/share/ca-certificates "$folder/usr/local/share/"
    cp /etc/resolv.conf "$folder/etc/" 2> /dev/null || true
    git clone -q "$root" "$folder/kestra"
    step "./kestra $verb ${words[*]} on Debian $release"
    bare_run "$folder" bash -c 'cd /kestra && ./kestra "$@"' kestra "$verb" "${words[@]}" || status=$?
    step "Debian $release, ./kestra $verb: $([ "$status" -eq 0 ] && echo 'passed' || echo "failed with status $status")"
    bare_table "$folder/kestra/build/times.txt" "$(date +%s)"
    if [ "$verb" = release ] && [ "$status" -eq 0 ]; then
        rm -rf "$root/build/bare/release-$release"
        cp -r "$folder/kestra/out/release" "$root/build/bare/release-$release"
        say "the release is in build/bare/release-$release"
    fi
    [ "$verb" != demo ] || [ "$status" -ne 0 ] || {
        step "a second run"
        bare_run "$folder" bash -c "cd /kestra && ./kestra demo" > "$root/build/bare-second.log" 2>&1 || status=$?
        bare_table "$folder/kestra/build/times.txt" "$(date +%s)"
    }
    return "$status"
}
