// What both filters do to find their card and to tell of their lives. Any thread.
#pragma once

#include "device/tarnis.h"

#include <windows.h>

namespace kestra {

/// Opens the cards in the order in which they are listed, each with its channel claimed for as long as its status is
/// read, until `wanted` is true of a status. That another program holds the channel shows when it is to grab.
/// @return the card, the caller's to close; null if none is wanted
template <class Wanted>
TARNIS_HANDLE openCard(int8_t port, Wanted wanted) {
    TARNIS_HANDLE chosen = nullptr;
    CDeviceEnumerator* enumerator = TARNIS_EnumOpen();
    if (!enumerator) return nullptr;
    DeviceEnumData data{};
    data.size = sizeof data;
    while (!chosen && TARNIS_EnumNext(enumerator, &data) == TARNIS_SUCCESS) {
        TARNIS_HANDLE grabber = TARNIS_InitByHandle(data.interfaceDetail);
        if (!grabber) continue;
        const bool claimed = TARNIS_GetDMAAccess(grabber, port) == TARNIS_SUCCESS;
        TarnisCameraStatus status{};
        const bool known = TARNIS_GetCameraStatus(grabber, port, &status) == TARNIS_SUCCESS;
        if (claimed) TARNIS_ReleaseDMAAccess(grabber, port);
        if (known && wanted(status))
            chosen = grabber;
        else
            TARNIS_Done(grabber);
    }
    TARNIS_EnumClose(enumerator);
    return chosen;
}

/// How many cards are listed.
uint32_t countCards();

/// Traces a filter's line that ends in its number, which a blank follows. @param before the text up to the number
void traceInstance(const wchar_t* before, LONG number);

} // namespace kestra
