// The log beside spdlog, in one run: what a disabled log point costs, and what an enabled, flushed record costs.
#include "log/engine.h"
#include "log/outputs.h"

#include <windows.h>

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <io.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

/// Median of several runs, in nanoseconds a call.
template <class Work>
double nanoseconds(int calls, Work work) {
    std::vector<double> runs;
    for (int run = 0; run < 9; ++run) {
        const auto begin = Clock::now();
        for (int i = 0; i < calls; ++i)
            work(i);
        runs.push_back(std::chrono::duration<double, std::nano>(Clock::now() - begin).count() / calls);
    }
    std::nth_element(runs.begin(), runs.begin() + 4, runs.end());
    return runs[4];
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
    const auto folder = std::filesystem::temp_directory_path() / "kestra-log-bench";
    std::filesystem::create_directories(folder);
    const std::wstring directory = folder.wstring() + L"\\";
    constexpr int kChecks = 50000000, kRecords = 3000;
    static constexpr kestra::LogUnit unit{"\"Grabbing Functions\"", L".\\TARNIS_grab.cpp"};

    spdlog::logger quiet("quiet");
    quiet.set_level(spdlog::level::err);
    const double empty = nanoseconds(kChecks, [](int) { use(false); });
    const double theirs = nanoseconds(kChecks, [&](int) { use(quiet.should_log(spdlog::level::debug)); });
    const double closed = nanoseconds(kChecks, [](int) { use(kestra::logAccepts(LOG_DEBUG)); });
    kestra::logFindOrCreateEngine(kTarnisLogHandle);
    if (LogOpen(kTarnisLogHandle, L"TARNIS", directory.c_str(), 0, 0, 0, 5, 0) != 0) {
        std::fputs("the log cannot be opened\n", stderr);
        return 1;
    }
    kestra::logFindEngine(kTarnisLogHandle)->applyThresholds({});
    kestra::logUpdateFloor();
    const double open = nanoseconds(kChecks, [](int) { use(kestra::logAccepts(LOG_DEBUG)); });
    std::printf("disabled check, ns a call (empty loop %.2f)\n", empty);
    std::printf("  spdlog should_log           %8.2f\n", theirs);
    std::printf("  ours, log closed            %8.2f   %+.2f\n", closed, closed - theirs);
    std::printf("  ours, log open at ERROR     %8.2f   %+.2f\n", open, open - theirs);

    const HANDLE mutex = CreateMutexW(nullptr, FALSE, L"ZELIB_WRITING_MUTEX");
    const double taking = nanoseconds(kRecords, [&](int) {
        WaitForSingleObject(mutex, 25000);
        ReleaseMutex(mutex);
    });
    auto fileLogger = spdlog::basic_logger_mt("file", (folder / "spdlog.txt").string());
    const double flushed = nanoseconds(kRecords, [&](int i) {
        fileLogger->error("DeviceIOCtl({:#010x}) failed. ErrorCode={}.", 0xCE322058u, i);
        fileLogger->flush();
    });
    spdlog::logger committing("commit", std::make_shared<CommittingSink>((folder / "commit.txt").string()));
    const double committed = nanoseconds(kRecords, [&](int i) {
        committing.error("DeviceIOCtl({:#010x}) failed. ErrorCode={}.", 0xCE322058u, i);
        committing.flush();
    });
    const double ours = nanoseconds(kRecords, [&](int i) {
        KESTRA_LOG(unit, "TARNIS_GIS::IOCtl", LOG_ERROR, i, L"DeviceIOCtl(0x%08X) failed. ErrorCode=%d.", 0xCE322058u,
                   i);
    });
    const double unflushed = nanoseconds(kRecords, [&](int i) {
        KESTRA_LOG(unit, "TARNIS_GIS::IOCtl", LOG_MANDATORY, i, L"DeviceIOCtl(0x%08X) failed. ErrorCode=%d.",
                   0xCE322058u, i);
    });
    std::printf("one record into a file, us\n");
    std::printf("  named mutex alone           %8.2f\n", taking / 1000);
    std::printf("  spdlog, fflush              %8.2f\n", flushed / 1000);
    std::printf("  spdlog, fflush and _commit  %8.2f\n", committed / 1000);
    std::printf("  ours, unflushed (level 5)   %8.2f   %.2f of spdlog fflush + mutex\n", unflushed / 1000,
                unflushed / (flushed + taking));
    std::printf("  ours, flushed (level 5)     %8.2f   %.2f of spdlog _commit + mutex\n", ours / 1000,
                ours / (committed + taking));
    std::printf("                                         %.2f of spdlog fflush + mutex\n", ours / (flushed + taking));
    std::printf("  what the flush costs of it  %8.2f\n", (ours - unflushed) / 1000);
    LogClose(kTarnisLogHandle);
    CloseHandle(mutex);
    spdlog::shutdown();
    fileLogger.reset();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return 0;
}
