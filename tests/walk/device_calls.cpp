// Calls of the device library, with what each may answer.
#include "protocol/raw_frame.h"
#include "simcard/ctl/control.h"
#include "simcard/model/card.h"
#include "tests/support/wait_until.h"
#include "tests/walk/device_world.h"
#include "win32/handle.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace kestra::walk {

using namespace kestra::simcard;

Slot& DeviceWorld::slotOf(uint32_t a) {
    for (size_t i = 0; i < kSlots; ++i) {
        Slot& slot = m_slots[(a + i) % kSlots];
        const std::lock_guard lock(slot.lock);
        if (slot.handle && !slot.closing) return slot;
    }
    return m_slots[a % kSlots];
}

uint32_t DeviceWorld::expected(uint32_t result, std::initializer_list<uint32_t> named, const char* call) const {
    for (const uint32_t code : named)
        if (code == result) return result;
    fail("result", std::string(call) + " gave " + std::to_string(result));
}

uint32_t DeviceWorld::open(uint32_t a, uint32_t b) {
    Slot& slot = m_slots[a % kSlots];
    {
        const std::lock_guard lock(slot.lock);
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
    const std::lock_guard lock(slot.lock);
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
        const std::lock_guard lock(slot.lock);
        if (!slot.handle || slot.closing) return kNotMade;
        slot.closing = true;
        handle = slot.handle;
        nowIn("after the others' calls");
        slot.lock.await([&] { return slot.users == 0; });
        nowIn("");
    }
    const auto grabs = endingGrabsOf(handle, -1);
    const ULONGLONG since = GetTickCount64();
    const uint32_t result = TARNIS_Done(handle);
    areOver(grabs, since);
    const std::lock_guard lock(slot.lock);
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

uint32_t DeviceWorld::withAccess(Slot& slot, int8_t port, const char* call, const std::function<uint32_t()>& ask) {
    const uint32_t change = slot.changes[port];
    const bool steady = slot.changing[port] == 0, claimed = slot.claims[port] > 0;
    const uint32_t result = ask();
    if (steady && slot.changes[port] == change && (result == TARNIS_NO_DMA_ACCESS) == claimed)
        fail("result", std::string(call) + " gave " + std::to_string(result) +
                           (claimed ? " on a channel that is claimed" : " on a channel that is not claimed"));
    return result;
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

} // namespace kestra::walk
