#include "capture/audio_filter.h"

#include "capture/audio_stream.h"
#include "capture/cards.h"
#include "capture/module_state.h"

#include <new>

using namespace kestra;

CUnknown* CALLBACK CKestraAudioCapture::CreateInstance(LPUNKNOWN pUnk, HRESULT* phr) {
    auto* filter = new (std::nothrow) CKestraAudioCapture(pUnk, phr);
    if (!filter && phr) *phr = E_OUTOFMEMORY;
    return filter;
}

CKestraAudioCapture::CKestraAudioCapture(LPUNKNOWN pUnk, HRESULT* phr)
    : CSource(NAME("Kestra Capture Audio"), pUnk, CLSID_KestraAudioCapture) {
    traceInstance(L"CKestraAudioCapture->Constructor->#", ++filterInstances);
    HRESULT hr = S_OK;
    m_stream = new (std::nothrow) CKestraAudioStream(&hr, this);
    if (!m_stream) hr = E_OUTOFMEMORY;
    if (SUCCEEDED(hr)) {
        // While sound is being grabbed, a card is taken as it comes: its pin joins what runs.
        m_grabber = openCard(1, [](const TarnisCameraStatus& status) {
            return (status.signalFlags & TARNIS_SIGNAL_AUDIO) != 0 || CKestraAudioStream::m_bactive;
        });
        if (!m_grabber) hr = E_FAIL;
    }
    if (SUCCEEDED(hr)) {
        m_stream->setCard(m_grabber, 1);
        // The format that the user chose last is offered from the start.
        AM_MEDIA_TYPE* persisted = nullptr;
        if (SUCCEEDED(m_stream->GetFormat(&persisted))) {
            m_stream->SetFormat(persisted);
            DeleteMediaType(persisted);
        }
    }
    if (FAILED(hr) && phr) *phr = hr;
}

CKestraAudioCapture::~CKestraAudioCapture() {
    audioPins.remove(m_stream); // from here on no video pin starts it
    traceInstance(L"CKestraAudioCapture->Destructor->#", filterInstances.load());
    --filterInstances;
    m_iPins = m_stream ? 1 : 0; // what the base class counts when it deletes its pins
    if (m_grabber) TARNIS_Done(m_grabber);
}

CBasePin* CKestraAudioCapture::GetPin(int n) {
    return n == 0 ? m_stream : nullptr;
}

void CKestraAudioCapture::noteActivity() {
    m_activity.set(IsStopped() ? Activity::State::Stopped : Activity::State::Active);
}

STDMETHODIMP CKestraAudioCapture::Pause() {
    CAutoLock lock(&m_cStateLock);
    // A block that comes now waits until the filter is paused. Not so when a video pin starts the sound: this filter
    // may then stay stopped.
    if (IsStopped()) m_activity.set(Activity::State::Starting);
    const HRESULT hr = CSource::Pause();
    noteActivity();
    return hr;
}

STDMETHODIMP CKestraAudioCapture::Run(REFERENCE_TIME tStart) {
    CAutoLock lock(&m_cStateLock);
    const HRESULT hr = CSource::Run(tStart);
    noteActivity();
    return hr;
}

STDMETHODIMP CKestraAudioCapture::Stop() {
    CAutoLock lock(&m_cStateLock);
    // The base class passes a stopped filter over, whose pin a video pin may have started, or that failed to start.
    HRESULT hr = S_OK;
    if (IsStopped() && m_stream && m_stream->isGrabbing())
        hr = m_stream->Inactive();
    else
        hr = CSource::Stop();
    noteActivity();
    return hr;
}
