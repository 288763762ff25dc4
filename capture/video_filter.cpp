#include "capture/video_filter.h"

#include "capture/cards.h"
#include "capture/frame_analysis.h"
#include "capture/module_state.h"
#include "capture/video_stream.h"

#include <iterator>
#include <new>

using namespace kestra;

namespace {

// The pages that the filter has, as the property frame shows them.
const CLSID* const kPages[] = {&CLSID_KestraStreamPropCSC, &CLSID_KestraStreamPropRGB};

} // namespace

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
        m_colors.attach(m_grabber);
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
    videoPins.remove(m_stream); // from here on no audio pin reaches it
    traceInstance(L"CKestraCapture->Destructor->#", filterInstances.load());
    --filterInstances;
    m_iPins = m_stream ? 1 : 0; // what the base class counts when it deletes its pins
    if (m_grabber) TARNIS_Done(m_grabber);
}

HRESULT STDMETHODCALLTYPE CKestraCapture::NonDelegatingQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_ISpecifyPropertyPages) return GetInterface(static_cast<ISpecifyPropertyPages*>(this), ppv);
    if (IUnknown* found = m_interfaces.find(riid)) return GetInterface(found, ppv);
    return CSource::NonDelegatingQueryInterface(riid, ppv);
}

STDMETHODIMP CKestraCapture::GetPages(CAUUID* pPages) {
    if (!pPages) return E_POINTER;
    *pPages = {};
    pPages->pElems = static_cast<GUID*>(CoTaskMemAlloc(std::size(kPages) * sizeof(GUID)));
    if (!pPages->pElems) return E_OUTOFMEMORY;
    pPages->cElems = std::size(kPages);
    for (size_t i = 0; i < std::size(kPages); ++i)
        pPages->pElems[i] = *kPages[i];
    return S_OK;
}

bool CKestraCapture::isRgbOut() {
    CAutoLock lock(&m_cStateLock);
    return m_stream->isRgbOut();
}

HRESULT CKestraCapture::analyzeWhiteBalance(WhiteBalance& result) {
    CAutoLock lock(&m_cStateLock);
    // What the pin grabs is prepared already and must stay so: another layout would take its buffers away.
    m_cameraData = {};
    m_cameraData.outputSelector = TARNIS_OUTPUT_RGB24;
    if (m_stream->isGrabbing()) m_cameraData = m_stream->cameraData();
    return analyzeLiveFrame(m_grabber, m_colors, m_stream->isGrabbing(), m_cameraData, result);
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
