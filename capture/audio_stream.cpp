// The audio pin: its trace texts, its format, and what becomes of a block of sound.
#include "capture/audio_stream.h"

#include "capture/audio_filter.h"
#include "capture/audio_formats.h"
#include "capture/module_state.h"
#include "capture/trace.h"
#include "capture/video_stream.h"
#include "protocol/user_settings.h"

#include <algorithm>
#include <cstring>
#include <iterator>

using namespace kestra;

namespace {

constexpr PinKind kKind = {
    .texts = {.connect = {.start = L"CKestraAudioStream->Connect->start",
                          .alreadyConnected = L"CKestraAudioStream->Connect->VFW_E_ALREADY_CONNECTED",
                          .notStopped = L"CKestraAudioStream->Connect->VFW_E_NOT_STOPPED",
                          .failed = L"CKestraAudioStream->Connect->FAILED(hr)",
                          .done = L"CKestraAudioStream->Connect->S_OK"},
              // This method's texts name CheckMediaType: see docs/compatibility.md.
              .getMediaType = {.start = L"CKestraAudioStream->CheckMediaType->start",
                               .noMoreItems = L"CKestraAudioStream->CheckMediaType->VFW_S_NO_MORE_ITEMS",
                               .noMemory = L"CKestraAudioStream->CheckMediaType->E_OUTOFMEMORY",
                               .done = L"CKestraAudioStream->CheckMediaType->S_OK"},
              .checkMediaType = {.start = L"CKestraAudioStream->CheckMediaType->start",
                                 .failed = L"CKestraAudioStream->CheckMediaType->E_FAIL",
                                 .done = L"CKestraAudioStream->CheckMediaType->S_OK"},
              .setFormat = {.start = L"CKestraAudioStream->SetFormat->start",
                            .notStopped = L"CKestraAudioStream->SetFormat->VFW_E_NOT_STOPPED",
                            .invalid = L"CKestraAudioStream->SetFormat->VFW_E_INVALIDMEDIATYPE",
                            .noMemory = L"CKestraAudioStream->SetFormat->E_OUTOFMEMORY",
                            .notReconnected = L"CKestraAudioStream->SetFormat->ReconnectPin->VFW_E_INVALIDMEDIATYPE",
                            .done = L"CKestraAudioStream->SetFormat->S_OK"},
              .getStreamCaps = {.start = L"CKestraAudioStream->GetStreamCaps->start",
                                .none = L"CKestraAudioStream->GetStreamCaps->S_FALSE",
                                .failed = L"CKestraAudioStream->GetStreamCaps->FAILED(hr)",
                                .done = L"CKestraAudioStream->GetStreamCaps->S_OK"},
              .getFormat = {.start = L"CKestraAudioStream->GetFormat->start",
                            .done = L"CKestraAudioStream->GetFormat->S_OK"},
              .getNumberOfCapabilities = {.start = L"CKestraAudioStream->GetNumberOfCapabilities->start",
                                          .done = L"CKestraAudioStream->GetNumberOfCapabilities->S_OK"},
              .getPages = {.start = L"CKestraAudioStream->GetPages->start",
                           .done = L"CKestraAudioStream->GetPages->S_OK"},
              .decideBufferSize = {.start = L"CKestraAudioStream->DecideBufferSize->start",
                                   .failed = L"CKestraAudioStream->DecideBufferSize->FAILED(hr)",
                                   .done = L"CKestraAudioStream->DecideBufferSize->NOERROR"},
              .active = {.start = L"CKestraAudioStream->Active->start",
                         .isActive = L"CKestraAudioStream->Active->m_pFilter->IsActive()",
                         .notConnected = L"CKestraAudioStream->Active->!IsConnected()",
                         .failed = L"CKestraAudioStream->Active->FAILED(hr)",
                         .noAccess = L"CKestraAudioStream->Active->TARNIS_GetDMAAccess",
                         .notStarted = L"CKestraAudioStream->Active->TARNIS_StartGrab",
                         .done = L"CKestraAudioStream->Active->S_OK"},
              .inactive = {.start = L"CKestraAudioStream->Inactive->start",
                           .notConnected = L"CKestraAudioStream->Inactive->!IsConnected()",
                           .failed = L"CKestraAudioStream->Inactive->FAILED(hr)",
                           .done = L"CKestraAudioStream->Inactive->NOERROR"}},
    .matches = matchesAudioType,
    .indexOf = audioIndexOf,
    .setting = kAudioFormatValue,
    .formats = std::size(kAudioFormats),
    .capabilityBytes = sizeof(AUDIO_STREAM_CONFIG_CAPS),
    .page = CLSID_KestraAudioPropertyPage,
    .port = 1};
static_assert(kKind.formats == 2 && kKind.capabilityBytes == 52);

// Some texts carry the video pin's class name: see docs/compatibility.md.
constexpr FrameTexts kFrameTexts = {.start = L"CKestraAudioStream->SDIGrabAudioCallback->start",
                                    .notActive = L"CKestraAudioStream->SDIGrabAudioCallback->!m_pFilter->IsActive()",
                                    .disconnected = L"CKestraAudioStream->SDIGrabAudioCallback->DMA_STATUS_DICONNECTED",
                                    .dropped = L"CKestraStream->SDIGrabAudioCallback->DMA_STATUS_FRAME_DROPED",
                                    .overrun = L"CKestraStream->SDIGrabAudioCallback->DMA_STATUS_FIFO_OVERRUN",
                                    .aborted = L"CKestraStream->SDIGrabAudioCallback->DMA_STATUS_ABORTED",
                                    .noFrame = L"CKestraStream->SDIGrabAudioCallback->pFrameInfo->lpRawBuffer == NULL",
                                    .noBuffer = L"CKestraAudioStream->SDIGrabAudioCallback->GetDeliveryBuffer",
                                    .notDelivered = L"CKestraAudioStream->SDIGrabAudioCallback->Deliver",
                                    .done = L"CKestraAudioStream->SDIGrabAudioCallback->S_OK",
                                    .notDeliveredIsDone = false};

class AudioRun final : public CaptureRun {
public:
    AudioRun(Receiver receiver, State state, const AudioFormat& format, uint32_t bytesPerSecond)
        : CaptureRun(kFrameTexts, std::move(receiver), state), m_bytesPerSecond(bytesPerSecond) {
        camera.extra = format.sampleFormat;
    }

protected:
    // The video pin reports a lost device.
    bool fill(IMediaSample& sample, const TarnisFrameInfo& block) override {
        BYTE* pBuffer = nullptr;
        if (FAILED(sample.GetPointer(&pBuffer)) || !pBuffer) {
            trace(L"CKestraAudioStream->SDIGrabAudioCallback->GetPointer");
            return false;
        }
        // The connection's type says how much; a receiver may have agreed on more than its buffer holds or the card
        // delivers.
        const uint32_t wanted = m_bytesPerSecond / static_cast<uint32_t>(rate.load());
        const uint32_t bytes = std::min(wanted, static_cast<uint32_t>(std::max(sample.GetSize(), 0L)));
        const uint32_t made = std::min(bytes, block.bufferSize);
        sample.SetActualDataLength(static_cast<long>(bytes));
        std::memcpy(pBuffer, block.lpRawBuffer, made);
        std::memset(pBuffer + made, 0, bytes - made);
        return true;
    }

private:
    const uint32_t m_bytesPerSecond;
};

} // namespace

std::atomic<bool> CKestraAudioStream::m_bactive{false};

CKestraAudioStream::CKestraAudioStream(HRESULT* phr, CKestraAudioCapture* pFilter)
    : CapturePin(NAME("Audio Capture"), phr, pFilter, L"Audio Capture", kKind) {
    trace(L"CKestraAudioStream->Constructor->start");
    trace(L"CKestraAudioStream->Constructor->end");
    if (!audioPins.add(this) && phr) *phr = E_OUTOFMEMORY;
}

CKestraAudioStream::~CKestraAudioStream() {
    audioPins.remove(this);
    trace(L"CKestraAudioStream->Destructor");
}

HRESULT STDMETHODCALLTYPE CKestraAudioStream::NonDelegatingQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IKestraAudioPropertyPage) return GetInterface(static_cast<IKestraAudioPropertyPage*>(this), ppv);
    if (riid == IID_IAMBufferNegotiation) return GetInterface(static_cast<IAMBufferNegotiation*>(this), ppv);
    return CapturePin::NonDelegatingQueryInterface(riid, ppv);
}

HRESULT CKestraAudioStream::makeType(uint32_t index, CMediaType& type) {
    return makeAudioType(kAudioFormats[index], type);
}

void CKestraAudioStream::describe(const CMediaType&, BYTE* capabilities) const {
    AUDIO_STREAM_CONFIG_CAPS caps{};
    caps.guid = MEDIATYPE_Audio; // the major type: see docs/compatibility.md
    caps.MinimumChannels = caps.MaximumChannels = 2;
    caps.MinimumBitsPerSample = 16;
    caps.MaximumBitsPerSample = 24;
    caps.MinimumSampleFrequency = caps.MaximumSampleFrequency = 48000;
    std::memcpy(capabilities, &caps, sizeof caps);
}

HRESULT CKestraAudioStream::checkCard() {
    TarnisCameraStatus status{};
    if (TARNIS_GetCameraStatus(m_hGrabber, m_kind.port, &status) == TARNIS_SUCCESS) return S_OK;
    return traced(L"CKestraAudioStream->CheckMediaType->VFW_E_NO_CAPTURE_HARDWARE", VFW_E_NO_CAPTURE_HARDWARE);
}

STDMETHODIMP CKestraAudioStream::get_BitDepth(unsigned char* index) {
    CAutoLock lock(m_pFilter->pStateLock());
    if (!index) return E_POINTER;
    *index = static_cast<unsigned char>(m_format);
    return S_OK;
}

// Holds no lock while calling the graph, which locks itself first and then the filter.
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
    hr = offer(index, &type, nullptr);
    if (SUCCEEDED(hr)) hr = SetFormat(&type); // an out-of-range index has an empty type, which SetFormat refuses
    if (FAILED(hr)) return traced(L"CKestraAudioStream->put_BitDepth->SetFormat", hr);
    if (wasActive) control->Run(); // even if it had been paused
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

uint32_t CKestraAudioStream::promisedBytesPerSecond() const {
    const PCMWAVEFORMAT* format = waveFormatOf(m_mt);
    return format ? format->wf.nAvgBytesPerSec : 0;
}

void CKestraAudioStream::requestBuffers(ALLOCATOR_PROPERTIES& properties) {
    TarnisCameraStatus status{};
    TARNIS_GetCameraStatus(m_hGrabber, m_kind.port, &status);
    properties.cBuffers = 1;
    properties.cbBuffer = audioBufferBytes(status, promisedBytesPerSecond());
}

/// The input may have changed since the buffers were agreed on: a slower one has larger blocks. If the allocator
/// refuses, its buffers stay and the blocks are cut.
void CKestraAudioStream::fitBuffers(const TarnisCameraStatus& status) {
    ALLOCATOR_PROPERTIES properties{}, actual{};
    const long wanted = audioBufferBytes(status, promisedBytesPerSecond());
    if (FAILED(m_pAllocator->GetProperties(&properties)) || properties.cbBuffer >= wanted) return;
    properties.cbBuffer = wanted;
    m_pAllocator->Decommit();
    m_pAllocator->SetProperties(&properties, &actual);
    m_pAllocator->Commit();
}

HRESULT CKestraAudioStream::begin() {
    TarnisCameraStatus status{};
    const bool joins = m_bactive;
    if (joins) {
        trace(L"CKestraAudioStream->Active->m_bactive");
        TARNIS_GetCameraStatus(m_hGrabber, m_kind.port, &status);
        GetOwner()->AddRef(); // until takeBack
        ++m_joins;
    } else {
        // Locking the picture's buffers takes longer than a frame: sound started before would run ahead.
        if (IFilterGraph* graph = m_pFilter->GetFilterGraph())
            videoPins.forEach([graph](CKestraStream& pin) { pin.prepareFor(graph); });
        const HRESULT hr = startRun();
        if (FAILED(hr)) return hr;
        m_bactive = true;
        status = m_run->camera.status;
    }
    if (joins && m_run) m_run->rate = framesPerSecond(status);
    fitBuffers(status);
    return joins ? S_OK : traced(m_kind.texts.active.done, S_OK);
}

std::shared_ptr<CaptureRun> CKestraAudioStream::makeRun(CaptureRun::Receiver receiver, CaptureRun::State state) const {
    return std::make_shared<AudioRun>(std::move(receiver), state, kAudioFormats[audioIndexOf(m_mt)],
                                      promisedBytesPerSecond());
}

void CKestraAudioStream::takeBack() {
    CapturePin::takeBack();
    m_bactive = false;
    for (; m_joins > 0; --m_joins)
        GetOwner()->Release(); // taken by begin
}
