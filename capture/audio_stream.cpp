// The audio pin's formats: what it offers, accepts and remembers.
#include "capture/audio_stream.h"

#include "capture/audio_filter.h"
#include "capture/cleared_flag.h"
#include "capture/com_ref.h"
#include "capture/module_state.h"
#include "capture/pin_category.h"
#include "capture/settings.h"
#include "capture/trace.h"

#include <cstring>
#include <new>

using namespace kestra;

namespace {

constexpr wchar_t kAudioFormatValue[] = L"AudioFormat";
constexpr int kCapabilities = kAudioFormats;

} // namespace

CKestraAudioStream::CKestraAudioStream(HRESULT* phr, CKestraAudioCapture* pFilter)
    : CSourceStream(NAME("Audio Capture"), phr, pFilter, L"Audio Capture"), m_capture(pFilter) {
    trace(L"CKestraAudioStream->Constructor->start");
    m_audioFormat = readSetting(kAudioFormatValue).value_or(kAudio16);
    if (m_audioFormat >= kAudioFormats) m_audioFormat = kAudio16;
    trace(L"CKestraAudioStream->Constructor->end");
    try {
        audioPins.add(this);
    } catch (const std::bad_alloc&) {
        if (phr) *phr = E_OUTOFMEMORY;
    }
}

CKestraAudioStream::~CKestraAudioStream() {
    audioPins.remove(this);
    trace(L"CKestraAudioStream->Destructor");
}

HRESULT STDMETHODCALLTYPE CKestraAudioStream::NonDelegatingQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IKsPropertySet) return GetInterface(static_cast<IKsPropertySet*>(this), ppv);
    if (riid == IID_IAMStreamConfig) return GetInterface(static_cast<IAMStreamConfig*>(this), ppv);
    if (riid == IID_ISpecifyPropertyPages) return GetInterface(static_cast<ISpecifyPropertyPages*>(this), ppv);
    if (riid == IID_IKestraAudioPropertyPage) return GetInterface(static_cast<IKestraAudioPropertyPage*>(this), ppv);
    if (riid == IID_IAMBufferNegotiation) return GetInterface(static_cast<IAMBufferNegotiation*>(this), ppv);
    return CSourceStream::NonDelegatingQueryInterface(riid, ppv);
}

STDMETHODIMP CKestraAudioStream::Set(REFGUID, DWORD, void*, DWORD, void*, DWORD) {
    return E_NOTIMPL;
}

STDMETHODIMP CKestraAudioStream::Get(REFGUID guidPropSet, DWORD dwPropID, void*, DWORD, void* pPropData,
                                     DWORD cbPropData, DWORD* pcbReturned) {
    return getPinCategory(guidPropSet, dwPropID, pPropData, cbPropData, pcbReturned);
}

STDMETHODIMP CKestraAudioStream::QuerySupported(REFGUID guidPropSet, DWORD dwPropID, DWORD* pTypeSupport) {
    return queryPinCategory(guidPropSet, dwPropID, pTypeSupport);
}

// Its lines name CheckMediaType: kept so.
HRESULT CKestraAudioStream::GetMediaType(int iPosition, CMediaType* pmt) {
    trace(L"CKestraAudioStream->CheckMediaType->start");
    if (iPosition >= kCapabilities)
        return traced(L"CKestraAudioStream->CheckMediaType->VFW_S_NO_MORE_ITEMS", VFW_S_NO_MORE_ITEMS);
    if (m_formatSet) { // before the lock, and whatever the position
        if (!pmt) return E_POINTER;
        const HRESULT copied = pmt->Set(m_setFormat);
        if (FAILED(copied)) return traced(L"CKestraAudioStream->CheckMediaType->E_OUTOFMEMORY", E_OUTOFMEMORY);
        return traced(L"CKestraAudioStream->CheckMediaType->S_OK", S_OK);
    }
    CAutoLock lock(m_pFilter->pStateLock());
    if (!pmt) return E_POINTER;
    if (FAILED(makeAudioType(iPosition == 1 ? kAudio24 : kAudio16, *pmt)))
        return traced(L"CKestraAudioStream->CheckMediaType->E_OUTOFMEMORY", E_OUTOFMEMORY);
    return traced(L"CKestraAudioStream->CheckMediaType->S_OK", S_OK);
}

HRESULT CKestraAudioStream::CheckMediaType(const CMediaType* pmt) {
    CAutoLock lock(m_pFilter->pStateLock());
    trace(L"CKestraAudioStream->CheckMediaType->start");
    if (!pmt) return E_POINTER;
    TarnisCameraStatus status{};
    if (TARNIS_GetCameraStatus(m_hGrabber, m_port, &status) != TARNIS_SUCCESS)
        return traced(L"CKestraAudioStream->CheckMediaType->VFW_E_NO_CAPTURE_HARDWARE", VFW_E_NO_CAPTURE_HARDWARE);
    bool matches = false;
    if (m_formatSet) {
        matches = matchesAudioType(*pmt, m_setFormat);
    } else {
        CMediaType offered;
        for (int position = 0; !matches && GetMediaType(position, &offered) == S_OK; ++position)
            matches = matchesAudioType(*pmt, offered);
    }
    return matches ? traced(L"CKestraAudioStream->CheckMediaType->S_OK", S_OK)
                   : traced(L"CKestraAudioStream->CheckMediaType->E_FAIL", E_FAIL);
}

STDMETHODIMP CKestraAudioStream::SetFormat(AM_MEDIA_TYPE* pmt) {
    CAutoLock lock(m_pFilter->pStateLock());
    trace(L"CKestraAudioStream->SetFormat->start");
    if (!pmt) return E_POINTER;
    if (m_pFilter->IsActive()) return traced(L"CKestraAudioStream->SetFormat->VFW_E_NOT_STOPPED", VFW_E_NOT_STOPPED);
    HRESULT copied = S_OK;
    const CMediaType wanted(*pmt, &copied);
    const bool before = m_formatSet;
    m_formatSet = false;
    if (SUCCEEDED(copied) && FAILED(CheckMediaType(&wanted))) {
        m_formatSet = before;
        return traced(L"CKestraAudioStream->SetFormat->VFW_E_INVALIDMEDIATYPE", VFW_E_INVALIDMEDIATYPE);
    }
    if (FAILED(copied) || FAILED(m_setFormat.Set(wanted)))
        return traced(L"CKestraAudioStream->SetFormat->E_OUTOFMEMORY", E_OUTOFMEMORY);
    m_formatSet = true;
    if (IsConnected() && FAILED(m_pFilter->ReconnectPin(this, pmt)))
        return traced(L"CKestraAudioStream->SetFormat->ReconnectPin->VFW_E_INVALIDMEDIATYPE", VFW_E_INVALIDMEDIATYPE);
    m_audioFormat = audioFormatOf(m_setFormat);
    writeSetting(kAudioFormatValue, m_audioFormat);
    return traced(L"CKestraAudioStream->SetFormat->S_OK", S_OK);
}

STDMETHODIMP CKestraAudioStream::GetFormat(AM_MEDIA_TYPE** ppmt) {
    CAutoLock lock(m_pFilter->pStateLock());
    trace(L"CKestraAudioStream->GetFormat->start");
    if (!ppmt) return E_POINTER;
    *ppmt = nullptr;
    m_audioFormat = readSetting(kAudioFormatValue).value_or(kAudio16);
    if (m_audioFormat >= kAudioFormats) m_audioFormat = kAudio16;
    if (IsConnected()) {
        *ppmt = CreateMediaType(&m_mt);
    } else if (m_formatSet) {
        *ppmt = CreateMediaType(&m_setFormat);
    } else {
        CMediaType type;
        const HRESULT hr = GetMediaType(static_cast<int>(m_audioFormat), &type);
        if (FAILED(hr)) return hr;
        *ppmt = CreateMediaType(&type);
    }
    if (!*ppmt) return E_OUTOFMEMORY;
    return traced(L"CKestraAudioStream->GetFormat->S_OK", S_OK);
}

STDMETHODIMP CKestraAudioStream::GetNumberOfCapabilities(int* piCount, int* piSize) {
    trace(L"CKestraAudioStream->GetNumberOfCapabilities->start");
    if (!piCount || !piSize) return E_POINTER;
    *piCount = kCapabilities;
    *piSize = sizeof(AUDIO_STREAM_CONFIG_CAPS);
    static_assert(sizeof(AUDIO_STREAM_CONFIG_CAPS) == 52);
    return traced(L"CKestraAudioStream->GetNumberOfCapabilities->S_OK", S_OK);
}

STDMETHODIMP CKestraAudioStream::GetStreamCaps(int iIndex, AM_MEDIA_TYPE** ppmt, BYTE* pSCC) {
    CAutoLock lock(m_pFilter->pStateLock());
    trace(L"CKestraAudioStream->GetStreamCaps->start");
    if (iIndex >= kCapabilities) return traced(L"CKestraAudioStream->GetStreamCaps->S_FALSE", S_FALSE);
    if (!ppmt || !pSCC) return E_POINTER;
    *ppmt = nullptr;
    CMediaType type;
    {
        const ClearedFlag ownFormats(m_formatSet); // each index describes its own format, also after SetFormat
        const HRESULT hr = GetMediaType(iIndex, &type);
        if (FAILED(hr)) return traced(L"CKestraAudioStream->GetStreamCaps->FAILED(hr)", hr);
    }
    *ppmt = CreateMediaType(&type);
    if (!*ppmt) return traced(L"CKestraAudioStream->GetStreamCaps->FAILED(hr)", E_OUTOFMEMORY);
    AUDIO_STREAM_CONFIG_CAPS caps{};
    caps.guid = MEDIATYPE_Audio; // the major type on purpose, where others have the format type
    caps.MinimumChannels = caps.MaximumChannels = 2;
    caps.MinimumBitsPerSample = 16;
    caps.MaximumBitsPerSample = 24;
    caps.MinimumSampleFrequency = caps.MaximumSampleFrequency = 48000;
    std::memcpy(pSCC, &caps, sizeof caps);
    return traced(L"CKestraAudioStream->GetStreamCaps->S_OK", S_OK);
}

STDMETHODIMP CKestraAudioStream::GetPages(CAUUID* pPages) {
    trace(L"CKestraAudioStream->GetPages->start");
    if (!pPages) return E_POINTER;
    *pPages = {};
    pPages->pElems = static_cast<GUID*>(CoTaskMemAlloc(sizeof(GUID)));
    if (!pPages->pElems) return E_OUTOFMEMORY;
    pPages->cElems = 1;
    pPages->pElems[0] = CLSID_KestraAudioPropertyPage;
    return traced(L"CKestraAudioStream->GetPages->S_OK", S_OK);
}

STDMETHODIMP CKestraAudioStream::get_BitDepth(unsigned char* index) {
    CAutoLock lock(m_pFilter->pStateLock());
    if (!index) return E_POINTER;
    *index = static_cast<unsigned char>(m_audioFormat);
    return S_OK;
}

// Holds no lock while it calls the graph, which locks first itself and the filter after.
STDMETHODIMP CKestraAudioStream::put_BitDepth(unsigned char index) {
    trace(L"CKestraAudioStream->put_BitDepth->start");
    ComRef<IMediaControl> control;
    HRESULT hr = VFW_E_NOT_IN_GRAPH;
    {
        CAutoLock lock(m_pFilter->pStateLock());
        if (IFilterGraph* graph = m_pFilter->GetFilterGraph())
            hr = graph->QueryInterface(IID_IMediaControl, reinterpret_cast<void**>(control.out()));
    }
    if (FAILED(hr)) return traced(L"CKestraAudioStream->put_BitDepth->QueryInterface", hr);
    const bool wasActive = m_pFilter->IsActive() != FALSE;
    if (wasActive) control->Stop();
    CMediaType type;
    {
        CAutoLock lock(m_pFilter->pStateLock());
        const ClearedFlag ownFormats(m_formatSet);
        hr = GetMediaType(index, &type);
    }
    if (SUCCEEDED(hr)) hr = SetFormat(&type); // an empty type, of an index that there is not, is refused there
    if (FAILED(hr)) return traced(L"CKestraAudioStream->put_BitDepth->SetFormat", hr);
    if (wasActive) control->Run(); // also when it had been paused
    return traced(L"CKestraAudioStream->put_BitDepth->S_OK", S_OK);
}

STDMETHODIMP CKestraAudioStream::SuggestAllocatorProperties(const ALLOCATOR_PROPERTIES*) {
    return traced(L"CKestraAudioStream->SuggestAllocatorProperties->S_OK", S_OK);
}

STDMETHODIMP CKestraAudioStream::GetAllocatorProperties(ALLOCATOR_PROPERTIES* pprop) {
    CAutoLock lock(m_pFilter->pStateLock());
    trace(L"CKestraAudioStream->GetAllocatorProperties->start");
    if (!pprop) return E_POINTER;
    if (!m_pAllocator) return VFW_E_NO_ALLOCATOR;
    const HRESULT hr = m_pAllocator->GetProperties(pprop);
    if (FAILED(hr)) return hr;
    return traced(L"CKestraAudioStream->GetAllocatorProperties->S_OK", S_OK);
}

HRESULT CKestraAudioStream::SetMediaType(const CMediaType* pmt) {
    const HRESULT hr = CSourceStream::SetMediaType(pmt);
    const PCMWAVEFORMAT* format = waveFormatOf(*pmt);
    if (SUCCEEDED(hr) && format) m_bytesPerSecond = format->wf.nAvgBytesPerSec;
    return hr;
}

HRESULT CKestraAudioStream::DecideBufferSize(IMemAllocator* pAlloc, ALLOCATOR_PROPERTIES* pProp) {
    CAutoLock lock(m_pFilter->pStateLock());
    trace(L"CKestraAudioStream->DecideBufferSize->start");
    if (!pAlloc || !pProp) return E_POINTER;
    TarnisCameraStatus status{};
    TARNIS_GetCameraStatus(m_hGrabber, m_port, &status);
    pProp->cBuffers = 1;
    pProp->cbBuffer = audioBufferBytes(status, m_bytesPerSecond);
    ALLOCATOR_PROPERTIES actual{};
    const HRESULT hr = pAlloc->SetProperties(pProp, &actual);
    if (FAILED(hr)) return traced(L"CKestraAudioStream->DecideBufferSize->FAILED(hr)", hr);
    return traced(L"CKestraAudioStream->DecideBufferSize->NOERROR", S_OK);
}
