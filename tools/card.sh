# The simulated card in a session, for people: ./kestra card, ./kestra shell. Sourced by ./kestra.

simcard_build=$windows_build/simcard

# card_install COUNT: puts simulated cards into the running session.
card_install() {
    (cd "$simcard_build" && "$root/tools/run-windows" kestrasimctl.exe install "$1" kestrasim.inf < /dev/null) ||
        die "the simulated card could not be installed"
}

# ./kestra card ARGUMENTS: one command of kestrasimctl on a freshly plugged-in card.
verb_card() {
    setup build
    build_preset windows kestrasim kestrasimctl
    session_start
    card_install 1
    "$root/tools/run-windows" "$simcard_build/kestrasimctl.exe" "$@"
}

# A shell in which a card is plugged in, and `card`, `probe` and `run-windows` are commands.
verb_shell() {
    verb_build
    build_preset windows kestraprobe
    session_start
    card_install 1
    local commands=$root/build/commands run='#!/bin/sh\nexec "%s" %s"$@"\n'
    mkdir -p "$commands"
    # shellcheck disable=SC2059 # the format is above
    {
        printf "$run" "$root/tools/run-windows" "\"$simcard_build/kestrasimctl.exe\" " > "$commands/card"
        printf "$run" "$root/tools/run-windows" "\"$simcard_build/kestraprobe.exe\" " > "$commands/probe"
        printf "$run" "$root/tools/run-windows" '' > "$commands/run-windows"
    }
    chmod +x "$commands"/*
    say "a simulated card is plugged in; try: card status, probe, card signal 1920x1080 30000/1001 i, card --help"
    say "any other Windows program: run-windows PROGRAM; leave with exit"
    (cd "$root" && PATH=$commands:$PATH PS1='kestra$ ' bash --norc) || true
}
