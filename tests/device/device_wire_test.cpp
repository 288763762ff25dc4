// What the card receives, byte for byte, for every operation of the device library.
#include "tests/device/device_test.h"

#include <gmock/gmock.h>

#include <windows.h>

#include <map>
#include <utility>

namespace kestra::test {
namespace {

using namespace kestra::simcard;
using testing::ElementsAre;

/// A request: its code and the bytes that it carries.
struct Sent {
    uint32_t code;
    std::vector<uint8_t> bytes;
    bool operator==(const Sent&) const = default;
};

void PrintTo(const Sent& sent, std::ostream* out) {
    *out << std::hex << "0x" << sent.code << " {";
    for (const uint8_t byte : sent.bytes)
        *out << " " << unsigned{byte};
    *out << " }";
}

class DeviceWire : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        if (HasFatalFailure()) return;
        uint8_t connected = 0;
        ASSERT_EQ(TARNIS_IsCameraConnected(m_grabber, 0, &connected), 0u);
        const std::vector<LogEntry> log = m_card.log();
        ASSERT_EQ(log.size(), 1u);
        std::memcpy(&m_session, log[0].bytes + 1, sizeof m_session);
        ASSERT_NE(m_session, 0u);
        m_card.clearLog();
    }

    /// A request that opens with the header of `port`, then `tail`.
    Sent headed(uint32_t code, uint8_t port, std::vector<uint8_t> tail = {}) const {
        Sent sent{code, {port}};
        for (int shift = 0; shift < 32; shift += 8)
            sent.bytes.push_back(uint8_t(m_session >> shift));
        sent.bytes.insert(sent.bytes.end(), tail.begin(), tail.end());
        return sent;
    }
    /// What reading the camera status sends, with audio shown in `audioRegister`.
    std::vector<Sent> statusRequests(uint16_t audioRegister = 0x202) const {
        return {headed(0xCE322058, 0),
                headed(0xCE322100, 0, {0x22, 0}),
                headed(0xCE3220C4, 0),
                headed(0xCE3220C0, 0),
                headed(0xCE322100, 0, {0x22, 0}),
                headed(0xCE322100, 0, {uint8_t(audioRegister), uint8_t(audioRegister >> 8)})};
    }
    static std::vector<Sent> join(std::vector<Sent> first, const std::vector<Sent>& second) {
        first.insert(first.end(), second.begin(), second.end());
        return first;
    }
    /// What the card received since the last look.
    std::vector<Sent> received() {
        std::vector<Sent> sent;
        for (const LogEntry& entry : m_card.log()) {
            sent.push_back({entry.code, {entry.bytes, entry.bytes + entry.byteCount}});
            checkSizes(entry);
        }
        m_card.clearLog();
        return sent;
    }
    /// Both buffers have the size that the code has.
    static void checkSizes(const LogEntry& entry) {
        static const std::map<uint32_t, std::pair<uint32_t, uint32_t>> sizes = {
            {0xCE322040, {5, 8}},  {0xCE322044, {5, 4}},  {0xCE322058, {5, 10}}, {0xCE322060, {9, 4}},
            {0xCE322068, {5, 5}},  {0xCE32206C, {13, 4}}, {0xCE3220C0, {5, 12}}, {0xCE3220C4, {5, 80}},
            {0xCE322100, {7, 6}},  {0xCE32210C, {58, 4}}, {0xCE322110, {5, 57}}, {0xCE322600, {14, 8}},
            {0xCE32260E, {0, 40}}, {0xCE322612, {0, 40}}, {0xCE322614, {9, 4}},  {0xCE322618, {5, 4}},
            {0xCE322630, {5, 49}}, {0xCE322634, {9, 4}}};
        const auto size = sizes.find(entry.code);
        if (size == sizes.end()) return; // the caller's own buffer
        EXPECT_EQ(std::pair(entry.inSize, entry.outSize), size->second) << std::hex << entry.code;
    }

    uint32_t m_session = 0;
};

constexpr std::vector<uint8_t> operator+(std::vector<uint8_t> a, const std::vector<uint8_t>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::vector<uint8_t> bytesOf(uint64_t value, int width) {
    std::vector<uint8_t> bytes;
    for (int i = 0; i < width; ++i)
        bytes.push_back(uint8_t(value >> 8 * i));
    return bytes;
}

/// The converter's defaults as the card holds them.
const std::vector<uint8_t> kDefaultConverterBytes =
    bytesOf(64, 4) + bytesOf(512, 4) + bytesOf(512, 4) + bytesOf(297, 4) + bytesOf(408, 4) + bytesOf(208, 4) +
    bytesOf(100, 4) + bytesOf(516, 4) + std::vector<uint8_t>{0, 255, 0, 255, 0, 255} + bytesOf(256, 4) +
    bytesOf(256, 4) + bytesOf(256, 4) + std::vector<uint8_t>{0, 0, 0};

} // namespace

TEST_F(DeviceWire, OpeningAsksForASessionWatchesItAndRegistersTwoEvents) {
    ASSERT_EQ(TARNIS_Done(std::exchange(m_grabber, nullptr)), 0u);
    EXPECT_TRUE(received().empty()) << "closing sends nothing";
    m_grabber = openCard();
    ASSERT_NE(m_grabber, nullptr);
    std::vector<Sent> sent = received();
    ASSERT_EQ(sent.size(), 6u);
    // The enumerator looks at the card first: once for the length of its text, once for the text.
    EXPECT_EQ(sent[0], (Sent{0xCE32204C, {0, 0, 0, 0, 0}}));
    EXPECT_EQ(sent[1], sent[0]);
    EXPECT_EQ(sent[2], (Sent{0xCE322040, {0, 0, 0, 0, 0}}));
    std::memcpy(&m_session, &sent[3].bytes[1], sizeof m_session);
    EXPECT_EQ(sent[3], headed(0xCE322044, 0));
    const std::vector<uint8_t> events[] = {{sent[4].bytes.begin() + 5, sent[4].bytes.end()},
                                           {sent[5].bytes.begin() + 5, sent[5].bytes.end()}};
    EXPECT_EQ(sent[4], headed(0xCE32206C, 0, events[0]));
    EXPECT_EQ(sent[5], headed(0xCE32206C, 1, events[1]));
    EXPECT_NE(events[0], events[1]);
}

TEST_F(DeviceWire, AccessIsSentWithTheWholeFlagsWord) {
    for (const int8_t port : {0, 1})
        ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, port), 0u);
    EXPECT_THAT(received(), ElementsAre(headed(0xCE322060, 0, {0, 1, 0, 0}), headed(0xCE322060, 1, {0, 3, 0, 0})));
    for (const int8_t port : {0, 1})
        ASSERT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, port), 0u);
    EXPECT_THAT(received(), ElementsAre(headed(0xCE322060, 0, {0, 2, 0, 0}), headed(0xCE322060, 1, {0, 0, 0, 0})));
}

TEST_F(DeviceWire, QuestionsAboutAnInputGoToTheEvenPort) {
    uint8_t connected = 0;
    uint16_t value = 0;
    TarnisCameraStatus status{};
    for (const int8_t port : {0, 1}) {
        EXPECT_EQ(TARNIS_IsCameraConnected(m_grabber, port, &connected), 0u);
        EXPECT_THAT(received(), ElementsAre(headed(0xCE322068, 0)));
        EXPECT_EQ(noexp_TARNIS_ReadI2C(m_grabber, port, 0x1234, &value), 0u);
        EXPECT_THAT(received(), ElementsAre(headed(0xCE322100, 0, {0x34, 0x12})));
        EXPECT_EQ(TARNIS_GetCameraStatus(m_grabber, port, &status), 0u);
        EXPECT_EQ(received(), statusRequests());
    }
    Signal other = kDefaultSignal;
    other.audioInAlternateRegister = 1;
    m_card.setSignal(other);
    EXPECT_EQ(TARNIS_GetCameraStatus(m_grabber, 1, &status), 0u);
    EXPECT_EQ(received(), statusRequests(0x403));
}

TEST_F(DeviceWire, StatisticsAreThoseOfThePort) {
    TarnisGrabStat statistics{};
    EXPECT_EQ(TARNIS_GetGrabStat(m_grabber, 1, &statistics), 0u);
    EXPECT_THAT(received(), ElementsAre(headed(0xCE3220C4, 1)));
}

TEST_F(DeviceWire, ConverterGoesToTheCardAsAWhole) {
    TarnisConverterParams params{};
    ASSERT_EQ(TARNIS_GetDefaultColorSpaceConverterParams(&params), 0u);
    EXPECT_TRUE(received().empty()) << "the defaults need no card";
    EXPECT_EQ(TARNIS_SetColorSpaceConverterParams(m_grabber, &params), 0u);
    EXPECT_THAT(received(), ElementsAre(headed(0xCE32210C, 0, kDefaultConverterBytes)));
    params.RedOffset = -5;
    params.BlueOffset = 127;
    params.GreenGain = 0.5f;
    EXPECT_EQ(TARNIS_SetColorSpaceConverterParams(m_grabber, &params), 0u);
    std::vector<uint8_t> changed = kDefaultConverterBytes;
    changed[42] = 128;
    changed[43] = 0;
    changed[50] = 0x85;
    changed[52] = 127;
    EXPECT_THAT(received(), ElementsAre(headed(0xCE32210C, 0, changed)));
    EXPECT_EQ(TARNIS_GetColorSpaceConverterParams(m_grabber, &params), 0u);
    EXPECT_THAT(received(), ElementsAre(headed(0xCE322110, 0)));
    EXPECT_EQ(params.RedOffset, -5);
    EXPECT_EQ(params.GreenGain, 0.5f);
}

TEST_F(DeviceWire, GrabIsPreparedStartedLockedUnlockedAndStopped) {
    ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
    ASSERT_EQ(TARNIS_SetBufferCount(m_grabber, 0, 10), 0u);
    received();

    struct Seen {
        std::atomic<int> frames{0};
        uint64_t buffer = 0;
        HANDLE go = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        ~Seen() { CloseHandle(go); }
    } seen;
    m_data = {};
    m_data.outputSelector = TARNIS_OUTPUT_YUV422_8;
    m_data.outputParameter = 1; // cleared: the input is progressive
    ASSERT_EQ(TARNIS_StartGrab(
                  m_grabber, 0, 0x11223344, &m_data,
                  [](uint64_t context, const TarnisFrameInfo* frame) {
                      auto& self = *reinterpret_cast<Seen*>(context);
                      if (frame->dmaStatus != 0) return;
                      self.buffer = reinterpret_cast<uint64_t>(frame->lpRawBuffer);
                      ++self.frames;
                      WaitForSingleObject(self.go, 20000);
                  },
                  reinterpret_cast<uint64_t>(&seen)),
              0u);
    ASSERT_TRUE(waitUntil([&] { return seen.frames == 1; }));
    std::vector<Sent> sent = received();
    constexpr uint32_t kFrameBytes = 1920 * 1080 * 2;
    ASSERT_EQ(sent.size(), 11u);
    uint64_t base = 0;
    ASSERT_EQ(sent[8].bytes.size(), 40u);
    std::memcpy(&base, &sent[8].bytes[8], sizeof base);
    EXPECT_EQ(base % 4096, 0u);
    EXPECT_LT(seen.buffer - base, uint64_t{10} * kFrameBytes);
    EXPECT_EQ((seen.buffer - base) % kFrameBytes, 0u);
    EXPECT_EQ(sent, join(statusRequests(),
                         {headed(0xCE322600, 0, {1, 9, 0, 0, 1, 0, 1, 0, 0}),
                          {0xCE322606, {}},
                          {0xCE32260E, bytesOf(0, 4) + bytesOf(1, 4) + bytesOf(base, 8) + bytesOf(10 * kFrameBytes, 8) +
                                           bytesOf(0, 4) + bytesOf(10, 4) + bytesOf(0, 8)},
                          headed(0xCE322614, 0, {0x44, 0x33, 0x22, 0x11}),
                          headed(0xCE322630, 0)}));

    SetEvent(seen.go);
    ASSERT_TRUE(waitUntil([&] { return seen.frames >= 3; }));
    ASSERT_EQ(TARNIS_StopGrab(m_grabber, 0), 0u);
    sent = received();
    ASSERT_GE(sent.size(), 4u);
    EXPECT_EQ(sent[0].code, 0xCE322634u);
    EXPECT_EQ(sent[0], headed(0xCE322634, 0, {sent[0].bytes.begin() + 5, sent[0].bytes.end()}));
    EXPECT_EQ(sent[1], headed(0xCE322630, 0));
    EXPECT_EQ(std::count(sent.begin(), sent.end(), headed(0xCE322618, 0)), 1);

    // The same format again: the buffers are locked already.
    seen.frames = 0;
    m_data.outputParameter = 0;
    ASSERT_EQ(TARNIS_StartGrab(m_grabber, 0, 0, &m_data, nullptr, 0), 0u);
    ASSERT_EQ(TARNIS_StopGrab(m_grabber, 0), 0u);
    sent = received();
    ASSERT_GE(sent.size(), 7u);
    sent.resize(7);
    EXPECT_EQ(sent, join(statusRequests(), {headed(0xCE322614, 0, {0, 0, 0, 0})}));
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 0), 0u);
}

TEST_F(DeviceWire, AudioChannelSendsTheLastWordOfTheRecord) {
    ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 1), 0u);
    received();
    TarnisCameraData data{};
    data.outputSelector = 77; // not the audio channel's
    data.extra = 0x101;       // its low byte: 16-bit samples
    ASSERT_EQ(noexp_TARNIS_Prepare(m_grabber, 1, &data), 0u);
    const std::vector<Sent> sent = received();
    ASSERT_EQ(sent.size(), 9u);
    EXPECT_EQ(sent[6], headed(0xCE322600, 1, {1, 9, 0, 0, 1, 0, 1, 0, 0}));
    EXPECT_EQ(sent[7], (Sent{0xCE32260A, {}}));
    EXPECT_EQ(sent[8].code, 0xCE322612u);
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 1), 0u);
}

TEST_F(DeviceWire, SnapSendsTheCallersBufferAndNothingElse) {
    ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
    std::vector<uint8_t> frame(1920 * 1080 * 2);
    TarnisCameraData data{};
    data.outputSelector = TARNIS_OUTPUT_YUV422_8;
    ASSERT_EQ(noexp_TARNIS_Prepare(m_grabber, 0, &data), 0u);
    received();
    uint32_t size = 0;
    ASSERT_EQ(TARNIS_SnapFrames(m_grabber, 1, &data, frame.data(), uint32_t(frame.size()), &size), 0u);
    EXPECT_EQ(m_card.log().back().outSize, frame.size());
    EXPECT_EQ(received(), join(statusRequests(), {{0xCE32261E, {}}}));
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 0), 0u);
}

TEST_F(DeviceWire, ArrivalOpensAgainAndRestoresTheFlags) {
    ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 1), 0u);
    m_card.unplug();
    ASSERT_TRUE(waitUntil([&] { return m_log.count(L"OnCardStopped Leave") == 1; }));
    received();
    m_card.plug();
    ASSERT_TRUE(waitUntil([&] { return m_log.count(L"OnCardStarted Leave") == 1; }));
    const std::vector<Sent> sent = received();
    ASSERT_EQ(sent.size(), 5u);
    std::memcpy(&m_session, &sent[1].bytes[1], sizeof m_session);
    EXPECT_EQ(sent[0].code, 0xCE322040u);
    EXPECT_EQ(sent[1], headed(0xCE322044, 0));
    EXPECT_EQ(sent[2].code, 0xCE32206Cu);
    EXPECT_EQ(sent[3].code, 0xCE32206Cu);
    EXPECT_EQ(sent[4], headed(0xCE322060, 0, {0, 2, 0, 0})) << "on port 0, both channels' bits";
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 1), 0u);
}

} // namespace kestra::test
