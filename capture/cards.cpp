#include "capture/cards.h"

#include "capture/trace.h"

namespace kestra {

uint32_t countCards() {
    uint32_t count = 0;
    CDeviceEnumerator* enumerator = TARNIS_EnumOpen();
    DeviceEnumData data{};
    data.size = sizeof data;
    while (TARNIS_EnumNext(enumerator, &data) == TARNIS_SUCCESS)
        ++count;
    TARNIS_EnumClose(enumerator);
    return count;
}

void traceInstance(const wchar_t* before, LONG number) {
    wchar_t line[64];
    swprintf(line, 64, L"%ls%ld ", before, static_cast<long>(number));
    trace(line);
}

} // namespace kestra
