#include "capture/video_filter.h"

#include "capture/module_state.h"
#include "capture/trace.h"
#include "capture/video_stream.h"

#include <new>
#include <string>

using namespace kestra;

const CLSID CLSID_KestraCapture = {0x53F0624A, 0x8497, 0x4A4C, {0x94, 0x51, 0x01, 0x1C, 0x49, 0xB2, 0x74, 0xFA}};

namespace {

/// @param before the line's text up to the number, which a blank follows
void traceInstance(const wchar_t* before, LONG number) {
    wchar_t line[64];
    trace(lstrcpynW(line, (std::wstring(before) + std::to_wstring(number) + L' ').c_str(), 64));
}

/// Calls each(detail) for every card until it returns false. @return how many were listed
template <class Each>
uint32_t forEachCard(Each each) {
    uint32_t count = 0;
    CDeviceEnumerator* enumerator = TARNIS_EnumOpen();
    DeviceEnumData data{};
    data.size = sizeof data;
    while (TARNIS_EnumNext(enumerator, &data) == TARNIS_SUCCESS) {
        ++count;
        if (!each(data.interfaceDetail)) break;
    }
    TARNIS_EnumClose(enumerator);
    return count;
}

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
    m_cards = forEachCard([](const DeviceInterfaceDetail*) { return true; });
    m_stream = new (std::nothrow) CKestraStream(&hr, this);
    if (!m_stream) hr = E_OUTOFMEMORY;
    if (SUCCEEDED(hr)) {
        chooseCard();
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

/// Keeps the first card that has a signal. That another program holds its channel shows when this one wants to grab.
void CKestraCapture::chooseCard() {
    if (m_cards == 0) return;
    forEachCard([this](const DeviceInterfaceDetail* detail) {
        TARNIS_HANDLE grabber = TARNIS_InitByHandle(detail);
        if (!grabber) return true;
        const bool claimed = TARNIS_GetDMAAccess(grabber, 0) == TARNIS_SUCCESS;
        TarnisCameraStatus status{};
        const bool known = TARNIS_GetCameraStatus(grabber, 0, &status) == TARNIS_SUCCESS;
        if (claimed) TARNIS_ReleaseDMAAccess(grabber, 0);
        if (known && (status.signalFlags & TARNIS_SIGNAL_PRESENT)) {
            m_grabber = grabber;
            return false;
        }
        TARNIS_Done(grabber);
        return true;
    });
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
