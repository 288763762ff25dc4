// What the two filters have in common: one card, one pin, and a pin that may have been started before its filter is.
#pragma once

#include "capture/capture_pin.h"

class CaptureFilter : public CSource {
public:
    ~CaptureFilter() override;

    STDMETHODIMP Pause() override;
    STDMETHODIMP Run(REFERENCE_TIME tStart) override;
    STDMETHODIMP Stop() override;
    // One pin, whatever the pin's deliveries left in m_iPins.
    int GetPinCount() override { return 1; }
    CBasePin* GetPin(int n) override { return n == 0 ? m_capturePin : nullptr; }

    /// True from the beginning of a start to its end. Under the state lock.
    bool isStarting() const { return m_starting; }
    /// A run leaves a failed delivery's result here, where the base class keeps its number of pins.
    void storeDeliveryResult(HRESULT hr) { m_iPins = hr; }

protected:
    /// @param constructed, destructed  the lines of its life, up to the number of filters, which a blank follows
    CaptureFilter(LPCTSTR name, LPUNKNOWN pUnk, REFCLSID clsid, const wchar_t* constructed, const wchar_t* destructed);
    /// Takes the pin, which the base class owns, and the first of the listed cards that is wanted; each is open, and
    /// its channel claimed, for as long as its status is read. That another program holds it shows when it is to grab.
    /// @param made  how the pin was made  @return that, E_OUTOFMEMORY without a pin, or E_FAIL without a card
    HRESULT begin(HRESULT made, kestra::CapturePin* pin, bool (*wanted)(const TarnisCameraStatus& status));

    TARNIS_HANDLE m_grabber = nullptr;

private:
    HRESULT noteState(HRESULT hr);

    const wchar_t* const m_destructed;
    kestra::CapturePin* m_capturePin = nullptr; // the base class owns it
    bool m_starting = false;
};
