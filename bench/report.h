// What all benchmarks share: medians, processor time, the short form, and figures for results.json. One thread.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#else
#include <ctime>
#endif

namespace kestra::bench {

inline double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// Milliseconds of processor time that this process has used, all threads. Windows counts in slices of some 10 ms.
inline double processorMs() {
#ifdef _WIN32
    FILETIME made, ended, kernel, user;
    GetProcessTimes(GetCurrentProcess(), &made, &ended, &kernel, &user);
    const auto ms = [](const FILETIME& time) {
        return (time.dwHighDateTime * 4294967296.0 + time.dwLowDateTime) / 1e4;
    };
    return ms(kernel) + ms(user);
#else
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
#endif
}

/// The shortest run that still goes through everything: shows that a benchmark works, its figures mean nothing.
inline bool isShort() {
    return std::getenv("KESTRA_BENCH_SHORT") != nullptr;
}
template <class Count>
Count fullOrShort(Count full, Count shortest) {
    return isShort() ? shortest : full;
}

enum class Role {
    Ours,
    Peer,
    Limit ///< what memory or the system allows at best
};

/// One measured time: a bar of the page that `./kestra bench` makes. Less is better.
struct Figure {
    std::string group; ///< what is compared with each other
    std::string name;
    Role role;
    double value;
    const char* unit;
    double processor = -1; ///< processor time of the same, in the same unit; below 0: not measured
};

/// Writes figures, a JSON object a line, to the file that KESTRA_BENCH_RESULTS names; tells at its end what the whole
/// program has cost.
class Report {
public:
    explicit Report(const char* benchmark) : m_benchmark(benchmark) {
        if (const char* path = std::getenv("KESTRA_BENCH_RESULTS")) {
            m_file.open(path, std::ios::app | std::ios::binary);
            if (!m_file) {
                std::fprintf(stderr, "%s: cannot write to %s\n", benchmark, path);
                std::exit(1);
            }
        }
    }
    ~Report() {
        const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - m_begin;
        std::printf("%s took %.1f s, %.1f s of processor time\n", m_benchmark, wall.count(), processorMs() / 1e3);
    }
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    /// Names hold no quotation marks and no backslashes.
    void add(const Figure& figure) {
        if (!m_file.is_open()) return;
        constexpr const char* kRoles[] = {"ours", "peer", "limit"};
        m_file << R"({"benchmark":")" << m_benchmark << R"(","group":")" << figure.group << R"(","name":")"
               << figure.name << R"(","role":")" << kRoles[static_cast<int>(figure.role)] << R"(","value":)"
               << figure.value << R"(,"unit":")" << figure.unit << '"';
        if (figure.processor >= 0) m_file << R"(,"processor":)" << figure.processor;
        m_file << "}\n";
    }

private:
    const char* const m_benchmark;
    const std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
    std::ofstream m_file;
};

} // namespace kestra::bench
