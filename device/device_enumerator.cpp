// Enumeration through the device-installation service.
#include "device/device_enumerator.h"

#include "log/log.h"
#include "protocol/requests.h"
#include "win32/device_set.h"

#include <algorithm>
#include <cstring>
#include <new>

using namespace kestra;

namespace {

constexpr LogUnit kUnit{"DeviceEnumerator", L".\\DeviceInit.cpp"};
constexpr char kEnumerate[] = "CDeviceEnumerator::EnumerateDevice";
constexpr DWORD kDetailFixedBytes = 8; // of the detail record on a 64-bit system

/// Ends the calling thread's synchronous requests that take longer than five seconds each: a card that never answers
/// must not hold up the enumeration of the others for good. Without memory or a thread for it there is no limit.
class SynchronousRequestLimit {
public:
    SynchronousRequestLimit() {
        HANDLE caller = nullptr;
        if (!DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &caller, 0, FALSE,
                             DUPLICATE_SAME_ACCESS))
            return;
        m_caller = UniqueObject(caller);
        m_done = UniqueObject(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (m_done) m_thread = UniqueObject(CreateThread(nullptr, 0, watch, this, 0, nullptr));
    }
    ~SynchronousRequestLimit() {
        if (!m_thread) return;
        SetEvent(m_done.get());
        WaitForSingleObject(m_thread.get(), INFINITE);
    }
    SynchronousRequestLimit(const SynchronousRequestLimit&) = delete;
    SynchronousRequestLimit& operator=(const SynchronousRequestLimit&) = delete;

private:
    static DWORD WINAPI watch(void* self) noexcept {
        const auto& limit = *static_cast<SynchronousRequestLimit*>(self);
        while (WaitForSingleObject(limit.m_done.get(), kPatienceMs) == WAIT_TIMEOUT)
            CancelSynchronousIo(limit.m_caller.get());
        return 0;
    }

    static constexpr DWORD kPatienceMs = 5000;
    UniqueObject m_caller, m_done, m_thread;
};

} // namespace

uint32_t noexp_TARNIS_GetSlotInfo(HANDLE device, uint32_t* slotValue, wchar_t* text, uint32_t* textCapacity) noexcept {
    wire::GetSlotInfo::Sent request{};
    wire::GetSlotInfo::Answer reply{};
    DWORD bytes = 0;
    TracedRequest traced;
    traced.begin({wire::GetSlotInfo::kCode, 0, 0, &request, sizeof request, &reply, sizeof reply});
    const bool isAnswered = DeviceIoControl(device, wire::GetSlotInfo::kCode, &request, sizeof request, &reply,
                                            sizeof reply, &bytes, nullptr) != FALSE;
    const DWORD error = isAnswered ? ERROR_SUCCESS : GetLastError();
    traced.end(error, bytes);
    if (!isAnswered) {
        KESTRA_LOG(kUnit, "noexp_TARNIS_GetSlotInfo", LOG_ERROR, error,
                   L"First chanceDeviceIOCtl(KestraCTL_GET_SLOT_INFO) failed. ErrorCode=%d(0x%08X).",
                   static_cast<int>(error), static_cast<unsigned>(error));
        return TARNIS_FAILURE;
    }
    if (slotValue) *slotValue = reply.slotValue;
    constexpr size_t kMost = std::size(reply.description);
    const char16_t* end = std::find(reply.description, reply.description + kMost, u'\0');
    const auto length = static_cast<uint32_t>(end - reply.description);
    const uint32_t needed = length == 0 ? 0 : length + 1;
    const uint32_t capacity = textCapacity ? *textCapacity : 0;
    if (textCapacity) *textCapacity = needed;
    if (needed == 0) {
        if (text && capacity != 0) text[0] = L'\0';
        return TARNIS_SUCCESS;
    }
    if (!text || capacity < needed) return TARNIS_INVALID_ARGUMENT;
    static_assert(sizeof(wchar_t) == sizeof(char16_t));
    std::memcpy(text, reply.description, length * sizeof(wchar_t));
    text[length] = L'\0';
    return TARNIS_SUCCESS;
}

CDeviceEnumerator::CDeviceEnumerator() {
    EnumerateDevice(kCardInterfaceClass, noexp_TARNIS_GetSlotInfo);
    status = TARNIS_SUCCESS; // a card that failed does not make the list unusable
    if (m_entries.empty()) {
        status = TARNIS_NO_MORE_DEVICES;
        KESTRA_LOG(kUnit, "CDeviceEnumerator::CDeviceEnumerator", LOG_WARNING, TARNIS_NO_MORE_DEVICES,
                   L"No devices present!");
    }
}

void CDeviceEnumerator::EnumerateDevice(const GUID& interfaceClass, SlotInfo slotInfo) {
    const DeviceSet set(SetupDiGetClassDevsW(&interfaceClass, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE));
    if (!set) {
        lastError = GetLastError();
        status = TARNIS_FAILURE;
        KESTRA_LOG(kUnit, kEnumerate, LOG_ERROR, lastError, L"SetupDiGetClassDevs failed: GetLastError=%d(0x%X)",
                   static_cast<int>(lastError), lastError);
    }
    SP_DEVICE_INTERFACE_DATA data{};
    data.cbSize = sizeof data;
    static_assert(sizeof data == 32);
    for (DWORD index = 0; SetupDiEnumDeviceInterfaces(set.get(), nullptr, &interfaceClass, index, &data); ++index) {
        if (!(data.Flags & SPINT_ACTIVE)) continue;
        DWORD bytes = 0;
        SetupDiGetDeviceInterfaceDetailW(set.get(), &data, nullptr, 0, &bytes, nullptr);
        Entry entry{};
        const DWORD blockBytes = std::max<DWORD>(bytes, kDetailFixedBytes);
        entry.detail = std::make_unique<std::byte[]>(blockBytes);
        auto* block = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(entry.detail.get());
        block->cbSize = kDetailFixedBytes;
        if (!SetupDiGetDeviceInterfaceDetailW(set.get(), &data, block, bytes, nullptr, nullptr)) {
            lastError = GetLastError();
            status = TARNIS_FAILURE;
            KESTRA_LOG(kUnit, kEnumerate, LOG_WARNING, lastError,
                       L"%d: SetupDiGetDeviceInterfaceDetail failed: GetLastError=%d(0x%X)", static_cast<int>(index),
                       static_cast<int>(lastError), lastError);
            continue;
        }
        auto* detail = reinterpret_cast<DeviceInterfaceDetail*>(entry.detail.get());
        detail->size = blockBytes;
        const UniqueFile device(CreateFileW(detail->devicePath, GENERIC_READ | GENERIC_WRITE,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                            FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!device) {
            lastError = GetLastError();
            status = TARNIS_FAILURE;
            KESTRA_LOG(kUnit, kEnumerate, LOG_WARNING, lastError, L"%d CreateFile(%ls) failed: GetLastError=%d(0x%X)",
                       static_cast<int>(index), detail->devicePath, static_cast<int>(lastError), lastError);
            continue;
        }
        const SynchronousRequestLimit limit;
        uint32_t capacity = 0;
        status = slotInfo(device.get(), nullptr, nullptr, &capacity);
        if (capacity != 0) entry.text = std::make_unique<wchar_t[]>(capacity);
        uint32_t slotValue = 0;
        status = slotInfo(device.get(), &slotValue, entry.text.get(), &capacity);
        entry.record = {sizeof(DeviceEnumData), slotValue, detail, entry.text.get()};
        m_entries.push_back(std::move(entry));
    }
}

const DeviceEnumData* CDeviceEnumerator::next() noexcept {
    return m_cursor < m_entries.size() ? &m_entries[m_cursor++].record : nullptr;
}

CDeviceEnumerator* TARNIS_EnumOpen(void) {
    try {
        auto enumerator = std::make_unique<CDeviceEnumerator>();
        return enumerator->status == TARNIS_SUCCESS ? enumerator.release() : nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void TARNIS_EnumClose(CDeviceEnumerator* hDevEnum) {
    delete hDevEnum;
}

uint32_t TARNIS_EnumNext(CDeviceEnumerator* hDevEnum, DeviceEnumData* pEnumData) {
    if (!hDevEnum) {
        KESTRA_LOG(kUnit, "TARNIS_EnumNext", LOG_ERROR, TARNIS_INVALID_ARGUMENT, L"hDevEnum is NULL");
        return TARNIS_INVALID_ARGUMENT;
    }
    if (!pEnumData) {
        KESTRA_LOG(kUnit, "TARNIS_EnumNext", LOG_ERROR, TARNIS_INVALID_ARGUMENT, L"pEnumData is NULL");
        return TARNIS_INVALID_ARGUMENT;
    }
    if (pEnumData->size < sizeof(DeviceEnumData)) return TARNIS_INVALID_ARGUMENT;
    const DeviceEnumData* record = hDevEnum->next();
    if (!record) return TARNIS_NO_MORE_DEVICES;
    // Never more than there is, whatever size the caller states.
    *pEnumData = *record;
    return TARNIS_SUCCESS;
}
