// The converter's parameters: kept here, sent to the card when they are not frozen.
#include "capture/color_controls.h"

namespace kestra {

HRESULT hresultOf(uint32_t tarnisResult) noexcept {
    switch (tarnisResult) {
    case TARNIS_SUCCESS:
        return S_OK;
    case TARNIS_INVALID_ARGUMENT:
        return E_INVALIDARG;
    case TARNIS_ACCESS_DENIED:
    case TARNIS_NO_DMA_ACCESS:
        return E_ACCESSDENIED;
    case TARNIS_OUT_OF_MEMORY:
        return E_OUTOFMEMORY;
    case TARNIS_NOT_SUPPORTED:
        return HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
    default:
        return E_FAIL;
    }
}

void ColorControls::attach(TARNIS_HANDLE grabber) noexcept {
    m_grabber = grabber;
    if (TARNIS_GetColorSpaceConverterParams(grabber, &m_params) != TARNIS_SUCCESS)
        TARNIS_GetDefaultColorSpaceConverterParams(&m_params);
}

TarnisConverterParams ColorControls::params() const {
    const std::lock_guard lock(m_mutex);
    return m_params;
}

bool ColorControls::isFrozen() const {
    const std::lock_guard lock(m_mutex);
    return m_frozen;
}

HRESULT ColorControls::freeze(bool frozen) {
    const std::lock_guard lock(m_mutex);
    if (frozen && !m_frozen) m_atFreeze = m_params;
    m_frozen = frozen;
    return frozen ? S_OK : transmit(m_params);
}

void ColorControls::resetGains(TarnisConverterParams& params) noexcept {
    params.RedGain = params.GreenGain = params.BlueGain = 1.0f;
    params.RedOffset = params.GreenOffset = params.BlueOffset = 0;
}

HRESULT ColorControls::transmit(const TarnisConverterParams& params) const noexcept {
    return hresultOf(TARNIS_SetColorSpaceConverterParams(m_grabber, &params));
}

} // namespace kestra
