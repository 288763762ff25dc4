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

verb_bench() {
    local names=("$@") name
    [ $# -gt 0 ] || names=(log device)
    for name in "${names[@]}"; do
        declare -F "bench_$name" > /dev/null || die "there is no benchmark '$name'"
    done
    setup
    for name in "${names[@]}"; do
        "bench_$name"
    done
}
