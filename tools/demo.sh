# ./kestra demo: a real application records from the simulated card, and what that leaves in out/demo/. Sourced by ./kestra.
# shellcheck source=tools/card.sh
. "$root/tools/card.sh"

demo=$root/out/demo
demo_seconds=5
demo_progress=$root/build/demo/ffmpeg.log
[ ! -t 2 ] || demo_progress=/dev/stderr

# FFmpeg's list of DirectShow devices, without its remarks.
demo_list_devices() {
    { run_windows "$windows_ffmpeg" -hide_banner -list_devices true -f dshow -i dummy 2>&1 || true; } | # it ends with 1
        tr -d '\r' | sed -nE 's/^\[dshow[^]]*\] *((DirectShow|"|Alternative).*)/  \1/p'
}

# demo_judge RESULT: of a check.
demo_judge() {
    case $1 in
        0) ;;
        3) say "frames were dropped: something else kept this machine busy" ;;
        *) die "the recording is not what the card sent; see build/demo/ffmpeg.log" ;;
    esac
}

# demo_record FORMAT: records, shows FFmpeg's progress, checks, and adds a line to the report.
demo_record() {
    local format=$1 result fault=0
    result=$(record_video "$format" "$demo_seconds" "$root/build/demo/times.txt" 2> "$demo_progress" |
        check_video "$format" p 60) || fault=$?
    printf '%-8s %2d s: %s, %s frames per second\n' "$format" "$demo_seconds" "$result" \
        "$(frame_rate "$root/build/demo/times.txt")" | tee -a "$demo/report.txt"
    demo_judge "$fault"
}

# The same with picture and sound, which stay in files.
demo_record_both() {
    local sound=$root/build/demo/sound.pcm times=$root/build/demo/times fault=0
    record_both "${video_formats[0]}" "$demo_seconds" "$sound" "$times" 2> "$demo_progress" |
        tee "$root/build/demo/frames.yuv" |
        check_synchrony "${video_formats[0]}" p 60 "$sound" "$times" > "$root/build/demo/synchrony.txt" || fault=$?
    tee -a "$demo/report.txt" < "$root/build/demo/synchrony.txt"
    demo_judge "$fault"
}

verb_demo() {
    verb_build
    build_preset native check_recording check_synchrony
    rm -rf "$demo"
    mkdir -p "$demo" "$root/build/demo"

    step "plugging in a simulated card"
    session_start
    card_install 1 > /dev/null
    simcard signal 1920x1080 60/1 > /dev/null
    simcard status | tr -d '\r' | tee "$demo/report.txt"

    step "registering out/KestraCapture.dll with regsvr32"
    register_module "$root/out/KestraCapture.dll"
    say "registered"

    step "what FFmpeg for Windows finds"
    demo_list_devices | tee -a "$demo/report.txt"

    step "recording $demo_seconds s of 1080p60 in each format; every frame is compared with what the card sent"
    local format
    for format in "${video_formats[@]}"; do
        demo_record "$format"
    done

    step "recording $demo_seconds s of picture and sound; every frame and every sample is compared with what the card sent"
    demo_record_both

    step "making a film and a picture of it"
    local sound=(-f s16le -ar 48000 -ac 2 -i "$root/build/demo/sound.pcm")
    local raw=(-f rawvideo -pix_fmt "${video_formats[0]}" -s 1920x1080 -r 60 -colorspace bt709 -color_range tv
        -i "$root/build/demo/frames.yuv")
    quietly build/demo/film.log ffmpeg -nostdin -y "${raw[@]}" "${sound[@]}" -c:a aac -b:a 192k \
        -c:v libx264 -preset veryfast -crf 18 -pix_fmt yuv420p \
        -color_primaries bt709 -color_trc bt709 -colorspace bt709 "$demo/recording.mp4"
    quietly build/demo/picture.log ffmpeg -nostdin -y -ss 2 "${raw[@]}" -vf scale=in_color_matrix=bt709:out_range=pc \
        -frames:v 1 "$demo/frame.png"
    rm -f "$root/build/demo/frames.yuv" "$root/build/demo/sound.pcm"

    step "done, in out/demo/: recording.mp4 (with sound), frame.png (one of its frames) and report.txt"
}
