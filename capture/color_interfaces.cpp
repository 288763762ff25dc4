// The properties of the converter and of gain and offset, field by field.
#include "capture/color_interfaces.h"

#include "capture/frame_analysis.h"
#include "capture/video_filter.h"
#include "protocol/converter_matrix.h"
#include "win32/guarded.h"

#include <cmath>

namespace kestra {
namespace {

template <class Field, class Value>
HRESULT readField(CKestraCapture& filter, Field TarnisConverterParams::*field, Value* value) noexcept {
    if (!value) return E_POINTER;
    return guarded([&] {
        *value = filter.colors().params().*field;
        return S_OK;
    });
}

template <class Field, class Value>
HRESULT writeField(CKestraCapture& filter, Field TarnisConverterParams::*field, Value value) noexcept {
    return guarded(
        [&] { return filter.colors().update([&](TarnisConverterParams& params) { params.*field = value; }); });
}

} // namespace

HRESULT ColorInterfaces::read(int32_t TarnisConverterParams::*field, LONG* value) {
    return readField(m_filter, field, value);
}
HRESULT ColorInterfaces::read(float TarnisConverterParams::*field, FLOAT* value) {
    return readField(m_filter, field, value);
}
HRESULT ColorInterfaces::read(uint8_t TarnisConverterParams::*field, unsigned char* value) {
    return readField(m_filter, field, value);
}
HRESULT ColorInterfaces::read(int8_t TarnisConverterParams::*field, signed char* value) {
    return readField(m_filter, field, value);
}
HRESULT ColorInterfaces::write(int32_t TarnisConverterParams::*field, LONG value) {
    return writeField(m_filter, field, value);
}
HRESULT ColorInterfaces::write(float TarnisConverterParams::*field, FLOAT value) {
    if (!(std::fabs(value) <= kMostCoefficient)) return E_INVALIDARG; // NaN, too
    return writeField(m_filter, field, value);
}
HRESULT ColorInterfaces::write(uint8_t TarnisConverterParams::*field, unsigned char value) {
    return writeField(m_filter, field, value);
}
HRESULT ColorInterfaces::write(int8_t TarnisConverterParams::*field, signed char value) {
    return writeField(m_filter, field, value);
}

IUnknown* ColorInterfaces::find(REFIID riid) {
    if (riid == IID_IKestraStreamPropCSC) return static_cast<IKestraStreamPropCSC*>(this);
    if (riid == IID_IKestraStreamPropRGBGainOffset) return static_cast<IKestraStreamPropRGBGainOffset*>(this);
    return nullptr;
}

STDMETHODIMP ColorInterfaces::get_DefaultColorSpaceConverter(KestraConverterValues* values) {
    if (!values) return E_POINTER;
    TarnisConverterParams p{};
    const HRESULT hr = hresultOf(TARNIS_GetDefaultColorSpaceConverterParams(&p));
    *values = {p.YOff, p.CrOff, p.CbOff, p.Y1, p.R1, p.G1, p.G2, p.B1, p.RMin, p.RMax, p.GMin, p.GMax, p.BMin, p.BMax};
    return hr;
}

STDMETHODIMP ColorInterfaces::Default() {
    return guarded([&] { return m_filter.colors().update(ColorControls::resetGains); });
}

STDMETHODIMP ColorInterfaces::get_FreezeUpdate(LONG* value) {
    if (!value) return E_POINTER;
    return guarded([&] {
        *value = m_filter.colors().isFrozen() ? 1 : 0;
        return S_OK;
    });
}

STDMETHODIMP ColorInterfaces::put_FreezeUpdate(LONG value) {
    return guarded([&] { return m_filter.colors().freeze(value != 0); });
}

STDMETHODIMP ColorInterfaces::get_RGBOut(LONG* value) {
    if (!value) return E_POINTER;
    *value = m_filter.isRgbOut() ? 1 : 0;
    return S_OK;
}

STDMETHODIMP ColorInterfaces::WhiteBalance(unsigned char* meanRed, unsigned char* meanGreen, unsigned char* meanBlue,
                                           FLOAT* gainRed, FLOAT* gainGreen, FLOAT* gainBlue) {
    if (!meanRed || !meanGreen || !meanBlue || !gainRed || !gainGreen || !gainBlue) return E_POINTER;
    kestra::WhiteBalance result{0, 0, 0, 1.0f, 1.0f, 1.0f}; // the answer if the measurement fails
    const HRESULT hr = guarded([&] { return m_filter.analyzeWhiteBalance(result); });
    *meanRed = result.meanRed;
    *meanGreen = result.meanGreen;
    *meanBlue = result.meanBlue;
    *gainRed = result.gainRed;
    *gainGreen = result.gainGreen;
    *gainBlue = result.gainBlue;
    return hr == kImageLibraryMissing ? hr : S_OK;
}

} // namespace kestra
