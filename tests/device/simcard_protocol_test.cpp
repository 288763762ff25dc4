// A raw protocol client against the simulated card's driver: no device library in between.
#include "device/wire.h"
#include "simcard/client/raw_client.h"
#include "simcard/model/picture.h"
#include "tests/support/card_fixture.h"
#include "tests/support/wait_until.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

class SimcardProtocol : public CardTest {};

TEST_F(SimcardProtocol, ReportsTheDefaultSignal) {
    RawClient client(m_card.devicePath());
    ASSERT_EQ(client.openError(), 0u);
    ASSERT_EQ(client.openSession(), 0u);
    EXPECT_NE(client.session(), 0u);
    wire::FormatSizeReply size = {};
    ASSERT_EQ(client.call(wire::kFormatSize, client.header(), size), 0u);
    EXPECT_EQ(size.width, 1920);
    EXPECT_EQ(size.height, 1080);
    wire::GrabStatisticsReply statistics = {};
    ASSERT_EQ(client.call(wire::kGrabStatistics, client.header(), statistics), 0u);
    EXPECT_EQ(statistics.frameRate, 60u);
    EXPECT_EQ(client.size(), 80u);
}

TEST_F(SimcardProtocol, RefusesWrongSizesSessionsCodesAndPorts) {
    RawClient client(m_card.devicePath());
    ASSERT_EQ(client.openSession(), 0u);
    uint8_t reply[600] = {};
    const wire::Header good = client.header();
    const wire::Header stranger = {0, client.session() + 1};
    const wire::Header badPort = client.header(2);
    EXPECT_EQ(client.call(wire::kVideoStatus, &good, 4, reply, 10), DWORD(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(client.call(wire::kVideoStatus, &good, 5, reply, 9), DWORD(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(client.call(wire::kVideoStatus, &stranger, 5, reply, 10), DWORD(ERROR_INVALID_HANDLE));
    EXPECT_EQ(client.call(wire::kVideoStatus, &badPort, 5, reply, 10), DWORD(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(client.call(0xCE322FF0, &good, 5, reply, 10), DWORD(ERROR_INVALID_FUNCTION));
    EXPECT_EQ(client.call(wire::kVideoStatus, &good, 5, reply, 10), 0u) << "a good request still works";
}

TEST_F(SimcardProtocol, InjectedStatusAndResultReachTheCallerOnce) {
    RawClient client(m_card.devicePath());
    ASSERT_EQ(client.openSession(), 0u);
    wire::ConnectionReply reply = {};
    m_card.failNext(wire::kConnection, 0xC0000022);
    m_card.failNext(wire::kConnection, 0xC00000BB);
    m_card.refuseNext(wire::kConnection, 7);
    EXPECT_EQ(client.call(wire::kConnection, client.header(), reply), DWORD(ERROR_ACCESS_DENIED));
    EXPECT_EQ(client.call(wire::kConnection, client.header(), reply), DWORD(ERROR_NOT_SUPPORTED));
    EXPECT_EQ(client.call(wire::kConnection, client.header(), reply), 0u);
    EXPECT_EQ(reply.result, 7u);
    EXPECT_EQ(client.call(wire::kConnection, client.header(), reply), 0u);
    EXPECT_EQ(reply.result, 0u);
    EXPECT_EQ(reply.connected, 1);
    const auto log = m_card.log();
    ASSERT_EQ(log.size(), 5u);
    EXPECT_EQ(log[1].status, 0xC0000022u);
    EXPECT_EQ(log[3].result, 7u);
    EXPECT_EQ(log[4].byteCount, 5u);
    EXPECT_EQ(log[4].bytes[1], uint8_t(client.session()));
}

TEST_F(SimcardProtocol, ShortRepliesAndDelaysReachTheCaller) {
    RawClient client(m_card.devicePath());
    ASSERT_EQ(client.openSession(), 0u);
    wire::FormatSizeReply reply = {};
    m_card.addFault({FaultKind::ShortReply, wire::kFormatSize, 6, 0, 1, {}});
    ASSERT_EQ(client.call(wire::kFormatSize, client.header(), reply), 0u);
    EXPECT_EQ(client.size(), 6u);
    EXPECT_EQ(reply.width, 1920);
    EXPECT_EQ(reply.height, 0) << "beyond the short reply";
    m_card.addFault({FaultKind::Delay, wire::kFormatSize, 100, 0, 1, {}});
    const ULONGLONG begin = GetTickCount64();
    ASSERT_EQ(client.call(wire::kFormatSize, client.header(), reply), 0u);
    EXPECT_GE(GetTickCount64() - begin, 90u);
    EXPECT_EQ(reply.height, 1080);
}

TEST_F(SimcardProtocol, ARequestThatNeverCompletesEndsWhenItIsCancelled) {
    RawClient client(m_card.devicePath());
    ASSERT_EQ(client.openSession(), 0u);
    m_card.addFault({FaultKind::NeverComplete, wire::kConnection, 0, 0, 1, {}});
    wire::ConnectionReply reply = {};
    const wire::Header header = client.header();
    RawClient::Pending pending;
    ASSERT_EQ(client.begin(pending, wire::kConnection, &header, sizeof header, &reply, sizeof reply),
              DWORD(ERROR_IO_PENDING));
    EXPECT_EQ(client.end(pending, 100), DWORD(WAIT_TIMEOUT));
    client.cancel(pending);
    EXPECT_EQ(client.end(pending), DWORD(ERROR_OPERATION_ABORTED));
}

TEST_F(SimcardProtocol, AFaultPullsTheCardAtTheChosenRequest) {
    RawClient client(m_card.devicePath());
    ASSERT_EQ(client.openSession(), 0u);
    m_card.addFault({FaultKind::Unplug, wire::kConnection, 0, 1, 1, {}});
    wire::ConnectionReply reply = {};
    EXPECT_EQ(client.call(wire::kConnection, client.header(), reply), 0u) << "the first passes";
    EXPECT_EQ(client.call(wire::kConnection, client.header(), reply), DWORD(ERROR_DEVICE_NOT_CONNECTED));
    EXPECT_EQ(m_card.state().plugged, 0u);
}

TEST_F(SimcardProtocol, SignalChangeSignalsTheRegisteredEvent) {
    RawClient client(m_card.devicePath());
    ASSERT_EQ(client.openSession(), 0u);
    const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const wire::RegisterInputEventRequest request = {client.header(), uint64_t(uintptr_t(event))};
    wire::Reply reply = {};
    ASSERT_EQ(client.call(wire::kRegisterInputEvent, request, reply), 0u);
    EXPECT_EQ(WaitForSingleObject(event, 0), DWORD(WAIT_TIMEOUT));
    m_card.setSignal(Signal{});
    EXPECT_EQ(WaitForSingleObject(event, 5000), DWORD(WAIT_OBJECT_0));
    CloseHandle(event);
    wire::ConnectionReply connection = {};
    ASSERT_EQ(client.call(wire::kConnection, client.header(), connection), 0u);
    EXPECT_EQ(connection.connected, 0);
}

TEST_F(SimcardProtocol, UnplugEndsPendingRequestsAndReplugServesANewClient) {
    {
        RawClient client(m_card.devicePath());
        ASSERT_EQ(client.openSession(), 0u);
        wire::Reply reply = {};
        const wire::Header header = client.header();
        RawClient::Pending watch;
        ASSERT_EQ(client.begin(watch, wire::kSessionWatch, &header, sizeof header, &reply, sizeof reply),
                  DWORD(ERROR_IO_PENDING));
        const CardControl card(0);
        const std::wstring path = card.devicePath();
        m_card.unplug();
        EXPECT_EQ(client.end(watch), DWORD(ERROR_DEVICE_NOT_CONNECTED));
        EXPECT_EQ(RawClient(m_card.devicePath()).openError(), DWORD(ERROR_FILE_NOT_FOUND));
        m_card.plug();
        wire::ConnectionReply connection = {};
        EXPECT_EQ(client.call(wire::kConnection, client.header(), connection), DWORD(ERROR_DEVICE_NOT_CONNECTED));
    }
    RawClient next(m_card.devicePath());
    ASSERT_EQ(next.openError(), 0u);
    EXPECT_EQ(next.openSession(), 0u);
}

/// Claims, prepares, locks and starts port 0 with ten buffers of 1080p 8-bit 4:2:2.
void startStreaming(RawClient& client, RawClient::Pending& lock, std::vector<uint8_t>& memory, DWORD& error) {
    wire::Reply reply = {};
    wire::PrepareReply prepared = {};
    error = client.call(wire::kChannelAccess, wire::ChannelAccessRequest{client.header(), 0x100}, reply);
    if (error == 0)
        error =
            client.call(wire::kPrepare, wire::PrepareRequest{client.header(), 1, 9, 0, {0, 1, 0, 1}, {0, 0}}, prepared);
    if (error != 0) return;
    memory.resize(10 * size_t(prepared.frameSizeBytes));
    client.begin(lock, wire::kLockChunk, nullptr, 0, memory.data(), DWORD(memory.size()));
    struct {
        wire::ChunkTableHead head;
        wire::Chunk chunk;
    } table = {{0, 1}, {uint64_t(uintptr_t(memory.data())), memory.size(), 0, 10, 0}};
    error = client.call(wire::kChunkTable, nullptr, 0, &table, sizeof table);
    if (error == 0) error = client.call(wire::kStartGrabbing, wire::StartGrabbingRequest{client.header(), 0}, reply);
    if (error == 0 && reply.result != 0) error = ERROR_GEN_FAILURE;
}

/// The victim of the next test: runs in a process of its own, until that is killed.
TEST_F(SimcardProtocol, DISABLED_StreamsUntilKilled) {
    RawClient client(m_card.devicePath());
    ASSERT_EQ(client.openSession(), 0u);
    RawClient::Pending lock;
    std::vector<uint8_t> memory;
    DWORD error = 0;
    startStreaming(client, lock, memory, error);
    ASSERT_EQ(error, 0u);
    for (int i = 0; i < 1200; ++i) { // an orphan ends by itself after 20 s
        wire::LockBufferReply locked = {};
        wire::Reply reply = {};
        ASSERT_EQ(client.call(wire::kLockBuffer, client.header(), locked), 0u);
        client.call(wire::kUnlockBuffer, wire::UnlockBufferRequest{client.header(), locked.bufferId}, reply);
    }
    client.cancel(lock);
}

TEST_F(SimcardProtocol, AKilledClientLeavesTheCardToTheNextTenTimes) {
    wchar_t program[MAX_PATH];
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    for (int round = 0; round < 10; ++round) {
        std::wstring command = L"\"" + std::wstring(program) +
                               L"\" --gtest_also_run_disabled_tests --gtest_filter=*DISABLED_StreamsUntilKilled";
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION child = {};
        ASSERT_TRUE(
            CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &child));
        const bool streamed =
            waitUntil([&] { return m_card.state().channels[0].delivered >= 5; }, std::chrono::seconds(10));
        TerminateProcess(child.hProcess, 9);
        WaitForSingleObject(child.hProcess, 10000);
        CloseHandle(child.hThread);
        CloseHandle(child.hProcess);
        ASSERT_TRUE(streamed) << "round " << round;
        ASSERT_TRUE(waitUntil([&] { return m_card.state().clients == 0; }, std::chrono::seconds(10)));
        RawClient next(m_card.devicePath());
        ASSERT_EQ(next.openSession(), 0u);
        RawClient::Pending lock;
        std::vector<uint8_t> memory;
        DWORD error = 0;
        startStreaming(next, lock, memory, error);
        ASSERT_EQ(error, 0u);
        wire::LockBufferReply locked = {};
        ASSERT_EQ(next.call(wire::kLockBuffer, next.header(), locked), 0u);
        EXPECT_EQ(locked.dmaStatus, 0u);
        next.cancel(lock);
    }
}

TEST_F(SimcardProtocol, InjectedDmaStatusesArriveInOrder) {
    RawClient client(m_card.devicePath());
    ASSERT_EQ(client.openSession(), 0u);
    for (uint32_t status : {1u, 2u, 16u, 99u})
        m_card.dmaStatusNext(0, status);
    RawClient::Pending lock;
    std::vector<uint8_t> memory;
    DWORD error = 0;
    startStreaming(client, lock, memory, error);
    ASSERT_EQ(error, 0u);
    for (uint32_t status : {1u, 2u, 16u, 99u, 0u}) {
        wire::LockBufferReply locked = {};
        ASSERT_EQ(client.call(wire::kLockBuffer, client.header(), locked), 0u);
        EXPECT_EQ(locked.dmaStatus, status);
    }
    client.cancel(lock);
}

TEST_F(SimcardProtocol, PlugCyclesLeaveTheCardUsable) {
    const char* longRun = std::getenv("KESTRA_LONG");
    const int cycles = longRun && longRun[0] == '1' ? 1000 : 50;
    for (int i = 0; i < cycles; ++i) {
        m_card.unplug();
        ASSERT_EQ(RawClient(m_card.devicePath()).openError(), DWORD(ERROR_FILE_NOT_FOUND)) << "cycle " << i;
        m_card.plug();
        RawClient client(m_card.devicePath());
        ASSERT_EQ(client.openError(), 0u) << "cycle " << i;
        ASSERT_EQ(client.openSession(), 0u);
    }
}

TEST_F(SimcardProtocol, DeliversFramesIntoTheClientsMemory) {
    RawClient client(m_card.devicePath());
    ASSERT_EQ(client.openSession(), 0u);
    wire::Reply reply = {};
    ASSERT_EQ(client.call(wire::kChannelAccess, wire::ChannelAccessRequest{client.header(), 0x100}, reply), 0u);
    RawClient other(m_card.devicePath());
    ASSERT_EQ(other.openSession(), 0u);
    EXPECT_EQ(other.call(wire::kChannelAccess, wire::ChannelAccessRequest{other.header(), 0x100}, reply),
              DWORD(ERROR_ACCESS_DENIED));
    wire::PrepareReply prepared = {};
    const wire::PrepareRequest prepare = {client.header(), 1, 9, 0, {0, 1, 0, 1}, {0, 0}};
    ASSERT_EQ(client.call(wire::kPrepare, prepare, prepared), 0u);
    ASSERT_EQ(prepared.frameSizeBytes, 1920u * 1080 * 2);
    std::vector<uint8_t> memory(10 * size_t(prepared.frameSizeBytes), 0xEE);
    RawClient::Pending lock;
    ASSERT_EQ(client.begin(lock, wire::kLockChunk, nullptr, 0, memory.data(), DWORD(memory.size())),
              DWORD(ERROR_IO_PENDING));
    struct {
        wire::ChunkTableHead head;
        wire::Chunk chunk;
    } table = {{0, 1}, {uint64_t(uintptr_t(memory.data())), memory.size(), 0, 10, 0}};
    ASSERT_EQ(client.call(wire::kChunkTable, nullptr, 0, &table, sizeof table), 0u);
    ASSERT_EQ(table.head.result, 0u);
    ASSERT_EQ(client.call(wire::kStartGrabbing, wire::StartGrabbingRequest{client.header(), 0}, reply), 0u);
    ASSERT_EQ(reply.result, 0u);
    const char* longRun = std::getenv("KESTRA_LONG");
    const int frames = longRun && longRun[0] == '1' ? 3600 : 60;
    std::vector<uint8_t> picture(prepared.frameSizeBytes);
    PictureSource expected;
    ASSERT_TRUE(expected.prepare({1920, 1080, false, 1, 60, PictureKind::Bars, wire::toWire(wire::kDefaultConverter)},
                                 picture.data(), picture.size(), 0));
    uint32_t lastFrame = 0;
    for (int i = 0; i < frames; ++i) {
        wire::LockBufferReply locked = {};
        ASSERT_EQ(client.call(wire::kLockBuffer, client.header(), locked), 0u);
        ASSERT_EQ(locked.result, 0u);
        ASSERT_EQ(locked.dmaStatus, 0u);
        const auto* frame = reinterpret_cast<const uint8_t*>(uintptr_t(locked.bufferAddress));
        ASSERT_GE(frame, memory.data());
        ASSERT_LE(frame + prepared.frameSizeBytes, memory.data() + memory.size());
        expected.advance(locked.frameWord0);
        ASSERT_EQ(std::memcmp(frame, picture.data(), picture.size()), 0) << "frame " << locked.frameWord0;
        ASSERT_GT(locked.frameWord0, lastFrame);
        lastFrame = locked.frameWord0;
        ASSERT_EQ(client.call(wire::kUnlockBuffer, wire::UnlockBufferRequest{client.header(), locked.bufferId}, reply),
                  0u);
    }
    const CardState state = m_card.state();
    std::printf("%d frames: %u dropped, %u failed\n", frames, state.channels[0].dropped, state.channels[0].failed);
    EXPECT_EQ(state.channels[0].failed, 0u);
    ASSERT_EQ(client.call(wire::kStopGrabbing, client.header(), reply), 0u);
    client.cancel(lock);
}

} // namespace
} // namespace kestra::test
