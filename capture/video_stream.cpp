// The video pin's formats: what it offers, accepts and remembers.
#include "capture/video_stream.h"

#include "capture/cleared_flag.h"
#include "capture/module_state.h"
#include "capture/pin_category.h"
#include "capture/settings.h"
#include "capture/trace.h"
#include "capture/video_filter.h"
#include "capture/video_formats.h"

#include <cstring>
#include <new>

using namespace kestra;

namespace {

constexpr wchar_t kVideoFormatValue[] = L"VideoFormat";
constexpr CLSID kStreamFormatPage = {0x71F96467, 0x78F3, 0x11D0, {0xA1, 0x8C, 0x00, 0xA0, 0xC9, 0x11, 0x89, 0x56}};
constexpr int kCapabilities = 4;

} // namespace

CKestraStream::CKestraStream(HRESULT* phr, CKestraCapture* pFilter)
    : CSourceStream(NAME("Video Capture"), phr, pFilter, L"Video Capture"),
      m_capture(pFilter),
      m_colors(*this, *pFilter) {
    trace(L"CKestraStream->Constructor");
    if (const auto persisted = readSetting(kVideoFormatValue)) m_videoFormat = *persisted;
    try {
        videoPins.add(this);
    } catch (const std::bad_alloc&) {
        if (phr) *phr = E_OUTOFMEMORY;
    }
}

CKestraStream::~CKestraStream() {
    videoPins.remove(this);
    trace(L"CKestraStream->Destructor");
}

HRESULT STDMETHODCALLTYPE CKestraStream::NonDelegatingQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IKsPropertySet) return GetInterface(static_cast<IKsPropertySet*>(this), ppv);
    if (riid == IID_IAMStreamConfig) return GetInterface(static_cast<IAMStreamConfig*>(this), ppv);
    if (riid == IID_ISpecifyPropertyPages) return GetInterface(static_cast<ISpecifyPropertyPages*>(this), ppv);
    if (IUnknown* found = m_colors.find(riid)) return GetInterface(found, ppv);
    return CSourceStream::NonDelegatingQueryInterface(riid, ppv);
}

STDMETHODIMP CKestraStream::Set(REFGUID, DWORD, void*, DWORD, void*, DWORD) {
    return E_NOTIMPL;
}

STDMETHODIMP CKestraStream::Get(REFGUID guidPropSet, DWORD dwPropID, void*, DWORD, void* pPropData, DWORD cbPropData,
                                DWORD* pcbReturned) {
    return getPinCategory(guidPropSet, dwPropID, pPropData, cbPropData, pcbReturned);
}

STDMETHODIMP CKestraStream::QuerySupported(REFGUID guidPropSet, DWORD dwPropID, DWORD* pTypeSupport) {
    return queryPinCategory(guidPropSet, dwPropID, pTypeSupport);
}

HRESULT CKestraStream::GetMediaType(int iPosition, CMediaType* pmt) {
    trace(L"CKestraStream->GetMediaType->start");
    if (iPosition >= kCapabilities)
        return traced(L"CKestraStream->GetMediaType->VFW_S_NO_MORE_ITEMS", VFW_S_NO_MORE_ITEMS);
    if (m_formatSet) { // before the lock, and whatever the position
        if (!pmt) return E_POINTER;
        const HRESULT copied = pmt->Set(m_setFormat);
        if (FAILED(copied)) return traced(L"CKestraStream->GetMediaType->E_OUTOFMEMORY", E_OUTOFMEMORY);
        return traced(L"CKestraStream->GetMediaType->S_OK", S_OK);
    }
    CAutoLock lock(m_pFilter->pStateLock());
    if (!pmt) return E_POINTER;
    TarnisCameraStatus status{};
    TARNIS_GetCameraStatus(m_hGrabber, m_port, &status);
    const auto format = static_cast<VideoFormat>(iPosition < 0 ? 0 : iPosition);
    if (FAILED(makeVideoType(format, timingOf(status), *pmt)))
        return traced(L"CKestraStream->GetMediaType->E_OUTOFMEMORY", E_OUTOFMEMORY);
    return traced(L"CKestraStream->GetMediaType->S_OK", S_OK);
}

HRESULT CKestraStream::CheckMediaType(const CMediaType* pmt) {
    CAutoLock lock(m_pFilter->pStateLock());
    if (!pmt) return E_POINTER;
    trace(L"CKestraStream->CheckMediaType->start");
    bool matches = false;
    if (m_formatSet) {
        matches = matchesVideoType(*pmt, m_setFormat);
    } else {
        CMediaType offered;
        for (int position = 0; !matches && GetMediaType(position, &offered) == S_OK; ++position)
            matches = matchesVideoType(*pmt, offered);
    }
    return matches ? traced(L"CKestraStream->CheckMediaType->S_OK", S_OK)
                   : traced(L"CKestraStream->CheckMediaType->E_FAIL", E_FAIL);
}

STDMETHODIMP CKestraStream::SetFormat(AM_MEDIA_TYPE* pmt) {
    CAutoLock lock(m_pFilter->pStateLock());
    trace(L"CKestraStream->setFormat->start"); // the lower-case "set" is this method's alone
    if (!pmt) return E_POINTER;
    if (m_pFilter->IsActive()) return traced(L"CKestraStream->setFormat->VFW_E_NOT_STOPPED", VFW_E_NOT_STOPPED);
    HRESULT copied = S_OK;
    const CMediaType wanted(*pmt, &copied);
    const bool before = m_formatSet;
    m_formatSet = false;
    if (SUCCEEDED(copied) && FAILED(CheckMediaType(&wanted))) {
        m_formatSet = before;
        return traced(L"CKestraStream->setFormat->VFW_E_INVALIDMEDIATYPE", VFW_E_INVALIDMEDIATYPE);
    }
    if (FAILED(copied) || FAILED(m_setFormat.Set(wanted)))
        return traced(L"CKestraStream->setFormat->E_OUTOFMEMORY", E_OUTOFMEMORY);
    m_formatSet = true;
    if (IsConnected() && FAILED(m_pFilter->ReconnectPin(this, pmt)))
        return traced(L"CKestraStream->setFormat->VFW_E_INVALIDMEDIATYPE", VFW_E_INVALIDMEDIATYPE);
    m_videoFormat = videoFormatOf(m_setFormat);
    writeSetting(kVideoFormatValue, m_videoFormat);
    return traced(L"CKestraStream->setFormat->S_OK", S_OK);
}

STDMETHODIMP CKestraStream::GetFormat(AM_MEDIA_TYPE** ppmt) {
    CAutoLock lock(m_pFilter->pStateLock());
    trace(L"CKestraStream->GetFormat->start");
    if (!ppmt) return E_POINTER;
    *ppmt = nullptr;
    m_videoFormat = readSetting(kVideoFormatValue).value_or(0);
    if (m_videoFormat >= kVideoFormats) m_videoFormat = 0;
    if (IsConnected()) {
        *ppmt = CreateMediaType(&m_mt);
    } else if (m_formatSet) {
        *ppmt = CreateMediaType(&m_setFormat);
    } else {
        CMediaType type;
        const HRESULT hr = GetMediaType(static_cast<int>(m_videoFormat), &type);
        if (FAILED(hr)) return hr;
        *ppmt = CreateMediaType(&type);
    }
    if (!*ppmt) return E_OUTOFMEMORY;
    return traced(L"CKestraStream->GetFormat->S_OK", S_OK);
}

STDMETHODIMP CKestraStream::GetNumberOfCapabilities(int* piCount, int* piSize) {
    trace(L"CKestraStream->GetNumberOfCapabilities->start");
    if (!piCount || !piSize) return E_POINTER;
    *piCount = kCapabilities;
    *piSize = sizeof(VIDEO_STREAM_CONFIG_CAPS);
    static_assert(sizeof(VIDEO_STREAM_CONFIG_CAPS) == 128);
    return traced(L"CKestraStream->GetNumberOfCapabilities->S_OK", S_OK);
}

STDMETHODIMP CKestraStream::GetStreamCaps(int iIndex, AM_MEDIA_TYPE** ppmt, BYTE* pSCC) {
    CAutoLock lock(m_pFilter->pStateLock());
    trace(L"CKestraStream->GetStreamCaps->start");
    if (iIndex >= kCapabilities) return S_FALSE;
    if (!ppmt || !pSCC) return E_POINTER;
    *ppmt = nullptr;
    CMediaType type;
    {
        const ClearedFlag ownFormats(m_formatSet); // each index describes its own format, also after SetFormat
        const HRESULT hr = GetMediaType(iIndex, &type);
        if (FAILED(hr)) return traced(L"CKestraStream->GetStreamCaps->FAILED(hr)", hr);
    }
    *ppmt = CreateMediaType(&type);
    if (!*ppmt) return traced(L"CKestraStream->GetStreamCaps->FAILED(hr)", E_OUTOFMEMORY);
    VIDEO_STREAM_CONFIG_CAPS caps{};
    const BITMAPINFOHEADER* header = bitmapHeaderOf(type);
    caps.guid = type.formattype;
    caps.InputSize = caps.MinCroppingSize = caps.MaxCroppingSize = caps.MinOutputSize =
        caps.MaxOutputSize = {header->biWidth, header->biHeight};
    // Both headers open alike.
    caps.MinFrameInterval = caps.MaxFrameInterval = reinterpret_cast<VIDEOINFOHEADER*>(type.pbFormat)->AvgTimePerFrame;
    std::memcpy(pSCC, &caps, sizeof caps);
    return traced(L"CKestraStream->GetStreamCaps->S_OK", S_OK);
}

STDMETHODIMP CKestraStream::GetPages(CAUUID* pPages) {
    trace(L"CKestraStream->GetPages->start");
    if (!pPages) return E_POINTER;
    *pPages = {};
    pPages->pElems = static_cast<GUID*>(CoTaskMemAlloc(sizeof(GUID)));
    if (!pPages->pElems) return E_OUTOFMEMORY;
    pPages->cElems = 1;
    pPages->pElems[0] = kStreamFormatPage;
    return traced(L"CKestraStream->GetPages->S_OK", S_OK);
}

HRESULT CKestraStream::DecideBufferSize(IMemAllocator* pAlloc, ALLOCATOR_PROPERTIES* pProp) {
    CAutoLock lock(m_pFilter->pStateLock());
    trace(L"CKestraStream->DecideBufferSize->start");
    if (!pAlloc || !pProp) return E_POINTER;
    if (pProp->cBuffers == 0) pProp->cBuffers = 2;
    pProp->cbBuffer = static_cast<long>(m_mt.GetSampleSize());
    ALLOCATOR_PROPERTIES actual{};
    const HRESULT hr = pAlloc->SetProperties(pProp, &actual);
    if (FAILED(hr)) return traced(L"CKestraStream->DecideBufferSize->FAILED(hr)", hr);
    return traced(L"CKestraStream->DecideBufferSize->S_OK", S_OK);
}
