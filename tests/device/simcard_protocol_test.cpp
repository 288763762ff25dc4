// A raw protocol client against the simulated card's driver: no device library in between.
#include "protocol/requests.h"
#include "simcard/client/raw_client.h"
#include "tests/support/card_fixture.h"
#include "tests/support/wait_until.h"

#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

class SimcardProtocol : public CardTest {};

/// Working sets of the processes that host drivers, in bytes.
size_t driverHostBytes() {
    size_t bytes = 0;
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry)) {
        if (lstrcmpiW(entry.szExeFile, L"winedevice.exe") != 0) continue;
        const HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, entry.th32ProcessID);
        PROCESS_MEMORY_COUNTERS counters = {};
        if (process && GetProcessMemoryInfo(process, &counters, sizeof counters)) bytes += counters.WorkingSetSize;
        if (process) CloseHandle(process);
    }
    CloseHandle(snapshot);
    return bytes;
}

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

TEST_F(SimcardProtocol, ACancelledLockOfMemoryLeavesItsBytesAlone) {
    RawClient client(m_card.devicePath());
    ASSERT_EQ(client.openSession(), 0u);
    ASSERT_EQ(client.setAccess(0, true), 0u);
    for (int round = 0; round < 20; ++round) {
        std::vector<uint8_t> memory(size_t{1} << 20, 0);
        RawClient::Pending chunk;
        ASSERT_EQ(client.begin(chunk, wire::kLockChunk, nullptr, 0, memory.data(), DWORD(memory.size())),
                  DWORD{ERROR_IO_PENDING});
        std::memset(memory.data(), 0x77, memory.size());
        client.cancel(chunk);
        EXPECT_EQ(std::count(memory.begin(), memory.end(), 0x77), ptrdiff_t(memory.size())) << round;
    }
    EXPECT_EQ(client.setAccess(0, false), 0u);
}

TEST_F(SimcardProtocol, CancelsThatMeetCompletionsNeverBlockTheCard) {
    RawClient client(m_card.devicePath());
    ASSERT_EQ(client.openSession(), 0u);
    m_card.addFault({FaultKind::Delay, wire::kConnection, 1, 0, 0xFFFFFFFF, {}});
    const wire::Header header = client.header();
    int completed = 0, cancelled = 0;
    const ULONGLONG end = GetTickCount64() + 3000;
    while (GetTickCount64() < end) {
        wire::ConnectionReply replies[8] = {};
        RawClient::Pending pending[8];
        for (int i = 0; i < 8; ++i)
            client.begin(pending[i], wire::kConnection, &header, sizeof header, &replies[i], sizeof replies[i]);
        client.end(pending[0], 1); // about when the card completes them
        for (RawClient::Pending& request : pending) {
            client.cancel(request);
            ++(client.end(request) == 0 ? completed : cancelled);
        }
    }
    std::printf("%d requests completed, %d cancelled\n", completed, cancelled);
    EXPECT_GT(completed, 0);
    EXPECT_GT(cancelled, 0);
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

TEST_F(SimcardProtocol, AKilledClientLeavesTheCardToTheNextTenTimes) {
    for (int round = 0; round < 10; ++round) {
        std::wstring command = L"\"" + std::filesystem::path(STREAMING_CLIENT).wstring() + L"\" " + m_card.devicePath();
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION child = {};
        ASSERT_TRUE(
            CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &child));
        const bool streamed = waitUntil([&] { return m_card.state().channels[0].delivered >= 5; });
        TerminateProcess(child.hProcess, 9);
        WaitForSingleObject(child.hProcess, 10000);
        CloseHandle(child.hThread);
        CloseHandle(child.hProcess);
        ASSERT_TRUE(streamed) << "round " << round;
        ASSERT_TRUE(waitUntil([&] { return m_card.state().clients == 0; }));
        RawClient next(m_card.devicePath());
        ASSERT_EQ(next.openSession(), 0u);
        RawStream stream(next, 0, TARNIS_OUTPUT_YUV422_8);
        ASSERT_EQ(stream.start(), 0u);
        wire::LockBufferReply locked = {};
        ASSERT_EQ(stream.lock(locked), 0u);
        EXPECT_EQ(locked.dmaStatus, 0u);
    }
}

TEST_F(SimcardProtocol, InjectedDmaStatusesArriveInOrder) {
    RawClient client(m_card.devicePath());
    ASSERT_EQ(client.openSession(), 0u);
    for (uint32_t status : {1u, 2u, 16u, 99u})
        m_card.dmaStatusNext(0, status);
    RawStream stream(client, 0, TARNIS_OUTPUT_YUV422_8);
    ASSERT_EQ(stream.start(), 0u);
    for (uint32_t status : {1u, 2u, 16u, 99u, 0u}) {
        wire::LockBufferReply locked = {};
        ASSERT_EQ(stream.lock(locked), 0u);
        EXPECT_EQ(locked.dmaStatus, status);
    }
}

TEST_F(SimcardProtocol, PlugCyclesLeaveTheCardUsableAndItsMemoryFlat) {
    const char* longRun = std::getenv("KESTRA_LONG");
    const int cycles = longRun && longRun[0] == '1' ? 1000 : 50;
    size_t before = 0;
    for (int i = 0; i < cycles; ++i) {
        if (i == cycles / 10) before = driverHostBytes();
        m_card.unplug();
        ASSERT_EQ(RawClient(m_card.devicePath()).openError(), DWORD(ERROR_FILE_NOT_FOUND)) << "cycle " << i;
        m_card.plug();
        RawClient client(m_card.devicePath());
        ASSERT_EQ(client.openError(), 0u) << "cycle " << i;
        ASSERT_EQ(client.openSession(), 0u);
    }
    const size_t after = driverHostBytes();
    std::printf("%d cycles: driver hosts held %zu kB after a tenth of them, %zu kB at the end\n", cycles, before / 1024,
                after / 1024);
    ASSERT_GT(before, 0u);
    EXPECT_LT(after, before + (size_t{1} << 20));
}

TEST_F(SimcardProtocol, ChannelBelongsToOneSessionAtATime) {
    RawClient client(m_card.devicePath()), other(m_card.devicePath());
    ASSERT_EQ(client.openSession(), 0u);
    ASSERT_EQ(other.openSession(), 0u);
    ASSERT_EQ(client.setAccess(0, true), 0u);
    EXPECT_EQ(other.setAccess(0, true), DWORD(ERROR_ACCESS_DENIED));
    ASSERT_EQ(client.setAccess(0, false), 0u);
    EXPECT_EQ(other.setAccess(0, true), 0u);
    EXPECT_EQ(other.setAccess(0, false), 0u);
}

} // namespace
} // namespace kestra::test
