// The log beside spdlog, in one run: what a disabled log point costs, and what an enabled, flushed record costs.
#include "bench/report.h"
#include "log/engine.h"

#include <windows.h>

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <io.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace kestra::bench;
using Clock = std::chrono::steady_clock;

/// Nanoseconds a call: the median of several runs, and the processor time of all of them.
struct Cost {
    double wall, processor;
};
template <class Work>
Cost measure(int calls, Work work) {
    constexpr int kRuns = 9;
    std::vector<double> runs;
    const double before = processorMs();
    for (int run = 0; run < kRuns; ++run) {
        const auto begin = Clock::now();
        for (int i = 0; i < calls; ++i)
            work(i);
        runs.push_back(std::chrono::duration<double, std::nano>(Clock::now() - begin).count() / calls);
    }
    return {median(runs), (processorMs() - before) * 1e6 / kRuns / calls};
}

/// Keeps a result alive without costing anything.
void use(bool value) {
    asm volatile("" : : "r"(value) : "memory");
}

/// spdlog's file sink with the flush that reaches the file system, as ours does after an error.
class CommittingSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    explicit CommittingSink(const std::string& path) : m_file(std::fopen(path.c_str(), "ab")) {}
    ~CommittingSink() override { std::fclose(m_file); }

protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        std::fwrite(line.data(), 1, line.size(), m_file);
    }
    void flush_() override {
        std::fflush(m_file);
        _commit(_fileno(m_file));
    }

private:
    std::FILE* m_file;
};

} // namespace

int main() {
    Report report("log");
    const auto folder = std::filesystem::temp_directory_path() / "kestra-log-bench";
    std::filesystem::create_directories(folder);
    const std::wstring directory = folder.wstring() + L"\\";
    const int checks = fullOrShort(50000000, 10000), records = fullOrShort(3000, 10);
    static constexpr kestra::LogUnit unit{"\"Grabbing Functions\"", L".\\TARNIS_grab.cpp"};

    spdlog::logger quiet("quiet");
    quiet.set_level(spdlog::level::err);
    const Cost empty = measure(checks, [](int) { use(false); });
    const Cost theirs = measure(checks, [&](int) { use(quiet.should_log(spdlog::level::debug)); });
    const Cost closed = measure(checks, [](int) { use(kestra::logAccepts(LOG_DEBUG)); });
    kestra::logFindOrCreateEngine(kTarnisLogHandle);
    if (LogOpen(kTarnisLogHandle, L"TARNIS", directory.c_str(), 0, 0, 0, 5, 0) != 0) {
        std::fputs("the log cannot be opened\n", stderr);
        return 1;
    }
    kestra::logFindEngine(kTarnisLogHandle)->applyThresholds(kDefaultThresholds);
    kestra::logUpdateFloor();
    const Cost open = measure(checks, [](int) { use(kestra::logAccepts(LOG_DEBUG)); });
    std::printf("disabled check, ns a call (empty loop %.2f)\n", empty.wall);
    const auto ratio = [](const Cost& cost, double of, const char* what) {
        char text[64];
        std::snprintf(text, sizeof text, "   %.2f of %s", cost.wall / of, what);
        return std::string(text);
    };
    const auto tellCheck = [&](const char* name, Role role, const Cost& cost) {
        std::printf("  %-28s %8.2f, processor time %8.2f   %+.2f\n", name, cost.wall, cost.processor,
                    cost.wall - theirs.wall);
        report.add({"a disabled log point", name, role, cost.wall, "ns", cost.processor});
    };
    tellCheck("spdlog should_log", Role::Peer, theirs);
    tellCheck("ours, log closed", Role::Ours, closed);
    tellCheck("ours, log open at ERROR", Role::Ours, open);

    const HANDLE mutex = CreateMutexW(nullptr, FALSE, L"ZELIB_WRITING_MUTEX");
    const Cost taking = measure(records, [&](int) {
        WaitForSingleObject(mutex, 25000);
        ReleaseMutex(mutex);
    });
    auto fileLogger = spdlog::basic_logger_mt("file", (folder / "spdlog.txt").string());
    const Cost flushed = measure(records, [&](int i) {
        fileLogger->error("DeviceIOCtl({:#010x}) failed. ErrorCode={}.", 0xCE322058u, i);
        fileLogger->flush();
    });
    spdlog::logger committing("commit", std::make_shared<CommittingSink>((folder / "commit.txt").string()));
    const Cost committed = measure(records, [&](int i) {
        committing.error("DeviceIOCtl({:#010x}) failed. ErrorCode={}.", 0xCE322058u, i);
        committing.flush();
    });
    const Cost ours = measure(records, [&](int i) {
        KESTRA_LOG(unit, "TARNIS_GIS::IOCtl", LOG_ERROR, i, L"DeviceIOCtl(0x%08X) failed. ErrorCode=%d.", 0xCE322058u,
                   i);
    });
    const Cost unflushed = measure(records, [&](int i) {
        KESTRA_LOG(unit, "TARNIS_GIS::IOCtl", LOG_MANDATORY, i, L"DeviceIOCtl(0x%08X) failed. ErrorCode=%d.",
                   0xCE322058u, i);
    });
    std::printf("one record into a file, us\n");
    const auto tellRecord = [&](const char* name, Role role, const Cost& cost, const std::string& note = {}) {
        std::printf("  %-28s %8.2f, processor time %8.2f%s\n", name, cost.wall / 1e3, cost.processor / 1e3,
                    note.c_str());
        report.add({"one record into a file", name, role, cost.wall / 1e3, "us", cost.processor / 1e3});
    };
    const double plain = flushed.wall + taking.wall;
    tellRecord("named mutex alone", Role::Peer, taking);
    tellRecord("spdlog, fflush", Role::Peer, flushed);
    tellRecord("spdlog, fflush and _commit", Role::Peer, committed);
    tellRecord("ours, unflushed (level 5)", Role::Ours, unflushed, ratio(unflushed, plain, "spdlog fflush + mutex"));
    tellRecord("ours, flushed (level 5)", Role::Ours, ours,
               ratio(ours, committed.wall + taking.wall, "spdlog _commit + mutex") +
                   ratio(ours, plain, "spdlog fflush + mutex"));
    std::printf("  what the flush costs of it   %8.2f\n", (ours.wall - unflushed.wall) / 1e3);
    LogClose(kTarnisLogHandle);
    CloseHandle(mutex);
    spdlog::shutdown();
    fileLogger.reset();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return 0;
}
