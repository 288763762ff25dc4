// Streams of the simulated card, received with the raw protocol: every byte of picture and sound in every layout,
// two cards, plugging under load, what a stop does to waiting requests, and the request log. KESTRA_LONG=1: 600
// frames each, and none may be dropped.
#include "simcard/client/raw_client.h"
#include "simcard/model/picture.h"
#include "simcard/model/sound.h"
#include "tests/support/card_fixture.h"
#include "tests/support/long_run.h"
#include "tests/support/wait_until.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

struct Layout {
    const char* name;
    Signal signal;
    uint8_t selector;
    uint8_t sampleFormat;
    bool changedConverter;
};

constexpr Signal kInterlaced = {1, 1, 1, 7, 0, 0, 1920, 1080, 0, 30, 1, 0};
constexpr Signal kCinema = {1, 0, 1, kVideoMode24, 0, 1, 1280, 720, 0, 24000, 1001, 0};

constexpr Signal kNoSignal = {};

constexpr Layout kLayouts[] = {
    {"Progressive1080p60EightBit", kDefaultSignal, TARNIS_OUTPUT_YUV422_8, 1, false},
    {"Interlaced1080iTenBit", kInterlaced, TARNIS_OUTPUT_YUV422_10, 0, false},
    {"Cinema720p2398Rgb", kCinema, TARNIS_OUTPUT_RGB24, 1, true},
    {"Interlaced1080iRgb", kInterlaced, TARNIS_OUTPUT_RGB24, 0, false},
};

PictureFormat pictureOf(const Signal& signal, uint8_t selector, const wire::Converter& converter) {
    return {signal.width,      signal.height, signal.interlaced != 0, selector, uint8_t(signal.nominalFrameRate()),
            PictureKind::Bars, converter};
}

/// Receives frames on one port until it has `count`, checking each. @return what went wrong; empty: nothing.
class Receiver {
public:
    uint32_t first = 0, last = 0, received = 0;

    template <class Check>
    std::string run(RawStream& stream, uint32_t count, Check check) {
        for (; received < count; ++received) {
            wire::LockBufferReply reply = {};
            if (const DWORD error = stream.lock(reply)) return "lock failed: " + std::to_string(error);
            if (reply.dmaStatus != 0) return "DMA status " + std::to_string(reply.dmaStatus);
            const uint8_t* bytes = stream.bytes(reply);
            if (!bytes) return "the buffer lies outside the client's memory";
            if (received == 0)
                first = reply.frameWord0;
            else if (reply.frameWord0 <= last)
                return "frame " + std::to_string(reply.frameWord0) + " after " + std::to_string(last);
            last = reply.frameWord0;
            if (!check(bytes, reply.frameWord0)) return "bytes differ in frame " + std::to_string(last);
            if (const DWORD error = stream.unlock(reply.bufferId)) return "unlock failed: " + std::to_string(error);
        }
        return {};
    }
    uint32_t missed() const { return last - first + 1 - received; }
};

std::string receivePicture(RawClient& client, const PictureFormat& format, uint32_t count, Receiver& receiver) {
    RawStream stream(client, 0, format.selector);
    if (const DWORD error = stream.start()) return "video start failed: " + std::to_string(error);
    std::vector<uint8_t> expected(frameSizeBytes(format));
    if (stream.frameSizeBytes() != expected.size()) return "frame size " + std::to_string(stream.frameSizeBytes());
    PictureSource source;
    source.prepare(format, expected.data(), expected.size(), 0);
    return receiver.run(stream, count, [&](const uint8_t* bytes, uint32_t number) {
        return std::memcmp(bytes, source.advance(number), expected.size()) == 0;
    });
}

std::string receiveSound(RawClient& client, uint32_t framesPerSecond, uint8_t sampleFormat, uint32_t count,
                         Receiver& receiver) {
    RawStream stream(client, 1, sampleFormat);
    if (const DWORD error = stream.start()) return "audio start failed: " + std::to_string(error);
    std::vector<uint8_t> expected(size_t{samplesPerBlock(framesPerSecond)} * sampleFrameBytes(sampleFormat));
    if (stream.frameSizeBytes() != expected.size()) return "block size " + std::to_string(stream.frameSizeBytes());
    return receiver.run(stream, count, [&](const uint8_t* bytes, uint32_t number) {
        soundBlock(number, framesPerSecond, sampleFormat, expected.data());
        return std::memcmp(bytes, expected.data(), expected.size()) == 0;
    });
}

class RawStreamTest : public CardTest {
protected:
    static void open(RawClient& client) {
        ASSERT_EQ(client.openError(), 0u);
        ASSERT_EQ(client.openSession(), 0u);
    }
};

class RawLayoutTest : public RawStreamTest, public testing::WithParamInterface<Layout> {};

} // namespace

TEST_P(RawLayoutTest, EveryByteOfPictureAndSoundArrivesAsTheCardMadeIt) {
    const Layout& layout = GetParam();
    const uint32_t count = repetitions(45u, 600u), rate = layout.signal.nominalFrameRate();
    m_card.setSignal(layout.signal);
    RawClient video(m_card.devicePath()), audio(m_card.devicePath());
    open(video);
    open(audio);
    wire::Converter converter = wire::toWire(wire::kDefaultConverter);
    if (layout.changedConverter) {
        converter.redGain = 300;
        converter.blueOffset = wire::offsetToWire(-20);
        wire::Reply reply = {};
        ASSERT_EQ(video.call(wire::kSetConverter, wire::SetConverterRequest{video.header(), converter}, reply), 0u);
    }
    Receiver pictures, sounds;
    std::string soundProblem;
    std::thread listener([&] { soundProblem = receiveSound(audio, rate, layout.sampleFormat, count, sounds); });
    const std::string pictureProblem =
        receivePicture(video, pictureOf(layout.signal, layout.selector, converter), count, pictures);
    listener.join();
    EXPECT_EQ(pictureProblem, "");
    EXPECT_EQ(soundProblem, "");
    const CardState state = m_card.state();
    for (int port = 0; port < 2; ++port) {
        EXPECT_EQ(state.channels[port].failed, 0u);
        EXPECT_LE(port == 0 ? pictures.missed() : sounds.missed(), state.channels[port].dropped)
            << "a missing frame must be one that the card counts as dropped";
        if (isLongRun()) {
            EXPECT_EQ(state.channels[port].dropped, 0u);
        }
    }
    std::printf("%u frames: %u missed in the picture, %u in the sound\n", count, pictures.missed(), sounds.missed());
}

INSTANTIATE_TEST_SUITE_P(Layouts, RawLayoutTest, testing::ValuesIn(kLayouts),
                         [](const auto& info) { return info.param.name; });

TEST_F(RawStreamTest, TwoCardsStreamAtOnce) {
    const CardControl second(1);
    second.reset();
    Signal other = kDefaultSignal;
    other.width = 720;
    other.height = 576;
    other.rateNumerator = 50;
    second.setSignal(other);
    {
        RawClient here(m_card.devicePath()), there(second.devicePath());
        open(here);
        open(there);
        const wire::Converter converter = wire::toWire(wire::kDefaultConverter);
        Receiver a, b;
        std::string problem;
        std::thread thread([&] { problem = receivePicture(there, pictureOf(other, 1, converter), 40, b); });
        EXPECT_EQ(receivePicture(here, pictureOf(kDefaultSignal, 1, converter), 40, a), "");
        thread.join();
        EXPECT_EQ(problem, "");
    }
    second.reset();
}

TEST_F(RawStreamTest, UnplugUnderLoadEndsTheStreamAndReplugServesAgain) {
    const int cycles = repetitions(5, 50);
    for (int cycle = 0; cycle < cycles; ++cycle) {
        RawClient client(m_card.devicePath());
        open(client);
        RawStream stream(client, 0, TARNIS_OUTPUT_YUV422_8);
        ASSERT_EQ(stream.start(), 0u) << "cycle " << cycle;
        std::thread puller([&] {
            waitUntil([&] { return m_card.state().channels[0].delivered >= 3; });
            m_card.unplug();
        });
        DWORD error = 0;
        while (error == 0) {
            wire::LockBufferReply reply = {};
            error = stream.lock(reply);
            if (error == 0) error = stream.unlock(reply.bufferId);
        }
        puller.join();
        EXPECT_EQ(error, DWORD{ERROR_DEVICE_NOT_CONNECTED});
        m_card.plug();
    }
}

TEST_F(RawStreamTest, PaceAsTakenDropsNothing) {
    Options options = kDefaultOptions;
    options.pace = Pace::AsTaken;
    m_card.setOptions(options);
    RawClient client(m_card.devicePath());
    open(client);
    Receiver receiver;
    const PictureFormat format = pictureOf(kDefaultSignal, 1, wire::toWire(wire::kDefaultConverter));
    EXPECT_EQ(receivePicture(client, format, 120, receiver), "");
    EXPECT_EQ(receiver.missed(), 0u);
    EXPECT_EQ(m_card.state().channels[0].dropped, 0u);
}

TEST_F(RawStreamTest, SnapFillsTheCallersBufferWithOneFrame) {
    RawClient client(m_card.devicePath());
    open(client);
    ASSERT_EQ(client.setAccess(0, true), 0u);
    wire::PrepareReply prepared = {};
    const wire::PrepareRequest request = {client.header(), TARNIS_OUTPUT_YUV422_8, 9, 0, {0, 1, 0, 1}, {0, 0}};
    ASSERT_EQ(client.call(wire::kPrepare, request, prepared), 0u);
    std::vector<uint8_t> frame(prepared.frameSizeBytes), expected(prepared.frameSizeBytes);
    ASSERT_EQ(client.call(wire::kSnap, nullptr, 0, frame.data(), DWORD(frame.size())), 0u);
    uint32_t number = 0;
    ASSERT_TRUE(readFrameNumber(
        1920, 1080, [&](uint32_t x, uint32_t y) { return frame[size_t{y} * 3840 + x * 2]; }, number));
    PictureSource source;
    source.prepare(pictureOf(kDefaultSignal, 1, wire::toWire(wire::kDefaultConverter)), expected.data(),
                   expected.size(), number);
    EXPECT_EQ(frame, expected);
    EXPECT_EQ(client.setAccess(0, false), 0u);
}

TEST_F(RawStreamTest, StopEndsAWaitingLockAsChosen) {
    for (const StopBehaviour behaviour : {StopBehaviour::Abort, StopBehaviour::LeavePending, StopBehaviour::Cancel}) {
        Options options = kDefaultOptions;
        options.stopBehaviour = behaviour;
        m_card.setOptions(options);
        RawClient client(m_card.devicePath());
        open(client);
        RawStream stream(client, 0, TARNIS_OUTPUT_YUV422_8);
        ASSERT_EQ(stream.start(), 0u); // prepared with a signal
        ASSERT_EQ(stream.stop(), 0u);
        m_card.setSignal(kNoSignal); // no frame will serve the lock
        ASSERT_EQ(stream.start(), 0u);
        const wire::Header header = client.header();
        wire::LockBufferReply reply = {};
        RawClient::Pending pending;
        ASSERT_EQ(client.begin(pending, wire::kLockBuffer, &header, sizeof header, &reply, sizeof reply),
                  DWORD{ERROR_IO_PENDING});
        ASSERT_EQ(stream.stop(), 0u);
        switch (behaviour) {
        case StopBehaviour::Abort:
            EXPECT_EQ(client.end(pending), 0u);
            EXPECT_EQ(reply.dmaStatus, uint32_t{DMA_STATUS_ABORTED});
            break;
        case StopBehaviour::Cancel:
            EXPECT_EQ(client.end(pending), DWORD{ERROR_OPERATION_ABORTED});
            break;
        case StopBehaviour::LeavePending:
            EXPECT_EQ(client.end(pending, 50), DWORD{WAIT_TIMEOUT});
            client.cancel(pending);
            EXPECT_EQ(client.end(pending), DWORD{ERROR_OPERATION_ABORTED});
            break;
        }
        m_card.setSignal(kDefaultSignal);
    }
}

TEST_F(RawStreamTest, LateUnlockAfterTheNextStartIsTolerated) {
    RawClient client(m_card.devicePath());
    open(client);
    RawStream stream(client, 0, TARNIS_OUTPUT_YUV422_8);
    ASSERT_EQ(stream.start(), 0u);
    wire::LockBufferReply old = {};
    ASSERT_EQ(stream.lock(old), 0u);
    ASSERT_EQ(stream.stop(), 0u);
    ASSERT_EQ(stream.start(), 0u);
    EXPECT_EQ(stream.unlock(old.bufferId), 0u);
    EXPECT_EQ(m_card.state().channels[0].lateUnlocks, 1u);
    for (int i = 0; i < 25; ++i) { // more than there are buffers: none was lost
        wire::LockBufferReply reply = {};
        ASSERT_EQ(stream.lock(reply), 0u);
        ASSERT_EQ(reply.dmaStatus, 0u);
        ASSERT_EQ(stream.unlock(reply.bufferId), 0u);
    }
}

TEST_F(RawStreamTest, SignalChangesAtAChosenFrameAndAtAChosenRequest) {
    RawClient client(m_card.devicePath());
    open(client);
    Signal smaller = kDefaultSignal;
    smaller.width = 1280;
    smaller.height = 720;
    m_card.addFault({FaultKind::SignalChange, wire::kFormatSize, 0, 1, 1, smaller});
    wire::FormatSizeReply size = {};
    ASSERT_EQ(client.call(wire::kFormatSize, client.header(), size), 0u);
    EXPECT_EQ(size.width, 1920) << "the first passes";
    ASSERT_EQ(client.call(wire::kFormatSize, client.header(), size), 0u);
    EXPECT_EQ(size.width, 1280);

    RawStream stream(client, 0, TARNIS_OUTPUT_YUV422_8);
    ASSERT_EQ(stream.start(), 0u);
    m_card.addFault({FaultKind::SignalAtFrame, 0, m_card.state().frameNumber + 5, 0, 1, Signal{}});
    EXPECT_TRUE(waitUntil([&] { return m_card.state().signal.present == 0; }));
    wire::ConnectionReply connection = {};
    ASSERT_EQ(client.call(wire::kConnection, client.header(), connection), 0u);
    EXPECT_EQ(connection.connected, 0);
}

TEST_F(RawStreamTest, RefusedOpenHitsNewClientsUntilItIsCleared) {
    RawClient before(m_card.devicePath());
    open(before);
    const struct {
        uint32_t status, error;
    } kRefusals[] = {
        {0xC0000022, ERROR_ACCESS_DENIED}, {0xC0000043, ERROR_SHARING_VIOLATION}, {0, ERROR_FILE_NOT_FOUND}};
    for (const auto& refusal : kRefusals) {
        m_card.clearFaults();
        m_card.addFault({FaultKind::RefuseOpen, 0, refusal.status, 0, kForever, {}});
        EXPECT_EQ(RawClient(m_card.devicePath()).openError(), refusal.error);
        EXPECT_EQ(RawClient(m_card.devicePath()).openError(), refusal.error) << "and again";
    }
    wire::ConnectionReply connection = {};
    EXPECT_EQ(before.call(wire::kConnection, before.header(), connection), 0u) << "who has it open keeps it";
    m_card.clearFaults();
    EXPECT_EQ(RawClient(m_card.devicePath()).openError(), 0u);

    m_card.addFault({FaultKind::RefuseOpen, 0, 0xC0000022, 0, kForever, {}});
    m_card.plug(); // it is plugged in: that changes nothing
    EXPECT_NE(RawClient(m_card.devicePath()).openError(), 0u);
    m_card.unplug();
    m_card.plug();
    m_card.clearFaults();
    EXPECT_EQ(RawClient(m_card.devicePath()).openError(), 0u);
}

TEST_F(RawStreamTest, RequestLogHoldsTheWholeProtocolByteForByte) {
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    uint64_t chunkAddress = 0;
    uint32_t session = 0, bufferId = 0;
    {
        RawClient client(m_card.devicePath());
        open(client);
        session = client.session();
        wire::Reply reply = {};
        const wire::Header header = client.header();
        RawClient::Pending watch;
        ASSERT_EQ(client.begin(watch, wire::kSessionWatch, &header, sizeof header, &reply, sizeof reply),
                  DWORD{ERROR_IO_PENDING});
        ASSERT_EQ(client.call(wire::kRegisterInputEvent,
                              wire::RegisterInputEventRequest{client.header(1), reinterpret_cast<uint64_t>(event)},
                              reply),
                  0u);
        wire::ReadRegisterReply value = {};
        ASSERT_EQ(client.call(wire::kReadRegister, wire::ReadRegisterRequest{client.header(), 0x202}, value), 0u);
        EXPECT_EQ(value.value, 0x1E);
        RawStream stream(client, 1, 1);
        ASSERT_EQ(stream.start(), 0u);
        wire::LockBufferReply locked = {};
        ASSERT_EQ(stream.lock(locked), 0u);
        chunkAddress = locked.bufferAddress;
        bufferId = locked.bufferId;
        ASSERT_EQ(stream.unlock(bufferId), 0u);
        ASSERT_EQ(stream.stop(), 0u);
        client.cancel(watch);
    }
    CloseHandle(event);

    struct Expected {
        uint32_t code;
        std::vector<uint8_t> bytes;
    };
    const auto bytes = [](std::initializer_list<uint64_t> values, std::initializer_list<int> widths) {
        std::vector<uint8_t> out;
        auto width = widths.begin();
        for (const uint64_t value : values)
            for (int i = 0, n = *width++; i < n; ++i)
                out.push_back(uint8_t(value >> 8 * i));
        return out;
    };
    const std::vector<Expected> expected = {
        {0xCE322040, {0, 0, 0, 0, 0}},
        {0xCE322044, bytes({0, session}, {1, 4})},
        {0xCE32206C, bytes({1, session, reinterpret_cast<uint64_t>(event)}, {1, 4, 8})},
        {0xCE322100, bytes({0, session, 0x202}, {1, 4, 2})},
        {0xCE322060, bytes({1, session, 0x200}, {1, 4, 4})},
        {0xCE322058, bytes({0, session}, {1, 4})},
        {0xCE322600, bytes({1, session, 1, 9, 0, 0x01000100, 0}, {1, 4, 1, 1, 1, 4, 2})},
        {0xCE32260A, {}},
        {0xCE322612, bytes({0, 1, chunkAddress, 32000, 0, 10, 0}, {4, 4, 8, 8, 4, 4, 8})},
        {0xCE322614, bytes({1, session, 0}, {1, 4, 4})},
        {0xCE322630, bytes({1, session}, {1, 4})},
        {0xCE322634, bytes({1, session, bufferId}, {1, 4, 4})},
        {0xCE322618, bytes({1, session}, {1, 4})},
        {0xCE322618, bytes({1, session}, {1, 4})},
        {0xCE322060, bytes({1, session, 0}, {1, 4, 4})},
    };
    const std::vector<LogEntry> log = m_card.log();
    ASSERT_EQ(log.size(), expected.size());
    for (size_t i = 0; i < log.size(); ++i) {
        SCOPED_TRACE(testing::Message() << "request " << i);
        EXPECT_EQ(log[i].sequence, i + 1);
        EXPECT_EQ(log[i].code, expected[i].code);
        EXPECT_EQ(std::vector<uint8_t>(log[i].bytes, log[i].bytes + log[i].byteCount), expected[i].bytes);
    }
}

} // namespace kestra::test
