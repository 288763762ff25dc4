// Walks over all functions of the device library: two cards, six handles, four threads, callbacks that call back, and
// cards that are pulled, change their input, and answer as no card should.
#include "device/tarnis.h"
#include "protocol/raw_frame.h"
#include "simcard/ctl/control.h"
#include "simcard/model/card.h"
#include "tests/support/registry_sandbox.h"
#include "tests/support/wait_until.h"
#include "tests/walk/card_events.h"
#include "tests/walk/card_pictures.h"
#include "tests/walk/plug_notices.h"
#include "tests/walk/walk.h"
#include "win32/handle.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

namespace kestra::walk {
namespace {

using namespace kestra::simcard;

constexpr size_t kSlots = 6;
/// A stop waits that long for a callback; one that has waited nearly as long may have given up.
constexpr ULONGLONG kGivenUpMs = 900;

enum : uint16_t {
    kInit,
    kInitRefused,
    kDone,
    kDoneWhileAsked,
    kGetAccess,
    kReleaseAccess,
    kBufferCount,
    kCameraStatus,
    kConnected,
    kGrabStat,
    kDefaultConverter,
    kGetConverter,
    kSetConverter,
    kStartGrab,
    kStopGrab,
    kSnap,
    kPrepare,
    kReadRegister,
    kEnumerate,
    kInvalid,
    kAwaitFrames,
    kSleep,
    kCardSteps
};
const std::vector<Call> kCalls = withCardCalls({
    {"TARNIS_InitByHandle", 6, 4},
    {"TARNIS_InitByHandle, refused", 3, 0},
    {"TARNIS_Done", 3, 2},
    {"TARNIS_Done, a call under way", 1, 0},
    {"TARNIS_GetDMAAccess", 22, 20},
    {"TARNIS_ReleaseDMAAccess", 5, 5},
    {"TARNIS_SetBufferCount", 3, 3},
    {"TARNIS_GetCameraStatus", 6, 6},
    {"TARNIS_IsCameraConnected", 6, 6},
    {"TARNIS_GetGrabStat", 5, 5},
    {"TARNIS_GetDefaultColorSpaceConverterParams", 1, 1},
    {"TARNIS_GetColorSpaceConverterParams", 4, 4},
    {"TARNIS_SetColorSpaceConverterParams", 4, 4},
    {"TARNIS_StartGrab", 16, 16},
    {"TARNIS_StopGrab", 8, 8},
    {"TARNIS_SnapFrames", 4, 4},
    {"noexp_TARNIS_Prepare", 4, 4},
    {"noexp_TARNIS_ReadI2C", 4, 4},
    {"TARNIS_EnumOpen/Next/Close", 3, 3},
    {"with invalid arguments", 6, 6},
    {"wait for frames", 10, 12},
    {"wait", 6, 6},
});

class DeviceWorld;

/// One TARNIS_StartGrab, and its callback's context.
struct Grab {
    DeviceWorld* world;
    TARNIS_HANDLE handle;
    size_t slot;
    int8_t port;
    uint32_t action, every;           ///< what the callback does in every so many-th frame
    std::atomic<bool> started{false}; ///< the start has returned, with success
    std::atomic<bool> over{false};    ///< nothing may call back any more
    std::atomic<bool> givenUp{false}; ///< a stop has waited for the callback as long as it is willing to
    std::atomic<bool> lost{false};    ///< the last callback, for another format, has come
    std::atomic<bool> ending{false};  ///< somebody has asked for its end, or for another in its place
    std::atomic<int> inside{0};
    std::atomic<DWORD> insideThread{0};
    std::atomic<ULONGLONG> insideSince{0};
    std::atomic<uint32_t> calls{0}, lastFrame{0};
};

/// One opened card. Calls hold it, so that TARNIS_Done comes after them.
struct Slot {
    std::mutex mutex;
    std::condition_variable changed;
    TARNIS_HANDLE handle = nullptr;
    int users = 0;
    bool closing = false;
    /// Of each port: how often it is claimed, and how often that was asked to change.
    std::atomic<int> claims[2]{}, changing[2]{};
    std::atomic<uint32_t> changes[2]{};
};

class DeviceWorld final : public World {
public:
    const std::vector<Call>& calls() const override { return kCalls; }
    void begin(const Act& act) override;
    uint32_t step(const Step& step) override;
    void end() override;
    void rescue() override;
    std::string summary() const override;

private:
    class Use;
    static void onFrame(uint64_t context, const TarnisFrameInfo* frame) {
        auto& grab = *reinterpret_cast<Grab*>(context);
        grab.world->called(grab, *frame);
    }
    void called(Grab& grab, const TarnisFrameInfo& frame);
    void failFrame(const TarnisFrameInfo& frame, const std::string& why);
    void callBack(Grab& grab);
    void check(Grab& grab, const TarnisFrameInfo& frame);
    /// @return empty: the bytes are what the card has made
    std::string whyWrong(const Grab& grab, const TarnisFrameInfo& frame);
    void checkAgain(const Grab& grab, const TarnisFrameInfo& frame, ULONGLONG since);

    Slot& slotOf(uint32_t a);
    uint32_t open(uint32_t a, uint32_t b);
    uint32_t openRefused(uint32_t a, uint32_t b);
    static std::string whyClosed(uint32_t number);
    uint32_t done(Slot& slot);
    uint32_t doneWhileAsked(Slot& slot, uint32_t which);
    uint32_t changeAccess(Slot& slot, TARNIS_HANDLE handle, int8_t port, bool claim);
    uint32_t start(Slot& slot, TARNIS_HANDLE handle, int8_t port, uint32_t b);
    uint32_t stop(TARNIS_HANDLE handle, int8_t port);
    uint32_t snap(TARNIS_HANDLE handle, uint32_t b);
    uint32_t enumerate(uint32_t a, uint32_t b);
    uint32_t invalid(TARNIS_HANDLE handle, uint32_t which);
    uint32_t awaitFrames(TARNIS_HANDLE handle, uint32_t b);
    template <class Ask>
    static uint32_t withAccess(Slot& slot, int8_t port, const char* call, Ask ask);

    std::vector<Grab*> grabsOf(TARNIS_HANDLE handle, int port);
    /// The same, of which somebody is about to ask for the end.
    std::vector<Grab*> endingGrabsOf(TARNIS_HANDLE handle, int port);
    /// None of these may call back any more, if nothing has taken so long that it may have been given up.
    void judgeStop(TARNIS_HANDLE handle, ULONGLONG since);
    static void areOver(const std::vector<Grab*>& grabs, ULONGLONG since);
    /// A result that the call's documentation names. In a calm act a handle's questions have answers.
    uint32_t expected(uint32_t result, std::initializer_list<uint32_t> named, const char* call) const;

    bool m_calm = false, m_alone = false;
    std::atomic<bool> m_cardsAnswer{false}; ///< no fault has been planted
    Slot m_slots[kSlots];
    std::mutex m_mutex; ///< guards the next two
    std::deque<std::unique_ptr<Grab>> m_grabs;
    std::deque<std::unique_ptr<Grab>> m_former; ///< of the last act: a late callback shall find its grab
    CardPictures m_pictures{wireConverters()};
    std::atomic<uint64_t> m_callbacks{0}, m_otherStatus{0}, m_lost{0}, m_rescues{0}, m_late{0}, m_twice{0};
    std::atomic<uint32_t> m_slowStops{0};         ///< of this act: without a callback that explains it
    std::atomic<ULONGLONG> m_lastLongCallback{0}; ///< when it ended
    PlugNotices m_notices;
    test::RegistrySandbox m_registry; ///< the walk logs nothing
};

/// A call that uses a slot's handle, if there is one.
class DeviceWorld::Use {
public:
    explicit Use(Slot& slot) : m_slot(slot) {
        const std::lock_guard lock(slot.mutex);
        if (slot.closing || !slot.handle) return;
        handle = slot.handle;
        ++slot.users;
    }
    ~Use() {
        if (!handle) return;
        const std::lock_guard lock(m_slot.mutex);
        --m_slot.users;
        m_slot.changed.notify_all();
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    TARNIS_HANDLE handle = nullptr;

private:
    Slot& m_slot;
};

void DeviceWorld::begin(const Act& act) {
    m_calm = act.calm;
    m_alone = act.threads == 1;
    for (uint32_t card = 0; card < kCards; ++card) {
        const CardControl control(card);
        control.reset();
        control.setSignal(kSignals[(act.seed + card) % kSignals.size()]);
        Options options = kDefaultOptions;
        if (act.seed / 2 % 2 == card) options.pace = Pace::AsTaken;
        control.setOptions(options);
    }
    m_slowStops = 0;
    m_cardsAnswer = true;
    m_notices.await();
}

Slot& DeviceWorld::slotOf(uint32_t a) {
    for (size_t i = 0; i < kSlots; ++i) {
        Slot& slot = m_slots[(a + i) % kSlots];
        const std::lock_guard lock(slot.mutex);
        if (slot.handle && !slot.closing) return slot;
    }
    return m_slots[a % kSlots];
}

std::vector<Grab*> DeviceWorld::grabsOf(TARNIS_HANDLE handle, int port) {
    const std::lock_guard lock(m_mutex);
    std::vector<Grab*> found;
    for (const auto& grab : m_grabs)
        if (grab->handle == handle && (port < 0 || grab->port == port) && grab->started && !grab->over)
            found.push_back(grab.get());
    return found;
}

std::vector<Grab*> DeviceWorld::endingGrabsOf(TARNIS_HANDLE handle, int port) {
    std::vector<Grab*> grabs = grabsOf(handle, port);
    for (Grab* grab : grabs)
        grab->ending = true;
    return grabs;
}

void DeviceWorld::areOver(const std::vector<Grab*>& grabs, ULONGLONG since) {
    const ULONGLONG now = GetTickCount64();
    const bool givenUp = now - since >= kGivenUpMs;
    for (Grab* grab : grabs) {
        (givenUp ? grab->givenUp : grab->over) = true;
        // Another stop may have given a long callback up.
        if (!givenUp && grab->inside != 0 && grab->insideThread != GetCurrentThreadId() &&
            now - grab->insideSince < kGivenUpMs)
            fail("waiting", "a grab is over while its callback runs");
    }
}

/// A stop waits for callbacks and for nothing else, as long as the cards answer. One such stop may be the machine's.
void DeviceWorld::judgeStop(TARNIS_HANDLE handle, ULONGLONG since) {
    const ULONGLONG now = GetTickCount64();
    if (!m_cardsAnswer || now - since < kGivenUpMs || m_lastLongCallback >= since) return;
    {
        const std::lock_guard lock(m_mutex);
        for (const auto& grab : m_grabs)
            if (grab->handle == handle && grab->inside != 0) return;
    }
    if (++m_slowStops == 2)
        fail("slow", "the second stop of " + std::to_string(now - since) + " ms without a callback");
}

uint32_t DeviceWorld::expected(uint32_t result, std::initializer_list<uint32_t> named, const char* call) const {
    for (const uint32_t code : named)
        if (code == result) return result;
    fail("result", std::string(call) + " gave " + std::to_string(result));
}

// What the callback does.

void DeviceWorld::called(Grab& grab, const TarnisFrameInfo& frame) {
    if (grab.over) fail("late", "a callback after the grab was over");
    if (grab.lost) fail("late", "a callback after the one that said that the format has changed");
    if (++grab.inside != 1) fail("together", "two callbacks of one grab at once");
    ++m_callbacks;
    const ULONGLONG since = GetTickCount64();
    grab.insideThread = GetCurrentThreadId();
    grab.insideSince = since;
    check(grab, frame);
    if (frame.dmaStatus == DMA_STATUS_DICONNECTED) {
        grab.lost = true;
        ++m_lost;
    }
    if (grab.action != 0 && ++grab.calls % grab.every == 0) callBack(grab);
    checkAgain(grab, frame, since);
    if (const ULONGLONG now = GetTickCount64(); now - since >= kGivenUpMs / 2) m_lastLongCallback = now;
    --grab.inside;
}

/// The buffer is the client's until the callback returns, unless the grab is ended meanwhile.
void DeviceWorld::checkAgain(const Grab& grab, const TarnisFrameInfo& frame, ULONGLONG since) {
    if (grab.action == 0 || frame.dmaStatus != DMA_STATUS_GOOD) return;
    const std::string why = whyWrong(grab, frame);
    if (grab.ending || GetTickCount64() - since >= kGivenUpMs) return;
    ++m_twice;
    if (!why.empty()) failFrame(frame, "changed during the callback: " + why);
}

std::string DeviceWorld::whyWrong(const Grab& grab, const TarnisFrameInfo& frame) {
    const auto* bytes = static_cast<const uint8_t*>(frame.lpRawBuffer);
    return grab.port == 0 ? m_pictures.whyNoFrame(bytes, frame.bufferSize, frame.frameWord0)
                          : m_pictures.whyNoBlock(bytes, frame.bufferSize, frame.frameWord0);
}

void DeviceWorld::check(Grab& grab, const TarnisFrameInfo& frame) {
    if (frame.dmaStatus != DMA_STATUS_GOOD) {
        ++m_otherStatus;
        if (frame.lpRawBuffer) fail("frame", "a frame of DMA status " + std::to_string(frame.dmaStatus) + " has bytes");
        return;
    }
    const ULONGLONG began = GetTickCount64();
    if (!frame.lpRawBuffer) fail("frame", "a good frame without bytes");
    if (frame.frameWord0 <= grab.lastFrame && grab.lastFrame != 0)
        fail("frame", "frame " + std::to_string(frame.frameWord0) + " after " + std::to_string(grab.lastFrame));
    grab.lastFrame = frame.frameWord0;
    const std::string why = whyWrong(grab, frame);
    if (why.empty()) return;
    // The buffer is another frame's once a stop has given the callback up.
    if (grab.over || GetTickCount64() - began >= kGivenUpMs)
        ++m_late;
    else
        failFrame(frame, why);
}

/// Says all that can be known of a wrong frame.
void DeviceWorld::failFrame(const TarnisFrameInfo& frame, const std::string& why) {
    const auto* bytes = static_cast<const uint8_t*>(frame.lpRawBuffer);
    Sleep(20); // whoever writes late has written then
    MEMORY_BASIC_INFORMATION region{};
    VirtualQuery(bytes, &region, sizeof region);
    std::printf("wrong: %s; at %p in the region from %p; 20 ms later %s\n", why.c_str(), frame.lpRawBuffer,
                region.AllocationBase, describeBytes(bytes, frame.bufferSize).c_str());
    for (uint32_t card = 0; card < kCards; ++card)
        for (const WrittenFrame& written : CardControl(card).writes())
            if (written.address == reinterpret_cast<uint64_t>(bytes) || written.serial == frame.frameWord2)
                std::printf(
                    "  card %u wrote %u (frame %u, client %u, process %u, port %u): %u bytes to 0x%llX, %s, sum "
                    "%u; this is %u in process %lu\n",
                    card, written.serial, written.frameNumber, written.clientId, written.processId, written.port,
                    written.bytes, static_cast<unsigned long long>(written.address),
                    written.written ? "taken" : "refused", written.sourceSum, frame.frameWord2, GetCurrentProcessId());
    for (uint32_t card = 0; card < kCards; ++card)
        for (const LogEntry& entry : CardControl(card).log())
            if (entry.code >= wire::kPrepare && entry.code < wire::kLockBuffer)
                std::printf("  card %u request %llu client %u code %X status %X result %u reply %u\n", card,
                            static_cast<unsigned long long>(entry.sequence), entry.clientId, entry.code, entry.status,
                            entry.result, entry.replySize);
    fail("frame", why);
}

void DeviceWorld::callBack(Grab& grab) {
    if (grab.action == 1 || (grab.action >= 5 && grab.action <= 7)) grab.ending = true;
    TarnisCameraStatus status{};
    TarnisGrabStat statistics{};
    switch (grab.action) {
    case 1: {
        const auto grabs = endingGrabsOf(grab.handle, grab.port);
        const ULONGLONG since = GetTickCount64();
        TARNIS_StopGrab(grab.handle, grab.port);
        areOver(grabs, since);
        break;
    }
    case 2:
        TARNIS_GetCameraStatus(grab.handle, grab.port, &status);
        TARNIS_GetGrabStat(grab.handle, grab.port, &statistics);
        break;
    case 3:
        Sleep(30);
        break;
    case 4: { // longer than a stop waits
        const ULONGLONG until = GetTickCount64() + 1300;
        while (!grab.over && !grab.givenUp && GetTickCount64() < until)
            Sleep(10);
        break;
    }
    case 5: // restarts itself
        start(m_slots[grab.slot], grab.handle, grab.port, 0);
        break;
    case 6: {
        Slot& slot = m_slots[grab.slot];
        {
            const std::lock_guard lock(slot.mutex);
            if (slot.handle != grab.handle || slot.users != 0 || slot.closing) break;
        }
        done(slot);
        break;
    }
    case 7:
        changeAccess(m_slots[grab.slot], grab.handle, grab.port, false);
        break;
    case 8: {
        const auto grabs = endingGrabsOf(grab.handle, 1 - grab.port);
        TARNIS_StopGrab(grab.handle, static_cast<int8_t>(1 - grab.port));
        break;
    }
    default: // the card goes once round its buffers
        for (int i = 0; i < 40 && !grab.ending; ++i)
            Sleep(10);
        break;
    }
}

// Calls.

uint32_t DeviceWorld::open(uint32_t a, uint32_t b) {
    Slot& slot = m_slots[a % kSlots];
    {
        const std::lock_guard lock(slot.mutex);
        if (slot.handle || slot.closing) return kNotMade;
        slot.closing = true; // nobody else opens it meanwhile
    }
    const std::wstring path = CardControl(b % kCards).devicePath();
    std::vector<uint8_t> memory(sizeof(DeviceInterfaceDetail) + path.size() * sizeof(wchar_t));
    auto* detail = reinterpret_cast<DeviceInterfaceDetail*>(memory.data());
    detail->size = static_cast<uint32_t>(memory.size());
    std::memcpy(memory.data() + offsetof(DeviceInterfaceDetail, devicePath), path.c_str(),
                (path.size() + 1) * sizeof(wchar_t));
    TARNIS_HANDLE handle = TARNIS_InitByHandle(detail);
    if (!handle && m_calm) fail("result", "a card that is plugged in cannot be opened: " + whyClosed(b % kCards));
    const std::lock_guard lock(slot.mutex);
    slot.handle = handle;
    slot.closing = false;
    for (int port = 0; port < 2; ++port)
        slot.claims[port] = 0;
    return handle ? 1 : 0;
}

/// The driver refuses a request of the opening. Another thread's request may meet the refusal instead.
uint32_t DeviceWorld::openRefused(uint32_t a, uint32_t b) {
    static constexpr uint32_t kCodes[] = {wire::kOpenSession, wire::kSessionWatch, wire::kRegisterInputEvent, kAnyCode};
    static constexpr FaultKind kKinds[] = {FaultKind::DriverResult, FaultKind::DriverResult, FaultKind::NtStatus,
                                           FaultKind::ShortReply};
    const FaultKind kind = kKinds[b / 8 % 4];
    const uint32_t value = kind == FaultKind::NtStatus ? kStatusAccessDenied : 1 + b / 32 % 3;
    try {
        CardControl(b % kCards).addFault({kind, kCodes[b / 2 % 4], value, 0, 1, {}});
    } catch (const ControlError&) { // it has as many as it can have
        return kNotMade;
    }
    return open(a, b);
}

/// What a client without the library meets.
std::string DeviceWorld::whyClosed(uint32_t number) {
    const CardControl card(number);
    const CardState state = card.state();
    const UniqueFile file(CreateFileW(card.devicePath().c_str(), GENERIC_READ | GENERIC_WRITE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS, FILE_FLAG_OVERLAPPED,
                                      nullptr));
    return "error " + std::to_string(file ? 0 : GetLastError()) + ", plugged " + std::to_string(state.plugged) +
           ", plug changes " + std::to_string(state.plugChanges) + ", clients " + std::to_string(state.clients) +
           ", faults " + std::to_string(state.faults) + ", requests " + std::to_string(state.requests);
}

uint32_t DeviceWorld::done(Slot& slot) {
    TARNIS_HANDLE handle = nullptr;
    {
        std::unique_lock lock(slot.mutex);
        if (!slot.handle || slot.closing) return kNotMade;
        slot.closing = true;
        handle = slot.handle;
        nowIn("after the others' calls");
        slot.changed.wait(lock, [&] { return slot.users == 0; });
        nowIn("");
    }
    const auto grabs = endingGrabsOf(handle, -1);
    const ULONGLONG since = GetTickCount64();
    const uint32_t result = TARNIS_Done(handle);
    areOver(grabs, since);
    const std::lock_guard lock(slot.mutex);
    slot.handle = nullptr;
    slot.closing = false;
    return expected(result, {0}, "TARNIS_Done");
}

/// The card keeps a request for good; closing ends it. Alone, so that it is certain which request the card keeps.
uint32_t DeviceWorld::doneWhileAsked(Slot& slot, uint32_t which) {
    if (!m_alone || !slot.handle) return kNotMade;
    static constexpr uint32_t kCodes[] = {wire::kGetConverter, wire::kSetConverter, wire::kReadRegister};
    const uint32_t code = kCodes[which % 3];
    const CardControl card(which / 3 % kCards);
    card.clearFaults();
    card.addFault({FaultKind::NeverComplete, code, 0, 0, 1, {}});
    std::atomic<bool> answered{false};
    TARNIS_HANDLE handle = slot.handle;
    std::thread asker([&] {
        TarnisConverterParams params = converters()[0];
        uint16_t value = 0;
        code == wire::kGetConverter   ? TARNIS_GetColorSpaceConverterParams(handle, &params)
        : code == wire::kSetConverter ? TARNIS_SetColorSpaceConverterParams(handle, &params)
                                      : noexp_TARNIS_ReadI2C(handle, 0, 1, &value);
        answered = true;
    });
    const bool kept = test::waitUntil([&] { return answered || card.state().faults == 0; }, std::chrono::seconds(10));
    uint32_t result = kNotMade;
    if (kept && !answered) result = done(slot);
    card.clearFaults();
    asker.join();
    return result;
}

uint32_t DeviceWorld::changeAccess(Slot& slot, TARNIS_HANDLE handle, int8_t port, bool claim) {
    const bool alone = slot.changing[port]++ == 0;
    const uint32_t change = ++slot.changes[port];
    const bool last = !claim && slot.claims[port] == 1;
    const auto grabs = last ? endingGrabsOf(handle, port) : std::vector<Grab*>();
    const ULONGLONG since = GetTickCount64();
    const uint32_t result = claim ? TARNIS_GetDMAAccess(handle, port) : TARNIS_ReleaseDMAAccess(handle, port);
    if (claim && result == TARNIS_SUCCESS) ++slot.claims[port];
    // The last release is the last one even if the card refuses it.
    if (!claim && slot.claims[port] > 0) --slot.claims[port];
    if (last && alone && slot.changes[port] == change) {
        areOver(grabs, since);
        judgeStop(handle, since);
    }
    --slot.changing[port];
    return expected(result, {0, 4, 254, 255}, claim ? "TARNIS_GetDMAAccess" : "TARNIS_ReleaseDMAAccess");
}

uint32_t DeviceWorld::start(Slot& slot, TARNIS_HANDLE handle, int8_t port, uint32_t b) {
    Grab* grab = nullptr;
    {
        const std::lock_guard lock(m_mutex);
        m_grabs.push_back(std::make_unique<Grab>());
        grab = m_grabs.back().get();
    }
    grab->world = this;
    grab->handle = handle;
    grab->slot = static_cast<size_t>(&slot - m_slots);
    grab->port = port;
    const uint32_t kind = b % 24; // most do nothing but look
    grab->action = kind < 10 ? kind : 0;
    grab->every = 1 + b / 24 % 5;
    TarnisCameraData data{};
    data.outputSelector = b / 128 % 16 == 15 ? 7 : b / 128 % 3;
    data.outputParameter = b / 2048 % 2;
    data.extra = b / 4096 % 2;
    const uint32_t result =
        TARNIS_StartGrab(handle, port, b / 8192 % 4 == 0 ? 1 : 0, &data, onFrame, reinterpret_cast<uint64_t>(grab));
    if (result == TARNIS_SUCCESS)
        grab->started = true;
    else
        grab->over = true;
    return expected(result, {0, 253, 255}, "TARNIS_StartGrab");
}

uint32_t DeviceWorld::stop(TARNIS_HANDLE handle, int8_t port) {
    const auto grabs = endingGrabsOf(handle, port);
    const ULONGLONG since = GetTickCount64();
    const uint32_t result = TARNIS_StopGrab(handle, port);
    if (result != TARNIS_NO_DMA_ACCESS) areOver(grabs, since);
    judgeStop(handle, since);
    return expected(result, {0, 4, 253, 254, 255}, "TARNIS_StopGrab");
}

/// A call that needs DMA access says so exactly if there is none. @param ask  makes it
template <class Ask>
uint32_t DeviceWorld::withAccess(Slot& slot, int8_t port, const char* call, Ask ask) {
    const uint32_t change = slot.changes[port];
    const bool steady = slot.changing[port] == 0, claimed = slot.claims[port] > 0;
    const uint32_t result = ask();
    if (steady && slot.changes[port] == change && (result == TARNIS_NO_DMA_ACCESS) == claimed)
        fail("result", std::string(call) + " gave " + std::to_string(result) +
                           (claimed ? " on a channel that is claimed" : " on a channel that is not claimed"));
    return result;
}

/// As many as there are until one has not come for a while.
uint32_t DeviceWorld::awaitFrames(TARNIS_HANDLE handle, uint32_t b) {
    const std::vector<Grab*> grabs = grabsOf(handle, -1);
    if (grabs.empty()) return kNotMade;
    const uint64_t before = m_callbacks;
    return test::waitUntil([&] { return m_callbacks > before + b % 12; }, std::chrono::milliseconds(120)) ? 1 : 0;
}

uint32_t DeviceWorld::snap(TARNIS_HANDLE handle, uint32_t b) {
    TarnisCameraData data{};
    data.outputSelector = b % 3;
    std::vector<uint8_t> memory(240 * 136 * 3);
    uint32_t bytes = 0;
    const bool asksSize = b / 3 % 8 == 0;
    const uint32_t length = b / 24 % 8 == 0 ? 100 : static_cast<uint32_t>(memory.size());
    uint32_t first[kCards]{}; // the cards count for themselves
    for (uint32_t card = 0; card < kCards; ++card)
        first[card] = CardControl(card).state().frameNumber;
    const uint32_t result = TARNIS_SnapFrames(handle, static_cast<int8_t>(b & 1), &data,
                                              asksSize ? nullptr : memory.data(), length, &bytes);
    if (result == TARNIS_SUCCESS && m_calm && bytes <= length) {
        std::string why = "?";
        for (uint32_t card = 0; card < kCards && !why.empty(); ++card) {
            // Another thread may have prepared the channel for another layout meanwhile.
            const CardState state = CardControl(card).state();
            for (uint32_t layout = 0; layout < 3 && !why.empty(); ++layout) {
                const auto size = static_cast<uint32_t>(rawFrameBytes(layout, state.signal.width, state.signal.height));
                if (size == bytes || (!m_alone && size <= length))
                    why = m_pictures.whyNoFrame(memory.data(), size, first[card], state.frameNumber);
            }
        }
        if (!why.empty()) fail("frame", "a snap of no picture of the card's: " + why);
    }
    if (asksSize) return expected(result, {1, 4, 253, 254, 255}, "TARNIS_SnapFrames");
    return expected(result, {0, 4, 253, 254, 255}, "TARNIS_SnapFrames");
}

uint32_t DeviceWorld::enumerate(uint32_t a, uint32_t b) {
    CDeviceEnumerator* enumerator = TARNIS_EnumOpen();
    if (!enumerator) {
        if (m_calm) fail("result", "no card is found");
        return 0;
    }
    DeviceEnumData data{};
    uint32_t found = 0;
    for (uint32_t i = 0; i < 2 + a % 6; ++i) {
        data.size = (b >> i & 1) != 0 && i != 0 ? b % 24 : sizeof data;
        const uint32_t result = TARNIS_EnumNext(enumerator, &data);
        if (result == TARNIS_SUCCESS && ++found > kCards) fail("result", "more cards than there are");
        if (data.size < sizeof data && i != 0 && (b >> i & 1) != 0)
            expected(result, {1}, "TARNIS_EnumNext");
        else
            expected(result, {0, 3}, "TARNIS_EnumNext");
        if (result == TARNIS_SUCCESS && std::wcsncmp(data.interfaceDetail->devicePath, L"\\\\?\\", 4) != 0)
            fail("result", "a card without a path");
    }
    TARNIS_EnumClose(enumerator);
    return found;
}

uint32_t DeviceWorld::invalid(TARNIS_HANDLE handle, uint32_t which) {
    TarnisCameraData data{};
    TarnisCameraStatus status{};
    TarnisGrabStat statistics{};
    TarnisConverterParams params{};
    DeviceEnumData record{};
    uint32_t bytes = 0;
    uint16_t value = 0;
    uint8_t connected = 7;
    const auto badPort = static_cast<int8_t>(which & 1 ? -1 - int(which >> 8 & 0x7F) : 2 + int(which >> 8 & 0x7D));
    const auto port = static_cast<int8_t>(which >> 7 & 1);
    switch (which / 2 % 24) {
    case 0:
        return expected(TARNIS_Done(nullptr), {1}, "TARNIS_Done");
    case 1:
        return expected(TARNIS_GetDMAAccess(nullptr, port), {1}, "TARNIS_GetDMAAccess");
    case 2:
        return expected(TARNIS_GetDMAAccess(handle, badPort), {1}, "TARNIS_GetDMAAccess");
    case 3:
        return expected(TARNIS_ReleaseDMAAccess(handle, badPort), {1}, "TARNIS_ReleaseDMAAccess");
    case 4:
        return expected(TARNIS_GetCameraStatus(handle, badPort, &status), {1}, "TARNIS_GetCameraStatus");
    case 5:
        return expected(TARNIS_GetCameraStatus(handle, port, nullptr), {1}, "TARNIS_GetCameraStatus");
    case 6:
        return expected(TARNIS_IsCameraConnected(handle, port, nullptr), {1}, "TARNIS_IsCameraConnected");
    case 7:
        return expected(TARNIS_IsCameraConnected(handle, badPort, &connected), {1}, "TARNIS_IsCameraConnected");
    case 8:
        return expected(TARNIS_SetBufferCount(handle, badPort, 10), {1}, "TARNIS_SetBufferCount");
    case 9:
        return expected(TARNIS_GetDefaultColorSpaceConverterParams(nullptr), {1}, "default converter");
    case 10:
        return expected(TARNIS_GetColorSpaceConverterParams(handle, nullptr), {1}, "get converter");
    case 11:
        return expected(TARNIS_SetColorSpaceConverterParams(handle, nullptr), {1}, "set converter");
    case 12:
        return expected(TARNIS_StartGrab(handle, badPort, 0, &data, onFrame, 0), {1}, "TARNIS_StartGrab");
    case 13: // without camera data the start fails, on the thread that it has made
        if (!handle) return kNotMade;
        return expected(TARNIS_StartGrab(handle, port, 0, nullptr, nullptr, 0), {253, 255}, "TARNIS_StartGrab");
    case 14:
        return expected(TARNIS_StopGrab(handle, badPort), {1}, "TARNIS_StopGrab");
    case 15:
        return expected(TARNIS_GetGrabStat(handle, port, nullptr), {1}, "TARNIS_GetGrabStat");
    case 16:
        return expected(TARNIS_GetGrabStat(handle, badPort, &statistics), {1}, "TARNIS_GetGrabStat");
    case 17:
        return expected(noexp_TARNIS_Prepare(handle, port, nullptr), {1}, "noexp_TARNIS_Prepare");
    case 18:
        return expected(noexp_TARNIS_ReadI2C(handle, badPort, 1, &value), {1}, "noexp_TARNIS_ReadI2C");
    case 19:
        return expected(TARNIS_EnumNext(nullptr, &record), {1}, "TARNIS_EnumNext");
    case 20:
        TARNIS_EnumClose(nullptr);
        return 0;
    case 21:
        return expected(TARNIS_SnapFrames(nullptr, 0, &data, &bytes, 4, &bytes), {1}, "TARNIS_SnapFrames");
    case 22:
        if (TARNIS_InitByHandle(nullptr)) fail("result", "no card was opened");
        return 0;
    default:
        return expected(TARNIS_GetColorSpaceConverterParams(nullptr, &params), {1}, "get converter");
    }
}

// What befalls the cards.

uint32_t DeviceWorld::step(const Step& step) {
    const uint32_t a = step.a, b = step.b;
    const auto port = static_cast<int8_t>(b >> 31);
    if (step.call == kInitRefused || step.call == kDoneWhileAsked || mayHoldAnswers(step.call - kCardSteps))
        m_cardsAnswer = false;
    if (step.call >= kCardSteps) return cardStep(step.call - kCardSteps, a, b);
    switch (step.call) {
    case kInit:
        return open(a, b);
    case kInitRefused:
        return openRefused(a, b);
    case kEnumerate:
        return enumerate(a, b);
    case kSleep:
        Sleep(a % 8 == 0 ? b % 150 : b % 25);
        return 0;
    case kDefaultConverter: {
        TarnisConverterParams params{};
        return expected(TARNIS_GetDefaultColorSpaceConverterParams(&params), {0}, "default converter");
    }
    default:
        break;
    }
    Slot& slot = slotOf(a);
    if (step.call == kDone) return done(slot);
    if (step.call == kDoneWhileAsked) return doneWhileAsked(slot, b);
    const Use use(slot);
    if (step.call == kInvalid) return invalid(use.handle, b);
    if (!use.handle) return kNotMade;
    const auto asked = [&](uint32_t result) {
        if (m_calm) return expected(result, {0}, kCalls[step.call].name);
        return expected(result, {0, 4, 254, 255}, kCalls[step.call].name);
    };
    switch (step.call) {
    case kGetAccess:
        return changeAccess(slot, use.handle, port, true);
    case kReleaseAccess:
        return changeAccess(slot, use.handle, port, false);
    case kBufferCount:
        return expected(withAccess(slot, port, "TARNIS_SetBufferCount",
                                   [&] { return TARNIS_SetBufferCount(use.handle, port, b % 64); }),
                        {0, 253}, "TARNIS_SetBufferCount");
    case kCameraStatus: {
        TarnisCameraStatus status{};
        const uint32_t result = asked(TARNIS_GetCameraStatus(use.handle, port, &status));
        if (m_calm && (status.width == 0 || (status.signalFlags & TARNIS_SIGNAL_PRESENT) == 0))
            fail("result", "a signal is not seen");
        return result;
    }
    case kConnected: {
        uint8_t connected = 7;
        const uint32_t result = asked(TARNIS_IsCameraConnected(use.handle, port, &connected));
        if (result != TARNIS_SUCCESS && connected != 7) fail("result", "a failed question has changed its answer");
        if (m_calm && connected != 1) fail("result", "a signal is not seen");
        return result;
    }
    case kGrabStat: {
        TarnisGrabStat statistics{};
        return asked(TARNIS_GetGrabStat(use.handle, port, &statistics));
    }
    case kGetConverter: {
        TarnisConverterParams params{};
        return asked(TARNIS_GetColorSpaceConverterParams(use.handle, &params));
    }
    case kSetConverter:
        return asked(TARNIS_SetColorSpaceConverterParams(use.handle, &converters()[b % converters().size()]));
    case kReadRegister: {
        uint16_t value = 0;
        return asked(noexp_TARNIS_ReadI2C(use.handle, port, static_cast<uint16_t>(b), b % 8 == 0 ? nullptr : &value));
    }
    case kStartGrab:
        return withAccess(slot, port, "TARNIS_StartGrab", [&] { return start(slot, use.handle, port, b); });
    case kStopGrab:
        return withAccess(slot, port, "TARNIS_StopGrab", [&] { return stop(use.handle, port); });
    case kSnap:
        return withAccess(slot, 0, "TARNIS_SnapFrames", [&] { return snap(use.handle, b); });
    case kAwaitFrames:
        return awaitFrames(use.handle, b);
    case kPrepare: {
        TarnisCameraData data{};
        data.outputSelector = b % 3;
        data.extra = b / 3 % 2;
        return expected(withAccess(slot, port, "noexp_TARNIS_Prepare",
                                   [&] { return noexp_TARNIS_Prepare(use.handle, port, &data); }),
                        {0, 4, 253, 254, 255}, "noexp_TARNIS_Prepare");
    }
    default:
        return kNotMade;
    }
}

void DeviceWorld::rescue() {
    ++m_rescues;
    letCardsAnswer();
}

void DeviceWorld::end() {
    letCardsAnswer();
    for (Slot& slot : m_slots)
        done(slot);
    nowIn("callbacks still running");
    for (const auto& grab : m_grabs)
        while (grab->inside != 0)
            Sleep(1);
    nowIn("cards still open");
    for (uint32_t card = 0; card < kCards; ++card) {
        const CardControl control(card);
        CardState state{};
        if (!test::waitUntil(
                [&] {
                    state = control.state();
                    return state.clients == 0 && state.pendingRequests == 0;
                },
                std::chrono::seconds(20)))
            fail("open", "card " + std::to_string(card) + " has still " + std::to_string(state.clients) +
                             " clients and " + std::to_string(state.pendingRequests) + " requests");
    }
    m_former.swap(m_grabs);
    m_grabs.clear();
    m_pictures.forget();
}

std::string DeviceWorld::summary() const {
    char text[240];
    std::snprintf(text, sizeof text,
                  "%llu callbacks: %llu frames and %llu blocks of sound as the card made them, %llu with another DMA "
                  "status, %llu for another format, %llu late; %llu looked at twice; %llu times a card was made to "
                  "answer\n",
                  m_callbacks.load(), m_pictures.frames(), m_pictures.blocks(), m_otherStatus.load(), m_lost.load(),
                  m_late.load(), m_twice.load(), m_rescues.load());
    return text;
}

} // namespace
} // namespace kestra::walk

int main(int argc, char** argv) {
    try {
        static kestra::walk::DeviceWorld world;
        return kestra::walk::walkMain(argc, argv, world);
    } catch (const kestra::simcard::ControlError& error) {
        std::printf("%s: are two simulated cards installed?\n", error.what());
        return kestra::walk::kBadUsage;
    }
}
