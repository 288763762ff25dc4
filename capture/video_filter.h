// The video capture filter: one card, one pin.
#pragma once

#include "capture/capture_filter.h"
#include "capture/color_controls.h"
#include "capture/color_interfaces.h"
#include "capture/white_balance.h"
#include "device/tarnis.h"

#include <streams.h>

#include <kestra_interfaces.h>

class CKestraStream;

class CKestraCapture : public CaptureFilter, public ISpecifyPropertyPages {
public:
    DECLARE_IUNKNOWN

    /// Creates the filter. @param phr receives E_FAIL if no card has a signal, E_OUTOFMEMORY if memory runs out
    static CUnknown* CALLBACK CreateInstance(LPUNKNOWN pUnk, HRESULT* phr);
    ~CKestraCapture() override;

    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID riid, void** ppv) override;

    // ISpecifyPropertyPages: the converter's page and the gain and offset page.
    STDMETHODIMP GetPages(CAUUID* pPages) override;

    kestra::ColorControls& colors() { return m_colors; }
    /// True if the pin delivers RGB, made by the card's converter. Any thread.
    bool isRgbOut();
    /// Measures a live frame with gains and offsets switched off; the filter's state and format do not change
    /// meanwhile.
    HRESULT analyzeWhiteBalance(kestra::WhiteBalance& result);

private:
    CKestraCapture(LPUNKNOWN pUnk, HRESULT* phr);

    CKestraStream* m_stream = nullptr; // the base class owns it
    kestra::ColorControls m_colors;
    kestra::ColorInterfaces m_interfaces{*this, *this};
    TarnisCameraData m_cameraData{}; ///< of the last analysis; guarded by the state lock
};
