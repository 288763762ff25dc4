# ./kestra demo: a real application records from the simulated card, and what that leaves in out/demo/. Sourced by ./kestra.
# shellcheck source=tools/card.sh
. "$root/tools/card.sh"

demo=$root/out/demo
demo_build=$root/build/demo
demo_seconds=4
# Width, height, rate: the demo records at the first that this machine can take.
demo_signals=("1920 1080 60" "1920 1080 30" "1280 720 60" "1280 720 30")
demo_progress=$demo_build/ffmpeg.log
[ ! -t 2 ] || demo_progress=/dev/stderr

# FFmpeg's list of DirectShow devices, without its remarks.
demo_list_devices() {
    { run_windows "$windows_ffmpeg" -hide_banner -list_devices true -f dshow -i dummy 2>&1 || true; } | # it ends with 1
        tr -d '\r' | sed -nE 's/^\[dshow[^]]*\] *((DirectShow|"|Alternative).*)/  \1/p'
}

# demo_set_signal WIDTH HEIGHT RATE
demo_set_signal() {
    width=$1 height=$2 rate=$3
    simcard signal "${width}x$height" "$rate/1" > /dev/null
}

# demo_judge STATUS TIMES: judges a recording by the result of its check. Fails if the machine was too slow: the card had no free
# buffer, FFmpeg had no time, or the card itself fell behind its clock. Ends the demo if a frame was lost
# in any other way, or is not what the card sent.
demo_judge() {
    case $1 in
        0) awk -v measured="$(frame_rate "$2")" -v wanted="$rate" 'BEGIN { exit !(measured >= 0.98 * wanted) }' || return 1 ;;
        3)
            [ "$(card_dropped)" -gt 0 ] || grep -q 'too full or near too full' "$demo_build/messages.log" ||
                die "frames were lost although the card dropped none; see build/demo"
            return 1
            ;;
        *) die "the recording is not what the card sent; see build/demo" ;;
    esac
}

# demo_record FORMAT SECONDS: records and checks; the line for the report is in $demo_build/line.txt. Fails as demo_judge does.
demo_record() {
    local result status=0
    result=$(record_video "$1" "$2" "$demo_build/times.txt" 2> >(tee "$demo_build/messages.log" > "$demo_progress") |
        check_video "$1" "$width" "$height" p "$rate") || status=$?
    printf '  %-8s %d s: %s, %s frames per second\n' "$1" "$2" "$result" "$(frame_rate "$demo_build/times.txt")" \
        > "$demo_build/line.txt"
    demo_judge "$status" "$demo_build/times.txt"
}

# The same with picture and sound, which stay in files.
demo_record_both() {
    local status=0
    record_both "${video_formats[0]}" "$demo_seconds" "$demo_build/sound.pcm" "$demo_build/times" \
        2> >(tee "$demo_build/messages.log" > "$demo_progress") |
        tee "$demo_build/frames.yuv" |
        check_synchrony "${video_formats[0]}" "$width" "$height" p "$rate" "$demo_build/sound.pcm" "$demo_build/times" \
            > "$demo_build/line.txt" || status=$?
    demo_judge "$status" "$demo_build/times.picture"
}

# demo_holds: records a second of each format, the largest first. Fails if the machine is too slow for one.
demo_holds() {
    local format
    for format in bgr0 bgr24 yuyv422 uyvy422; do
        say "trying a second of ${height}p$rate in $format"
        demo_record "$format" 1 || return 1
        [ -n "${demo_first_frame:-}" ] || mark "first frame"
        demo_first_frame=1
    done
}

# demo_record_all: makes the recordings for the report. Fails at the first for which the machine is too slow.
demo_record_all() {
    local format
    printf '%sp%s\n' "$height" "$rate" >> "$demo/report.txt"
    for format in "${video_formats[@]}"; do
        say "recording $demo_seconds s of ${height}p$rate in $format"
        demo_record "$format" "$demo_seconds" || return 1
        tee -a "$demo/report.txt" < "$demo_build/line.txt"
    done
    say "recording $demo_seconds s of picture and sound"
    demo_record_both || return 1
    tee -a "$demo/report.txt" < "$demo_build/line.txt"
}

verb_demo() {
    setup build demo
    install_windows_ffmpeg
    build_preset windows captures
    install_out Unspecified # CMake's name for what has no component
    build_preset native check_recording check_synchrony
    rm -rf "$demo"
    mkdir -p "$demo" "$demo_build"

    step "plugging in a simulated card"
    session_start
    card_install 1 > /dev/null
    simcard status | tr -d '\r' | tee "$demo/report.txt"

    step "registering out/KestraCapture.dll with regsvr32"
    register_module "$root/out/KestraCapture.dll"
    say "registered"

    step "what FFmpeg for Windows finds"
    demo_list_devices | tee -a "$demo/report.txt"

    step "recording at the highest rate that this machine can take; every frame and sample is compared with what the card sent"
    local signal width height rate recorded=0
    for signal in "${demo_signals[@]}"; do
        # shellcheck disable=SC2086 # three words
        demo_set_signal $signal
        if demo_holds && demo_record_all; then
            recorded=1
            break
        fi
        cat "$demo_build/line.txt"
        printf '%sp%s did not hold\n' "$height" "$rate" >> "$demo/report.txt"
        say "${height}p$rate is more than this machine can make and record now: something waited for the processors"
    done
    [ "$recorded" = 1 ] ||
        die "too much else runs on this machine now (load $(cut -d ' ' -f 1 /proc/loadavg)); out/demo/report.txt has the figures"

    step "making a film and a picture of it"
    local sound=(-f s16le -ar 48000 -ac 2 -i "Z:$demo_build/sound.pcm")
    local raw=(-f rawvideo -pix_fmt "${video_formats[0]}" -s "${width}x$height" -r "$rate" -colorspace bt709 -color_range tv
        -i "Z:$demo_build/frames.yuv")
    visibly build/demo/film.log '^(frame=.*)$' run_windows "$windows_ffmpeg" -nostdin -y "${raw[@]}" "${sound[@]}" \
        -c:a aac -b:a 192k -c:v libx264 -preset veryfast -crf 18 -pix_fmt yuv420p \
        -color_primaries bt709 -color_trc bt709 -colorspace bt709 "Z:$demo/recording.mp4"
    quietly build/demo/picture.log run_windows "$windows_ffmpeg" -nostdin -y -ss 2 "${raw[@]}" \
        -vf scale=in_color_matrix=bt709:out_range=pc -frames:v 1 "Z:$demo/frame.png"
    rm -f "$demo_build/frames.yuv" "$demo_build/sound.pcm"

    build_preset windows kestra-ctl # not before: nobody should wait for it to see the first frame
    install_out ctl
    step "what kestra-ctl says of the card, and a picture in 16 bits"
    run_windows "$root/out/kestra-ctl.exe" status | tee -a "$demo/report.txt"
    run_windows "$root/out/kestra-ctl.exe" snap --depth 10 "Z:$demo/snap.png"

    step "done"
    say "look at out/demo/recording.mp4 (picture and sound), frame.png (one of its frames) and report.txt (the figures)"
    say "next: ./kestra shell opens a shell in which a card is plugged in; card --help says what it can do"
    say "./kestra test runs all tests; README.md says how to use the module on Windows"
}
