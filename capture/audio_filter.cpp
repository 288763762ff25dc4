// The audio filter: one card with sound, one pin.
#include "capture/audio_filter.h"

#include "capture/audio_stream.h"
#include "capture/filters.h"
#include "capture/module_state.h"

#include <new>

using namespace kestra;

CUnknown* CALLBACK kestra::createAudioFilter(LPUNKNOWN outer, HRESULT* result) {
    return CKestraAudioCapture::CreateInstance(outer, result);
}

CUnknown* CALLBACK CKestraAudioCapture::CreateInstance(LPUNKNOWN pUnk, HRESULT* phr) {
    auto* filter = new (std::nothrow) CKestraAudioCapture(pUnk, phr);
    if (!filter && phr) *phr = E_OUTOFMEMORY;
    return filter;
}

CKestraAudioCapture::CKestraAudioCapture(LPUNKNOWN pUnk, HRESULT* phr)
    : CaptureFilter(NAME("Kestra Capture Audio"), pUnk, CLSID_KestraAudioCapture,
                    L"CKestraAudioCapture->Constructor->#", L"CKestraAudioCapture->Destructor->#") {
    HRESULT hr = S_OK;
    m_stream = new (std::nothrow) CKestraAudioStream(&hr, this);
    // While sound is being grabbed any card will do: its pin joins the running one.
    hr = begin(hr, m_stream, [](const TarnisCameraStatus& status) {
        return (status.signalFlags & TARNIS_SIGNAL_AUDIO) != 0 || CKestraAudioStream::m_bactive;
    });
    if (SUCCEEDED(hr)) m_stream->useCard(m_grabber);
    if (FAILED(hr) && phr) *phr = hr;
}

CKestraAudioCapture::~CKestraAudioCapture() {
    audioPins.remove(m_stream); // no video pin starts it from here on
}
