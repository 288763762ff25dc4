// What decoding costs a paced stream: 300 frames at 60 Hz, on one thread and on the team, on an idle machine and beside
// two busy processes. Prints wall time per frame (median, 99th percentile) and the process's processor time per frame
// (mean: systems count it in slices). For Windows only, as the module ships: runtimes of OpenMP wait differently.
// Arguments: the name of a kernel set, for all its rows, from which the rule in decode/parallel.h is made; none for one
// conversion that is not shared, by the set that this process chooses, and one that is.
#include "bench/decode_frames.h"
#include "bench/report.h"
#include "decode/decode.h"
#include "decode/kernel_set.h"
#include "decode/parallel.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include <windows.h>

namespace {

using namespace kestra;
using namespace kestra::bench;
using Clock = std::chrono::steady_clock;

constexpr int kBusy = 2;
const int kFrames = fullOrShort(300, 5);
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
    Process m_processes[kBusy]{};
    int m_count = 0;
};

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
    return {wall[wall.size() / 2], wall[wall.size() * 99 / 100], used / kFrames};
}

void compare(Report& report, const KernelSet& set, uint32_t selector, Size size) {
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
        const std::string group = std::string(set.name) + ", " + kLayouts[selector] + " " +
                                  std::to_string(size.height) + "p" + (busy ? ", beside two busy processes" : "");
        const auto add = [&](const char* name, Role role, const Stream& stream) {
            report.add({group, std::string(name) + ", median", role, stream.median, "ms", stream.processor});
            report.add({group, std::string(name) + ", 99th percentile", role, stream.p99, "ms"});
        };
        add("one thread", Role::Peer, one);
        add("team", Role::Ours, team);
    }
}

} // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "busy") {
        BusyProcesses::beBusy();
        return 0;
    }
    Report report("paced stream");
    if (mode.empty()) {
        compare(report, kernels(), TARNIS_OUTPUT_YUV422_8, kHd);      // not shared
        compare(report, kSse2Kernels, TARNIS_OUTPUT_YUV422_10, kUhd); // shared
        return 0;
    }
    for (const Size size : {kHd, kUhd})
        for (const uint32_t selector : {TARNIS_OUTPUT_YUV422_8, TARNIS_OUTPUT_YUV422_10})
            for (const KernelSet* set : kKernelSets)
                if (mode == set->name) compare(report, *set, selector, size);
    return 0;
}
