// The audio capture filter: the embedded sound of one card, one pin.
#pragma once

#include "capture/capture_filter.h"

class CKestraAudioStream;

class CKestraAudioCapture : public CaptureFilter {
public:
    /// Creates the filter. @param phr receives E_FAIL if no card carries sound, E_OUTOFMEMORY if memory runs out
    static CUnknown* CALLBACK CreateInstance(LPUNKNOWN pUnk, HRESULT* phr);
    ~CKestraAudioCapture() override;

private:
    CKestraAudioCapture(LPUNKNOWN pUnk, HRESULT* phr);

    CKestraAudioStream* m_stream = nullptr; // the base class owns it
};
