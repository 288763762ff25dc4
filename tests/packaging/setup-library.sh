# Setups of several versions, in a Wine prefix of their own, and what they leave there. Sourced by the tests of the setup;
# $root and $build are set.

work=$build/packaging
export WINEPREFIX=$work/wineprefix
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml,winemenubuilder.exe="
export LC_ALL=C.UTF-8 # names of files in any script
export PATH=$PATH:/usr/lib/wine
export KESTRA_SETUP_QUICK=1
unset KESTRA_WATCH_SECONDS # a setup starts programs of its own
drive=$WINEPREFIX/drive_c
target="$drive/Program Files/Kestra Capture"
log=$work/setup.log
failed=0

say() { printf '%s\n' "$*"; }
fail() {
    printf 'FAILED: %s\n' "$*"
    failed=1
}
die() {
    fail "$*"
    exit 1
}
expect() { # WHAT COMMAND...
    local what=$1
    shift
    "$@" || fail "$what"
}
windows() { # PROGRAM ARGUMENT...
    timeout 100 "$root/tools/run-windows" "$@" < /dev/null 2>> "$work/stderr.txt"
}

# stop_windows: ends everything in this prefix, and has its registry written to the disk.
stop_windows() {
    wineserver -k 2> /dev/null || true
    wineserver -w 2> /dev/null || true
}

# restart_windows: as a restart of the machine does, with what waits for it.
restart_windows() {
    stop_windows
    windows wineboot > /dev/null || true
}

make_prefix() {
    stop_windows
    rm -rf "$WINEPREFIX"
    mkdir -p "$WINEPREFIX"
    windows wineboot -i > /dev/null || die "Wine could not make a prefix"
    wineserver -w
    windows winecfg /v win10 || die "Wine could not pretend to be Windows 10"
    # What Wine adds to its registry at the second start.
    restart_windows
    restart_windows
    stop_windows
}

# start_clean: after a test that failed, with a new prefix. The snapshot "before" is of what is there then.
start_clean() {
    : > "$work/stderr.txt"
    [ ! -f "$work/clean.files" ] || snapshot now
    if [ ! -f "$WINEPREFIX/complete" ] || { [ -f "$work/clean.files" ] && ! cmp -s "$work/clean.files" "$work/now.files"; }; then
        make_prefix
        touch "$WINEPREFIX/complete"
        rm -f "$work/clean.files"
    fi
    snapshot before
    [ -f "$work/clean.files" ] || cp "$work/before.files" "$work/clean.files"
}

# snapshot NAME: registry and file tree. Without the times of keys, and what Wine writes about its devices
# and consoles when it starts, or when somebody asks for them first.
snapshot() {
    stop_windows
    local file
    for file in system user userdef; do
        sed -E '/^\[(Console|Software\\\\Wine\\\\Drivers|Software\\\\Microsoft.*\\\\MMDevices)/,/^$/d; /^#time=/d; s/^(\[.*\]) [0-9]+$/\1/; /^"DriverDateData"=/d' "$WINEPREFIX/$file.reg"
    done > "$work/$1.registry"
    # Without the folder for temporary files, in which an uninstallation leaves the copy of itself that removes it all.
    (cd "$drive" && find . -path './users/*/Temp/*' -prune -o -type f -printf '%P %s\n' -o -type d -printf '%P/\n' |
        LC_ALL=C sort) > "$work/$1.files"
}

# expect_same NAME WHEN: nothing has changed since the snapshot.
expect_same() {
    local part
    snapshot now
    for part in registry files; do
        diff "$work/$1.$part" "$work/now.$part" > "$work/difference.txt" || {
            fail "$2: the $part differ from what was before"
            head -n 40 "$work/difference.txt"
        }
    done
}

# setup_file NAME
setup_file() { printf '%s/Kestra-%s.exe' "$work" "$1"; }

# run_setup EXIT_CODE NAME OPTION...: silently.
run_setup() {
    local expected=$1 name=$2 status=0
    shift 2
    rm -f "$log"
    windows "$(setup_file "$name")" /S "/LOG=$(windows_path "$log")" "$@" || status=$?
    expect_exit "$expected" "$status" "setup $name $*"
}

# Exit codes of Windows have 32 bits; what comes through has 8.
expect_exit() {
    [ "$(($1 & 255))" = "$2" ] || {
        fail "$3: exit code $2 instead of $1"
        logged
    }
}

windows_path() { printf 'Z:%s' "${1//\//\\}"; }
logged() { iconv -f utf-16 -t utf-8 "$log" 2> /dev/null || say "(no log)"; }
expect_logged() { logged | grep -qF -- "$1" || { fail "the log does not say: $1" && logged; }; }

# wait_until WHAT COMMAND...: for at most 60 s.
wait_until() {
    local what=$1 deadline=$((SECONDS + 60))
    shift
    until "$@"; do
        [ "$SECONDS" -lt "$deadline" ] || { fail "in vain for a minute: $what" && return 1; }
        sleep 0.1
    done
}

# run_uninstall FOLDER OPTION...: silently; waits for its end, since it goes on in a copy of itself.
run_uninstall() {
    local folder=$1
    shift
    rm -f "$log"
    windows "$folder/Uninstall.exe" /S "/LOG=$(windows_path "$log")" "$@" || true
    wait_until "the end of the uninstallation" uninstall_ended
}
uninstall_ended() { logged | grep -q Done; }

# holding load|open FILE COMMAND...: runs the command while another program holds that file.
holding() {
    local how=$1 file=$2 pipe=$work/hold.pipe
    shift 2
    rm -f "$pipe"
    mkfifo "$pipe"
    "$root/tools/run-windows" "$build/tests/packaging/hold_file.exe" "$how" "$file" < "$pipe" > "$work/hold.txt" 2> /dev/null &
    local holder=$!
    exec 7> "$pipe"
    wait_until "$file is held" grep -q held "$work/hold.txt"
    "$@" 7>&-
    exec 7>&-
    wait "$holder" || fail "the program that held $file did not end well"
}

# Exported, because a console's code page lacks letters.
registered_module() {
    rm -f "$work/module.reg"
    windows reg export 'HKCR\CLSID\{53F0624A-8497-4A4C-9451-011C49B274FA}\InprocServer32' "$(windows_path "$work/module.reg")" /y \
        > /dev/null || return 0
    iconv -f utf-16 -t utf-8 "$work/module.reg" | tr -d '\r' | sed -n 's/^@="\(.*\)"/\1/p' | sed 's/\\\\/\\/g'
}
apps_entry() { # VALUE
    windows reg query 'HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall\KestraCapture' /v "$1" | tr -d '\r' |
        sed -nE 's/.*REG_(SZ|DWORD) *//p'
}

# expect_works VERSION: this version is installed, and its module can be used from where it is registered.
expect_works() {
    [ "$(apps_entry DisplayVersion)" = "$1" ] || fail "the list of applications says '$(apps_entry DisplayVersion)' instead of $1"
    local module
    module=$(registered_module)
    holding load "$module" true
    cmp -s "$work/files-$1/documentation/version.txt" "$target/documentation/version.txt" || fail "the files are not those of $1"
}
