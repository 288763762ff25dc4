// The video filter: one card with a signal, one pin, and the interfaces of the colour pages.
#include "capture/video_filter.h"

#include "capture/filters.h"
#include "capture/frame_analysis.h"
#include "capture/module_state.h"
#include "capture/video_stream.h"

#include <iterator>
#include <new>

using namespace kestra;

namespace {

// The filter's pages, in the order in which the property frame shows them.
const CLSID* const kPages[] = {&CLSID_KestraStreamPropCSC, &CLSID_KestraStreamPropRGB};

bool anyCard() {
    DeviceEnumData data{};
    data.size = sizeof data;
    CDeviceEnumerator* enumerator = TARNIS_EnumOpen();
    const bool any = enumerator && TARNIS_EnumNext(enumerator, &data) == TARNIS_SUCCESS;
    TARNIS_EnumClose(enumerator);
    return any;
}

} // namespace

CUnknown* CALLBACK kestra::createVideoFilter(LPUNKNOWN outer, HRESULT* result) {
    return CKestraCapture::CreateInstance(outer, result);
}

CUnknown* CALLBACK CKestraCapture::CreateInstance(LPUNKNOWN pUnk, HRESULT* phr) {
    auto* filter = new (std::nothrow) CKestraCapture(pUnk, phr);
    if (!filter && phr) *phr = E_OUTOFMEMORY;
    return filter;
}

CKestraCapture::CKestraCapture(LPUNKNOWN pUnk, HRESULT* phr)
    : CaptureFilter(NAME("Kestra Capture Video"), pUnk, CLSID_KestraCapture, L"CKestraCapture->Constructor->#",
                    L"CKestraCapture->Destructor->#") {
    HRESULT hr = anyCard() ? S_OK : E_FAIL;
    m_stream = new (std::nothrow) CKestraStream(&hr, this);
    hr = begin(hr, m_stream,
               [](const TarnisCameraStatus& status) { return (status.signalFlags & TARNIS_SIGNAL_PRESENT) != 0; });
    if (SUCCEEDED(hr)) {
        m_colors.attach(m_grabber);
        m_stream->useCard(m_grabber);
    }
    if (FAILED(hr) && phr) *phr = hr;
}

CKestraCapture::~CKestraCapture() {
    videoPins.remove(m_stream); // no audio pin reaches it from here on
}

HRESULT STDMETHODCALLTYPE CKestraCapture::NonDelegatingQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_ISpecifyPropertyPages) return GetInterface(static_cast<ISpecifyPropertyPages*>(this), ppv);
    if (IUnknown* found = m_interfaces.find(riid)) return GetInterface(found, ppv);
    return CaptureFilter::NonDelegatingQueryInterface(riid, ppv);
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
    // While the pin grabs, the channel must stay as prepared: another layout would take its buffers away.
    m_cameraData = {};
    m_cameraData.outputSelector = TARNIS_OUTPUT_RGB24;
    const TarnisCameraData* grabbed = m_stream->cameraData();
    if (grabbed) m_cameraData = *grabbed;
    return analyzeLiveFrame(m_grabber, m_colors, grabbed != nullptr, m_cameraData, result);
}
