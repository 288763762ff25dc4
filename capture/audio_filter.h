// The audio capture filter: the embedded sound of one card, one pin.
#pragma once

#include "capture/activity.h"
#include "device/tarnis.h"

#include <streams.h>

#include <kestra_interfaces.h>

class CKestraAudioStream;

class CKestraAudioCapture : public CSource {
public:
    /// Creates the filter. @param phr receives E_FAIL if no card has sound, E_OUTOFMEMORY without memory
    static CUnknown* CALLBACK CreateInstance(LPUNKNOWN pUnk, HRESULT* phr);
    ~CKestraAudioCapture() override;

    STDMETHODIMP Pause() override;
    STDMETHODIMP Run(REFERENCE_TIME tStart) override;
    STDMETHODIMP Stop() override;
    // One pin, whatever the pin's deliveries left in m_iPins.
    int GetPinCount() override { return 1; }
    CBasePin* GetPin(int n) override;

    kestra::Activity& activity() { return m_activity; }
    /// The pin leaves a failed delivery's result here, where the base class keeps its number of pins.
    void storeDeliveryResult(HRESULT hr) { m_iPins = hr; }

private:
    CKestraAudioCapture(LPUNKNOWN pUnk, HRESULT* phr);
    void noteActivity();

    CKestraAudioStream* m_stream = nullptr; // the base class owns it
    TARNIS_HANDLE m_grabber = nullptr;
    kestra::Activity m_activity;
};
