# ./kestra bench [NAME...]: the named benchmarks, or all, ours beside others' in one run. What they
# measure is printed, and kept in build/bench/results.json and on one page, out/bench.html. ./kestra bench --short: each in
# its shortest form, which shows only that it works.
# Sourced by ./kestra.
# shellcheck source=tools/page.sh
. "$root/tools/page.sh"

bench_names=(log device decode capture load)
bench_figures=$root/build/bench/figures # a JSON object a line
bench_native=(decode_bench decode_time sample_bench)
bench_windows=(log_bench device_bench decode_time decode_pace capture_bench load_time)

# The programs write their figures where this points to.
bench_run() { "$root/tools/run-windows" "$windows_build/bench/$1.exe" "${@:2}"; }

bench_plug_in() {
    "$root/tests/support/simulated-card" install "$windows_build/simcard/kestrasimctl.exe" \
        "$windows_build/simcard/kestrasim.inf" > /dev/null
}
bench_unplug() { "$root/tests/support/simulated-card" remove "$windows_build/simcard/kestrasimctl.exe" > /dev/null; }

bench_log() {
    step "log (through Wine), beside spdlog"
    bench_run log_bench
}

bench_device() {
    step "device library (through Wine), beside the bare requests"
    bench_plug_in
    bench_run device_bench
    bench_unplug
}

bench_decode() {
    step "decoder (native), beside memcpy, libyuv, libavcodec and libswscale"
    "$root/build/native/bench/decode_bench"
    step "the same kernels natively and through Wine, one thread: microseconds per line of 1920 pixels"
    local native through_wine
    native=$("$root/build/native/bench/decode_time")
    through_wine=$(bench_run decode_time | tr -d '\r')
    paste -d ' ' <(printf '%s\n' "$native") <(printf '%s\n' "$through_wine") |
        awk '{ printf "  %-7s %-7s in the cache: native %6.3f  Wine %6.3f  ratio %.2f    cold: native %6.3f  Wine %6.3f  ratio %.2f\n",
                      $1, $2, $3, $7, $7 / $3, $4, $8, $8 / $4 }'
    step "a paced stream (through Wine): 300 frames at 60 Hz, one thread and the team"
    bench_run decode_pace
}

bench_capture() {
    step "byte-level work of a sample (native), beside memcpy, libyuv and libswscale"
    "$root/build/native/bench/sample_bench"
    step "the video pin's frame callback (through Wine), beside plain copies"
    bench_plug_in
    bench_run capture_bench
    bench_unplug
}

bench_load() {
    step "loading the module (through Wine), as it ships and with its symbols, beside Wine's own"
    local shipped=$root/build/bench/KestraCapture.dll built=$windows_build/server/KestraCapture.dll
    "$root/packaging/strip-program" "$built" "$shipped"
    bench_run load_time ours "KestraCapture.dll, $(($(stat -c %s "$shipped") / 1000)) kB" "$shipped" \
        ours "with symbols, $(($(stat -c %s "$built") / 1000)) kB" "$built" peer "Wine's qcap.dll" 'C:\windows\system32\qcap.dll'
}

# bench_build: every program that measures.
bench_build() {
    build_preset native "${bench_native[@]}"
    build_preset windows "${bench_windows[@]}" kestrasimctl kestrasim KestraCapture
}

# bench_all NAME...: runs them, in one Windows session.
bench_all() {
    local -x KESTRA_BENCH_RESULTS=$bench_figures
    mkdir -p "$root/build/bench"
    rm -f "$bench_figures"
    session_start
    local name
    for name in "$@"; do
        "bench_$name"
    done
}

# bench_short: runs each benchmark in its shortest form, so that none can rot: each must give a figure.
bench_short() {
    local -x KESTRA_BENCH_SHORT=1
    local benchmark
    visibly build/bench/short.log '^(.*took.*)$' bench_all "${bench_names[@]}"
    for benchmark in log 'device library' 'decoder, one thread' 'paced stream' samples 'callback of the video pin' 'load time'; do
        grep -qF "{\"benchmark\":\"$benchmark\"" "$bench_figures" || die "no figure came from '$benchmark'"
    done
    say "$(wc -l < "$bench_figures") figures from their shortest forms"
}

# bench_write: the figures and where they were measured, and the page that draws them.
bench_write() {
    local results=$root/build/bench/results.json
    page_data figures "$bench_figures" > "$results"
    page_write "$root/bench/page.html" "$results" "$root/out/bench.html"
}

verb_bench() {
    local names=("$@") name
    with_tests=ON
    setup build test bench
    if [ "${1:-}" = --short ]; then
        bench_build
        bench_short
        return
    fi
    [ $# -gt 0 ] || names=("${bench_names[@]}")
    for name in "${names[@]}"; do
        [[ " ${bench_names[*]} " == *" $name "* ]] || die "there is no benchmark '$name': ${bench_names[*]}"
    done
    bench_build
    bench_all "${names[@]}"
    bench_write
}
