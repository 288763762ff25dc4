// A channel's life on a card: stops that meet starts, other stops, threads that end by themselves, removals and
// arrivals; and what the library says of it in its log.
#include "tests/device/device_test.h"
#include "tests/support/scoped_import_hook.h"

#include <gmock/gmock.h>

#include <windows.h>

#include <process.h>

#include <functional>
#include <memory>
#include <thread>
#include <utility>

namespace kestra::test {
namespace {

using namespace kestra::simcard;
using namespace std::chrono_literals;

/// A callback that blocks at the first frame of one DMA status until the test lets it go.
class Gate {
public:
    explicit Gate(uint32_t status = DMA_STATUS_GOOD) : m_status(status) {}
    ~Gate() { letGo(); }
    uint64_t context() { return reinterpret_cast<uint64_t>(this); }
    static void onFrame(uint64_t context, const TarnisFrameInfo* frame) {
        auto& self = *reinterpret_cast<Gate*>(context);
        if (++self.inside > 1) ++self.overlaps;
        ++self.calls;
        if (frame->dmaStatus == self.m_status && !self.blocked.exchange(true)) {
            self.entered = true;
            waitUntil([&] { return self.m_open.load(); }, 20s);
        }
        --self.inside;
    }
    bool waitForEntry() {
        return waitUntil([&] { return entered.load(); });
    }
    void letGo() { m_open = true; }

    std::atomic<int> calls{0}, inside{0}, overlaps{0};
    std::atomic<bool> entered{false}, blocked{false};

private:
    const uint32_t m_status;
    std::atomic<bool> m_open{false};
};

/// Work on a thread of its own, which the test asks whether it is done.
class Aside {
public:
    explicit Aside(std::function<void()> work)
        : m_thread([this, work = std::move(work)] {
              work();
              m_done = true;
          }) {}
    ~Aside() { m_thread.join(); }
    bool isDone() const { return m_done; }
    /// False if it is still busy after a while in which it would otherwise have ended.
    bool endsAtOnce() const {
        return waitUntil([&] { return isDone(); }, 150ms);
    }
    bool ends() const {
        return waitUntil([&] { return isDone(); });
    }

private:
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

class DeviceLife : public DeviceTest {
protected:
    uint32_t startWith(Gate& gate) {
        if (const uint32_t code = TARNIS_GetDMAAccess(m_grabber, 0)) return code;
        m_data = {};
        m_data.outputSelector = TARNIS_OUTPUT_YUV422_8;
        return TARNIS_StartGrab(m_grabber, 0, 0, &m_data, Gate::onFrame, gate.context());
    }
    int received(uint32_t code) {
        const auto codes = requestCodes();
        return int(std::count(codes.begin(), codes.end(), code));
    }
    bool waitForRequest(uint32_t code, int count = 1) {
        return waitUntil([&] { return received(code) >= count; });
    }
    void unplug() {
        m_log.clear();
        m_card.unplug();
        ASSERT_TRUE(waitUntil([&] { return m_log.count(L"DeviceRemoved Leave") == 1; }));
    }
    void plug() {
        m_log.clear();
        m_card.plug();
        ASSERT_TRUE(waitUntil([&] { return m_log.count(L"DeviceArrived Leave") == 1; }));
    }
    void changeFormat() {
        Signal smaller = kDefaultSignal;
        smaller.width = 1280;
        smaller.height = 720;
        m_card.setSignal(smaller);
    }
    std::vector<std::wstring> messagesOf(const char* function) {
        std::vector<std::wstring> messages;
        for (const SeenRecord& record : m_log.records())
            if (record.functionName == function) messages.push_back(record.message);
        return messages;
    }
};

} // namespace

TEST_F(DeviceLife, StopWhileTheCardIsGoneIsTheLastThatTheClientHears) {
    auto first = std::make_unique<Gate>(77u); // blocks at no frame
    ASSERT_EQ(startWith(*first), 0u);
    ASSERT_TRUE(waitUntil([&] { return first->calls > 2; }));
    unplug();
    EXPECT_EQ(TARNIS_StopGrab(m_grabber, 0), TARNIS_FAILURE) << "the card cannot be asked";
    const int calls = first->calls;
    m_card.clearLog();
    plug();
    EXPECT_EQ(received(wire::kStartGrabbing), 0);
    EXPECT_EQ(first->calls, calls);
    first.reset();
    FrameCounter counter;
    ASSERT_EQ(restart(counter), 0u);
    EXPECT_TRUE(counter.waitForFrames(3));
    EXPECT_EQ(stop(), 0u);
}

TEST_F(DeviceLife, SecondStopWaitsForTheCallbackToo) {
    Gate gate;
    ASSERT_EQ(startWith(gate), 0u);
    ASSERT_TRUE(gate.waitForEntry());
    const Aside firstStop([&] { TARNIS_StopGrab(m_grabber, 0); });
    ASSERT_TRUE(waitForRequest(wire::kStopGrabbing));
    int inside = -1;
    const Aside secondStop([&] {
        TARNIS_StopGrab(m_grabber, 0);
        inside = gate.inside;
    });
    EXPECT_FALSE(secondStop.endsAtOnce()) << "the callback is still running";
    gate.letGo();
    EXPECT_TRUE(firstStop.ends());
    EXPECT_TRUE(secondStop.ends());
    EXPECT_EQ(inside, 0);
    TARNIS_ReleaseDMAAccess(m_grabber, 0);
}

TEST_F(DeviceLife, StopWaitsAgainForACallbackThatAnEarlierStopGaveUp) {
    Gate gate;
    ASSERT_EQ(startWith(gate), 0u);
    ASSERT_TRUE(gate.waitForEntry());
    EXPECT_EQ(TARNIS_StopGrab(m_grabber, 0), 0u);
    EXPECT_EQ(gate.inside, 1) << "the first has waited its 1000 ms";
    int inside = -1;
    const Aside again([&] {
        TARNIS_StopGrab(m_grabber, 0);
        inside = gate.inside;
    });
    EXPECT_FALSE(again.endsAtOnce());
    gate.letGo();
    EXPECT_TRUE(again.ends());
    EXPECT_EQ(inside, 0);
    TARNIS_ReleaseDMAAccess(m_grabber, 0);
}

TEST_F(DeviceLife, StopAndCloseWaitForAThreadThatEndsByItself) {
    for (const bool close : {false, true}) {
        SCOPED_TRACE(close ? "close" : "stop");
        m_card.setSignal(kDefaultSignal);
        Gate gate(DMA_STATUS_DICONNECTED);
        ASSERT_EQ(startWith(gate), 0u);
        ASSERT_TRUE(waitUntil([&] { return gate.calls > 0; }));
        changeFormat();
        ASSERT_TRUE(gate.waitForEntry()) << "another format ends the run with a callback";
        int inside = -1;
        const Aside ending([&] {
            if (close)
                TARNIS_Done(std::exchange(m_grabber, nullptr));
            else
                TARNIS_StopGrab(m_grabber, 0);
            inside = gate.inside;
        });
        EXPECT_FALSE(ending.endsAtOnce()) << "the callback is still running";
        gate.letGo();
        EXPECT_TRUE(ending.ends());
        EXPECT_EQ(inside, 0);
        if (!close) {
            EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 0), 0u);
        }
    }
}

TEST_F(DeviceLife, RemovalCallsNothingBackAndTheLateCallbackIsAloneWhenFramesGoOn) {
    Gate gate;
    ASSERT_EQ(startWith(gate), 0u);
    ASSERT_TRUE(gate.waitForEntry());
    unplug();
    EXPECT_EQ(gate.calls, 1);
    m_card.clearLog();
    plug();
    EXPECT_EQ(received(wire::kStartGrabbing), 1) << "the grab goes on";
    EXPECT_EQ(received(wire::kUnlockBuffer), 0);
    EXPECT_FALSE(waitUntil([&] { return gate.calls > 1; }, 150ms)) << "not while the callback from before is running";
    const auto before = m_card.log().size();
    gate.letGo();
    EXPECT_TRUE(waitUntil([&] { return gate.calls > 5; }));
    EXPECT_EQ(gate.overlaps, 0);
    const auto log = m_card.log();
    ASSERT_GT(log.size(), before);
    for (size_t i = before; i < log.size(); ++i)
        EXPECT_EQ(log[i].result, 0u) << "no buffer of the old session comes back into the new one";
    EXPECT_EQ(log[before].code, wire::kLockBuffer) << "the late thread only left";
    EXPECT_EQ(m_card.state().channels[0].lateUnlocks, 0u);
    EXPECT_EQ(stop(), 0u);
}

TEST_F(DeviceLife, LateCallbackGivesNothingBackIntoItsSuccessorsRun) {
    Gate gate;
    ASSERT_EQ(startWith(gate), 0u);
    ASSERT_TRUE(gate.waitForEntry());
    EXPECT_EQ(TARNIS_StopGrab(m_grabber, 0), 0u);
    FrameCounter counter;
    ASSERT_EQ(restart(counter), 0u);
    ASSERT_TRUE(counter.waitForFrames(2));
    gate.letGo();
    ASSERT_TRUE(waitUntil([&] { return gate.inside == 0; }));
    EXPECT_TRUE(counter.waitForFrames(20));
    EXPECT_EQ(m_card.state().channels[0].lateUnlocks, 0u);
    EXPECT_EQ(stop(), 0u);
}

TEST_F(DeviceLife, StopThatMeetsAStartLeavesTheCardStopped) {
    ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
    m_card.addFault({FaultKind::Delay, wire::kStartGrabbing, 200, 0, 1, {}});
    FrameCounter counter;
    uint32_t code = 0;
    {
        const Aside starting([&] { code = restart(counter); });
        ASSERT_TRUE(waitForRequest(wire::kStartGrabbing));
        EXPECT_EQ(TARNIS_StopGrab(m_grabber, 0), 0u);
        EXPECT_TRUE(starting.ends());
    }
    EXPECT_EQ(code, 255u);
    EXPECT_EQ(m_log.count(L"Grab not started!"), 1);
    EXPECT_TRUE(waitUntil([&] { return m_card.state().channels[0].grabbing == 0; })) << "the card goes on for nobody";
    EXPECT_EQ(counter.good, 0);
    ASSERT_EQ(restart(counter), 0u);
    EXPECT_TRUE(counter.waitForFrames(2));
    EXPECT_EQ(stop(), 0u);
}

namespace {

std::function<void()> g_afterStart; ///< what happens before TARNIS_StartGrab hears that the run has started
decltype(&WaitForMultipleObjects) g_waitForMultipleObjects;
DWORD g_starter;

DWORD WINAPI waitThenMore(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
    const DWORD result = g_waitForMultipleObjects(count, handles, all, milliseconds);
    if (GetCurrentThreadId() == g_starter && g_afterStart) std::exchange(g_afterStart, {})();
    return result;
}

} // namespace

TEST_F(DeviceLife, CardThatIsPulledBetweenTheStartAndItsReportGoesOnWhenItIsBack) {
    const ScopedImportHook<decltype(&WaitForMultipleObjects)> hook("kernel32.dll", "WaitForMultipleObjects",
                                                                   waitThenMore);
    ASSERT_TRUE(hook.installed());
    g_waitForMultipleObjects = hook.original();
    g_starter = GetCurrentThreadId();
    ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
    g_afterStart = [this] { unplug(); };
    FrameCounter counter;
    EXPECT_EQ(restart(counter), 0u) << "it had started";
    plug();
    EXPECT_TRUE(counter.waitForFrames(3));
    EXPECT_EQ(stop(), 0u);
}

TEST_F(DeviceLife, ClaimWaitsForTheArrivalThatRestoresTheFlags) {
    ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
    unplug();
    m_card.clearLog();
    m_card.addFault({FaultKind::Delay, wire::kChannelAccess, 200, 0, 1, {}});
    m_log.clear();
    m_card.plug();
    ASSERT_TRUE(waitForRequest(wire::kChannelAccess));
    EXPECT_EQ(TARNIS_GetDMAAccess(m_grabber, 1), 0u);
    ASSERT_TRUE(waitUntil([&] { return m_log.count(L"OnCardStarted Leave") == 1; }));
    // The card has the two in the order in which they were decided: the delayed one does not take the claim back.
    TARNIS_HANDLE other = openCard();
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(TARNIS_GetDMAAccess(other, 0), TARNIS_ACCESS_DENIED);
    EXPECT_EQ(TARNIS_GetDMAAccess(other, 1), TARNIS_ACCESS_DENIED);
    EXPECT_EQ(TARNIS_Done(other), 0u);
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 0), 0u);
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 1), 0u);
}

TEST_F(DeviceLife, LastReleaseEndsARunThatNobodyStopped) {
    FrameCounter counter;
    ASSERT_EQ(start(counter), 0u);
    ASSERT_TRUE(counter.waitForFrames(1));
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 0), 0u);
    const int frames = counter.good;
    unplug();
    ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), TARNIS_FAILURE);
    plug();
    EXPECT_EQ(counter.good, frames);
}

TEST_F(DeviceLife, CardCanBeClosedFromInsideACallback) {
    struct Closing {
        std::atomic<TARNIS_HANDLE> grabber;
        std::atomic<int> calls{0};
        std::atomic<uint32_t> code{~0u};
    } closing{m_grabber};
    ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
    TarnisCameraData data{};
    data.outputSelector = TARNIS_OUTPUT_YUV422_8;
    ASSERT_EQ(TARNIS_StartGrab(
                  m_grabber, 0, 0, &data,
                  [](uint64_t context, const TarnisFrameInfo*) {
                      auto& self = *reinterpret_cast<Closing*>(context);
                      if (++self.calls == 1) self.code = TARNIS_Done(self.grabber);
                  },
                  reinterpret_cast<uint64_t>(&closing)),
              0u);
    m_grabber = nullptr;
    EXPECT_TRUE(waitUntil([&] { return closing.code == 0u; }));
    EXPECT_TRUE(waitUntil([&] { return m_card.state().clients == 0; }));
    EXPECT_EQ(closing.calls, 1);
}

TEST_F(DeviceLife, RemovalAndArrivalSayWhereTheyAre) {
    unplug();
    EXPECT_EQ(messagesOf("TARNIS_GIS::DeviceRemoved"),
              (std::vector<std::wstring>{L"DeviceRemoved Enter", L"OnCardStopped Leave", L"DeviceRemoved Leave"}));
    plug();
    EXPECT_EQ(messagesOf("TARNIS_GIS::DeviceArrived"),
              (std::vector<std::wstring>{L"DeviceArrived Enter", L"OnCardStarted Leave", L"DeviceArrived Leave"}));
    for (const SeenRecord& record : m_log.records())
        EXPECT_EQ(record.group, "Initializing functions");

    const CardControl second(1);
    m_log.clear();
    second.unplug();
    ASSERT_TRUE(waitUntil([&] { return m_log.count(L"DeviceRemoved Leave") == 1; }));
    EXPECT_EQ(messagesOf("TARNIS_GIS::DeviceRemoved"),
              (std::vector<std::wstring>{L"DeviceRemoved Enter", L"Foreign device.", L"DeviceRemoved Leave"}));
    m_log.clear();
    second.plug();
    ASSERT_TRUE(waitUntil([&] { return m_log.count(L"DeviceArrived Leave") == 1; }));
    EXPECT_EQ(messagesOf("TARNIS_GIS::DeviceArrived"),
              (std::vector<std::wstring>{L"DeviceArrived Enter", L"hDevice != INVALID_HANDLE_VALUE",
                                         L"DeviceArrived Leave"}));
}

namespace {

decltype(&CreateFileW) g_createFile;
std::wstring g_refusedPath; ///< cannot be opened, however it is written; empty: everything can
std::wstring g_askedPath;   ///< as it was written

HANDLE WINAPI refusingCreateFile(const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                                 DWORD disposition, DWORD flags, HANDLE pattern) {
    if (_wcsicmp(g_refusedPath.c_str(), path) != 0)
        return g_createFile(path, access, share, security, disposition, flags, pattern);
    g_askedPath = path;
    SetLastError(ERROR_SHARING_VIOLATION);
    return INVALID_HANDLE_VALUE;
}

} // namespace

TEST_F(DeviceLife, CardThatComesBackAndDoesNotOpenIsNamedAndOpensTheNextTime) {
    const ScopedImportHook<decltype(&CreateFileW)> hook("kernel32.dll", "CreateFileW", refusingCreateFile);
    ASSERT_TRUE(hook.installed());
    g_createFile = hook.original();
    g_refusedPath.clear();
    unplug();
    g_refusedPath = m_card.devicePath();
    plug();
    EXPECT_EQ(messagesOf("TARNIS_GIS::DeviceArrived"),
              (std::vector<std::wstring>{L"DeviceArrived Enter", L"hDevice == INVALID_HANDLE_VALUE",
                                         L"DeviceArrived Leave"}));
    EXPECT_EQ(messagesOf("TARNIS_GIS::OpenCard"),
              std::vector<std::wstring>{L"CreateFile(" + g_askedPath + L") failed. GetLastError=32(0x20)"});
    g_refusedPath.clear();
    m_card.unplug();
    plug();
    EXPECT_EQ(m_log.count(L"OnCardStarted Leave"), 1);
    uint8_t connected = 0;
    EXPECT_EQ(TARNIS_IsCameraConnected(m_grabber, 0, &connected), 0u);
}

namespace {

int g_threadsBeforeFailure;
decltype(&_beginthreadex) g_beginThread;

uintptr_t __cdecl failingBeginThread(void* security, unsigned stack, unsigned(__stdcall* entry)(void*), void* argument,
                                     unsigned flags, unsigned* id) {
    if (g_threadsBeforeFailure-- != 0) return g_beginThread(security, stack, entry, argument, flags, id);
    errno = EAGAIN;
    return 0;
}

} // namespace

TEST_F(DeviceLife, MissingThreadIsLoggedAndStartsNothing) {
    const ScopedImportHook<decltype(&_beginthreadex)> hook("msvcrt.dll", "_beginthreadex", failingBeginThread);
    ASSERT_TRUE(hook.installed());
    g_beginThread = hook.original();
    ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
    FrameCounter counter;
    g_threadsBeforeFailure = 0;
    m_card.clearLog();
    EXPECT_EQ(restart(counter), TARNIS_FAILURE);
    EXPECT_EQ(m_log.count(L"Grabbing thread not started!"), 1);
    EXPECT_TRUE(m_card.log().empty());
    ASSERT_EQ(restart(counter), 0u);
    EXPECT_TRUE(counter.waitForFrames(2));
    EXPECT_EQ(stop(), 0u);

    m_log.clear();
    g_threadsBeforeFailure = 0;
    EXPECT_EQ(openCard(), nullptr) << "an instance has a thread of its own";
    EXPECT_EQ(messagesOf("TARNIS_InitByHandle"), std::vector<std::wstring>{L"Can't allocate GIS structure"});
    EXPECT_EQ(m_card.state().clients, 1u) << "only the fixture has the card open";
}

namespace {

int g_eventsBeforeFailure; ///< below 0: none fails
decltype(&CreateEventW) g_createEvent;

HANDLE WINAPI failingCreateEvent(SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set, const wchar_t* name) {
    if (g_eventsBeforeFailure < 0 || g_eventsBeforeFailure-- != 0) return g_createEvent(security, manual, set, name);
    SetLastError(ERROR_SUCCESS); // whoever asks for the reason later finds none
    return nullptr;
}

} // namespace

TEST_F(DeviceLife, EachMissingEventOfAStartFailsItOrIsNotNeeded) {
    const ScopedImportHook<decltype(&CreateEventW)> hook("kernel32.dll", "CreateEventW", failingCreateEvent);
    ASSERT_TRUE(hook.installed());
    g_createEvent = hook.original();
    g_eventsBeforeFailure = -1;
    ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
    int failed = 0;
    for (int failing = 0;; ++failing) {
        SCOPED_TRACE(failing);
        g_eventsBeforeFailure = failing;
        FrameCounter counter;
        const uint32_t code = restart(counter);
        const bool met = g_eventsBeforeFailure < 0;
        g_eventsBeforeFailure = -1;
        if (code == 0) {
            EXPECT_TRUE(counter.waitForFrames(2)) << "a start that was reported brings frames";
            EXPECT_EQ(TARNIS_StopGrab(m_grabber, 0), 0u);
        } else {
            ++failed;
            EXPECT_EQ(code, 255u);
            EXPECT_EQ(m_card.state().channels[0].grabbing, 0u);
            EXPECT_FALSE(waitUntil([&] { return counter.good > 0; }, 150ms)) << "nor does it start later";
        }
        // The next start prepares anew.
        m_data.outputSelector = TARNIS_OUTPUT_RGB24;
        ASSERT_EQ(noexp_TARNIS_Prepare(m_grabber, 0, &m_data), 0u);
        if (!met) break;
    }
    EXPECT_GE(failed, 4) << "the run's own events";
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 0), 0u);
}

TEST_F(DeviceLife, ChunkLockWithoutItsEventIsAFailure) {
    const ScopedImportHook<decltype(&CreateEventW)> hook("kernel32.dll", "CreateEventW", failingCreateEvent);
    ASSERT_TRUE(hook.installed());
    g_createEvent = hook.original();
    g_eventsBeforeFailure = -1;
    ASSERT_EQ(TARNIS_GetDMAAccess(m_grabber, 0), 0u);
    int failed = 0;
    for (int failing = 0;; ++failing) {
        SCOPED_TRACE(failing);
        m_card.clearLog();
        TarnisCameraData data{};
        data.outputSelector = failing % 2 ? TARNIS_OUTPUT_YUV422_8 : TARNIS_OUTPUT_RGB24;
        g_eventsBeforeFailure = failing;
        const uint32_t code = noexp_TARNIS_Prepare(m_grabber, 0, &data);
        const bool met = g_eventsBeforeFailure < 0;
        g_eventsBeforeFailure = -1;
        // A status without its event is tolerated here and there; a prepared channel has its buffers locked.
        if (code == 0 && received(wire::kPrepare) == 1) {
            EXPECT_EQ(received(wire::kLockChunk), 1);
        }
        EXPECT_EQ(m_card.state().pendingRequests, code == 0 ? 2u : 1u)
            << "the session watch, and the chunk's lock if any";
        failed += code != 0;
        if (!met) break;
    }
    EXPECT_GE(failed, 1) << "the chunk's lock";
    EXPECT_EQ(TARNIS_ReleaseDMAAccess(m_grabber, 0), 0u);
}

} // namespace kestra::test
