# ./kestra bench [NAME...]: benchmarks, ours and others' side by side in one run. Sourced by ./kestra.

verb_bench() {
    setup
    build_preset windows log_bench
    session_start
    step "log (Windows build through Wine), beside spdlog"
    "$root/tools/run-windows" "$root/build/windows/bench/log_bench.exe"
}
