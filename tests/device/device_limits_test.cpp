// Sizes and systems that no simulated signal gives: what the library does with a card that asks for huge or empty
// frames, with old systems' limits, and without the objects that an instance needs.
#include "tests/device/device_test.h"
#include "tests/support/scoped_import_hook.h"

#include <gmock/gmock.h>

#include <windows.h>

#include <functional>

namespace kestra::test {
namespace {

using namespace kestra::simcard;
using Ioctl = decltype(&DeviceIoControl);
using Version = decltype(&GetVersionExW);

/// The largest region that one lock request may cover: on systems from 6.1 on, 6.0, before.
constexpr uint32_t kLargestChunk = 0xFFFFF000, kLargestChunk60 = 0x7FFFF000, kLargestChunkBefore = 0x1FF9E00;
constexpr uint32_t kAsPrepared = 0xDEFA17; ///< leaves the frame size as the card gave it

uint32_t g_frameSize; ///< what the prepared frame size becomes
DWORD g_major, g_minor;
Ioctl g_ioctl;
std::vector<DWORD> g_lockedChunks; ///< lengths of the chunks that were locked, in order
bool g_lockReally;

/// Passes everything on, but the size in the prepare reply is the test's.
BOOL WINAPI resizedIoctl(HANDLE device, DWORD code, void* in, DWORD inSize, void* out, DWORD outSize, DWORD* bytes,
                         OVERLAPPED* overlapped) {
    if (code == wire::kLockChunk) {
        g_lockedChunks.push_back(outSize);
        if (!g_lockReally) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY); // gigabytes are not for the driver
            return FALSE;
        }
    }
    BOOL ok = g_ioctl(device, code, in, inSize, out, outSize, bytes, overlapped);
    if (code != wire::kPrepare || g_frameSize == kAsPrepared) return ok;
    if (!ok && GetLastError() == ERROR_IO_PENDING) ok = GetOverlappedResult(device, overlapped, bytes, TRUE);
    if (ok) std::memcpy(static_cast<char*>(out) + 4, &g_frameSize, sizeof g_frameSize);
    return ok;
}

BOOL WINAPI testVersion(OSVERSIONINFOW* version) {
    version->dwMajorVersion = g_major;
    version->dwMinorVersion = g_minor;
    return TRUE;
}

class DeviceLimits : public DeviceTest {
protected:
    DeviceLimits() { g_ioctl = m_ioctlHook.original(); }
    void SetUp() override {
        ASSERT_TRUE(m_ioctlHook.installed());
        ASSERT_TRUE(m_versionHook.installed());
        g_frameSize = kAsPrepared;
        g_lockedChunks.clear();
        g_lockReally = true;
        g_major = 10;
        g_minor = 0;
        DeviceTest::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
    }
    void TearDown() override {
        EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 0), 0u);
        DeviceTest::TearDown();
    }
    uint32_t prepare(uint32_t selector = TARNIS_OUTPUT_YUV422_8) {
        TarnisCameraData data{};
        data.outputSelector = selector;
        return noexp_TARNIS_Prepare(m_grabber, 0, &data);
    }

    ScopedImportHook<Ioctl> m_ioctlHook{"kernel32.dll", "DeviceIoControl", resizedIoctl};
    ScopedImportHook<Version> m_versionHook{"kernel32.dll", "GetVersionExW", testVersion};
};

} // namespace

TEST_F(DeviceLimits, FrameThatNoChunkHoldsIsRefusedWithoutALock) {
    g_lockReally = false; // should one be asked for, it is gigabytes
    struct Limit {
        DWORD major, minor;
        uint32_t largest;
    };
    // One byte more than a chunk of the system may have: 6.1 and later, 6.0, before.
    for (const auto& [major, minor, largest] : {Limit{10, 0, kLargestChunk}, Limit{6, 1, kLargestChunk},
                                                Limit{6, 0, kLargestChunk60}, Limit{5, 2, kLargestChunkBefore}}) {
        SCOPED_TRACE(testing::Message() << major << "." << minor);
        g_major = major;
        g_minor = minor;
        g_frameSize = largest + 1;
        EXPECT_EQ(prepare(), TARNIS_OUT_OF_MEMORY);
        EXPECT_TRUE(g_lockedChunks.empty());
    }
    g_frameSize = 0xFFFFFFFF;
    g_major = 10;
    EXPECT_EQ(prepare(), TARNIS_OUT_OF_MEMORY) << "all that the word holds";
    EXPECT_TRUE(g_lockedChunks.empty());
}

TEST_F(DeviceLimits, StartWithAnOversizedFrameIsRefusedAndTheNextWorks) {
    g_frameSize = kLargestChunk + 1;
    g_lockReally = false;
    FrameCounter counter;
    EXPECT_EQ(restart(counter), TARNIS_FAILURE);
    int lines = 0;
    for (const SeenRecord& record : m_log.records())
        if (record.message == L"Prepare Failed!") {
            ++lines;
            EXPECT_EQ(record.code, TARNIS_OUT_OF_MEMORY);
        }
    EXPECT_EQ(lines, 1);
    EXPECT_EQ(m_log.count(L"Grab not started!"), 1);
    EXPECT_TRUE(g_lockedChunks.empty());
    g_frameSize = kAsPrepared;
    g_lockReally = true;
    ASSERT_EQ(restart(counter), 0u);
    EXPECT_TRUE(counter.waitForFrames(2));
    EXPECT_EQ(TARNIS_StopGrab(m_grabber, 0), 0u);
}

TEST_F(DeviceLimits, FrameOfTheLargestChunkIsLockedAloneAndItsRefusalAnswered) {
    g_lockReally = false;
    g_major = 5;
    g_minor = 2;
    g_frameSize = kLargestChunkBefore;
    EXPECT_EQ(prepare(), TARNIS_FAILURE);
    EXPECT_THAT(g_lockedChunks, testing::ElementsAre(kLargestChunkBefore))
        << "one buffer a chunk, and the first is refused";
}

TEST_F(DeviceLimits, BuffersAreSpreadOverChunksOnSystemsWithSmallOnes) {
    g_major = 5;
    g_minor = 2;
    ASSERT_EQ(prepare(), 0u); // 1920 * 1080 * 2 bytes: eight buffers fit into a chunk
    constexpr uint32_t kFrame = 1920 * 1080 * 2;
    EXPECT_THAT(g_lockedChunks, testing::ElementsAre(8 * kFrame, 2 * kFrame));
    FrameCounter counter;
    ASSERT_EQ(restart(counter), 0u);
    EXPECT_TRUE(counter.waitForFrames(25)) << "frames arrive in the buffers of both chunks";
    EXPECT_EQ(TARNIS_StopGrab(m_grabber, 0), 0u);
    EXPECT_EQ(counter.wrong, 0);
}

TEST_F(DeviceLimits, EmptyFrameIsAFailureAndTheNextPrepareWorks) {
    g_frameSize = 0;
    EXPECT_EQ(prepare(), TARNIS_FAILURE);
    EXPECT_TRUE(g_lockedChunks.empty());
    g_frameSize = kAsPrepared;
    EXPECT_EQ(prepare(), 0u);
}

TEST_F(DeviceLimits, BuffersThatTheSystemDoesNotGiveAreOutOfMemory) {
    const ScopedImportHook<decltype(&VirtualAlloc)> hook("kernel32.dll", "VirtualAlloc",
                                                         [](void*, SIZE_T, DWORD, DWORD) -> void* {
                                                             SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                                                             return nullptr;
                                                         });
    ASSERT_TRUE(hook.installed());
    EXPECT_EQ(prepare(), TARNIS_OUT_OF_MEMORY);
    EXPECT_TRUE(g_lockedChunks.empty());
}

namespace {

int g_eventsBeforeFailure;
decltype(&CreateEventW) g_createEvent;

HANDLE WINAPI failingCreateEvent(SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set, const wchar_t* name) {
    if (g_eventsBeforeFailure-- != 0) return g_createEvent(security, manual, set, name);
    SetLastError(ERROR_NO_SYSTEM_RESOURCES);
    return nullptr;
}

} // namespace

TEST_F(DeviceLimits, EachMissingEventIsNamedAndGivesNoHandle) {
    std::vector<std::byte> block(512);
    auto* detail = reinterpret_cast<DeviceInterfaceDetail*>(block.data());
    const std::wstring path = m_card.devicePath();
    std::memcpy(detail->devicePath, path.c_str(), (path.size() + 1) * sizeof(wchar_t));
    // What an instance makes, in its order. The input events of its channels have no text of their own.
    const wchar_t* const texts[] = {L"session CreateEvent() failed. GetLastError=1450(0x5AA)",
                                    L"StopCard CreateEvent() failed. GetLastError=1450(0x5AA)",
                                    L"IOCTLEmpty CreateEvent() failed. GetLastError=1450(0x5AA)", nullptr, nullptr};
    for (int failing = 0; failing < static_cast<int>(std::size(texts)); ++failing) {
        const wchar_t* const text = texts[failing];
        SCOPED_TRACE(failing);
        m_log.clear();
        g_eventsBeforeFailure = failing;
        const ScopedImportHook<decltype(&CreateEventW)> hook("kernel32.dll", "CreateEventW", failingCreateEvent);
        ASSERT_TRUE(hook.installed());
        g_createEvent = hook.original();
        EXPECT_EQ(TARNIS_InitByHandle(detail), nullptr) << "without an event of its own an instance is of no use";
        if (text)
            expectOnly(m_log, "Initializing functions", "TARNIS_GIS::TARNIS_GIS", text, LOG_ERROR,
                       ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_LT(g_eventsBeforeFailure, 0) << "it was asked for";
    }
    EXPECT_EQ(m_card.state().clients, 1u) << "only the fixture has the card open";
}

namespace {

decltype(&GetOverlappedResult) g_collect;
std::function<void(wire::LockBufferReply&, DWORD& bytes)> g_changeReply; ///< what becomes of a lock reply, once
wire::LockBufferReply* g_lockReply;
OVERLAPPED* g_lockRequest;
std::atomic<bool> g_armed, g_replyChanged;

BOOL WINAPI noteLocks(HANDLE device, DWORD code, void* in, DWORD inSize, void* out, DWORD outSize, DWORD* bytes,
                      OVERLAPPED* overlapped) {
    if (code == wire::kLockBuffer) {
        g_lockReply = static_cast<wire::LockBufferReply*>(out);
        g_lockRequest = overlapped;
    }
    return g_ioctl(device, code, in, inSize, out, outSize, bytes, overlapped);
}

BOOL WINAPI changeReply(HANDLE device, OVERLAPPED* overlapped, DWORD* bytes, BOOL wait) {
    const BOOL ok = g_collect(device, overlapped, bytes, wait);
    if (ok && overlapped == g_lockRequest && g_lockReply->dmaStatus == 0 && g_armed.exchange(false)) {
        g_changeReply(*g_lockReply, *bytes);
        g_replyChanged = true;
    }
    return ok;
}

/// Lock replies that no simulated card gives.
class DeviceLockReply : public DeviceTest {
protected:
    /// Changes one lock reply: its frame is missing, the message is logged, and frames go on.
    void expectGoesOn(std::function<void(wire::LockBufferReply&, DWORD&)> change, const std::wstring& message) {
        const ScopedImportHook<Ioctl> ioctlHook("kernel32.dll", "DeviceIoControl", noteLocks);
        const ScopedImportHook<decltype(&GetOverlappedResult)> hook("kernel32.dll", "GetOverlappedResult", changeReply);
        ASSERT_TRUE(ioctlHook.installed());
        ASSERT_TRUE(hook.installed());
        g_ioctl = ioctlHook.original();
        g_collect = hook.original();
        g_changeReply = std::move(change);
        g_armed = g_replyChanged = false;
        Options options = kDefaultOptions;
        options.pace = Pace::AsTaken; // a buffer that does not come back would end the frames
        m_card.setOptions(options);
        FrameCounter counter;
        ASSERT_EQ(start(counter), 0u);
        ASSERT_TRUE(counter.waitForFrames(2));
        g_armed = true;
        ASSERT_TRUE(waitUntil([] { return g_replyChanged.load(); }));
        EXPECT_TRUE(counter.waitForFrames(25));
        EXPECT_EQ(counter.wrong, 0) << "nothing of it was handed on";
        EXPECT_EQ(counter.missed, 1) << "the frame of the changed reply";
        EXPECT_EQ(m_log.count(message), 1) << (m_log.records().empty() ? L"nothing" : m_log.records()[0].message);
        EXPECT_EQ(stop(), 0u);
        const auto log = m_card.log();
        const auto count = [&](uint32_t code) {
            return std::count_if(log.begin(), log.end(), [&](const LogEntry& entry) { return entry.code == code; });
        };
        // The last lock is ended by the stop, and may have been answered by a refusal.
        EXPECT_LE(count(wire::kLockBuffer) - count(wire::kUnlockBuffer), 1) << "every buffer has come back";
    }
};

} // namespace

TEST_F(DeviceLockReply, DriverResultIsLoggedAsOneAndTheNamedBufferComesBack) {
    expectGoesOn([](wire::LockBufferReply& reply, DWORD&) { reply.result = 7; },
                 L"DeviceIOCtl(0xCE322630) returned with result=7(0x00000007).");
}

TEST_F(DeviceLockReply, AddressOutsideTheBuffersIsLoggedAndNeverHandedOn) {
    expectGoesOn([](wire::LockBufferReply& reply, DWORD&) { reply.bufferAddress = 0x1000; },
                 L"KESTRACTL_DMA_LOCK_BUFFER returned an address outside of the buffers: 0x1000");
}

TEST_F(DeviceLockReply, ShortReplyThatNamesABufferGivesItBack) {
    expectGoesOn([](wire::LockBufferReply&, DWORD& bytes) { bytes = 41; },
                 L"KESTRACTL_DMA_LOCK_BUFFER failed: ErrorCode=13(0x0000000D)");
}

} // namespace kestra::test
