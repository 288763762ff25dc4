// The choice of a card, and the order in which filter and pin start and stop.
#include "capture/capture_filter.h"

#include "capture/trace.h"

#include <utility>

using namespace kestra;
using State = CaptureRun::State;

namespace {

std::atomic<LONG> g_filters; // how many exist, of both kinds

void traceWithNumber(const wchar_t* text, LONG number) {
    wchar_t line[64];
    swprintf(line, 64, L"%ls%ld ", text, static_cast<long>(number));
    trace(line);
}

} // namespace

CaptureFilter::CaptureFilter(LPCTSTR name, LPUNKNOWN pUnk, REFCLSID clsid, const wchar_t* constructed,
                             const wchar_t* destructed)
    : CSource(name, pUnk, clsid), m_destructed(destructed) {
    traceWithNumber(constructed, ++g_filters);
}

CaptureFilter::~CaptureFilter() {
    traceWithNumber(m_destructed, g_filters.load());
    --g_filters;
    m_iPins = m_capturePin ? 1 : 0; // the count that the base class deletes its pins by
    if (m_grabber) TARNIS_Done(m_grabber);
}

HRESULT CaptureFilter::begin(HRESULT made, CapturePin* pin, bool (*wanted)(const TarnisCameraStatus& status)) {
    if (m_iPins == 0) delete std::exchange(pin, nullptr); // without memory for its place among the base class's pins
    m_capturePin = pin;
    if (!pin || FAILED(made)) return pin ? made : E_OUTOFMEMORY;
    CDeviceEnumerator* enumerator = TARNIS_EnumOpen();
    DeviceEnumData data{};
    data.size = sizeof data;
    while (enumerator && !m_grabber && TARNIS_EnumNext(enumerator, &data) == TARNIS_SUCCESS) {
        TARNIS_HANDLE grabber = TARNIS_InitByHandle(data.interfaceDetail);
        if (!grabber) continue;
        const bool claimed = TARNIS_GetDMAAccess(grabber, pin->port()) == TARNIS_SUCCESS;
        TarnisCameraStatus status{};
        const bool known = TARNIS_GetCameraStatus(grabber, pin->port(), &status) == TARNIS_SUCCESS;
        if (claimed) TARNIS_ReleaseDMAAccess(grabber, pin->port());
        if (known && wanted(status))
            m_grabber = grabber;
        else
            TARNIS_Done(grabber);
    }
    TARNIS_EnumClose(enumerator);
    return m_grabber ? S_OK : E_FAIL;
}

HRESULT CaptureFilter::noteState(HRESULT hr) {
    m_capturePin->setRunState(IsStopped() ? State::Stopped : State::Active);
    return hr;
}

STDMETHODIMP CaptureFilter::Pause() {
    CAutoLock lock(&m_cStateLock);
    m_starting = IsStopped() != FALSE;
    if (m_starting) m_capturePin->setRunState(State::Starting); // a run that another pin started
    const HRESULT hr = CSource::Pause();
    m_starting = false;
    return noteState(hr);
}

STDMETHODIMP CaptureFilter::Run(REFERENCE_TIME tStart) {
    CAutoLock lock(&m_cStateLock);
    return noteState(CSource::Run(tStart));
}

STDMETHODIMP CaptureFilter::Stop() {
    CAutoLock lock(&m_cStateLock);
    // The base class skips a stopped filter, although its pin may have failed to start or been started by another pin.
    return noteState(IsStopped() && m_capturePin->hasBegun() ? m_capturePin->Inactive() : CSource::Stop());
}
