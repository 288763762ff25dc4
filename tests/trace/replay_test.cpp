// A recorded card in place of the model: what was recorded is said again in its order, at its time, and what was not is
// answered by the model and counted.
#include "simcard/ctl/replay_script.h"
#include "tests/support/model_card.h"

namespace kestra::simcard {
namespace {

template <class Record>
std::vector<uint8_t> bytesOf(const Record& record) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
    return {bytes, bytes + sizeof record};
}

/// Writes what a card has said.
class Recorded {
public:
    template <class R>
    trace::Request& ask(const typename R::Sent& sent, const typename R::Answer& answer, uint64_t took = 1000,
                        uint32_t error = 0) {
        trace::Request& request = trace.requests.emplace_back();
        request.number = uint32_t(trace.requests.size());
        request.code = R::kCode;
        request.port = bytesOf(sent)[0];
        request.begin100ns = time;
        request.end100ns = time + took;
        request.hasBegun = request.hasEnded = true;
        request.win32Error = error;
        request.sent = bytesOf(sent);
        if (error == 0) request.reply = bytesOf(answer);
        time += took + 1000;
        return request;
    }
    void event(trace::EventKind kind, uint32_t value = 0) {
        trace::Event& event = trace.events.emplace_back();
        event.kind = kind;
        event.time100ns = time;
        event.value = value;
        time += 1000;
    }
    /// The answers that make a signal.
    void signal(uint16_t width, uint16_t height, uint32_t rate) {
        ask<wire::VideoStatus>({0, 77}, {0, 9, 1, 0, {}});
        ask<wire::FormatSize>({0, 77}, {0, width, 0, height, 0});
        wire::GrabStatisticsReply statistics{};
        statistics.frameRate = rate;
        ask<wire::GrabStatistics>({0, 77}, statistics);
    }

    trace::Trace trace;
    uint64_t time = 100;
};

class ReplayTest : public ModelCardTest {
protected:
    void replay(const Recorded& recorded) {
        m_script = replayScriptOf(recorded.trace);
        ASSERT_TRUE(m_card->setReplay(m_script.bytes.data(), m_script.bytes.size()));
        openClient();
        openSession();
        EXPECT_NE(m_session, 99u) << "the session is its own, not the recorded one";
    }
    ReplayReport report() const {
        ReplayReport report{};
        m_card->readReplay(report);
        return report;
    }

    ReplayScript m_script;
};

TEST_F(ReplayTest, AnswersByKindAndOrderAndByTheModelWhereNothingWasRecorded) {
    Recorded recorded;
    recorded.ask<wire::OpenSession>({}, {0, 99});
    recorded.signal(720, 576, 25);
    recorded.ask<wire::Connection>({0, 77}, {0, 1});
    recorded.ask<wire::Connection>({0, 77}, {0, 7});
    recorded.ask<wire::ReadRegister>({{0, 77}, 0x22}, {0, 0x0800});
    recorded.ask<wire::ReadRegister>({{0, 77}, 0x999}, {0, 1234});
    replay(recorded);
    EXPECT_EQ(m_card->signal().width, 720);
    EXPECT_EQ(m_card->signal().nominalFrameRate(), 25u);
    EXPECT_EQ(m_card->signal().interlaced, 1);
    wire::ReadRegisterReply read{};
    EXPECT_EQ(ask<wire::ReadRegister>({header(), 0x999}, read).status, 0u);
    EXPECT_EQ(int(read.value), 1234) << "each register has its own answers";
    wire::ConnectionReply connection{};
    for (const uint8_t expected : {1, 7, 1}) {
        EXPECT_EQ(ask<wire::Connection>(header(), connection).status, 0u);
        EXPECT_EQ(connection.connected, expected);
    }
    EXPECT_EQ(report().askedAgain, 1u) << "the third is the model's";
    wire::GetConverterReply converter{};
    EXPECT_EQ(ask<wire::GetConverter>(header(), converter).status, 0u);
    EXPECT_EQ(int(converter.converter.yOff), 64);
    EXPECT_EQ(report().notRecorded, 1u);
    EXPECT_EQ(report().codes[0], uint32_t(wire::kGetConverter));
    EXPECT_EQ(report().answered, 4u);
    EXPECT_EQ(report().notAsked, 4u) << "three of the signal, one register";
}

TEST_F(ReplayTest, RefusesShortensDelaysAndHangsAsRecorded) {
    Recorded recorded;
    recorded.ask<wire::OpenSession>({}, {0, 99});
    recorded.ask<wire::Connection>({0, 77}, {}, 1000, 5);
    recorded.ask<wire::FormatSize>({0, 77}, {9, 0, 0, 0, 0});
    recorded.ask<wire::VideoStatus>({0, 77}, {0, 9, 1, 0, {}}).reply.resize(5);
    recorded.ask<wire::ReadRegister>({{0, 77}, 0x22}, {0, 0}, 400'000);
    recorded.ask<wire::ReadRegister>({{0, 77}, 0x23}, {}, 400'000, 995);
    replay(recorded);
    wire::ConnectionReply connection{};
    EXPECT_EQ(ask<wire::Connection>(header(), connection).status, uint32_t(kStatusAccessDenied));
    wire::FormatSizeReply size{};
    EXPECT_EQ(ask<wire::FormatSize>(header(), size).status, 0u);
    EXPECT_EQ(uint32_t(size.result), 9u);
    wire::VideoStatusReply status{};
    EXPECT_EQ(ask<wire::VideoStatus>(header(), status).replySize, 5u);
    wire::ReadRegisterReply late{}, never{};
    EXPECT_EQ(ask<wire::ReadRegister>({header(), 0x22}, late).status, uint32_t(kStatusPending));
    EXPECT_EQ(ask<wire::ReadRegister>({header(), 0x23}, never).status, uint32_t(kStatusPending));
    m_host.now += 390'000;
    m_card->poll();
    EXPECT_EQ(m_host.done.count(&late), 0u);
    m_host.now += 10'000;
    m_card->poll();
    EXPECT_EQ(m_host.done.count(&late), 1u);
    m_host.now += 1'000'000'000;
    m_card->poll();
    EXPECT_EQ(m_host.done.count(&never), 0u);
    EXPECT_TRUE(m_card->cancel(&never));
}

TEST_F(ReplayTest, FramesComeAtTheirTimesWithTheirWordsIntoTheClientsOwnBuffers) {
    Recorded recorded;
    recorded.ask<wire::OpenSession>({}, {0, 99});
    recorded.signal(64, 16, 60);
    recorded.ask<wire::ChannelAccess>({{0, 77}, 0x100}, {0});
    recorded.ask<wire::Prepare>({{0, 77}, 1, 9, 0, {0, 1, 0, 1}, {}}, {0, 2048});
    recorded.ask<wire::StartGrabbing>({{0, 77}, 0}, {0});
    const uint64_t start = recorded.time - 1000;
    wire::LockBufferReply frame{};
    frame.bufferAddress = 0xDEAD0000;
    frame.bufferId = 4711;
    frame.frameWord0 = 1000;
    recorded.ask<wire::LockBuffer>({0, 77}, frame, 100'000);
    frame.frameWord0 = 1005;
    frame.dmaStatus = 2;
    recorded.ask<wire::LockBuffer>({0, 77}, frame, 500'000);
    const uint64_t second = recorded.time - 1000 - start;
    recorded.ask<wire::LockBuffer>({0, 77}, {}, 1000, 31);
    frame.dmaStatus = DMA_STATUS_ABORTED; // by a stop
    recorded.ask<wire::LockBuffer>({0, 77}, frame, 1000);
    replay(recorded);
    startGrabbing();
    wire::LockBufferReply reply{};
    EXPECT_EQ(ask<wire::LockBuffer>(header(), reply).status, uint32_t(kStatusPending));
    runFrame();
    EXPECT_EQ(m_host.done.count(&reply), 0u) << "filled, and before its time";
    m_host.now += 101'000;
    m_card->poll();
    ASSERT_EQ(m_host.done.count(&reply), 1u);
    EXPECT_EQ(uint32_t(reply.frameWord0), 1000u);
    EXPECT_EQ(uint64_t(reply.bufferAddress), 0x10000u);
    EXPECT_NE(uint32_t(reply.bufferId), 4711u);
    runFrame();
    wire::LockBufferReply late{};
    EXPECT_EQ(ask<wire::LockBuffer>(header(), late).status, uint32_t(kStatusPending));
    m_host.now += second - 101'000;
    m_card->poll();
    EXPECT_EQ(uint32_t(late.frameWord0), 1005u);
    EXPECT_EQ(uint32_t(late.dmaStatus), 2u);
    runFrame();
    m_host.now += 10'000;
    EXPECT_EQ(ask<wire::LockBuffer>(header(), late).status, 0xC0000001u);
    EXPECT_EQ(ask<wire::LockBuffer>(header(), late).status, 0u) << "the model's, with the frame that nobody got";
    EXPECT_EQ(uint32_t(late.dmaStatus), 0u);
    EXPECT_EQ(report().notRecorded, 2u) << "the chunk and its table";
    EXPECT_EQ(report().askedAgain, 0u);
}

TEST_F(ReplayTest, EventsHappenAtTheirTimesAndTheAnswersAfterThemComeAfterThem) {
    Recorded recorded;
    recorded.ask<wire::OpenSession>({}, {0, 99});
    recorded.signal(1920, 1080, 60);
    recorded.time = 1'000'100; // a tenth of a second after the first request
    recorded.event(trace::EventKind::InputEvent);
    recorded.signal(1280, 720, 50);
    recorded.time = 2'000'100;
    recorded.event(trace::EventKind::Removal);
    recorded.event(trace::EventKind::Removal); // another instance's
    recorded.time = 9'000'100;
    recorded.event(trace::EventKind::Arrival);
    replay(recorded);
    wire::Reply reply{};
    ask<wire::RegisterInputEvent>({header(), 0x55}, reply);
    EXPECT_EQ(m_card->signal().width, 1920);
    wire::FormatSizeReply size{};
    ask<wire::FormatSize>(header(), size);
    EXPECT_EQ(int(size.width), 1920);
    ask<wire::FormatSize>(header(), size);
    EXPECT_EQ(int(size.width), 1920) << "the recorded one after the event is kept for then";
    m_host.now += 1'000'000;
    m_card->poll();
    EXPECT_EQ(m_host.signalled, (std::vector<uint64_t>{0x55}));
    EXPECT_EQ(m_card->signal().width, 1280);
    EXPECT_EQ(m_card->signal().nominalFrameRate(), 50u);
    ask<wire::FormatSize>(header(), size);
    EXPECT_EQ(int(size.width), 1280);
    m_host.now += 1'000'000;
    m_card->poll();
    EXPECT_TRUE(m_card->unplugRequested());
    m_card->setPlugged(false);
    m_host.now += 1'000'000;
    m_card->poll();
    EXPECT_FALSE(m_card->plugRequested());
    m_host.now += 6'000'000;
    m_card->poll();
    EXPECT_TRUE(m_card->plugRequested());
    m_card->setPlugged(true);
    EXPECT_EQ(report().events, 3u);
    EXPECT_EQ(report().eventsLeft, 0u);
}

/// A session of two frames, then a change of the input at 1 s after its start.
Recorded recordedChange() {
    Recorded recorded;
    recorded.ask<wire::OpenSession>({}, {0, 99});
    recorded.signal(64, 16, 60);
    recorded.ask<wire::StartGrabbing>({{0, 77}, 0}, {0});
    const uint64_t start = recorded.time - 1000;
    for (uint32_t id : {1, 2}) {
        wire::LockBufferReply frame{};
        frame.frameWord0 = id;
        recorded.ask<wire::LockBuffer>({0, 77}, frame);
        recorded.ask<wire::UnlockBuffer>({{0, 77}, id}, {0});
    }
    recorded.time = start + 10'000'000;
    recorded.event(trace::EventKind::InputEvent);
    recorded.signal(1280, 720, 50);
    return recorded;
}

TEST_F(ReplayTest, AnEventWaitsForAClientThatIsBehindButNotForEver) {
    for (const bool catchesUp : {true, false}) {
        m_card = std::make_unique<Card>(m_host, 3);
        replay(recordedChange());
        startGrabbing();
        m_host.now += 10'000'000;
        m_card->poll();
        EXPECT_EQ(m_card->signal().width, 64) << "the client has not seen the frames before it";
        for (int i = 0; i < 2; ++i) {
            runFrame();
            wire::LockBufferReply frame{};
            EXPECT_EQ(ask<wire::LockBuffer>(header(), frame).status, 0u);
            m_card->poll();
            EXPECT_EQ(m_card->signal().width, 64);
            wire::Reply reply{};
            if (catchesUp) ask<wire::UnlockBuffer>({header(), frame.bufferId}, reply);
        }
        m_card->poll();
        EXPECT_EQ(m_card->signal().width, catchesUp ? 1280 : 64);
        m_host.now += 19'990'000;
        m_card->poll();
        EXPECT_EQ(m_card->signal().width, catchesUp ? 1280 : 64);
        m_host.now += 10'000;
        m_card->poll();
        EXPECT_EQ(m_card->signal().width, 1280);
        m_card->close(m_client);
    }
}

TEST_F(ReplayTest, EventsAfterALateOneKeepTheirDistance) {
    Recorded recorded = recordedChange();
    recorded.time += 5'000'000; // half a second after the other
    recorded.event(trace::EventKind::Removal);
    replay(recorded);
    startGrabbing();
    m_host.now += 30'000'000; // without a frame: two seconds late
    m_card->poll();
    EXPECT_EQ(m_card->signal().width, 1280);
    wire::Reply reply{};
    for (int i = 0; i < 2; ++i)
        ask<wire::UnlockBuffer>({header(), 1}, reply); // it has caught up
    m_host.now += 4'900'000;
    m_card->poll();
    EXPECT_FALSE(m_card->unplugRequested());
    m_host.now += 200'000;
    m_card->poll();
    EXPECT_TRUE(m_card->unplugRequested());
}

/// The second of two runs, one frame each, in which only buffers that were given back since its start count.
TEST_F(ReplayTest, AnEventWaitsForTheBuffersOfItsOwnRunAndPort) {
    Recorded recorded;
    recorded.ask<wire::OpenSession>({}, {0, 99});
    recorded.signal(64, 16, 60);
    for (uint32_t run = 0; run < 2; ++run) {
        recorded.ask<wire::StartGrabbing>({{0, 77}, 0}, {0});
        recorded.ask<wire::LockBuffer>({0, 77}, {});
        recorded.ask<wire::UnlockBuffer>({{0, 77}, 1}, {0});
        if (run == 0) recorded.ask<wire::StopGrabbing>({0, 77}, {0});
    }
    recorded.event(trace::EventKind::InputEvent);
    recorded.signal(1280, 720, 50);
    replay(recorded);
    wire::Reply reply{};
    const auto unlock = [&](uint8_t port) { ask<wire::UnlockBuffer>({header(port), 1}, reply); };
    const auto hasChanged = [&] {
        m_card->poll();
        return m_card->signal().width == 1280;
    };
    startGrabbing();
    for (int i = 0; i < 3; ++i)
        unlock(0);
    ask<wire::StopGrabbing>(header(), reply);
    ask<wire::StartGrabbing>({header(), 0}, reply);
    m_host.now += 10'000;
    EXPECT_FALSE(hasChanged()) << "those were of the first run";
    unlock(1);
    EXPECT_FALSE(hasChanged()) << "that was the other port's";
    unlock(0);
    EXPECT_TRUE(hasChanged()) << "one is enough: those of the recorded first run are not waited for";
    EXPECT_EQ(report().eventsLeft, 0u);
}

TEST_F(ReplayTest, BetweenTheLastRecordedFrameAndAnEventNoFrameComes) {
    replay(recordedChange());
    startGrabbing();
    wire::LockBufferReply frame{};
    for (int i = 0; i < 2; ++i) {
        m_host.now += 10'000;
        runFrame();
        wire::Reply reply{};
        EXPECT_EQ(ask<wire::LockBuffer>(header(), frame).status, 0u);
        ask<wire::UnlockBuffer>({header(), frame.bufferId}, reply);
    }
    runFrame();
    EXPECT_EQ(ask<wire::LockBuffer>(header(), frame).status, uint32_t(kStatusPending));
    m_host.now += 9'900'000;
    runFrame();
    m_card->poll();
    EXPECT_EQ(m_host.done.count(&frame), 0u);
    m_host.now += 100'000;
    m_card->poll();
    EXPECT_EQ(m_card->signal().width, 1280);
    m_card->poll();
    EXPECT_EQ(m_host.done.count(&frame), 1u) << "the model's, as nothing more was recorded";
}

TEST_F(ReplayTest, LatenessEndsWithTheNextStart) {
    Recorded recorded = recordedChange();
    recorded.ask<wire::StopGrabbing>({0, 77}, {0});
    recorded.ask<wire::StartGrabbing>({{0, 77}, 0}, {0});
    recorded.time += 5'000'000;
    recorded.event(trace::EventKind::Removal);
    replay(recorded);
    startGrabbing();
    m_host.now += 30'000'000; // two seconds late
    m_card->poll();
    EXPECT_EQ(report().eventsLeft, 1u);
    wire::Reply reply{};
    ask<wire::StopGrabbing>(header(), reply);
    ask<wire::StartGrabbing>({header(), 0}, reply);
    m_host.now += 4'900'000;
    m_card->poll();
    EXPECT_FALSE(m_card->unplugRequested());
    m_host.now += 200'000;
    m_card->poll();
    EXPECT_TRUE(m_card->unplugRequested());
}

TEST_F(ReplayTest, TheSignalFitsWhatTheAnswersTell) {
    Recorded recorded;
    recorded.ask<wire::OpenSession>({}, {0, 99});
    recorded.signal(1920, 1080, 25);
    recorded.ask<wire::ReadRegister>({{0, 77}, kRegisterInput}, {0, kInputRateIs24});
    recorded.ask<wire::ReadRegister>({{0, 77}, kRegisterAudio}, {0, 0});
    const Signal silent = replayScriptOf(recorded.trace).signal;
    EXPECT_EQ(silent.nominalFrameRate(), 24u) << "the statistics round it";
    EXPECT_EQ(silent.reportedFrameRate(), 25u);
    EXPECT_EQ(silent.audio, 0u);
    recorded.ask<wire::ReadRegister>({{0, 77}, kRegisterAudio}, {0, 1});
    EXPECT_EQ(replayScriptOf(recorded.trace).signal.audio, 1u);
}

TEST_F(ReplayTest, TheRecordedFrameSizeCountsAndNotTheModels) {
    Recorded recorded;
    recorded.ask<wire::OpenSession>({}, {0, 99});
    recorded.signal(64, 16, 60);
    recorded.ask<wire::Prepare>({{0, 77}, 1, 9, 0, {0, 1, 0, 1}, {}}, {0, 4096});
    replay(recorded);
    startGrabbing();
    CardState state{};
    m_card->readState(state);
    EXPECT_EQ(state.channels[0].frameSizeBytes, 4096u);
}

TEST_F(ReplayTest, AStartThatWasRefusedIsNoRun) {
    Recorded recorded;
    recorded.ask<wire::OpenSession>({}, {0, 99});
    recorded.signal(64, 16, 60);
    recorded.ask<wire::StartGrabbing>({{0, 77}, 0}, {17});
    recorded.ask<wire::StartGrabbing>({{0, 77}, 0}, {0});
    wire::LockBufferReply frame{};
    frame.frameWord0 = 4711;
    recorded.ask<wire::LockBuffer>({0, 77}, frame);
    recorded.event(trace::EventKind::InputEvent);
    recorded.signal(1280, 720, 50);
    replay(recorded);
    wire::Reply reply{};
    EXPECT_EQ(ask<wire::StartGrabbing>({header(), 0}, reply).status, 0u);
    EXPECT_EQ(uint32_t(reply.result), 17u);
    startGrabbing();
    runFrame();
    m_host.now += 2000;
    EXPECT_EQ(ask<wire::LockBuffer>(header(), frame).status, 0u);
    EXPECT_EQ(uint32_t(frame.frameWord0), 4711u) << "the frame is of the first run that there was";
    m_host.now += 10'000;
    m_card->poll();
    EXPECT_EQ(m_card->signal().width, 1280);
}

TEST_F(ReplayTest, ACardThatNobodyCouldOpenRefusesAsItDid) {
    const struct {
        uint32_t error, status;
        std::vector<std::string> cautions;
    } kRefusals[] = {{5, 0xC0000022, {}},
                     {32, 0xC0000043, {}},
                     {2, 0xC0000034, {}},
                     {1450, 0xC0000034, {"error 1450 of an opening becomes error 2"}}};
    for (const auto& refusal : kRefusals) {
        Recorded recorded;
        recorded.event(trace::EventKind::Opened, refusal.error);
        EXPECT_EQ(replayScriptOf(recorded.trace).openRefusal, refusal.status);
        EXPECT_EQ(replayScriptOf(recorded.trace).cautions, refusal.cautions);
    }
    Recorded recorded;
    recorded.event(trace::EventKind::Opened, 5);
    recorded.event(trace::EventKind::Opened, 0);
    EXPECT_EQ(replayScriptOf(recorded.trace).openRefusal, 0u);
    EXPECT_EQ(replayScriptOf(recorded.trace).cautions,
              std::vector<std::string>{"error 5 of an opening is left out, as other openings went well"});
}

TEST_F(ReplayTest, ALockOfAPortThatThereIsNotIsNotTaken) {
    ReplayScript script = replayScriptOf(recordedChange().trace);
    ReplayHead head{};
    std::memcpy(&head, script.bytes.data(), sizeof head);
    const size_t lock = sizeof head + head.keys * sizeof(ReplayKey) + head.answers * sizeof(ReplayAnswer);
    ASSERT_EQ(head.locks, 2u);
    EXPECT_TRUE(m_card->setReplay(script.bytes.data(), script.bytes.size()));
    script.bytes[lock + offsetof(ReplayLock, port)] = 2;
    EXPECT_FALSE(m_card->setReplay(script.bytes.data(), script.bytes.size()));
}

TEST_F(ReplayTest, AScriptThatDoesNotFitItsSizeIsNotTaken) {
    Recorded recorded;
    recorded.ask<wire::OpenSession>({}, {0, 99});
    recorded.signal(1920, 1080, 60);
    recorded.ask<wire::StartGrabbing>({{0, 77}, 0}, {0});
    recorded.ask<wire::LockBuffer>({0, 77}, {});
    recorded.event(trace::EventKind::InputEvent);
    const std::vector<uint8_t> whole = replayScriptOf(recorded.trace).bytes;
    for (size_t size = 1; size < whole.size(); ++size) {
        std::vector<uint8_t> cut(whole.begin(), whole.begin() + ptrdiff_t(size));
        EXPECT_FALSE(m_card->setReplay(cut.data(), cut.size())) << size;
    }
    for (size_t at = 0; at < whole.size(); ++at)
        for (const uint8_t value : {0xFF, 0x7F}) {
            std::vector<uint8_t> damaged = whole;
            damaged[at] = value;
            if (!m_card->setReplay(damaged.data(), damaged.size())) continue;
            uint32_t client = 0; // taken: then it is within its bounds, which the sanitizers watch
            m_host.done.clear();
            ASSERT_EQ(m_card->open(1, client), 0u);
            m_client = client;
            wire::OpenSessionReply reply{};
            ask<wire::OpenSession>({}, reply);
            wire::FormatSizeReply size{};
            ask<wire::FormatSize>({0, reply.sessionId}, size);
            m_host.now += 10'000'000;
            m_card->poll();
            m_card->close(client);
            m_card->setReplay(nullptr, 0);
        }
}

} // namespace
} // namespace kestra::simcard
