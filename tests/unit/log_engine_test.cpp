// Engines and dispatch: who is asked, who gets a record, with which context. Channels are the test's own.
#include "tests/support/recording_output.h"
#include "tests/support/wait_until.h"

#include "log/platform.h"

#include <gmock/gmock.h>

#include <thread>

using namespace kestra;
using namespace kestra::test;
using testing::ElementsAre;

namespace {

constexpr uint32_t kHandle = 0x54455354; // TEST
constexpr uint64_t kModule = 0x7FFF00001234;

class LogEngineTest : public testing::Test {
protected:
    ~LogEngineTest() override {
        logIgnoreModule(kModule, kHandle);
        LogClose(kHandle);
        EXPECT_EQ(logFindEngine(kHandle), nullptr);
    }

    LogEngine& engine() { return *logFindOrCreateEngine(kHandle); }
    void listen(uint32_t detail, uint32_t threshold, LogOutput::Type type = LogOutput::kFile) {
        ASSERT_TRUE(engine().append(std::make_unique<RecordingOutput>(m_seen, type, detail, threshold)));
        logUpdateFloor();
    }
    static LogRecord record(uint32_t severity, uint64_t moduleKey = 1) {
        LogRecord r;
        r.severity = severity;
        r.message = L"message";
        r.moduleKey = moduleKey;
        r.threadId = 77;
        return r;
    }

    RecordingOutput::Seen m_seen;
};

} // namespace

TEST(LogRecordTest, IsResetBeforeItIsFilled) {
    const LogRecord r;
    EXPECT_EQ(r.severity, 5u);
    EXPECT_EQ(r.code, -1);
    EXPECT_EQ(r.day, -1);
    EXPECT_EQ(r.month, -1);
    EXPECT_EQ(r.processId, 0u);
    EXPECT_EQ(r.threadId, 0u);
    EXPECT_EQ(r.moduleKey, 0u);
    EXPECT_EQ(r.line, 0);
    EXPECT_EQ(r.message, nullptr);
    EXPECT_EQ(r.timeText, nullptr);
}

TEST(LogTimeStamp, IsLocalTimeWithUnpaddedMilliseconds) {
    LogRecord r;
    const char* text = LogMakeTimeStamp(r);
    int day = 0, month = 0, year = 0, hour = 0, minute = 0, second = 0, millisecond = 0;
    ASSERT_EQ(
        std::sscanf(text, "%2d.%2d.%4d %2d:%2d:%2d.%d", &day, &month, &year, &hour, &minute, &second, &millisecond), 7)
        << text;
    char again[32];
    std::snprintf(again, sizeof again, "%02d.%02d.%d %02d:%02d:%02d.%d", day, month, year, hour, minute, second,
                  millisecond);
    EXPECT_STREQ(text, again);
    EXPECT_EQ(r.day, day);
    EXPECT_EQ(r.month, month);
    EXPECT_EQ(r.year, year);
    EXPECT_TRUE(month >= 1 && month <= 12 && year > 2000 && millisecond < 1000);
    LogFreeText(text);
}

TEST(LogMessage, IsFormattedAndCutTo511Characters) {
    const wchar_t* text = LogFormatMessage(L"Invalid port %d", -1);
    EXPECT_STREQ(text, L"Invalid port -1");
    LogFreeText(text);
    const std::wstring full(511, L'x'), longer(512, L'x');
    text = LogFormatMessage(L"%ls", full.c_str());
    EXPECT_EQ(text, full);
    LogFreeText(text);
#ifdef _WIN32 // elsewhere a text that does not fit is not formatted at all
    text = LogFormatMessage(L"%ls", longer.c_str());
    EXPECT_EQ(text, full);
    LogFreeText(text);
#endif
}

TEST_F(LogEngineTest, UnknownHandleIsNeitherEnabledNorSentTo) {
    EXPECT_FALSE(LogIsEnabled(kHandle, 5, kModule));
    EXPECT_EQ(LogSend(kHandle, record(5)), 0xFFFFFFFF);
}

TEST_F(LogEngineTest, EngineWithoutAChannelSlotAcceptsNothing) {
    engine();
    EXPECT_FALSE(LogIsEnabled(kHandle, 6, kModule));
    EXPECT_EQ(LogSend(kHandle, record(6)), 0xFFFFFFFF);
}

TEST_F(LogEngineTest, ChannelWithoutDetailIsEnabledFromFiveButWritesNothing) {
    listen(0, 0);
    EXPECT_FALSE(LogIsEnabled(kHandle, 4, kModule));
    EXPECT_TRUE(LogIsEnabled(kHandle, 5, kModule));
    EXPECT_TRUE(LogIsEnabled(kHandle, 6, kModule));
    EXPECT_EQ(LogSend(kHandle, record(6)), 0xFFFFFFFF);
    EXPECT_TRUE(m_seen.lines.empty());
}

TEST_F(LogEngineTest, MinimumSeverityIsTheLeastThresholdOfChannelsWithDetail) {
    listen(2, 0, LogOutput::kFile);
    listen(0, 0, LogOutput::kDebugger);
    engine().applyThresholds({7, 3, 1});
    EXPECT_EQ(engine().minimumSeverity(), 3u) << "the debugger channel is off";
    EXPECT_EQ(engine().find(LogOutput::kDebugger)->threshold(), 1u);
    EXPECT_FALSE(LogIsEnabled(kHandle, 2, kModule));
    EXPECT_TRUE(LogIsEnabled(kHandle, 3, kModule));
}

TEST_F(LogEngineTest, ThresholdOfFiveOrMoreBecomesErrorAndANegativeOneStands) {
    listen(2, 0);
    for (const uint32_t configured : {5u, 7u, 9u, 0x7FFFFFFFu}) {
        engine().applyThresholds({7, configured, 7});
        EXPECT_EQ(engine().slot(0)->threshold(), 4u) << configured;
    }
    engine().applyThresholds({7, 0xFFFFFFFF, 7});
    EXPECT_EQ(engine().slot(0)->threshold(), 0xFFFFFFFF);
    LogSend(kHandle, record(6));
    EXPECT_TRUE(m_seen.lines.empty());
}

TEST_F(LogEngineTest, DefaultThresholdLetsErrorAndMandatoryThrough) {
    listen(2, 0);
    engine().applyThresholds({});
    for (uint32_t severity = 0; severity <= 6; ++severity)
        LogSend(kHandle, record(severity));
    EXPECT_THAT(m_seen.lines, ElementsAre(L"SV=ERROR; CD=-1; MSG=message", L"SV=MANDATORY; CD=-1; MSG=message",
                                          L"SV=MANDATORY; CD=-1; MSG=message"));
}

TEST_F(LogEngineTest, FastCheckFollowsTheLibrarysEngine) {
    EXPECT_FALSE(logAccepts(6));
    {
        LibraryLogCapture capture;
        EXPECT_TRUE(logAccepts(0));
    }
    EXPECT_FALSE(logAccepts(6));
}

TEST_F(LogEngineTest, FastCheckIsNotMisledByAnotherEngine) {
    listen(1, 0);
    engine().applyThresholds({0, 0, 0});
    logUpdateFloor();
    EXPECT_FALSE(logAccepts(4)) << "the other engine listens to its own handle only";
    ASSERT_TRUE(logListenToModule(platform::moduleKey(), kHandle));
    EXPECT_TRUE(logAccepts(4));
    logIgnoreModule(platform::moduleKey(), kHandle);
    EXPECT_FALSE(logAccepts(4));
}

TEST_F(LogEngineTest, EngineThatListensToTheModuleIsEnabledAndServed) {
    listen(1, 0);
    engine().applyThresholds({0, 2, 0});
    ASSERT_TRUE(logListenToModule(kModule, kHandle));
    EXPECT_TRUE(LogIsEnabled(0x11111111, 2, kModule));
    EXPECT_FALSE(LogIsEnabled(0x11111111, 1, kModule));
    EXPECT_FALSE(LogIsEnabled(0x11111111, 2, kModule + 1));
    EXPECT_EQ(LogSend(0x11111111, record(2, kModule)), 0xFFFFFFFF) << "the handle itself has no engine";
    EXPECT_THAT(m_seen.lines, ElementsAre(L"NOTICE: -1; message"));
}

TEST_F(LogEngineTest, EngineReachedBothWaysGetsTheRecordTwice) {
    listen(1, 0);
    ASSERT_TRUE(logListenToModule(kModule, kHandle));
    EXPECT_EQ(LogSend(kHandle, record(5, kModule)), 0u);
    EXPECT_EQ(m_seen.lines.size(), 2u);
}

TEST_F(LogEngineTest, NullTextsBecomeUndefined) {
    listen(5, 0);
    LogRecord r = record(5);
    r.message = nullptr;
    LogSend(kHandle, r);
    ASSERT_EQ(m_seen.lines.size(), 1u);
    const std::wstring& line = m_seen.lines[0];
    EXPECT_EQ(line.substr(line.find(L';')),
              L"; ML=9; PT=0:77; NL=0; TM=undefined; MN=undefined,undefined; F=undefined,undefined,0; SV=MANDATORY; "
              L"CD=-1; MSG=undefined");
    EXPECT_EQ(r.message, nullptr) << "the caller's record is left alone";
}

TEST_F(LogEngineTest, FirstRecordOfAThreadHasNestingZeroAndLaterOnesMinusOne) {
    listen(5, 0);
    LogSend(kHandle, record(5));
    LogSend(kHandle, record(5));
    LogSend(kHandle, record(5));
    ASSERT_EQ(m_seen.lines.size(), 3u);
    EXPECT_NE(m_seen.lines[0].find(L"NL=0;"), std::wstring::npos);
    EXPECT_NE(m_seen.lines[1].find(L"NL=-1;"), std::wstring::npos);
    EXPECT_NE(m_seen.lines[2].find(L"NL=-1;"), std::wstring::npos);
}

TEST_F(LogEngineTest, IdentifierIsTheThreadAboveTheTimeOfItsFirstRecord) {
    listen(4, 0);
    const uint32_t before = platform::secondsNow();
    LogSend(kHandle, record(5));
    const uint32_t after = platform::secondsNow();
    unsigned long long identifier = 0;
    ASSERT_EQ(std::swscanf(m_seen.lines.at(0).c_str(), L"{%llX}", &identifier), 1);
    EXPECT_EQ(identifier >> 44, 77u);
    const auto first = static_cast<uint32_t>(identifier & 0x3FFFF);
    EXPECT_TRUE(first >= (before & 0x3FFFF) && first <= (after & 0x3FFFF));
    EXPECT_EQ(identifier & 0xFFFFFFC0000 & ~(uint64_t{77} << 44), 0u);
}

TEST_F(LogEngineTest, SeveritiesAboveSixAreDeliveredByNumber) {
    listen(2, 8);
    LogSend(kHandle, record(7));
    LogSend(kHandle, record(9));
    EXPECT_THAT(m_seen.lines, ElementsAre(L"SV=bad severity; CD=-1; MSG=message"));
}

TEST_F(LogEngineTest, ZeroAndAllOnesNameTheSameEngine) {
    LogEngine* made = logFindOrCreateEngine(0);
    EXPECT_EQ(logFindEngine(0xFFFFFFFF), made);
    LogClose(0xFFFFFFFF);
    EXPECT_EQ(logFindEngine(0), nullptr);
}

TEST_F(LogEngineTest, OpeningAnUnknownHandleFails) {
    EXPECT_EQ(LogOpen(kHandle, L"TARNIS", nullptr, 0, 0, 1, 1, 1), -1);
    EXPECT_EQ(logFindEngine(kHandle), nullptr);
    EXPECT_EQ(logEngineTitle().substr(0, 13), L"Log Engine - ");
}

TEST(LogMissingEngine, IsDescribedByItsNumberAndItsFourCharacters) {
    wchar_t text[128];
    logDescribeMissingEngine(kTarnisLogHandle, text, 128);
    EXPECT_STREQ(text, L"Can't find Log Engine for log handle: 1263685185 (KRNA)");
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
    EXPECT_EQ(LogClose(kHandle), 0) << "closing what is not there is no failure";
}

TEST_F(LogEngineTest, ClosingTakesLeaveInTheChannel) {
    listen(3, 0);
    LogClose(kHandle);
    ASSERT_EQ(m_seen.lines.size(), 1u);
    EXPECT_EQ(m_seen.records[0].message,
              L"   <<<<<<<<<<<<<<<<< Close the log channels: Recording for: " + std::wstring(platform::commandLine()));
    EXPECT_EQ(m_seen.records[0].functionName, "LogEngine::Close");
    EXPECT_EQ(m_seen.records[0].group, "LogEngine");
    EXPECT_EQ(m_seen.records[0].severity, 6u);
    EXPECT_EQ(m_seen.records[0].code, 0);
}

TEST_F(LogEngineTest, InitializingAnnouncesTheChannelsAndSetsTheFilesDetailOnly) {
    listen(1, 0, LogOutput::kFile);
    listen(1, 0, LogOutput::kDebugger);
    EXPECT_EQ(engine().Initialize(L"TARNIS", nullptr, 0, 4, 5), 0);
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
}

TEST_F(LogEngineTest, LogPointFillsTheRecordAndFormatsOnlyIfWanted) {
    constexpr LogUnit unit{"\"Grabbing Functions\"", L".\\TARNIS_grab.cpp"};
    int formatted = 0;
    const auto argument = [&] { return ++formatted; };
    KESTRA_LOG(unit, "TARNIS_StartGrab", LOG_ERROR, 253, L"value %d", argument());
    EXPECT_EQ(formatted, 0);

    LibraryLogCapture capture;
    KESTRA_LOG(unit, "TARNIS_StartGrab", LOG_ERROR, 253, L"value %d", argument());
    KESTRA_LOG_AT(610, unit, "TARNIS_Decode", LOG_TRACE, 0x444D412B, L"plain");
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].message, L"value 1");
    EXPECT_EQ(records[0].group, "\"Grabbing Functions\"");
    EXPECT_EQ(records[0].moduleTag, "TARNIS");
    EXPECT_EQ(records[0].sourceFile, L".\\TARNIS_grab.cpp");
    EXPECT_EQ(records[0].functionName, "TARNIS_StartGrab");
    EXPECT_EQ(records[0].severity, 4u);
    EXPECT_EQ(records[0].code, 253);
    EXPECT_EQ(records[1].line, 610);
    EXPECT_EQ(records[1].code, 0x444D412B);
}

TEST_F(LogEngineTest, FirstRecordsOfManyThreadsRaceOnOneEngine) {
    listen(5, 0);
    constexpr uint32_t kThreads = 8, kRecords = 200;
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (uint32_t i = 0; i < kRecords; ++i) {
                LogRecord r = record(5);
                r.threadId = t * kRecords + i; // each looks like a new thread
                LogSend(kHandle, r);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(m_seen.lines.size(), size_t{kThreads} * kRecords);
    for (const std::wstring& line : m_seen.lines)
        ASSERT_NE(line.find(L"NL=0;"), std::wstring::npos);
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
