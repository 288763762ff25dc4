// Opening and closing of engines: by whom, with which announcements, and while threads are delivering.
#include "tests/support/wait_until.h"
#include "tests/unit/log_engine_fixture.h"

#include "log/platform.h"

#include <chrono>
#include <thread>

#ifdef _WIN32
#include <windows.h>
#else
#include <ctime>
#endif

using namespace kestra;
using namespace kestra::test;

namespace {

/// An output that blocks its writer until released.
class HoldingOutput final : public LogOutput {
public:
    struct Gate {
        std::atomic<bool> inside{false}, open{false};
    };
    explicit HoldingOutput(Gate& gate) noexcept : LogOutput(L"Holding", kFile, 0), m_gate(gate) { setDetail(1); }
    uint32_t write(const wchar_t*, size_t, const LogRecord& record) noexcept override {
        if (record.severity == 6) return 0; // the engine's closing announcement
        m_gate.inside = true;
        waitUntil([&] { return m_gate.open.load(); }, std::chrono::seconds(30));
        return 0;
    }
    uint32_t open() noexcept override { return 0; }
    void close() noexcept override {}

private:
    Gate& m_gate;
};

/// Processor time that the calling thread has used.
std::chrono::nanoseconds threadTime() {
#ifdef _WIN32
    FILETIME made, gone, kernel, user;
    GetThreadTimes(GetCurrentThread(), &made, &gone, &kernel, &user);
    const auto ticks = [](FILETIME t) { return int64_t{t.dwHighDateTime} << 32 | t.dwLowDateTime; };
    return std::chrono::nanoseconds(100 * (ticks(kernel) + ticks(user)));
#else
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
#endif
}

} // namespace

TEST_F(LogEngineTest, ZeroAndAllOnesNameTheSameEngine) {
    LogEngine* made = logFindOrCreateEngine(0);
    EXPECT_EQ(logFindEngine(0xFFFFFFFF), made);
    LogClose(0xFFFFFFFF);
    EXPECT_EQ(logFindEngine(0), nullptr);
}

TEST_F(LogEngineTest, OpeningAnUnknownHandleFails) {
    for (const uint32_t handle : {kHandle, 0xFFFFFFFFu}) {
        EXPECT_EQ(LogOpen(handle, L"TARNIS", nullptr, 0, 0, 1, 1, 1), -1);
        EXPECT_EQ(logFindEngine(handle), nullptr) << "only 0 makes an engine";
    }
}

TEST_F(LogEngineTest, OpeningWithoutAnyChannelFailsAndRemovesTheEngine) {
    engine();
    EXPECT_EQ(LogOpen(kHandle, L"TARNIS", nullptr, 0, 0, 0, 0, 0), -1);
    EXPECT_EQ(logFindEngine(kHandle), nullptr);
    EXPECT_EQ(LogOpen(0, L"TARNIS", nullptr, 0, 0, 0, 0, 0), -1);
    EXPECT_EQ(logFindEngine(0), nullptr);
}

TEST_F(LogEngineTest, EveryFurtherOpenNeedsItsOwnClose) {
    listen(1, 0);
    EXPECT_EQ(LogOpen(kHandle, L"TARNIS", nullptr, 0, 0, 0, 0, 0), 0);
    EXPECT_EQ(LogOpen(kHandle, L"TARNIS", nullptr, 0, 0, 0, 0, 0), 0);
    EXPECT_EQ(LogClose(kHandle), 0);
    EXPECT_EQ(LogClose(kHandle), 0);
    EXPECT_EQ(m_seen.closed, 0);
    EXPECT_EQ(LogClose(kHandle), 0);
    EXPECT_EQ(m_seen.closed, 1);
    EXPECT_EQ(logFindEngine(kHandle), nullptr);
    EXPECT_GT(logFloor.load(), 0xFFFFFFFFu) << "nobody listens, whatever the severity";
    EXPECT_EQ(LogClose(kHandle), 0) << "closing what is not there is no failure";
}

TEST_F(LogEngineTest, ClosingTakesLeaveInTheChannel) {
    listen(3, 0);
    LogClose(kHandle);
    ASSERT_EQ(m_seen.lines.size(), 1u);
    EXPECT_EQ(m_seen.records[0].message,
              L"   <<<<<<<<<<<<<<<<< Close the log channels: Recording for: " + std::wstring(platform::commandLine()));
    EXPECT_EQ(m_seen.records[0].functionName, "LogEngine::Close");
    EXPECT_EQ(m_seen.records[0].sourceFile, L".\\LogEngine.cpp");
    EXPECT_EQ(m_seen.records[0].moduleTag, "TARNIS");
    EXPECT_EQ(m_seen.records[0].group, "LogEngine");
    EXPECT_EQ(m_seen.records[0].severity, 6u);
    EXPECT_EQ(m_seen.records[0].code, 0);
}

TEST_F(LogEngineTest, InitializingAnnouncesTheChannelsAndSetsTheFilesDetailOnly) {
    listen(1, 0, LogOutput::kFile);
    listen(1, 0, LogOutput::kDebugger);
    EXPECT_EQ(engine().Initialize(L"TARNIS", nullptr, {0, 4, 5}), 0);
    EXPECT_EQ(engine().find(LogOutput::kFile)->detail(), 4u);
    EXPECT_EQ(engine().find(LogOutput::kDebugger)->detail(), 1u);
    ASSERT_EQ(m_seen.records.size(), 2u);
    EXPECT_EQ(m_seen.records[0].message, L"   >>>>>>>>>>>>>>>>> Open the log channels: Recording, Recording for: " +
                                             std::wstring(platform::commandLine()));
    EXPECT_EQ(m_seen.records[0].functionName, "LogEngine::Initialize");
}

TEST_F(LogEngineTest, RefusesANinthChannel) {
    for (size_t i = 0; i < LogEngine::kMaxSlots; ++i)
        listen(0, 0);
    EXPECT_FALSE(engine().append(std::make_unique<RecordingOutput>(m_seen, LogOutput::kFile, 0, 0)));
    EXPECT_EQ(engine().find(LogOutput::kSystem), nullptr);
}

TEST_F(LogEngineTest, ClosingSleepsWhileAnotherThreadDelivers) {
    using namespace std::chrono;
    constexpr auto kWatched = milliseconds(400);
    const auto pass = [&](auto&& step) {
        for (const auto end = steady_clock::now() + kWatched; steady_clock::now() < end;)
            step();
    };
    const auto idle = threadTime();
    pass([] {});
    ASSERT_GT(threadTime() - idle, kWatched / 20) << "the clock sees a thread that spins";

    HoldingOutput::Gate gate;
    ASSERT_TRUE(engine().append(std::make_unique<HoldingOutput>(gate)));
    logUpdateFloor();
    std::thread delivering([&] { LogSend(kHandle, record(5)); });
    ASSERT_TRUE(waitUntil([&] { return gate.inside.load(); }));
    std::atomic<bool> closed{false};
    nanoseconds used{};
    std::thread closing([&] {
        const auto before = threadTime();
        LogClose(kHandle);
        used = threadTime() - before;
        closed = true;
    });
    EXPECT_TRUE(waitUntil([&] { return !LogIsEnabled(kHandle, 5, kModule); })) << "out of reach at once";
    EXPECT_FALSE(waitUntil([&] { return closed.load(); }, kWatched)) << "a thread is inside the engine";
    gate.open = true;
    delivering.join();
    closing.join();
    EXPECT_TRUE(closed);
    EXPECT_LT(used, kWatched / 20);
}

TEST_F(LogEngineTest, ClosingWhileOthersLogDisturbsNobody) {
    std::atomic<bool> stop{false};
    std::atomic<int> sent{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([&] {
            while (!stop) {
                if (LogIsEnabled(kHandle, 5, kModule)) LogSend(kHandle, record(5, kModule));
                ++sent;
            }
        });
    for (int cycle = 0; cycle < 200; ++cycle) {
        listen(5, 0);
        logListenToModule(kModule, kHandle);
        const int before = sent;
        ASSERT_TRUE(waitUntil([&] { return sent > before + 3; }));
        logIgnoreModule(kModule, kHandle);
        LogClose(kHandle);
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(m_seen.closed, 200);
}
