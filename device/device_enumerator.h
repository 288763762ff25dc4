// Lists the cards that are present. Built and walked on one thread.
#pragma once

#include "device/tarnis.h"
#include "device/tracing.h"
#include "protocol/card_interface.h"

#include <windows.h>

#include <memory>
#include <vector>

namespace kestra {

/// The card driver's device interface class.
constexpr GUID kCardInterfaceClass = asGuid<GUID>(kCardInterface);

} // namespace kestra

/// Reads a card's slot information.
/// @param device       opened without overlapped I/O
/// @param slotValue    optional; stored whenever the driver answered
/// @param text         optional
/// @param textCapacity optional; in: characters of `text`, out: characters needed with the terminator (0: the driver
///                     has no description; `text` is then empty)
/// @return 0; 1 if the text did not fit or there is no buffer; 255 if the driver failed
uint32_t noexp_TARNIS_GetSlotInfo(HANDLE device, uint32_t* slotValue, wchar_t* text, uint32_t* textCapacity) noexcept;

struct CDeviceEnumerator {
public:
    using SlotInfo = uint32_t (*)(HANDLE, uint32_t*, wchar_t*, uint32_t*) noexcept;

    /// Lists the cards; throws std::bad_alloc only.
    CDeviceEnumerator();
    virtual ~CDeviceEnumerator() = default;
    CDeviceEnumerator(const CDeviceEnumerator&) = delete;
    CDeviceEnumerator& operator=(const CDeviceEnumerator&) = delete;

    /// Adds the present interfaces of a class.
    void EnumerateDevice(const GUID& interfaceClass, SlotInfo slotInfo);
    /// @return the record at the cursor, which moves on; null at the end.
    const DeviceEnumData* next() noexcept;

    uint32_t lastError = 0; ///< last system error met
    uint32_t status = 0;    ///< 0 usable, 3 no card

private:
    struct Entry {
        DeviceEnumData record;
        std::unique_ptr<std::byte[]> detail;
        std::unique_ptr<wchar_t[]> text;
    };

    const kestra::TraceUse m_trace;
    std::vector<Entry> m_entries;
    size_t m_cursor = 0;
};
