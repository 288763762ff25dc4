// What the library does when a call of the system fails that no card has a part in: waits, handles, memory that is not
// let go of.
#include "device/card_requests.h"
#include "device/device_notifier.h"
#include "simcard/model/card.h"
#include "tests/device/device_test.h"
#include "tests/support/scoped_import_hook.h"
#include "win32/device_set.h"

#include <windows.h>

#include <atomic>
#include <functional>
#include <utility>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

constexpr char kKernel[] = "kernel32.dll";
constexpr Signal kSmall = {1, 0, 1, 7, 0, 0, 160, 120, 0, 60, 1, 0};

decltype(&DeviceIoControl) g_ioctl;
decltype(&WaitForMultipleObjects) g_waitForMany;
decltype(&WaitForSingleObject) g_waitForOne;
decltype(&ResumeThread) g_resumeThread;
decltype(&VirtualFree) g_virtualFree;
std::atomic<int> g_refusals, g_released;
std::atomic<bool> g_failsWait, g_failsWaitAfterInput, g_failsNext;
TARNIS_HANDLE g_givesUp;
const DWORD g_ownThread = GetCurrentThreadId();

/// Refuses to take so many lock requests.
BOOL WINAPI failingIoctl(HANDLE device, DWORD code, void* in, DWORD inSize, void* out, DWORD outSize, DWORD* bytes,
                         OVERLAPPED* overlapped) {
    if (code == wire::kLockBuffer && g_refusals > 0) {
        --g_refusals;
        SetLastError(ERROR_NO_SYSTEM_RESOURCES);
        return FALSE;
    }
    return g_ioctl(device, code, in, inSize, out, outSize, bytes, overlapped);
}

/// The grabbing thread waits for three things; so does a start, on the test's own thread.
DWORD WINAPI failingWait(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
    if (count != 3 || milliseconds != INFINITE || GetCurrentThreadId() == g_ownThread)
        return g_waitForMany(count, handles, all, milliseconds);
    if (g_failsNext.exchange(false)) return WAIT_FAILED;
    DWORD result = g_waitForMany(count, handles, all, milliseconds);
    if (result == WAIT_OBJECT_0 + 2 && g_failsWait.exchange(false)) result = WAIT_FAILED;
    if (result == WAIT_OBJECT_0 + 1 && g_failsWaitAfterInput.exchange(false)) g_failsNext = true;
    return result;
}

class DeviceSystem : public DeviceTest {
protected:
    bool isGrabbing() { return m_card.state().channels[0].grabbing != 0; }
    void expectTheNextGrabToWork() {
        FrameCounter counter;
        ASSERT_EQ(start(counter), 0u);
        EXPECT_TRUE(counter.waitForFrames(3));
        EXPECT_EQ(stop(), 0u);
        EXPECT_EQ(counter.wrong, 0);
    }
    /// @param disturb  makes one of the grabbing thread's waits fail
    void expectAFailedWaitToEndTheGrab(const std::function<void()>& disturb) {
        const ScopedImportHook<decltype(&WaitForMultipleObjects)> hook(kKernel, "WaitForMultipleObjects", failingWait);
        ASSERT_TRUE(hook.installed());
        g_waitForMany = hook.original();
        FrameCounter counter;
        ASSERT_EQ(start(counter), 0u);
        ASSERT_TRUE(counter.waitForFrames(2));
        disturb();
        EXPECT_TRUE(waitUntil([&] { return !isGrabbing(); }));
        EXPECT_EQ(stop(), 0u);
        EXPECT_EQ(counter.disconnected, 0) << "nobody has told of another format";
    }
};

} // namespace

TEST_F(DeviceSystem, LockRequestThatTheSystemDoesNotTakeIsLoggedAndTriedAgain) {
    const ScopedImportHook<decltype(&DeviceIoControl)> hook(kKernel, "DeviceIoControl", failingIoctl);
    ASSERT_TRUE(hook.installed());
    g_ioctl = hook.original();
    FrameCounter counter;
    ASSERT_EQ(start(counter), 0u);
    ASSERT_TRUE(counter.waitForFrames(2));
    g_refusals = 3;
    ASSERT_TRUE(waitUntil([] { return g_refusals == 0; }));
    EXPECT_TRUE(counter.waitForFrames(12)) << "more than there are buffers";
    EXPECT_EQ(stop(), 0u);
    EXPECT_EQ(counter.wrong, 0);
    EXPECT_EQ(m_log.count(L"KESTRACTL_DMA_LOCK_BUFFER failed: ErrorCode=1450(0x000005AA)"), 3);
}

TEST_F(DeviceSystem, WaitThatFailsEndsTheGrabAndStopsTheCard) {
    expectAFailedWaitToEndTheGrab([] { g_failsWait = true; });
    expectTheNextGrabToWork();
}

TEST_F(DeviceSystem, WaitForTheFrameOnItsWayThatFailsEndsTheGrabToo) {
    expectAFailedWaitToEndTheGrab([&] {
        g_failsWaitAfterInput = true;
        m_card.setSignal(Signal{});
    });
    m_card.setSignal(kDefaultSignal);
    expectTheNextGrabToWork();
}

TEST_F(DeviceSystem, StartWithoutCameraDataIsRefusedAndSaysSo) {
    ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
    FrameCounter counter;
    EXPECT_EQ(TARNIS_StartGrab(m_grabber, 0, 0, nullptr, FrameCounter::onFrame, counter.context()), TARNIS_FAILURE);
    EXPECT_EQ(m_log.count(L"pCameraData is NULL"), 1);
    EXPECT_EQ(m_log.count(L"Prepare Failed!"), 1);
    EXPECT_EQ(m_log.count(L"Grab not started!"), 1);
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 0), 0u);
    EXPECT_EQ(counter.good, 0);
    expectTheNextGrabToWork();
}

TEST_F(DeviceSystem, AccessThatIsGivenUpBeforeTheThreadRunsStartsNothing) {
    const ScopedImportHook<decltype(&ResumeThread)> hook(kKernel, "ResumeThread", [](HANDLE thread) -> DWORD {
        if (const TARNIS_HANDLE grabber = std::exchange(g_givesUp, nullptr)) TARNIS_ReleaseDMAAccess(grabber, 0);
        return g_resumeThread(thread);
    });
    ASSERT_TRUE(hook.installed());
    g_resumeThread = hook.original();
    g_givesUp = m_grabber;
    FrameCounter counter;
    EXPECT_EQ(start(counter), TARNIS_FAILURE);
    EXPECT_FALSE(isGrabbing());
    EXPECT_EQ(counter.good, 0);
    EXPECT_TRUE(waitUntil([&] { return m_log.count(L"Prepare Failed!") == 1; }));
    expectTheNextGrabToWork();
}

TEST_F(DeviceSystem, MemoryThatTheSystemDoesNotLetGoOfIsNeverFreed) {
    m_card.setSignal(kSmall);
    const ScopedImportHook<decltype(&WaitForSingleObject)> waits(
        kKernel, "WaitForSingleObject", [](HANDLE handle, DWORD milliseconds) -> DWORD {
            // What a cancelled request has; it ends all the same, and nobody is the wiser.
            const DWORD result = g_waitForOne(handle, milliseconds);
            return milliseconds == CardRequests::kCancelMs && g_refusals > 0 ? WAIT_TIMEOUT : result;
        });
    const ScopedImportHook<decltype(&VirtualFree)> frees(kKernel, "VirtualFree",
                                                         [](LPVOID address, SIZE_T size, DWORD type) -> BOOL {
                                                             ++g_released;
                                                             return g_virtualFree(address, size, type);
                                                         });
    ASSERT_TRUE(waits.installed() && frees.installed());
    g_waitForOne = waits.original();
    g_virtualFree = frees.original();
    for (const int refusals : {1, 0}) {
        SCOPED_TRACE(refusals);
        FrameCounter counter(kSmall);
        ASSERT_EQ(start(counter), 0u);
        ASSERT_TRUE(counter.waitForFrames(2));
        EXPECT_EQ(stop(), 0u);
        g_released = 0;
        g_refusals = refusals;
        EXPECT_EQ(TARNIS_Done(std::exchange(m_grabber, nullptr)), 0u);
        g_refusals = 0;
        EXPECT_EQ(g_released, refusals == 0 ? 1 : 0) << "the card may still write there";
        m_grabber = openCard();
        ASSERT_NE(m_grabber, nullptr);
    }
}

TEST_F(DeviceSystem, EnumerationWithoutItsWatchdogListsTheCardsAllTheSame) {
    const ScopedImportHook<decltype(&DuplicateHandle)> hook(
        kKernel, "DuplicateHandle", [](HANDLE, HANDLE, HANDLE, LPHANDLE, DWORD, BOOL, DWORD) -> BOOL { return FALSE; });
    ASSERT_TRUE(hook.installed());
    const TARNIS_HANDLE other = openCard();
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(TARNIS_Done(other), 0u);
    {
        const ScopedImportHook<decltype(&CreateEventW)> events(
            kKernel, "CreateEventW", [](LPSECURITY_ATTRIBUTES, BOOL, BOOL, LPCWSTR) -> HANDLE { return nullptr; });
        ASSERT_TRUE(events.installed());
        CDeviceEnumerator* enumerator = TARNIS_EnumOpen();
        EXPECT_NE(enumerator, nullptr);
        TARNIS_EnumClose(enumerator);
    }
}

TEST_F(DeviceSystem, InterfaceThatIsNotActiveIsNotListed) {
    static decltype(&SetupDiEnumDeviceInterfaces) enumerate;
    const ScopedImportHook<decltype(&SetupDiEnumDeviceInterfaces)> hook(
        "setupapi.dll", "SetupDiEnumDeviceInterfaces",
        [](HDEVINFO set, PSP_DEVINFO_DATA info, const GUID* guid, DWORD index, PSP_DEVICE_INTERFACE_DATA data) -> BOOL {
            const BOOL found = enumerate(set, info, guid, index, data);
            data->Flags &= ~DWORD{SPINT_ACTIVE};
            return found;
        });
    ASSERT_TRUE(hook.installed());
    enumerate = hook.original();
    EXPECT_EQ(TARNIS_EnumOpen(), nullptr);
    EXPECT_EQ(m_log.count(L"No devices present!"), 1);
}

TEST_F(DeviceSystem, NotifierWithoutEventOrThreadHearsNothingAndEnds) {
    struct Deaf : IDeviceAddRemove {
        void DeviceArrived(const DEV_BROADCAST_DEVICEINTERFACE_W&) noexcept override {}
        void DeviceRemoved(const DEV_BROADCAST_DEVICEINTERFACE_W&) noexcept override {}
    } deaf;
    {
        const ScopedImportHook<decltype(&CreateEventW)> hook(
            kKernel, "CreateEventW", [](LPSECURITY_ATTRIBUTES, BOOL, BOOL, LPCWSTR) -> HANDLE { return nullptr; });
        ASSERT_TRUE(hook.installed());
        DeviceNotifier notifier;
        notifier.registerCallback(deaf, GUID{});
    }
    const ScopedImportHook<decltype(&CreateThread)> hook(kKernel, "CreateThread",
                                                         [](LPSECURITY_ATTRIBUTES, SIZE_T, LPTHREAD_START_ROUTINE,
                                                            LPVOID, DWORD, LPDWORD) -> HANDLE { return nullptr; });
    ASSERT_TRUE(hook.installed());
    DeviceNotifier notifier;
    notifier.registerCallback(deaf, GUID{});
}

// Logging never changes an outcome: what fails above with a log fails the same way where nobody listens.

using DeviceWithoutLog = CardTest;

TEST_F(DeviceWithoutLog, WrongArgumentsAndMissingAccessAreAnsweredTheSame) {
    ASSERT_FALSE(logAccepts(LOG_MANDATORY));
    DeviceEnumData data{};
    data.size = sizeof data;
    CDeviceEnumerator* enumerator = TARNIS_EnumOpen();
    ASSERT_NE(enumerator, nullptr);
    EXPECT_EQ(TARNIS_EnumNext(nullptr, &data), TARNIS_INVALID_ARGUMENT);
    EXPECT_EQ(TARNIS_EnumNext(enumerator, nullptr), TARNIS_INVALID_ARGUMENT);
    TARNIS_EnumClose(enumerator);

    const TARNIS_HANDLE grabber = openCard();
    ASSERT_NE(grabber, nullptr);
    FrameCounter counter;
    TarnisCameraData camera{};
    const auto startGrab = [&] {
        return TARNIS_StartGrab(grabber, 0, 0, &camera, FrameCounter::onFrame, counter.context());
    };
    EXPECT_EQ(TARNIS_GetDMAAccess(nullptr, 0), TARNIS_INVALID_ARGUMENT);
    EXPECT_EQ(TARNIS_GetDMAAccess(grabber, 2), TARNIS_INVALID_ARGUMENT);
    EXPECT_EQ(TARNIS_GetCameraStatus(grabber, 0, nullptr), TARNIS_INVALID_ARGUMENT);
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(grabber, 0), TARNIS_SUCCESS);
    EXPECT_EQ(startGrab(), TARNIS_NO_DMA_ACCESS);
    EXPECT_EQ(TARNIS_GetDMAAccess(grabber, 0), TARNIS_SUCCESS);
    EXPECT_EQ(TARNIS_GetDMAAccess(grabber, 0), TARNIS_SUCCESS) << "twice";
    EXPECT_EQ(TARNIS_StartGrab(grabber, 0, 0, nullptr, nullptr, 0), TARNIS_FAILURE);
    m_card.failNext(wire::kStartGrabbing, kStatusNotSupported, 1);
    EXPECT_EQ(startGrab(), TARNIS_FAILURE);
    m_card.addFault({FaultKind::DriverResult, wire::kConnection, 9, 0, 1, {}});
    uint8_t connected = 0;
    EXPECT_EQ(TARNIS_IsCameraConnected(grabber, 0, &connected), TARNIS_FAILURE);
    uint16_t value = 0;
    EXPECT_EQ(noexp_TARNIS_ReadI2C(grabber, 0, 0x22, nullptr), TARNIS_SUCCESS) << "a value that nobody wants";
    EXPECT_EQ(noexp_TARNIS_ReadI2C(grabber, 0, 0x22, &value), TARNIS_SUCCESS);
    EXPECT_EQ(TARNIS_Done(grabber), TARNIS_SUCCESS);
    EXPECT_EQ(counter.good, 0);
}

TEST_F(DeviceWithoutLog, CardsAndSystemsThatFailAreAnsweredTheSame) {
    m_card.failNext(wire::kGetSlotInfo, kStatusNotSupported, 2);
    CDeviceEnumerator* enumerator = TARNIS_EnumOpen();
    EXPECT_NE(enumerator, nullptr) << "a card without a description is a card";
    TARNIS_EnumClose(enumerator);
    m_card.addFault({FaultKind::RefuseOpen, 0, 0, 0, kForever, {}});
    const TARNIS_HANDLE second = openCard();
    ASSERT_NE(second, nullptr) << "the second card is listed";
    m_card.clearFaults();
    {
        const ScopedImportHook<decltype(&SetupDiGetClassDevsW)> hook(
            "setupapi.dll", "SetupDiGetClassDevsW",
            [](const GUID*, PCWSTR, HWND, DWORD) -> HDEVINFO { return INVALID_HANDLE_VALUE; });
        ASSERT_TRUE(hook.installed());
        EXPECT_EQ(TARNIS_EnumOpen(), nullptr);
    }
    {
        const ScopedImportHook<decltype(&SetupDiGetDeviceInterfaceDetailW)> hook(
            "setupapi.dll", "SetupDiGetDeviceInterfaceDetailW",
            [](HDEVINFO, PSP_DEVICE_INTERFACE_DATA, PSP_DEVICE_INTERFACE_DETAIL_DATA_W, DWORD, PDWORD,
               PSP_DEVINFO_DATA) -> BOOL { return FALSE; });
        ASSERT_TRUE(hook.installed());
        EXPECT_EQ(TARNIS_EnumOpen(), nullptr);
    }
    {
        const ScopedImportHook<decltype(&CreateMutexW)> hook(
            kKernel, "CreateMutexW", [](LPSECURITY_ATTRIBUTES, BOOL, LPCWSTR) -> HANDLE { return nullptr; });
        ASSERT_TRUE(hook.installed());
        EXPECT_EQ(openCard(), nullptr);
    }
    m_card.unplug(); // which the second card's instance hears of as of a foreign device
    m_card.plug();
    EXPECT_EQ(TARNIS_Done(second), TARNIS_SUCCESS);
}

} // namespace kestra::test
