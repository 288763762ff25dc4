// The log while memory is short: every allocation fails once. Nobody is disturbed, and nothing is lost for later.
#include "tests/support/failing_allocations.h"
#include "tests/unit/log_engine_fixture.h"

#include "log/hashtable.h"

using namespace kestra;
using namespace kestra::test;

namespace {

/// Counts lines and keeps none: it takes no memory.
class CountingOutput final : public LogOutput {
public:
    explicit CountingOutput(int& lines) noexcept : LogOutput(L"counting", kFile, LOG_DEBUG), m_lines(lines) {
        setDetail(5);
    }
    uint32_t write(const wchar_t*, size_t, const LogRecord&) noexcept override {
        ++m_lines;
        return 0;
    }

private:
    int& m_lines;
};

/// Runs act() with its first, second, ... allocation failing, until it needs no further one. @return how many failed
template <class Act>
int withEachAllocationFailing(Act act) {
    for (int failing = 0;; ++failing) {
        allocationsThatPass = failing;
        act();
        const bool all = allocationsThatPass >= 0; // none was left to fail
        allocationsThatPass = -1;
        if (all) return failing;
    }
}

TEST(LogMemory, EngineThatCannotBeMadeIsMissingAndCanBeMadeLater) {
    const long before = liveAllocations();
    LogEngine* made = nullptr;
    const int failures = withEachAllocationFailing([&] {
        made = logFindOrCreateEngine(kHandle);
        if (!made) {
            EXPECT_EQ(logFindEngine(kHandle), nullptr);
            EXPECT_EQ(LogSend(kHandle, LogRecord{}), 0xFFFFFFFFu);
        }
    });
    EXPECT_GE(failures, 2) << "the engine, and its place in the table";
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(logFindEngine(kHandle), made);
    LogClose(kHandle);
    EXPECT_LE(liveAllocations(), before + 8) << "the table's own blocks stay";
}

TEST(LogMemory, ListenerThatCannotBeNotedIsNotThere) {
    bool listens = false;
    ASSERT_NE(logFindOrCreateEngine(kHandle), nullptr);
    const int failures = withEachAllocationFailing([&] {
        const bool noted = logListenToModule(kModule, kHandle);
        EXPECT_FALSE(listens && noted) << "noted once";
        listens = listens || noted;
    });
    EXPECT_GE(failures, 1);
    EXPECT_TRUE(listens);
    logIgnoreModule(kModule, kHandle);
    LogClose(kHandle);
}

TEST(LogMemory, RecordWithoutMemoryForItsLineOrThreadIsLeftOutAndTheNextOneComes) {
    LogEngine engine;
    int lines = 0;
    ASSERT_TRUE(engine.append(std::make_unique<CountingOutput>(lines)));
    engine.applyThresholds(LogLevels{});
    LogRecord record;
    record.severity = LOG_ERROR;
    record.threadId = 0;
    const int failures = withEachAllocationFailing([&] {
        ++record.threadId; // each poses as a new thread
        EXPECT_EQ(engine.deliver(record), 0u);
    });
    EXPECT_GE(failures, 2) << "what is kept of the thread, and the line";
    EXPECT_GE(lines, 1);
    const int then = lines;
    engine.deliver(record);
    EXPECT_EQ(lines, then + 1);
    engine.Close();
}

TEST(LogMemory, ChannelThatCannotBeMadeIsLeftOutAndTheOthersOpen) {
    int none = 0, some = 0;
    const int failures = withEachAllocationFailing([&] {
        LogEngine engine;
        const int32_t opened = engine.Initialize(L"TARNIS", nullptr, {1, 0, 1});
        EXPECT_EQ(opened == 0, engine.slotCount() != 0);
        ++(engine.slotCount() == 2 ? none : some);
        engine.Close();
    });
    EXPECT_GE(failures, 2) << "a channel each";
    EXPECT_EQ(some, 2);
    EXPECT_GE(none, 1);
}

TEST(LogMemory, TableGoesOnWithLongerChainsIfItCannotGrow) {
    CHashtable<int> table(4, 1.0f);
    for (uint32_t key = 1; key <= 4; ++key)
        ASSERT_NE(table.findOrInsert(key, std::make_unique<int>(int(key))), nullptr);
    auto fifth = std::make_unique<int>(5);
    allocationsThatPass = 0; // the larger part
    EXPECT_NE(table.findOrInsert(5, std::move(fifth)), nullptr);
    allocationsThatPass = -1;
    EXPECT_EQ(table.bucketCount(), 4u);
    for (uint32_t key = 1; key <= 5; ++key)
        ASSERT_TRUE(table.find(key) && *table.find(key) == int(key));
    ASSERT_NE(table.findOrInsert(6, std::make_unique<int>(6)), nullptr);
    EXPECT_EQ(table.bucketCount(), 4u + 9u) << "it grows as soon as it can";
}

TEST(LogMemory, TableWithoutAnyPartTakesNothingAndGivesTheValueBack) {
    CHashtable<int> table(4, 1.0f);
    auto value = std::make_unique<int>(1);
    for (int passing = 0; passing < 3; ++passing) { // its first part, that part's heads, the entry
        allocationsThatPass = passing;
        EXPECT_FALSE(table.exchange(7, value));
        allocationsThatPass = -1;
        ASSERT_TRUE(value) << "still the caller's";
        EXPECT_EQ(table.find(7), nullptr);
        if (passing == 0) {
            EXPECT_EQ(table.bucketCount(), 0u);
        }
    }
    EXPECT_TRUE(table.exchange(7, value));
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(*table.find(7), 1);
    EXPECT_EQ(table.findOrInsert(8, nullptr), nullptr);
}

} // namespace
