// The simulated card's model by itself: protocol, faults, buffers, and garbage requests.
#include "tests/support/model_card.h"

#include <random>

namespace kestra::simcard {
namespace {

class SimcardModel : public ModelCardTest {
protected:
    void SetUp() override { openClient(); }
    void makeReady(uint8_t port, uint8_t selector) {
        openSession();
        startGrabbing(port, selector);
    }
};

TEST_F(SimcardModel, AWaitingLockIsServedByTheNextFrameAndAnUnlockFreesTheBuffer) {
    makeReady(0, 1);
    wire::LockBufferReply locked = {};
    ASSERT_EQ(send(wire::kLockBuffer, header(), locked, &locked).status, uint32_t(kStatusPending));
    EXPECT_EQ(runFrame(), 1);
    ASSERT_EQ(m_host.done.count(&locked), 1u);
    EXPECT_EQ(m_host.done[&locked].replySize, 49u);
    EXPECT_EQ(locked.frameWord0, 1u);
    EXPECT_EQ(locked.bufferAddress, 0x10000u);
    for (int i = 0; i < 12; ++i)
        runFrame();
    CardState state = {};
    m_card->readState(state);
    EXPECT_EQ(state.channels[0].frames, 13u);
    EXPECT_EQ(state.channels[0].dropped, 3u) << "nine free buffers took nine of twelve frames";
    wire::Reply reply = {};
    const wire::UnlockBufferRequest unlock = {header(), locked.bufferId};
    ASSERT_EQ(send(wire::kUnlockBuffer, unlock, reply).status, 0u);
    runFrame();
    ASSERT_EQ(send(wire::kUnlockBuffer, unlock, reply).status, 0u) << "late: the buffer is in use again";
    runFrame();
    m_card->readState(state);
    EXPECT_EQ(state.channels[0].dropped, 4u);
    EXPECT_EQ(state.channels[0].lateUnlocks, 1u);
}

TEST_F(SimcardModel, AStopDoesToAWaitingLockWhatIsSelected) {
    const struct {
        StopBehaviour behaviour;
        uint32_t completed, status, dmaStatus;
    } kCases[] = {{StopBehaviour::Abort, 1, kStatusSuccess, 16},
                  {StopBehaviour::Cancel, 1, kStatusCancelled, 0},
                  {StopBehaviour::LeavePending, 0, 0, 0}};
    for (const auto& expected : kCases) {
        m_host.done.clear();
        m_card->setOptions({Pace::RealTime, expected.behaviour, 0, 0});
        makeReady(0, 1);
        wire::LockBufferReply locked = {};
        wire::Reply reply = {};
        send(wire::kLockBuffer, header(), locked, &locked);
        ASSERT_EQ(send(wire::kStopGrabbing, header(), reply).status, 0u);
        EXPECT_EQ(m_host.done.count(&locked), expected.completed);
        if (expected.completed) {
            EXPECT_EQ(m_host.done[&locked].status, expected.status);
        }
        EXPECT_EQ(locked.dmaStatus, expected.dmaStatus);
        m_host.done.clear();
        if (!expected.completed) {
            EXPECT_TRUE(m_card->cancel(&locked));
            m_host.done.clear();
        }
        openSession(); // ends the old one, and its chunk lock with it
    }
}

TEST_F(SimcardModel, AudioBlocksHoldOneFrameOfSound) {
    makeReady(1, 0);
    CardState state = {};
    m_card->readState(state);
    EXPECT_EQ(state.channels[1].frameSizeBytes, 800u * 6);
    EXPECT_EQ(runFrame(), 1);
}

TEST_F(SimcardModel, ClosingAClientFreesItsChannel) {
    makeReady(0, 1);
    m_card->close(m_client);
    EXPECT_EQ(m_host.done[m_chunk].status, uint32_t(kStatusCancelled));
    ASSERT_EQ(m_card->open(78, m_client), 0u);
    m_host.done.clear();
    makeReady(0, 2);
}

TEST_F(SimcardModel, AFrameThatOutlivesItsClientIsNotTheNextClients) {
    makeReady(0, 1);
    m_card->tick();
    FrameJob slow = {};
    ASSERT_TRUE(m_card->beginFrame(slow));
    m_card->close(m_client);
    ASSERT_EQ(m_card->open(78, m_client), 0u);
    ASSERT_EQ(m_client, slow.client);
    makeReady(0, 1);
    wire::LockBufferReply locked = {};
    send(wire::kLockBuffer, header(), locked, &locked);
    m_host.done.clear();
    m_card->endFrame(slow, true);
    EXPECT_EQ(m_host.done.count(&locked), 0u) << "nothing was written into the new client's buffers";
    EXPECT_EQ(runFrame(), 1);
    EXPECT_EQ(m_host.done.count(&locked), 1u);
}

TEST_F(SimcardModel, RemembersWhichFramesItHasWrittenAndWhere) {
    makeReady(0, 1);
    for (int i = 0; i < 3; ++i)
        runFrame();
    WrittenFrame frames[kWrittenFrames];
    ASSERT_EQ(m_card->readWrites(frames, kWrittenFrames), 3u);
    EXPECT_EQ(frames[2].frameNumber, 3u);
    EXPECT_EQ(frames[2].processId, 77u);
    EXPECT_EQ(frames[2].written, 1u);
    EXPECT_EQ(frames[2].bytes, 1920u * 1080 * 2);
    EXPECT_EQ(frames[2].address, 0x10000u + 2ull * frames[2].bytes);
    EXPECT_EQ(frames[2].serial, frames[1].serial + 1);
    for (uint32_t i = 0; i < kWrittenFrames; ++i) // the client gives nothing back: only seven more are written
        runFrame();
    EXPECT_EQ(m_card->readWrites(frames, 2), 2u);
    EXPECT_EQ(frames[1].frameNumber, 10u);
}

TEST_F(SimcardModel, ASnapThatNoLongerFitsIsRefused) {
    makeReady(0, 1);
    wire::Reply reply = {};
    ASSERT_EQ(send(wire::kStopGrabbing, header(), reply).status, 0u);
    std::vector<uint8_t> memory(1920 * 1080 * 2);
    ASSERT_EQ(send(wire::kSnap, nullptr, 0, memory.data(), uint32_t(memory.size()), memory.data()).status,
              uint32_t(kStatusPending));
    wire::PrepareReply prepared = {};
    const wire::PrepareRequest larger = {header(), 2, 9, 0, {0, 1, 0, 1}, {0, 0}};
    ASSERT_EQ(send(wire::kPrepare, larger, prepared).status, 0u);
    EXPECT_EQ(runFrame(), 0);
    ASSERT_EQ(m_host.done.count(memory.data()), 1u);
    EXPECT_EQ(m_host.done[memory.data()].status, uint32_t(kStatusBufferTooSmall));
}

TEST_F(SimcardModel, CountsHowOftenItComesAndGoes) {
    CardState before = {}, after = {};
    m_card->readState(before);
    for (const bool plugged : {false, false, true})
        m_card->setPlugged(plugged);
    m_card->reset();
    m_card->readState(after);
    EXPECT_EQ(after.plugChanges - before.plugChanges, 2u);
}

TEST_F(SimcardModel, CountersOutliveTheirClientAndTellSkippedFramesFromDroppedOnes) {
    m_card->skip(1); // no client is grabbing yet
    makeReady(0, 1);
    FrameJob job = {};
    for (int i = 0; i < 12; ++i) { // ten buffers that nobody takes
        m_card->tick();
        if (m_card->beginFrame(job)) m_card->endFrame(job, true);
    }
    m_card->skip(3);
    m_card->close(m_client);
    CardState state = {};
    m_card->readState(state);
    EXPECT_EQ(state.clients, 0u);
    EXPECT_EQ(state.channels[0].frames, 12u);
    EXPECT_EQ(state.channels[0].dropped, 2u);
    EXPECT_EQ(state.channels[0].skipped, 3u);
    m_card->reset();
    m_card->readState(state);
    EXPECT_EQ(state.channels[0].frames, 0u);
}

TEST_F(SimcardModel, SignalChangesSignalTheRegisteredEventAndShowInTheRegisters) {
    openSession();
    wire::Reply reply = {};
    ASSERT_EQ(send(wire::kRegisterInputEvent, wire::RegisterInputEventRequest{header(1), 0x44}, reply).status, 0u);
    Signal signal = kDefaultSignal;
    signal.interlaced = 1, signal.rateNumerator = 24000, signal.rateDenominator = 1001;
    ASSERT_TRUE(m_card->setSignal(signal));
    EXPECT_EQ(m_host.signalled, std::vector<uint64_t>{0x44});
    wire::ReadRegisterReply value = {};
    ASSERT_EQ(send(wire::kReadRegister, wire::ReadRegisterRequest{header(), 0x22}, value).status, 0u);
    EXPECT_EQ(value.value, 1 << 11 | 1 << 13);
    ASSERT_EQ(send(wire::kReadRegister, wire::ReadRegisterRequest{header(), 0x202}, value).status, 0u);
    EXPECT_EQ(value.value, 0x1E);
}

TEST_F(SimcardModel, DelayedRequestsAreAnsweredWhenTheyAreDue) {
    openSession();
    ASSERT_TRUE(m_card->addFault({FaultKind::Delay, wire::kConnection, 5, 0, 1, {}}));
    wire::ConnectionReply reply = {};
    const wire::Header request = header();
    ASSERT_EQ(send(wire::kConnection, request, reply, &reply).status, uint32_t(kStatusPending));
    m_card->poll();
    EXPECT_TRUE(m_host.done.empty());
    m_host.now += 5 * 10000;
    m_card->poll();
    EXPECT_EQ(m_host.done[&reply].replySize, 5u);
    EXPECT_EQ(reply.connected, 1);
}

TEST_F(SimcardModel, SurvivesRandomRequests) {
    const uint32_t seed = 12345;
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    const uint32_t codes[] = {0xCE322040, 0xCE32204C, 0xCE322058, 0xCE322060, 0xCE3220C4, 0xCE322100, 0xCE32210C,
                              0xCE322110, 0xCE322600, 0xCE322606, 0xCE32260A, 0xCE32260E, 0xCE322612, 0xCE322614,
                              0xCE322618, 0xCE32261E, 0xCE322630, 0xCE322634, 0xCE322044, 0x12345678};
    openSession();
    std::vector<std::unique_ptr<std::vector<uint8_t>>> buffers; // stay valid while requests may be pending
    for (int i = 0; i < 3000; ++i) {
        buffers.push_back(std::make_unique<std::vector<uint8_t>>(random() % 600));
        std::vector<uint8_t>& buffer = *buffers.back();
        for (uint8_t& byte : buffer)
            byte = uint8_t(random() % 3);
        const uint32_t inSize = uint32_t(random() % (buffer.size() + 1));
        if (inSize >= 5 && random() % 4) std::memcpy(buffer.data() + 1, &m_session, 4);
        const uint32_t code = codes[random() % (sizeof codes / sizeof *codes)];
        const Outcome outcome =
            send(code, buffer.data(), inSize, buffer.data(), uint32_t(buffer.size()), buffers.back().get());
        EXPECT_LE(outcome.replySize, buffer.size());
        if (code == wire::kOpenSession && outcome.status == 0) std::memcpy(&m_session, buffer.data() + 4, 4);
    }
    m_card->close(m_client);
    CardState state = {};
    m_card->readState(state);
    EXPECT_EQ(state.pendingRequests, 0u);
    EXPECT_EQ(state.clients, 0u);
}

} // namespace
} // namespace kestra::simcard
