// The converter's defaults: portable, because the decoder uses them without a card.
#include "device/tarnis.h"
#include "device/wire.h"
#include "log/log.h"

uint32_t TARNIS_GetDefaultColorSpaceConverterParams(TarnisConverterParams* pCSC) {
    static constexpr kestra::LogUnit kUnit{"\"Grabbing Functions\"", L".\\TARNIS_grab.cpp"};
    if (!pCSC) {
        KESTRA_LOG(kUnit, "TARNIS_GetDefaultColorSpaceConverterParams", LOG_ERROR, TARNIS_INVALID_ARGUMENT,
                   L"pCSC is NULL");
        return TARNIS_INVALID_ARGUMENT;
    }
    *pCSC = kestra::wire::kDefaultConverter;
    return TARNIS_SUCCESS;
}
