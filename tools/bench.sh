# ./kestra bench [NAME...]: benchmarks, ours and others' side by side in one run; all of them without a name.
# Sourced by ./kestra.

bench_log() {
    build_preset windows log_bench
    session_start
    step "log (Windows build through Wine), beside spdlog"
    "$root/tools/run-windows" "$root/build/windows/bench/log_bench.exe"
}

bench_device() {
    build_preset windows device_bench kestrasimctl kestrasim
    session_start
    "$root/tests/support/simulated-card" install "$root/build/windows/simcard/kestrasimctl.exe" \
        "$root/build/windows/simcard/kestrasim.inf" > /dev/null
    step "device library (through Wine), beside the bare requests"
    "$root/tools/run-windows" "$root/build/windows/bench/device_bench.exe"
    "$root/tests/support/simulated-card" remove "$root/build/windows/simcard/kestrasimctl.exe" > /dev/null
}

bench_decode() {
    build_preset native decode_bench decode_time decode_pace
    build_preset windows decode_time decode_pace
    step "decoder (native), beside memcpy, libyuv, libavcodec and libswscale"
    "$root/build/native/bench/decode_bench"
    session_start
    step "the same kernels natively and through Wine, one thread: microseconds per line of 1920 pixels"
    local native through_wine
    native=$("$root/build/native/bench/decode_time")
    through_wine=$("$root/tools/run-windows" "$root/build/windows/bench/decode_time.exe" | tr -d '\r')
    paste -d ' ' <(printf '%s\n' "$native") <(printf '%s\n' "$through_wine") |
        awk '{ printf "  %-7s %-7s in the cache: native %6.3f  Wine %6.3f  ratio %.2f    cold: native %6.3f  Wine %6.3f  ratio %.2f\n",
                      $1, $2, $3, $7, $7 / $3, $4, $8, $8 / $4 }'
    step "a paced stream (native): 300 frames at 60 Hz, one thread and the team"
    "$root/build/native/bench/decode_pace"
    step "the same through Wine"
    "$root/tools/run-windows" "$root/build/windows/bench/decode_pace.exe"
}

bench_capture() {
    build_preset native sample_bench
    build_preset windows capture_bench kestrasimctl kestrasim
    step "byte-level work of a sample (native), beside memcpy, libyuv and libswscale"
    "$root/build/native/bench/sample_bench"
    session_start
    "$root/tests/support/simulated-card" install "$root/build/windows/simcard/kestrasimctl.exe" \
        "$root/build/windows/simcard/kestrasim.inf" > /dev/null
    step "the video pin's frame callback (through Wine), beside plain copies"
    "$root/tools/run-windows" "$root/build/windows/bench/capture_bench.exe"
    "$root/tests/support/simulated-card" remove "$root/build/windows/simcard/kestrasimctl.exe" > /dev/null
}

verb_bench() {
    local names=("$@") name
    [ $# -gt 0 ] || names=(log device decode capture)
    for name in "${names[@]}"; do
        declare -F "bench_$name" > /dev/null || die "there is no benchmark '$name'"
    done
    with_tests=ON
    setup build test bench
    for name in "${names[@]}"; do
        "bench_$name"
    done
}
