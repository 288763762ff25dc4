// How the system finds the cards. Needs no system header. Plain data.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace kestra {

/// A GUID with the system's layout, without its headers.
struct InterfaceId {
    uint32_t data1;
    uint16_t data2, data3;
    uint8_t data4[8];
};
static_assert(sizeof(InterfaceId) == 16);

/// {edde25e4-9980-4876-9217-ad8aa1b92a03}: the card driver's device interface class, the only constant that selects the
/// hardware.
constexpr InterfaceId kCardInterface = {0xedde25e4, 0x9980, 0x4876, {0x92, 0x17, 0xad, 0x8a, 0xa1, 0xb9, 0x2a, 0x03}};

/// Converts to another type of that layout: asGuid<GUID>(kCardInterface).
template <class Guid>
constexpr Guid asGuid(const InterfaceId& id) noexcept {
    static_assert(sizeof(Guid) == sizeof(InterfaceId));
    Guid guid{};
    guid.Data1 = id.data1;
    guid.Data2 = id.data2;
    guid.Data3 = id.data3;
    std::copy(std::begin(id.data4), std::end(id.data4), guid.Data4);
    return guid;
}

} // namespace kestra
