// Engines and dispatch: which engines are asked, which get a record, with which context. The outputs are the test's
// own.
#include "tests/unit/log_engine_fixture.h"

#include "log/platform.h"

#include <gmock/gmock.h>

#include <thread>

using namespace kestra;
using namespace kestra::test;
using testing::ElementsAre;

namespace {

/// The range of seconds in which something happened.
struct Seconds {
    uint32_t from, to;
};

/// Expects a line of level 4 or 5 to be `rest` behind the identifier of a thread whose first record is of that time.
void expectLine(const std::wstring& line, uint32_t threadId, Seconds first, const std::wstring& rest) {
    std::vector<std::wstring> possible;
    for (uint32_t second = first.from; second != first.to + 1; ++second) {
        wchar_t identifier[32];
        std::swprintf(identifier, 32, L"{%llX}", (uint64_t{threadId} << 44) + (second & 0x3FFFF) + 0ull);
        possible.push_back(identifier + rest);
    }
    EXPECT_THAT(possible, testing::Contains(line));
}

/// An output that fails for every line.
class FailingOutput final : public LogOutput {
public:
    FailingOutput() noexcept : LogOutput(L"Failing", kFile, 0) { setDetail(1); }
    uint32_t write(const wchar_t*, size_t, const LogRecord&) noexcept override { return 0xFFFFFFFF; }
    uint32_t open() noexcept override { return 0; }
    void close() noexcept override {}
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
    for (const char* text : {r.timeText, r.group, r.moduleTag, r.functionName})
        EXPECT_EQ(text, nullptr);
    for (const wchar_t* text : {r.sourceFile, r.message})
        EXPECT_EQ(text, nullptr);
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
    for (const wchar_t* format : {L"%ls", L"%lsx", L"%ls%d"}) {
        text = LogFormatMessage(format, longer.c_str(), 7);
        EXPECT_EQ(text, full);
        LogFreeText(text);
    }
    text = LogFormatMessage(L"%d%ls", 7, longer.c_str());
    EXPECT_EQ(text, L"7" + full.substr(1));
    LogFreeText(text);
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
    engine().applyThresholds(kDefaultThresholds);
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

TEST_F(LogEngineTest, EngineThatListensWithAHigherThresholdIsServedButNotEnabled) {
    listen(2, 5);
    engine().applyThresholds({7, 4, 7});
    ASSERT_TRUE(logListenToModule(kModule, kHandle));
    EXPECT_FALSE(LogIsEnabled(0x11111111, 3, kModule)) << "nobody wants it";
    EXPECT_TRUE(LogIsEnabled(0x11111111, 4, kModule));
}

TEST_F(LogEngineTest, EveryListeningEngineGetsTheRecord) {
    constexpr uint32_t kOther = kHandle + 1;
    RecordingOutput::Seen other;
    listen(2, 0);
    ASSERT_TRUE(
        logFindOrCreateEngine(kOther)->append(std::make_unique<RecordingOutput>(other, LogOutput::kFile, 2u, 0u)));
    ASSERT_TRUE(logListenToModule(kModule, kHandle));
    ASSERT_TRUE(logListenToModule(kModule, kOther));
    EXPECT_EQ(LogSend(0x11111111, record(5, kModule)), 0xFFFFFFFFu) << "the handle itself has no engine";
    EXPECT_EQ(m_seen.lines.size(), 1u);
    EXPECT_EQ(other.lines.size(), 1u);
    logIgnoreModule(kModule, kOther);
    LogSend(0x11111111, record(5, kModule));
    EXPECT_EQ(m_seen.lines.size(), 2u);
    EXPECT_EQ(other.lines.size(), 1u);
    LogClose(kOther);
}

TEST_F(LogEngineTest, EngineReachedBothWaysGetsTheRecordTwice) {
    listen(1, 0);
    ASSERT_TRUE(logListenToModule(kModule, kHandle));
    EXPECT_EQ(LogSend(kHandle, record(5, kModule)), 0u);
    EXPECT_THAT(m_seen.lines, ElementsAre(L"MANDATORY: -1; message", L"MANDATORY: -1; message"));
}

TEST_F(LogEngineTest, ListeningEngineWithoutAnActiveChannelIsPassedOver) {
    listen(0, 0);
    ASSERT_TRUE(logListenToModule(kModule, 0x11111111)); // no such engine
    ASSERT_TRUE(logListenToModule(kModule, kHandle));
    EXPECT_TRUE(LogIsEnabled(0x22222222, 5, kModule)) << "asked by number of slots";
    EXPECT_EQ(LogSend(0x22222222, record(5, kModule)), 0xFFFFFFFF);
    EXPECT_TRUE(m_seen.lines.empty());
    logIgnoreModule(kModule, 0x11111111);
}

TEST_F(LogEngineTest, NullTextsBecomeUndefined) {
    listen(5, 0);
    LogRecord r = record(5);
    r.message = nullptr;
    const uint32_t before = platform::secondsNow();
    LogSend(kHandle, r);
    ASSERT_EQ(m_seen.lines.size(), 1u);
    expectLine(m_seen.lines[0], 77, {before, platform::secondsNow()},
               L"; ML=9; PT=0:77; NL=0; TM=undefined; MN=undefined,undefined; F=undefined,undefined,0; SV=MANDATORY; "
               L"CD=-1; MSG=undefined");
    EXPECT_EQ(r.message, nullptr) << "the caller's record is left alone";
}

TEST_F(LogEngineTest, FirstRecordOfAThreadHasNestingZeroAndLaterOnesMinusOne) {
    listen(5, 0);
    LogRecord r = record(4);
    r.processId = 12;
    r.timeText = "07.03.2026 09:05:07.5";
    r.group = "DeviceEnumerator";
    r.moduleTag = "TARNIS";
    r.sourceFile = L"src\\lib\\unit.cpp";
    r.functionName = "function";
    r.line = 118;
    r.code = 253;
    const uint32_t before = platform::secondsNow();
    LogSend(kHandle, r);
    const Seconds first{before, platform::secondsNow()};
    LogSend(kHandle, r);
    r.threadId = 78;
    LogSend(kHandle, r);
    r.threadId = 77;
    LogSend(kHandle, r);
    ASSERT_EQ(m_seen.lines.size(), 4u);
    const wchar_t* const nesting[] = {L"0", L"-1", L"0", L"-1"};
    for (size_t i = 0; i < 4; ++i) {
        const bool other = i == 2;
        expectLine(m_seen.lines[i], other ? 78 : 77, other ? Seconds{before, platform::secondsNow()} : first,
                   std::wstring(L"; ML=7; PT=12:") + (other ? L"78" : L"77") + L"; NL=" + nesting[i] +
                       L"; TM=07.03.2026 09:05:07.5; MN=DeviceEnumerator,TARNIS; F=lib\\unit.cpp,function,118; "
                       L"SV=ERROR; CD=253; MSG=message");
    }
    EXPECT_EQ(m_seen.lines[0].substr(0, m_seen.lines[0].find(L';')),
              m_seen.lines[3].substr(0, m_seen.lines[3].find(L';')))
        << "a thread keeps its identifier";
}

TEST_F(LogEngineTest, ThreadsContextLivesAsLongAsItsEngine) {
    for (int life = 0; life < 2; ++life) {
        listen(5, 0);
        LogSend(kHandle, record(5));
        const std::wstring line = m_seen.lines.back();
        expectLine(line, 77, {platform::secondsNow() - 5, platform::secondsNow()},
                   L"; ML=7; PT=0:77; NL=0; TM=undefined; MN=undefined,undefined; F=undefined,undefined,0; "
                   L"SV=MANDATORY; CD=-1; MSG=message");
        LogClose(kHandle);
    }
}

TEST_F(LogEngineTest, RecordReachesEveryChannelInOrderAtItsOwnLevel) {
    listen(1, 0, LogOutput::kSystem);
    listen(2, 5, LogOutput::kFile);
    listen(3, 0, LogOutput::kDebugger);
    listen(0, 0, LogOutput::kDebugger);
    LogSend(kHandle, record(4));
    EXPECT_THAT(m_seen.lines,
                ElementsAre(L"ERROR: -1; message", L"F=undefined,undefined,0; SV=ERROR; CD=-1; MSG=message"));
}

TEST_F(LogEngineTest, ChannelThatFailsKeepsTheLineFromNobodyElse) {
    listen(1, 0);
    ASSERT_TRUE(engine().append(std::make_unique<FailingOutput>()));
    listen(2, 0);
    EXPECT_EQ(LogSend(kHandle, record(4)), 0u);
    EXPECT_THAT(m_seen.lines, ElementsAre(L"ERROR: -1; message", L"SV=ERROR; CD=-1; MSG=message"));
}

TEST_F(LogEngineTest, ChannelOfAnUnknownLevelGetsAnEmptyLine) {
    listen(6, 0);
    EXPECT_EQ(LogSend(kHandle, record(4)), 0u);
    EXPECT_THAT(m_seen.lines, ElementsAre(L""));
}

TEST_F(LogEngineTest, EmptySlotIsEnoughToBeAskedButNotToBeServed) {
    ASSERT_TRUE(engine().append(nullptr));
    EXPECT_TRUE(LogIsEnabled(kHandle, 5, kModule));
    EXPECT_FALSE(LogIsEnabled(kHandle, 4, kModule));
    EXPECT_EQ(LogSend(kHandle, record(5)), 0xFFFFFFFF);
    listen(1, 0);
    EXPECT_NE(engine().find(LogOutput::kFile), nullptr) << "behind the empty slot";
    EXPECT_EQ(LogSend(kHandle, record(5)), 0u);
    EXPECT_THAT(m_seen.lines, ElementsAre(L"MANDATORY: -1; message"));
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
                r.threadId = t * kRecords + i; // each poses as a new thread
                LogSend(kHandle, r);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(m_seen.lines.size(), size_t{kThreads} * kRecords);
    std::vector<bool> seen(size_t{kThreads} * kRecords);
    for (const std::wstring& line : m_seen.lines) {
        unsigned long long identifier = 0;
        unsigned process = 0, thread = 0;
        ASSERT_EQ(std::swscanf(line.c_str(), L"{%llX}; ML=7; PT=%u:%u;", &identifier, &process, &thread), 3) << line;
        ASSERT_EQ(identifier >> 44, thread);
        ASSERT_LT(thread, seen.size());
        ASSERT_FALSE(seen[thread]) << "thread " << thread << " once";
        seen[thread] = true;
        ASSERT_EQ(line.substr(line.find(L"NL=")),
                  L"NL=0; TM=undefined; MN=undefined,undefined; F=undefined,undefined,0; SV=MANDATORY; CD=-1; "
                  L"MSG=message");
    }
}
