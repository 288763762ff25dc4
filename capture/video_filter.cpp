#include "capture/video_filter.h"

#include "capture/cards.h"
#include "capture/module_state.h"
#include "capture/video_stream.h"

#include <new>

using namespace kestra;

CUnknown* CALLBACK CKestraCapture::CreateInstance(LPUNKNOWN pUnk, HRESULT* phr) {
    auto* filter = new (std::nothrow) CKestraCapture(pUnk, phr);
    if (!filter && phr) *phr = E_OUTOFMEMORY;
    return filter;
}

CKestraCapture::CKestraCapture(LPUNKNOWN pUnk, HRESULT* phr)
    : CSource(NAME("Kestra Capture Video"), pUnk, CLSID_KestraCapture) {
    traceInstance(L"CKestraCapture->Constructor->#", ++filterInstances);
    HRESULT hr = S_OK;
    m_cards = countCards();
    m_stream = new (std::nothrow) CKestraStream(&hr, this);
    if (!m_stream) hr = E_OUTOFMEMORY;
    if (SUCCEEDED(hr)) {
        m_grabber = openCard(
            0, [](const TarnisCameraStatus& status) { return (status.signalFlags & TARNIS_SIGNAL_PRESENT) != 0; });
        if (!m_grabber) hr = E_FAIL;
    }
    if (SUCCEEDED(hr)) {
        m_stream->setCard(m_grabber, 0);
        if (TARNIS_GetColorSpaceConverterParams(m_grabber, &m_converter) != TARNIS_SUCCESS)
            TARNIS_GetDefaultColorSpaceConverterParams(&m_converter);
        // The format that the user chose last is offered from the start.
        AM_MEDIA_TYPE* persisted = nullptr;
        if (SUCCEEDED(m_stream->GetFormat(&persisted))) {
            m_stream->SetFormat(persisted);
            DeleteMediaType(persisted);
        }
    }
    if (FAILED(hr) && phr) *phr = hr;
}

CKestraCapture::~CKestraCapture() {
    traceInstance(L"CKestraCapture->Destructor->#", filterInstances.load());
    --filterInstances;
    m_iPins = m_stream ? 1 : 0; // what the base class counts when it deletes its pins
    if (m_grabber) TARNIS_Done(m_grabber);
}

CBasePin* CKestraCapture::GetPin(int n) {
    return n == 0 ? m_stream : nullptr;
}

void CKestraCapture::noteActivity() {
    m_activity.set(IsStopped() ? Activity::State::Stopped : Activity::State::Active);
}

STDMETHODIMP CKestraCapture::Pause() {
    CAutoLock lock(&m_cStateLock);
    const HRESULT hr = CSource::Pause();
    noteActivity();
    return hr;
}

STDMETHODIMP CKestraCapture::Run(REFERENCE_TIME tStart) {
    CAutoLock lock(&m_cStateLock);
    const HRESULT hr = CSource::Run(tStart);
    noteActivity();
    return hr;
}

STDMETHODIMP CKestraCapture::Stop() {
    CAutoLock lock(&m_cStateLock);
    const HRESULT hr = CSource::Stop();
    noteActivity();
    return hr;
}
