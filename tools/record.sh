# Recording from the module with FFmpeg for Windows, and checking what was recorded. Sourced by ./kestra and by the
# end-to-end tests; uses say, die, $root and a running session.

video_formats=(yuyv422 bgr24 uyvy422 bgr0)
windows_ffmpeg=$root/build/ffmpeg/node_modules/@ffmpeg-installer/win32-x64/ffmpeg.exe

# install_npm_package FOLDER PACKAGE@VERSION...: into build/FOLDER.
install_npm_package() {
    mark "fetching $2"
    mkdir -p "$root/build/$1"
    quietly "build/$1/install.log" npm install --prefix "$root/build/$1" --no-save --no-audit --no-fund --force \
        --ignore-scripts --loglevel error "${@:2}"
}

# Fetches FFmpeg for Windows once.
install_windows_ffmpeg() {
    [ ! -f "$windows_ffmpeg" ] || return 0
    say "fetching FFmpeg for Windows"
    install_npm_package ffmpeg @ffmpeg-installer/win32-x64@4.1.0
}

run_windows() {
    "$root/tools/run-windows" "$@" < /dev/null
}

simcard() {
    run_windows "$root/build/windows/simcard/kestrasimctl.exe" "$@"
}

# register_module DLL: as a user does it.
register_module() {
    run_windows regsvr32 /s "Z:$1" > /dev/null 2>&1 || die "regsvr32 could not register $1"
}

# unregister_module DLL
unregister_module() {
    run_windows regsvr32 /u /s "Z:$1" > /dev/null 2>&1 || die "regsvr32 could not unregister $1"
}

# record_video FORMAT SECONDS TIMES: raw frames to the standard output, FFmpeg's progress to the standard error, and the
# frames' time stamps in milliseconds into the file TIMES.
record_video() {
    run_windows "$windows_ffmpeg" -hide_banner -loglevel error -stats -y -rtbufsize 2000M -f dshow -pixel_format "$1" \
        -i "video=Kestra Capture Video" -t "$2" -vsync passthrough -c:v rawvideo -f rawvideo - \
        -t "$2" -c copy -f mkvtimestamp_v2 "Z:$3"
}

# check_video FORMAT WIDTH HEIGHT SCAN RATE < raw frames: compares each frame with the simulated card's picture. SCAN: p or i;
# RATE: whole frames per second, rounded up. The result is 3 if frames were dropped and nothing else is wrong.
check_video() {
    local interlaced=0
    [ "$4" = p ] || interlaced=1
    "$root/build/native/tests/e2e/check_recording" "$1" "$2" "$3" "$interlaced" "$5"
}

# Frames that the card dropped in the last recording because no buffer was free: this machine was too slow.
card_dropped() {
    simcard status | tr -d '\r' | sed -nE '/^ *port 0 /{s/.* ([0-9]+) dropped.*/\1/p;q}'
}

# What a test records, one after the other until the machine was not too slow: busy for a moment, or all the time.
attempted_sizes=("1920 1080" "1920 1080" "720 486")

# machine_was_too_slow STATUS: whether a check's result means no more than that the card had no free buffer now and then.
machine_was_too_slow() {
    [ "$1" -eq 3 ] && [ "$(card_dropped)" -gt 0 ]
}

# frame_rate TIMES: the mean rate in Hz, from the time stamps in milliseconds after the first quarter: a graph that starts
# gets its first frames late.
frame_rate() {
    awk '!/^#/ { stamp[n++] = $1 }
         END { first = int(n / 4); printf "%.2f", (n > 1 ? 1000 * (n - 1 - first) / (stamp[n - 1] - stamp[first]) : 0) }' "$1"
}

# record_both FORMAT SECONDS SOUND TIMES: raw frames to the standard output, 16-bit samples into the file SOUND, and the
# time stamps of both in milliseconds into TIMES.picture and TIMES.sound.
record_both() {
    rm -f "$3"
    run_windows "$windows_ffmpeg" -hide_banner -loglevel error -stats -y -rtbufsize 2000M -f dshow -pixel_format "$1" \
        -audio_buffer_size 50 -i "video=Kestra Capture Video:audio=Kestra Capture Audio" \
        -t "$2" -map 0:v -vsync passthrough -c:v rawvideo -f rawvideo - \
        -t "$2" -map 0:a -c:a pcm_s16le -f s16le "Z:$3" \
        -t "$2" -map 0:v -c copy -f mkvtimestamp_v2 "Z:$4.picture" -t "$2" -map 0:a -c copy -f mkvtimestamp_v2 "Z:$4.sound"
}

# check_synchrony FORMAT WIDTH HEIGHT SCAN RATE SOUND TIMES < raw frames: compares each frame and each sample with what the
# simulated card sent, and measures the sound's offset by flash and beep, which may be one frame of 29.97 Hz. SCAN, RATE and
# results as with check_video.
check_synchrony() {
    local interlaced=0
    [ "$4" = p ] || interlaced=1
    "$root/build/native/tests/e2e/check_synchrony" "$1" "$2" "$3" "$interlaced" "$5" 34 "$6" "$7.picture" "$7.sound"
}
