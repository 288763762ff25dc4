# ./kestra demo: the simulated card at work, and what it leaves in out/demo/. Sourced by ./kestra.
# shellcheck source=tools/card.sh
. "$root/tools/card.sh"

verb_demo() {
    verb_build
    local demo=$root/out/demo
    mkdir -p "$demo"
    step "plugging in a simulated card"
    session_start
    card_install 1
    step "receiving from it"
    local result=0
    "$root/tools/run-windows" "$simcard_build/kestraprobe.exe" --bitmap "Z:$demo/frame.bmp" |
        tr -d '\r' | tee "$demo/report.txt" || result=$?
    [ "$result" -eq 0 ] || die "the card was not received without faults; the report is out/demo/report.txt"
    quietly build/demo-png.log ffmpeg -y -loglevel error -i "$demo/frame.bmp" "$demo/frame.png"
    rm -f "$demo/frame.bmp"
    step "done: out/demo/frame.png is one of the frames, out/demo/report.txt the report"
}
