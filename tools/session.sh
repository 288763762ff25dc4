# A private Windows for one run: its own display and its own Wine prefix; no process is left afterwards.
# Sourced by ./kestra. Uses: say, die (from there), $root.

windows_build=$root/build/windows
session_display_pid=

# Starts a display server of our own on a free display number and points DISPLAY to it.
session_start_display() {
    local numberFile=$root/build/display.$$
    mkdir -p "$root/build"
    : > "$numberFile"
    Xvfb -displayfd 3 -screen 0 1280x1024x24 -nolisten tcp 3> "$numberFile" > /dev/null 2>&1 &
    session_display_pid=$!
    local waited=0
    until [ -s "$numberFile" ]; do
        kill -0 "$session_display_pid" 2> /dev/null || die "the display server (Xvfb) did not start"
        waited=$((waited + 1))
        [ "$waited" -le 200 ] || die "the display server (Xvfb) gave no display number within 20 s"
        sleep 0.1
    done
    DISPLAY=:$(tr -d '[:space:]' < "$numberFile")
    rm -f "$numberFile"
    export DISPLAY
}

# Makes the Wine prefix unless it is there and whole, and keeps its server alive until session_end: the
# driver's state lives only as long as the prefix's last process.
session_start_wine() {
    export WINEPREFIX=$windows_build/wineprefix
    export WINEDEBUG=${WINEDEBUG:--all}
    export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=;winedbg.exe=d}
    mkdir -p "$windows_build"
    # The installer leaves a driver file alone that is there already, so an old build's driver would stay.
    local installed=$WINEPREFIX/drive_c/windows/system32/drivers/kestrasim.sys
    if [ -f "$installed" ] && ! cmp -s "$installed" "$windows_build/simcard/kestrasim.sys"; then
        say "the simulated card's driver has changed since this prefix was made"
        rm -f "$WINEPREFIX/complete"
    fi
    if [ ! -f "$WINEPREFIX/complete" ]; then
        step "making a Wine prefix in build/windows/wineprefix (once, about 15 s)"
        rm -rf "$WINEPREFIX"
        mkdir -p "$WINEPREFIX"
        wineserver -p
        timeout 180 "$root/tools/run-windows" wineboot -i > "$root/build/wineboot.log" 2>&1 ||
            die "Wine could not make its prefix; see build/wineboot.log"
        wineserver -k || true
        wineserver -w
        touch "$WINEPREFIX/complete"
    fi
    # A program that waits for input holds the prefix open: services and the driver then run once, with no
    # pipe of a test in their hands, until session_end.
    wineserver -p
    exec 9> >("$root/tools/run-windows" cmd.exe > /dev/null 2>&1)
    timeout 60 "$root/tools/run-windows" cmd.exe /c exit < /dev/null > /dev/null 2>&1 ||
        die "Wine does not run programs in its prefix; remove build/windows/wineprefix and try again"
}

session_start() {
    [ -z "$session_display_pid" ] || return 0 # once in a run
    trap session_end EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM HUP
    session_start_display
    session_start_wine
}

session_end() {
    local status=$?
    trap - EXIT INT TERM HUP
    if [ -n "${WINEPREFIX:-}" ] && [ -d "$WINEPREFIX" ]; then
        wineserver -k 2> /dev/null || true
        wineserver -w 2> /dev/null || true
    fi
    if [ -n "$session_display_pid" ]; then
        kill "$session_display_pid" 2> /dev/null || true
        wait "$session_display_pid" 2> /dev/null || true
    fi
    exit "$status"
}
