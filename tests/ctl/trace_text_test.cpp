// What is said of a trace: lines, figures, comparisons, the page.
#include "ctl/trace_diff.h"
#include "ctl/trace_plot.h"
#include "ctl/trace_stat.h"
#include "ctl/trace_text.h"
#include "protocol/requests.h"

#include <gmock/gmock.h>

#include <cstring>

namespace kestra::ctl {
namespace {

using testing::HasSubstr;
using testing::Not;

template <class Record>
std::vector<uint8_t> bytesOf(const Record& record) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
    return {bytes, bytes + sizeof record};
}

/// A session that records itself: so many frames, each at the given distance.
class Session {
public:
    template <class R>
    trace::Request& ask(const typename R::Sent& sent, const typename R::Answer& answer, uint64_t took = 1000,
                        uint16_t thread = 1) {
        return add(R::kCode, bytesOf(sent), bytesOf(answer), took, thread);
    }
    trace::Request& add(uint32_t code, std::vector<uint8_t> sent, std::vector<uint8_t> reply, uint64_t took,
                        uint16_t thread) {
        trace::Request& request = trace.requests.emplace_back();
        request.number = uint32_t(trace.requests.size());
        request.code = code;
        request.port = sent.empty() ? 0 : sent[0];
        request.thread = thread;
        request.opening = 1;
        request.begin100ns = time;
        request.end100ns = time + took;
        request.hasBegun = request.hasEnded = true;
        request.replyBytes = request.replyRoom = uint32_t(reply.size());
        request.sent = std::move(sent);
        request.reply = std::move(reply);
        time += took + 500;
        return request;
    }
    void stream(int frames, uint32_t session, uint64_t interval = 166'667) {
        ask<wire::OpenSession>({}, {0, session});
        ask<wire::StartGrabbing>({{0, session}, 0}, {0}, 1000, 2);
        for (int i = 0; i < frames; ++i) {
            wire::LockBufferReply frame{};
            frame.frameWord0 = uint32_t(i + 1);
            frame.bufferAddress = session * 0x10000ull;
            ask<wire::LockBuffer>({0, session}, frame, interval - 2000, 2);
            ask<wire::UnlockBuffer>({{0, session}, uint32_t(i)}, {0}, 1000, 2);
        }
        const uint64_t stop = time;
        wire::LockBufferReply aborted{};
        aborted.dmaStatus = DMA_STATUS_ABORTED;
        if (frames % 2 == 0) ask<wire::LockBuffer>({0, session}, aborted, 9000, 2); // a stop comes at any time
        time = stop + 100;
        ask<wire::StopGrabbing>({0, session}, {0});
    }
    trace::Trace trace;
    uint64_t time = 10'000;
};

std::string noText(uint32_t error) {
    return "error " + std::to_string(error);
}

TEST(TraceShow, GivesEachFieldItsNameAndEachEntryItsTimes) {
    Session session;
    session.ask<wire::OpenSession>({}, {0, 7});
    session.ask<wire::FormatSize>({0, 7}, {0, 1920, 0, 1080, 0});
    session.ask<wire::VideoStatus>({1, 7}, {0, 9, 1, 2, {0, 5, 0}}).win32Error = 0;
    trace::Request& refused = session.ask<wire::SetConverter>(
        {{0, 7}, {-3, 512, 512, 297, 1, 2, 3, 4, 0, 255, 0, 255, 0, 255, 256, 256, 256, 0, 0, 0}}, {});
    refused.win32Error = 5;
    trace::Request& pending = session.ask<wire::SessionWatch>({0, 7}, {});
    pending.hasEnded = false;
    const wire::Chunk chunk{0x12345000, 4096, 0, 2, 0};
    std::vector<uint8_t> table = bytesOf(wire::ChunkTableHead{0, 2});
    for (const wire::Chunk& each : {chunk, wire::Chunk{0x12346000, 4096, 2, 2, 0}}) {
        const std::vector<uint8_t> row = bytesOf(each);
        table.insert(table.end(), row.begin(), row.end());
    }
    session.add(wire::kChunkTable + 4, table, table, 1000, 3);
    trace::Event event;
    event.kind = trace::EventKind::CallbackBegin;
    event.time100ns = 10'700;
    event.value = 2;
    event.frameBytes = 100;
    event.frameHash = 0xABC;
    session.trace.events.push_back(event);
    const std::string text = showTrace(session.trace, noText);
    EXPECT_THAT(text,
                HasSubstr("   0.001000    1.000    0.100     1   0  open session         -> result=0 sessionId=7\n"));
    EXPECT_THAT(text, HasSubstr("   0.001070    0.070              0   0  * callback begins: overrun, 100 bytes, hash "
                                "0000000000000ABC\n"));
    EXPECT_THAT(text, HasSubstr("format size          -> result=0 width=1920 height=1080\n"));
    EXPECT_THAT(text, HasSubstr("video status         -> result=0 videoMode=9 signal=1 formatByte=2 reserved=000500\n"))
        << "a reserved field shows when it is not 0";
    EXPECT_THAT(text, HasSubstr("set converter        yOff=-3 crOff=512"));
    EXPECT_THAT(text, HasSubstr(" -> error 5\n"));
    EXPECT_THAT(text, HasSubstr("session watch        -> not answered\n"));
    EXPECT_THAT(text, HasSubstr("     3   1  chunk table          result=0 chunkCount=2 address=0x12345000 "
                                "lengthBytes=4096 firstBuffer=0 bufferCount=2 address=0x12346000 "));
    const std::string json = showTraceJson(session.trace);
    EXPECT_THAT(json, HasSubstr(R"("name":"format size","code":3459391680)"));
    EXPECT_THAT(json, HasSubstr(R"("width":"1920")"));
    EXPECT_THAT(json, HasSubstr(R"("sent":{"result":"0","chunkCount":"2","chunks":[{"address":"0x12345000")"));
    EXPECT_THAT(json,
                HasSubstr(R"("lengthBytes":"4096","firstBuffer":"0","bufferCount":"2"},{"address":"0x12346000")"));
    EXPECT_EQ(std::count(json.begin(), json.end(), '\n'), 7);
}

TEST(TraceShow, AShortReplyEndsWithItsLastWholeFieldAndSaysSo) {
    Session session;
    trace::Request& request = session.ask<wire::FormatSize>({0, 7}, {0, 1920, 0, 1080, 0});
    request.reply.resize(7);
    request.replyBytes = 7;
    EXPECT_THAT(showTrace(session.trace, noText), HasSubstr("-> result=0 width=1920 (7 of 12 bytes)\n"));
}

TEST(TraceStat, CountsLossesByCauseAndMeasuresIntervals) {
    Session session;
    session.stream(50, 3);
    wire::LockBufferReply bad{};
    bad.dmaStatus = DMA_STATUS_FIFO_OVERRUN;
    session.trace.requests[10].reply = bytesOf(bad);
    const TraceStat stat = statOf(session.trace);
    ASSERT_EQ(stat.frames.size(), 1u);
    EXPECT_EQ(stat.frames[0].account.frames, 49u);
    EXPECT_EQ(stat.frames[0].account.losses.overrun, 1u);
    EXPECT_EQ(stat.frames[0].account.losses.cardDropped, 0u);
    EXPECT_EQ(stat.frames[0].account.losses.aborted, 1u);
    EXPECT_EQ(stat.frames[0].interval.p50, 166'667u);
    EXPECT_EQ(stat.frames[0].interval.most, 2 * 166'667u);
    const auto unlock = std::find_if(stat.kinds.begin(), stat.kinds.end(),
                                     [](const auto& kind) { return kind.code == wire::kUnlockBuffer; });
    ASSERT_NE(unlock, stat.kinds.end());
    EXPECT_EQ(unlock->latency.count, 50u);
    EXPECT_EQ(unlock->latency.p99, 1000u);
    for (const trace::Request* slow : stat.slowest)
        EXPECT_NE(slow->code, uint32_t(wire::kLockBuffer)) << "it waits for a frame";
    EXPECT_THAT(statText(stat), HasSubstr("port 0: 49 frames, one every 16.667 ms"));
    EXPECT_EQ(statJson(stat)["frames"][0]["overrun"], 1);
}

TEST(Percentiles, AreValuesThatOccur) {
    std::vector<uint64_t> values;
    for (uint64_t i = 100; i > 0; --i)
        values.push_back(i);
    const Percentiles p = Percentiles::of(values);
    EXPECT_EQ(p.p50, 50u);
    EXPECT_EQ(p.p90, 90u);
    EXPECT_EQ(p.p99, 99u);
    EXPECT_EQ(p.most, 100u);
    values.clear();
    EXPECT_EQ(Percentiles::of(values).count, 0u);
}

TEST(TraceDiff, SeesNoDifferenceInWhatOnlyTimeDecides) {
    Session a, b;
    a.stream(60, 3);
    b.time = 77'000;
    b.stream(63, 8, 170'000);
    const TraceDiff diff = diffOf(a.trace, b.trace);
    EXPECT_TRUE(diff.lanes.empty()) << diffText(diff, a.trace, b.trace);
    EXPECT_EQ(diff.same, 2u);
    EXPECT_THAT(diffText(diff, a.trace, b.trace), HasSubstr("only times differ\n"));
    EXPECT_EQ(diffJson(diff)["same"], true);
}

TEST(TraceDiff, ALockThatAChangeOfTheInputOvertakesIsLeftOut) {
    Session a, b;
    for (Session* session : {&a, &b}) {
        session->stream(4, 3);
        wire::LockBufferReply frame{};
        frame.dmaStatus = session == &a ? DMA_STATUS_GOOD : DMA_STATUS_ABORTED;
        session->ask<wire::StartGrabbing>({{0, 3}, 0}, {0}, 1000, 2);
        const uint64_t begin = session->time;
        session->ask<wire::LockBuffer>({0, 3}, frame, 5000, 2);
        trace::Event event;
        event.kind = trace::EventKind::InputEvent;
        event.thread = 2;
        event.time100ns = begin + 3000;
        session->trace.events.push_back(event);
        session->ask<wire::Connection>({0, 3}, {0, 1}, 1000, 2);
    }
    EXPECT_TRUE(diffOf(a.trace, b.trace).lanes.empty()) << diffText(diffOf(a.trace, b.trace), a.trace, b.trace);
    for (Session* session : {&a, &b})
        session->trace.events[0].port = 1;
    EXPECT_FALSE(diffOf(a.trace, b.trace).lanes.empty()) << "that of the other port has nothing to do with it";
}

TEST(TraceDiff, NamesWhatWasAskedOtherwiseAndWhatWasAnsweredOtherwise) {
    Session a, b;
    a.stream(60, 3);
    b.stream(60, 3);
    a.ask<wire::ReadRegister>({{0, 3}, 34}, {0, 1});
    b.ask<wire::ReadRegister>({{0, 3}, 35}, {0, 1});
    std::string text = diffText(diffOf(a.trace, b.trace), a.trace, b.trace);
    EXPECT_THAT(text, HasSubstr("thread 1, port 0\n"));
    EXPECT_THAT(text, HasSubstr("- read register port=0 registerNumber=34 -> result=0 value=1 (6 bytes)\n"));
    EXPECT_THAT(text, HasSubstr("+ read register port=0 registerNumber=35 -> result=0 value=1 (6 bytes)\n"));
    EXPECT_THAT(text, Not(HasSubstr("- lock buffer")));

    Session c;
    c.stream(60, 3);
    c.trace.requests[10].win32Error = 31;
    text = diffText(diffOf(b.trace, c.trace), b.trace, c.trace);
    EXPECT_THAT(text, HasSubstr("+ lock buffer port=0 -> error 31\n"));
    EXPECT_EQ(diffJson(diffOf(b.trace, c.trace))["same"], false);
}

TEST(TraceDiff, NamesEventsWhatWasNotAnsweredAndWhatOnlyTheSecondAsked) {
    const auto differs = [](const Session& a, const Session& b, const char* line) {
        const std::string text = diffText(diffOf(a.trace, b.trace), a.trace, b.trace);
        EXPECT_THAT(text, HasSubstr(line));
    };
    const auto withEvent = [](trace::EventKind kind, uint32_t value) {
        Session session;
        session.stream(4, 3);
        trace::Event event;
        event.kind = kind;
        event.thread = 1;
        event.time100ns = session.time;
        event.value = value;
        session.trace.events.push_back(event);
        return session;
    };
    Session plain;
    plain.stream(4, 3);
    differs(plain, withEvent(trace::EventKind::Removal, 0), "+ * removal\n");
    differs(plain, withEvent(trace::EventKind::Arrival, 0), "+ * arrival\n");
    differs(withEvent(trace::EventKind::Opened, 5), withEvent(trace::EventKind::Opened, 32), "- * not opened 5\n");
    Session first = withEvent(trace::EventKind::InputEvent, 0), second = first;
    first.trace.events[0].thread = second.trace.events[0].thread = 5;
    second.trace.events[0].port = 1;
    differs(first, second, "thread 5, port 0\n- * input event\n");
    Session hangs;
    hangs.stream(4, 3);
    hangs.ask<wire::Connection>({0, 3}, {0, 1}).hasEnded = false;
    Session answered;
    answered.stream(4, 3);
    answered.ask<wire::Connection>({0, 3}, {0, 1});
    differs(hangs, answered, "- connection port=0 -> not answered\n");
    Session shorter;
    shorter.stream(4, 3);
    trace::Request& cut = shorter.ask<wire::Connection>({0, 3}, {0, 1});
    cut.replyBytes = 4;
    differs(answered, shorter, "+ connection port=0 -> result=0 connected=1 (4 bytes)\n");
    Session more;
    more.stream(4, 3);
    more.ask<wire::Connection>({1, 3}, {0, 1}, 1000, 9);
    differs(plain, more, "thread 9 of the second, port 1\n+ connection port=1");
    differs(more, plain, "thread 9, port 1\n- connection port=1");
}

TEST(TraceStat, CountsWhatFailedWasRefusedOrNeverAnswered) {
    Session session;
    session.ask<wire::Connection>({0, 3}, {0, 1}, 1000);
    session.ask<wire::Connection>({0, 3}, {7, 1}, 2000);
    session.ask<wire::Connection>({0, 3}, {}, 90'000).win32Error = 5;
    session.ask<wire::Connection>({0, 3}, {}).hasEnded = false;
    const TraceStat stat = statOf(session.trace);
    ASSERT_EQ(stat.kinds.size(), 1u);
    EXPECT_EQ(stat.kinds[0].failed, 1u);
    EXPECT_EQ(stat.kinds[0].refused, 1u);
    EXPECT_EQ(stat.kinds[0].unended, 1u);
    EXPECT_EQ(stat.kinds[0].latency.count, 2u) << "of those that were answered";
    EXPECT_EQ(stat.kinds[0].latency.most, 2000u);
    EXPECT_THAT(statText(stat), HasSubstr("connection               0       3     0.100     0.100     0.100     0.200"
                                          "       1       1, not answered: 1\n"));
    EXPECT_THAT(statText(stat), HasSubstr("   0.001400 s     9.000 ms  connection\n"));
}

TEST(TraceStat, AnIntervalDoesNotReachOverARestart) {
    Session session;
    session.stream(3, 3);
    session.time += 50'000'000;
    session.stream(3, 3);
    EXPECT_EQ(statOf(session.trace).frames.at(0).interval.count, 4u);
    EXPECT_EQ(statOf(session.trace).frames.at(0).interval.most, 166'667u);
}

TEST(TraceShow, JsonSaysWhichThreadAskedWhatIsKeptAndWhatWasNotAnswered) {
    Session session;
    session.ask<wire::Connection>({1, 3}, {0, 1}, 1000, 7).hasEnded = false;
    trace::Event event;
    event.kind = trace::EventKind::CallbackBegin;
    event.thread = 8;
    event.content = {1, 2};
    session.trace.events.push_back(event);
    const std::string json = showTraceJson(session.trace);
    EXPECT_THAT(json, HasSubstr(R"("thread":7,"port":1,"name":"connection")"));
    EXPECT_THAT(json, HasSubstr(R"("duration100ns":null)"));
    EXPECT_THAT(json, HasSubstr(R"("thread":8,"port":0,"name":"callback begins")"));
    EXPECT_THAT(json, HasSubstr(R"("kept":true)"));
}

TEST(TracePlot, IsOnePageThatNothingInTheTraceCanBreak) {
    Session session;
    session.stream(5, 3);
    const std::string page = tracePage(session.trace, "</script><b>x");
    EXPECT_THAT(page, HasSubstr("<!DOCTYPE html>"));
    EXPECT_THAT(page, Not(HasSubstr("/*DATA*/null")));
    EXPECT_THAT(page, Not(HasSubstr("</script><b>")));
    EXPECT_THAT(page, HasSubstr("\"unlock buffer\""));
    EXPECT_THAT(page, Not(HasSubstr("http"))) << "it needs nothing from elsewhere";
    EXPECT_THAT(page, testing::EndsWith("</html>\n"));
}

TEST(TracePlot, TellsAFailureFromWhatEndsWithTheCard) {
    Session session;
    session.ask<wire::SessionWatch>({0, 7}, {}).win32Error = 995;
    session.ask<wire::Connection>({0, 7}, {}).win32Error = 995;
    session.ask<wire::FormatSize>({0, 7}, {9, 0, 0, 0, 0});
    trace::Event event;
    event.kind = trace::EventKind::Removal;
    event.thread = 4;
    event.time100ns = 77;
    session.trace.events.push_back(event);
    const std::string page = tracePage(session.trace, "a");
    EXPECT_THAT(page, HasSubstr(R"("session watch",true,null])"));
    EXPECT_THAT(page, HasSubstr(R"("connection",false,"error 995"])"));
    EXPECT_THAT(page, HasSubstr(R"([77,4,0,"removal",null])"));
    EXPECT_THAT(page, HasSubstr(R"("format size",false,"driver result 9"])"));
}

TEST(TraceCaution, SaysWhatIsMissing) {
    trace::Trace trace;
    EXPECT_EQ(traceCaution(trace), "");
    trace.lost = 3;
    trace.missingParts = 2;
    trace.isCut = true;
    EXPECT_EQ(traceCaution(trace), "2 files of the trace are missing: it had grown beyond its limit\n"
                                   "3 records found no room while it was written\n"
                                   "a file ends within a record: its program ended there\n");
}

} // namespace
} // namespace kestra::ctl
