// What the two filters share: one card and one pin, which may have been started before its filter is.
#pragma once

#include "capture/capture_pin.h"

class CaptureFilter : public CSource {
public:
    ~CaptureFilter() override;

    STDMETHODIMP Pause() override;
    STDMETHODIMP Run(REFERENCE_TIME tStart) override;
    STDMETHODIMP Stop() override;
    // Always one pin: m_iPins may hold an HRESULT, see docs/compatibility.md.
    int GetPinCount() override { return 1; }
    CBasePin* GetPin(int n) override { return n == 0 ? m_capturePin : nullptr; }

    /// True while a start is under way. Call with the state lock held.
    bool isStarting() const { return m_starting; }
    /// Keeps the result of a failed delivery in m_iPins: see docs/compatibility.md.
    void storeDeliveryResult(HRESULT hr) { m_iPins = hr; }

protected:
    /// @param constructed, destructed  trace texts of its construction and destruction; the number of filters and a
    /// blank follow
    CaptureFilter(LPCTSTR name, LPUNKNOWN pUnk, REFCLSID clsid, const wchar_t* constructed, const wchar_t* destructed);
    /// Takes the pin, which the base class owns, and the first listed card that is wanted. Each card is opened and its
    /// channel claimed only while its status is read; that another program holds the channel shows when grabbing
    /// starts.
    /// @param made  result of making the pin @return that result, E_OUTOFMEMORY if there is no pin, or E_FAIL if there
    /// is no card
    HRESULT begin(HRESULT made, kestra::CapturePin* pin, bool (*wanted)(const TarnisCameraStatus& status));

    TARNIS_HANDLE m_grabber = nullptr;

private:
    HRESULT noteState(HRESULT hr);

    const wchar_t* const m_destructed;
    kestra::CapturePin* m_capturePin = nullptr; // the base class owns it
    bool m_starting = false;
};
