// The audio pin's running side: connection, start, stop, and one sample for the sound of each frame.
#include "capture/audio_filter.h"
#include "capture/audio_stream.h"
#include "capture/com_ref.h"
#include "capture/module_state.h"
#include "capture/trace.h"

#include <algorithm>
#include <cstring>

using namespace kestra;

namespace {

constexpr REFERENCE_TIME kSecond = 10'000'000;
constexpr uint32_t kBuffers = 10;

} // namespace

std::atomic<bool> CKestraAudioStream::m_bactive{false};

STDMETHODIMP CKestraAudioStream::Connect(IPin* pReceivePin, const AM_MEDIA_TYPE* pmt) {
    CAutoLock lock(m_pLock);
    trace(L"CKestraAudioStream->Connect->start");
    if (!pReceivePin) return E_POINTER;
    if (IsConnected()) return traced(L"CKestraAudioStream->Connect->VFW_E_ALREADY_CONNECTED", VFW_E_ALREADY_CONNECTED);
    if (!IsStopped() && !CanReconnectWhenActive())
        return traced(L"CKestraAudioStream->Connect->VFW_E_NOT_STOPPED", VFW_E_NOT_STOPPED);
    HRESULT hr = S_OK;
    CMediaType wanted;
    if (pmt) hr = wanted.Set(*pmt);
    if (SUCCEEDED(hr)) hr = AgreeMediaType(pReceivePin, pmt ? &wanted : nullptr);
    if (FAILED(hr)) {
        trace(L"CKestraAudioStream->Connect->FAILED(hr)");
        BreakConnect();
        return hr;
    }
    return traced(L"CKestraAudioStream->Connect->S_OK", S_OK);
}

/// A video pin may have started this pin while its own filter is stopped, so that nothing keeps it from being
/// disconnected: nobody would deactivate it afterwards.
HRESULT CKestraAudioStream::BreakConnect() {
    if (isGrabbing()) {
        stopGrabbing();
        m_bactive = false;
    }
    return CSourceStream::BreakConnect();
}

HRESULT CKestraAudioStream::Active() {
    CAutoLock lock(m_pFilter->pStateLock());
    trace(L"CKestraAudioStream->Active->start");
    if (m_pFilter->IsActive()) return traced(L"CKestraAudioStream->Active->m_pFilter->IsActive()", S_FALSE);
    if (!IsConnected()) return traced(L"CKestraAudioStream->Active->!IsConnected()", S_OK);
    TarnisCameraStatus status{};
    TARNIS_GetCameraStatus(m_hGrabber, m_port, &status);
    fitBuffers(status);
    // The base's base on purpose: the stream's own worker thread is not used.
    HRESULT hr = CBaseOutputPin::Active(); // NOLINT(bugprone-parent-virtual-call): see above
    if (FAILED(hr)) return traced(L"CKestraAudioStream->Active->FAILED(hr)", hr);
    const bool joins = m_bactive;
    if (joins) {
        trace(L"CKestraAudioStream->Active->m_bactive");
        m_timeStampRate = framesPerSecond(status);
    } else {
        hr = startGrabbing();
        if (FAILED(hr)) return hr;
    }
    GetOwner()->AddRef(); // until Inactive
    ++m_ownerReferences;
    if (joins) return S_OK;
    m_bactive = true;
    return traced(L"CKestraAudioStream->Active->S_OK", S_OK);
}

HRESULT CKestraAudioStream::startGrabbing() {
    videoPins.prepare(m_pFilter->GetFilterGraph());
    m_timeStampSamples = m_blocks = m_bytesDelivered = 0;
    if (TARNIS_GetDMAAccess(m_hGrabber, m_port) != TARNIS_SUCCESS)
        return traced(L"CKestraAudioStream->Active->TARNIS_GetDMAAccess", E_UNEXPECTED);
    ++m_accessClaims;
    TARNIS_SetBufferCount(m_hGrabber, m_port, kBuffers);
    m_cameraData = {};
    if (m_audioFormat == kAudio16) m_cameraData.extra = 1;
    if (TARNIS_StartGrab(m_hGrabber, m_port, 0, &m_cameraData, onBlock, reinterpret_cast<uint64_t>(this)) !=
        TARNIS_SUCCESS)
        return traced(L"CKestraAudioStream->Active->TARNIS_StartGrab", E_UNEXPECTED);
    m_timeStampRate = framesPerSecond(m_cameraData.status);
    return S_OK;
}

/// The input may have changed since the buffers were agreed on: a slower one makes larger blocks. An allocator that
/// refuses keeps its buffers, and the blocks are cut to them.
void CKestraAudioStream::fitBuffers(const TarnisCameraStatus& status) {
    ALLOCATOR_PROPERTIES properties{}, actual{};
    const long wanted = audioBufferBytes(status, m_bytesPerSecond);
    if (!m_pAllocator || FAILED(m_pAllocator->GetProperties(&properties)) || properties.cbBuffer >= wanted) return;
    properties.cbBuffer = wanted;
    m_pAllocator->SetProperties(&properties, &actual);
}

HRESULT CKestraAudioStream::Inactive() {
    CAutoLock lock(m_pFilter->pStateLock());
    trace(L"CKestraAudioStream->Inactive->start");
    if (!IsConnected()) return traced(L"CKestraAudioStream->Inactive->!IsConnected()", S_OK);
    m_capture->activity().set(Activity::State::Stopped); // so that a callback returns that comes now
    // Frees a callback that waits for a buffer. The base's base, as in Active.
    const HRESULT hr = CBaseOutputPin::Inactive(); // NOLINT(bugprone-parent-virtual-call): see above
    if (FAILED(hr)) return traced(L"CKestraAudioStream->Inactive->FAILED(hr)", hr);
    DeliverEndOfStream();
    stopGrabbing();
    trace(L"CKestraAudioStream->Inactive->NOERROR");
    m_bactive = false;
    return S_OK;
}

/// Undoes every Active since the last time. Under the state lock; whoever calls holds a reference of his own.
void CKestraAudioStream::stopGrabbing() {
    TARNIS_StopGrab(m_hGrabber, m_port);
    for (; m_accessClaims > 0; --m_accessClaims)
        TARNIS_ReleaseDMAAccess(m_hGrabber, m_port);
    for (; m_ownerReferences > 0; --m_ownerReferences)
        GetOwner()->Release(); // of Active
}

void CKestraAudioStream::onBlock(uint64_t context, const TarnisFrameInfo* pFrameInfo) noexcept {
    auto* self = reinterpret_cast<CKestraAudioStream*>(context);
    try {
        self->SDIGrabAudioCallback(pFrameInfo);
    } catch (...) { // a lock that the system refused: this block is lost
    }
}

// The lines of the statuses and of the missing buffer carry the video pin's class name: kept so.
void CKestraAudioStream::SDIGrabAudioCallback(const TarnisFrameInfo* pFrameInfo) {
    trace(L"CKestraAudioStream->SDIGrabAudioCallback->start");
    if (!m_capture->activity().isActive())
        return trace(L"CKestraAudioStream->SDIGrabAudioCallback->!m_pFilter->IsActive()");
    // Whoever stops the filter waits only so long for a receiver that blocks: the filter stays for as long as it does.
    GetOwner()->AddRef();
    const ComRef<IUnknown> alive(GetOwner());
    switch (pFrameInfo->dmaStatus) {
    case DMA_STATUS_GOOD:
        break;
    case DMA_STATUS_DICONNECTED: // of a lost device the video pin tells
        DeliverEndOfStream();
        return trace(L"CKestraAudioStream->SDIGrabAudioCallback->DMA_STATUS_DICONNECTED");
    case DMA_STATUS_FRAME_DROPED:
        return trace(L"CKestraStream->SDIGrabAudioCallback->DMA_STATUS_FRAME_DROPED");
    case DMA_STATUS_FIFO_OVERRUN:
        return trace(L"CKestraStream->SDIGrabAudioCallback->DMA_STATUS_FIFO_OVERRUN");
    case DMA_STATUS_ABORTED:
        return trace(L"CKestraStream->SDIGrabAudioCallback->DMA_STATUS_ABORTED");
    default:
        return;
    }
    if (!pFrameInfo->lpRawBuffer) return trace(L"CKestraStream->SDIGrabAudioCallback->pFrameInfo->lpRawBuffer == NULL");
    ++m_blocks;
    if (IsConnected())
        deliverBlock(*pFrameInfo);
    else
        trace(L"CKestraAudioStream->SDIGrabAudioCallback->S_OK");
}

void CKestraAudioStream::deliverBlock(const TarnisFrameInfo& block) {
    const int32_t rate = m_timeStampRate;
    m_lastStart = m_timeStampSamples * kSecond / rate;
    REFERENCE_TIME start = m_lastStart, stop = start + kSecond / rate;
    ComRef<IMediaSample> sample;
    if (FAILED(GetDeliveryBuffer(sample.out(), nullptr, nullptr, 0)))
        return trace(L"CKestraAudioStream->SDIGrabAudioCallback->GetDeliveryBuffer");
    BYTE* pBuffer = nullptr;
    if (FAILED(sample->GetPointer(&pBuffer)) || !pBuffer)
        return trace(L"CKestraAudioStream->SDIGrabAudioCallback->GetPointer");
    // The connection's type says how much: a receiver may have agreed on more than its buffer holds or the card made.
    const long size = std::min(static_cast<long>(m_bytesPerSecond / static_cast<uint32_t>(rate)), sample->GetSize());
    const auto bytes = static_cast<size_t>(std::max(size, 0L));
    const size_t made = std::min<size_t>(bytes, block.bufferSize);
    sample->SetActualDataLength(static_cast<long>(bytes));
    std::memcpy(pBuffer, block.lpRawBuffer, made);
    std::memset(pBuffer + made, 0, bytes - made);
    sample->SetTime(&start, &stop);
    sample->SetSyncPoint(TRUE);
    const HRESULT hr = Deliver(sample.get());
    if (hr != S_OK) {
        m_capture->storeDeliveryResult(hr); // kept, odd as it is: see CKestraAudioCapture::GetPinCount
        return trace(L"CKestraAudioStream->SDIGrabAudioCallback->Deliver");
    }
    ++m_timeStampSamples;
    m_bytesDelivered += static_cast<LONGLONG>(bytes);
    trace(L"CKestraAudioStream->SDIGrabAudioCallback->S_OK");
}
