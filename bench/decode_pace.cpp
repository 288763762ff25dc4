// What decoding costs a paced stream: 300 frames at 60 Hz, on one thread and on the team, on an idle machine and beside
// two busy processes. Prints wall time per frame (median, 99th percentile) and the process's processor time per frame
// (mean: systems count it in slices). Runs natively and under Wine, whose OpenMP runtimes wait differently.
// Arguments: the name of a kernel set, for all its rows, from which the rule in decode/parallel.h is made; none for one
// conversion that is not shared, by the set that this process chooses, and one that is.
#include "bench/decode_frames.h"
#include "decode/decode.h"
#include "decode/kernel_set.h"
#include "decode/parallel.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#ifdef _WIN32
#include <windows.h>
#else
#include <csignal>
#include <ctime>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

using namespace kestra;
using namespace kestra::bench;
using Clock = std::chrono::steady_clock;

constexpr int kFrames = 300, kBusy = 2;
constexpr auto kPeriod = std::chrono::nanoseconds(16'666'667);

/// Processes that compute without end, for the life of the object.
class BusyProcesses {
public:
    explicit BusyProcesses(int count) {
        for (int i = 0; i < count; ++i)
            start(m_processes[i]);
        m_count = count;
    }
    ~BusyProcesses() {
        for (int i = 0; i < m_count; ++i)
            end(m_processes[i]);
    }
    BusyProcesses(const BusyProcesses&) = delete;
    BusyProcesses& operator=(const BusyProcesses&) = delete;

    /// What such a process does; for a minute at most, should nobody end it.
    static void beBusy() {
        const auto until = Clock::now() + std::chrono::minutes(1);
        while (Clock::now() < until) {
        }
    }

private:
#ifdef _WIN32
    using Process = PROCESS_INFORMATION;
    static void start(Process& process) {
        wchar_t path[MAX_PATH], command[] = L"decode_pace busy";
        GetModuleFileNameW(nullptr, path, MAX_PATH);
        STARTUPINFOW info{};
        info.cb = sizeof info;
        CreateProcessW(path, command, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &info, &process);
    }
    static void end(Process& process) {
        TerminateProcess(process.hProcess, 0);
        WaitForSingleObject(process.hProcess, INFINITE);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
#else
    using Process = pid_t;
    static void start(Process& process) {
        process = fork();
        if (process != 0) return;
        beBusy();
        _exit(0);
    }
    static void end(Process& process) {
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
    }
#endif
    Process m_processes[kBusy]{};
    int m_count = 0;
};

double processorMs() {
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

struct Stream {
    double median, p99, processor; ///< milliseconds per frame
};

Stream run(FrameSet& frames, Sharing sharing, int busy) {
    g_sharing = sharing;
    const auto decode = [&] {
        frames.advance();
        int32_t stride = frames.stride();
        TARNIS_Decode(&frames.data, frames.source(), frames.image(), &stride, 2, nullptr, nullptr);
    };
    for (int i = 0; i < 10; ++i)
        decode(); // pages, and the team
    const BusyProcesses processes(busy);
    std::vector<double> wall;
    const double before = processorMs();
    auto due = Clock::now();
    for (int i = 0; i < kFrames; ++i, due += kPeriod) {
        std::this_thread::sleep_until(due);
        const auto begin = Clock::now();
        decode();
        wall.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    }
    const double used = processorMs() - before;
    std::sort(wall.begin(), wall.end());
    return {wall[kFrames / 2], wall[kFrames * 99 / 100], used / kFrames};
}

void compare(const KernelSet& set, uint32_t selector, Size size) {
    if (!useKernels(set)) return;
    constexpr const char* kLayouts[] = {"10-bit", "8-bit", "rgb24"};
    FrameSet frames(selector, size, true);
    for (const int busy : {0, kBusy}) {
        const Stream one = run(frames, Sharing::Never, busy), team = run(frames, Sharing::Always, busy);
        std::printf(
            "  %-6s %-6s %dp %-9s one thread %6.3f (p99 %6.3f) ms, processor %6.3f   team %6.3f (p99 %6.3f) ms, "
            "processor %6.3f   team / one: p50 %.2f p99 %.2f processor %.2f\n",
            set.name, kLayouts[selector], size.height, busy ? "2 busy" : "quiet", one.median, one.p99, one.processor,
            team.median, team.p99, team.processor, team.median / one.median, team.p99 / one.p99,
            team.processor / one.processor);
        std::fflush(stdout);
    }
}

} // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "busy") {
        BusyProcesses::beBusy();
        return 0;
    }
    if (mode.empty()) {
        compare(kernels(), TARNIS_OUTPUT_YUV422_8, kHd);      // not shared
        compare(kPlainKernels, TARNIS_OUTPUT_YUV422_10, kHd); // shared
        return 0;
    }
    for (const Size size : {kHd, kUhd})
        for (const uint32_t selector : {TARNIS_OUTPUT_YUV422_8, TARNIS_OUTPUT_YUV422_10})
            for (const KernelSet* set : kKernelSets)
                if (mode == set->name) compare(*set, selector, size);
    return 0;
}
