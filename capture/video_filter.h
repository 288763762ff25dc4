// The video capture filter: one card, one pin.
#pragma once

#include "capture/activity.h"
#include "device/tarnis.h"

#include <streams.h>

#include <kestra_interfaces.h>

class CKestraStream;

class CKestraCapture : public CSource {
public:
    /// Creates the filter. @param phr receives E_FAIL if no card has a signal, E_OUTOFMEMORY without memory
    static CUnknown* CALLBACK CreateInstance(LPUNKNOWN pUnk, HRESULT* phr);
    ~CKestraCapture() override;

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
    CKestraCapture(LPUNKNOWN pUnk, HRESULT* phr);
    void noteActivity();

    CKestraStream* m_stream = nullptr; // the base class owns it
    uint32_t m_cards = 0;
    TARNIS_HANDLE m_grabber = nullptr;
    TarnisConverterParams m_converter{};
    kestra::Activity m_activity;
};
