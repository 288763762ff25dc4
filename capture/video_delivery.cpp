// The video pin's running side: connection, start, stop, and one sample for each frame.
#include "capture/com_ref.h"
#include "capture/module_state.h"
#include "capture/trace.h"
#include "capture/video_filter.h"
#include "capture/video_stream.h"
#include "protocol/frame_rate.h"
#include "protocol/raw_frame.h"

#include <dvdmedia.h>

using namespace kestra;

namespace {

constexpr REFERENCE_TIME kSecond = 10'000'000;
constexpr uint32_t kBuffers = 10;
constexpr DWORD kFieldOneFirst = 4; // AM_VIDEO_FLAG_FIELD1FIRST

} // namespace

STDMETHODIMP CKestraStream::Connect(IPin* pReceivePin, const AM_MEDIA_TYPE* pmt) {
    CAutoLock lock(m_pLock);
    trace(L"CKestraStream->Connect->start");
    if (!pReceivePin) return E_POINTER;
    if (IsConnected()) return traced(L"CKestraStream->Connect->VFW_E_ALREADY_CONNECTED", VFW_E_ALREADY_CONNECTED);
    if (!IsStopped() && !CanReconnectWhenActive())
        return traced(L"CKestraStream->Connect->VFW_E_NOT_STOPPED", VFW_E_NOT_STOPPED);
    const CMediaType wanted = pmt ? CMediaType(*pmt) : CMediaType();
    const HRESULT hr = AgreeMediaType(pReceivePin, pmt ? &wanted : nullptr);
    if (FAILED(hr)) {
        trace(L"CKestraStream->Connect->FAILED(hr)");
        BreakConnect();
        return hr;
    }
    return traced(L"CKestraStream->Connect->NOERROR", S_OK);
}

void CKestraStream::prepareFor(const IFilterGraph* graph) noexcept {
    if (m_pFilter->GetFilterGraph() != graph || !IsConnected() || m_accessClaims > 0) return;
    if (TARNIS_GetDMAAccess(m_hGrabber, m_port) != TARNIS_SUCCESS) return;
    TarnisCameraData cameraData{};
    cameraData.outputSelector = outputSelector();
    noexp_TARNIS_Prepare(m_hGrabber, m_port, &cameraData); // a start that finds the same has no more to do
    TARNIS_ReleaseDMAAccess(m_hGrabber, m_port);
}

HRESULT CKestraStream::Active() {
    CAutoLock lock(m_pFilter->pStateLock());
    trace(L"CKestraStream->Active->start");
    if (m_pFilter->IsActive()) return traced(L"CKestraStream->Active->m_pFilter->IsActive()", S_FALSE);
    if (!IsConnected()) return traced(L"CKestraStream->Active->!IsConnected()", S_OK);
    // The base's base on purpose: the stream's own worker thread is not used.
    const HRESULT hr = CBaseOutputPin::Active(); // NOLINT(bugprone-parent-virtual-call): see above
    if (FAILED(hr)) return traced(L"CKestraStream->Active->FAILED(hr)", hr);
    audioPins.activateAll();
    if (TARNIS_GetDMAAccess(m_hGrabber, m_port) != TARNIS_SUCCESS)
        return traced(L"CKestraStream->Active->E_UNEXPECTED", E_UNEXPECTED);
    ++m_accessClaims;
    TARNIS_SetBufferCount(m_hGrabber, m_port, kBuffers);
    m_cameraData = {};
    m_cameraData.outputSelector = outputSelector();
    m_timeStampFrames = 0;
    m_capture->activity().set(Activity::State::Starting); // a frame that comes before the filter is paused waits
    if (TARNIS_StartGrab(m_hGrabber, m_port, 0, &m_cameraData, onFrame, reinterpret_cast<uint64_t>(this)) !=
        TARNIS_SUCCESS) {
        m_capture->activity().set(Activity::State::Stopped);
        return traced(L"CKestraStream->Active->E_UNEXPECTED", E_UNEXPECTED);
    }
    m_timeStampRate = 25;
    m_cameraData.status.frameRate = static_cast<uint8_t>(reportedRate(m_cameraData.status));
    if (const uint32_t rate = framesOfRate(m_cameraData.status.frameRate, m_cameraData.status.interlaced == 1))
        m_timeStampRate = static_cast<int>(rate);
    GetOwner()->AddRef(); // until Inactive
    ++m_ownerReferences;
    trace(L"CKestraStream->Active->NOERROR");
    videoStopped = false;
    return S_OK;
}

HRESULT CKestraStream::Inactive() {
    CAutoLock lock(m_pFilter->pStateLock());
    trace(L"CKestraStream->Inactive->start");
    if (!IsConnected()) return traced(L"CKestraStream->Inactive->!IsConnected()", S_OK);
    m_capture->activity().set(Activity::State::Stopped); // so that a callback returns that comes now
    // Frees a callback that waits for a buffer. The base's base, as in Active.
    const HRESULT hr = CBaseOutputPin::Inactive(); // NOLINT(bugprone-parent-virtual-call): see above
    if (FAILED(hr)) return traced(L"CKestraStream->Inactive->FAILED(hr)", hr);
    DeliverEndOfStream();
    TARNIS_StopGrab(m_hGrabber, m_port);
    for (; m_accessClaims > 0; --m_accessClaims)
        TARNIS_ReleaseDMAAccess(m_hGrabber, m_port);
    for (; m_ownerReferences > 0; --m_ownerReferences)
        GetOwner()->Release(); // of Active
    videoStopped = true;
    return traced(L"CKestraStream->Inactive->NOERROR", S_OK);
}

void CKestraStream::onFrame(uint64_t context, const TarnisFrameInfo* pFrameInfo) noexcept {
    auto* self = reinterpret_cast<CKestraStream*>(context);
    try {
        self->SDIGrabVideoCallback(pFrameInfo);
    } catch (...) { // a lock that the system refused: this frame is lost
    }
}

void CKestraStream::SDIGrabVideoCallback(const TarnisFrameInfo* pFrameInfo) {
    trace(L"CKestraStream->SDIGrabVideoCallback->start");
    if (!m_capture->activity().isActive()) return trace(L"CKestraStream->SDIGrabVideoCallback->!m_pFilter->IsActive()");
    // Whoever stops the filter waits only so long for a receiver that blocks: the filter stays for as long as it does.
    GetOwner()->AddRef();
    const ComRef<IUnknown> alive(GetOwner());
    switch (pFrameInfo->dmaStatus) {
    case DMA_STATUS_GOOD:
        break;
    case DMA_STATUS_DICONNECTED:
        endStreamOfLostDevice();
        return trace(L"CKestraStream->SDIGrabVideoCallback->DMA_STATUS_DICONNECTED");
    case DMA_STATUS_FRAME_DROPED:
        return trace(L"CKestraStream->SDIGrabVideoCallback->DMA_STATUS_FRAME_DROPED");
    case DMA_STATUS_FIFO_OVERRUN:
        return trace(L"CKestraStream->SDIGrabVideoCallback->DMA_STATUS_FIFO_OVERRUN");
    case DMA_STATUS_ABORTED:
        return trace(L"CKestraStream->SDIGrabVideoCallback->DMA_STATUS_ABORTED");
    default:
        return;
    }
    if (!pFrameInfo->lpRawBuffer) return trace(L"CKestraStream->SDIGrabVideoCallback->pFrameInfo->lpRawBuffer == NULL");
    if (IsConnected())
        deliverFrame(*pFrameInfo);
    else
        trace(L"CKestraStream->SDIGrabVideoCallback->S_OK");
}

void CKestraStream::endStreamOfLostDevice() {
    DeliverEndOfStream();
    const auto filter = reinterpret_cast<LONG_PTR>(static_cast<IBaseFilter*>(m_pFilter));
    // Twice on purpose: hosts must see the card go and come back.
    m_pFilter->NotifyEvent(EC_DEVICE_LOST, filter, 0);
    m_pFilter->NotifyEvent(EC_DEVICE_LOST, filter, 1);
}

void CKestraStream::deliverFrame(const TarnisFrameInfo& frame) {
    REFERENCE_TIME start = m_timeStampFrames * kSecond / m_timeStampRate;
    REFERENCE_TIME stop = start + kSecond / m_timeStampRate;
    ComRef<IMediaSample> sample;
    if (FAILED(GetDeliveryBuffer(sample.out(), nullptr, nullptr, 0)))
        return trace(L"CKestraStream->SDIGrabVideoCallback->GetDeliveryBuffer");
    const VideoFormat format = effectiveFormat();
    if (m_cameraData.status.interlaced == 1 && (format == kUyvy || format == kRgb32)) {
        ComRef<IMediaSample2> second;
        AM_SAMPLE2_PROPERTIES properties{};
        if (SUCCEEDED(sample->QueryInterface(IID_IMediaSample2, reinterpret_cast<void**>(second.out()))) &&
            SUCCEEDED(second->GetProperties(sizeof properties, reinterpret_cast<BYTE*>(&properties)))) {
            properties.dwTypeSpecificFlags = kFieldOneFirst;
            second->SetProperties(sizeof properties, reinterpret_cast<BYTE*>(&properties));
        }
    }
    if (!fillSample(*sample.get(), frame)) return;
    sample->SetTime(&start, &stop);
    sample->SetSyncPoint(TRUE);
    const HRESULT hr = Deliver(sample.get());
    if (hr != S_OK) {
        m_capture->storeDeliveryResult(hr); // kept, odd as it is: see CKestraCapture::GetPinCount
        trace(L"CKestraStream->SDIGrabVideoCallback->Deliver");
    } else {
        ++m_timeStampFrames;
        ++m_deliveredFrames;
    }
    trace(L"CKestraStream->SDIGrabVideoCallback->S_OK");
}

/// @return false: the sample cannot hold the frame, and is not delivered
bool CKestraStream::fillSample(IMediaSample& sample, const TarnisFrameInfo& frame) {
    const auto sampleBytes = static_cast<uint32_t>(sample.GetActualDataLength());
    const uint32_t rawLine = rawLineBytes(m_cameraData.outputSelector, m_cameraData.status.width);
    if (sampleLineBytes(sampleBytes, m_cameraData.status.height) < rawLine) {
        trace(L"CKestraStream->SDIGrabVideoCallback->SetActualDataLength");
        sample.SetActualDataLength(static_cast<long>(m_mt.GetSampleSize()));
        return false;
    }
    BYTE* pBuffer = nullptr;
    if (FAILED(sample.GetPointer(&pBuffer)) || !pBuffer) {
        trace(L"CKestraStream->SDIGrabVideoCallback->!pBuffer");
        return false;
    }
    writeSample(effectiveFormat(), m_cameraData, static_cast<const uint8_t*>(frame.lpRawBuffer), frame.bufferSize,
                pBuffer, sampleBytes);
    return true;
}
