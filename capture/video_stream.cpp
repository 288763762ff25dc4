// The video pin: its trace texts, its format, and what becomes of a frame.
#include "capture/video_stream.h"

#include "capture/audio_stream.h"
#include "capture/module_state.h"
#include "capture/trace.h"
#include "capture/video_filter.h"
#include "capture/video_formats.h"
#include "log/log.h"
#include "protocol/raw_frame.h"
#include "protocol/user_settings.h"

#include <dvdmedia.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

using namespace kestra;

namespace {

constexpr LogUnit kUnit{"\"Video Stream\"", L".\\video_stream.cpp"};
constexpr DWORD kFieldOneFirst = 4; // AM_VIDEO_FLAG_FIELD1FIRST

/// The system's video stream format page.
constexpr CLSID kStreamFormatPage = {0x71F96467, 0x78F3, 0x11D0, {0xA1, 0x8C, 0x00, 0xA0, 0xC9, 0x11, 0x89, 0x56}};

constexpr PinKind kKind = {
    .texts = {.connect = {.start = L"CKestraStream->Connect->start",
                          .alreadyConnected = L"CKestraStream->Connect->VFW_E_ALREADY_CONNECTED",
                          .notStopped = L"CKestraStream->Connect->VFW_E_NOT_STOPPED",
                          .failed = L"CKestraStream->Connect->FAILED(hr)",
                          .done = L"CKestraStream->Connect->NOERROR"},
              .getMediaType = {.start = L"CKestraStream->GetMediaType->start",
                               .noMoreItems = L"CKestraStream->GetMediaType->VFW_S_NO_MORE_ITEMS",
                               .noMemory = L"CKestraStream->GetMediaType->E_OUTOFMEMORY",
                               .done = L"CKestraStream->GetMediaType->S_OK"},
              .checkMediaType = {.start = L"CKestraStream->CheckMediaType->start",
                                 .failed = L"CKestraStream->CheckMediaType->E_FAIL",
                                 .done = L"CKestraStream->CheckMediaType->S_OK"},
              .setFormat = {.start = L"CKestraStream->setFormat->start", // lower case: see docs/compatibility.md
                            .notStopped = L"CKestraStream->setFormat->VFW_E_NOT_STOPPED",
                            .invalid = L"CKestraStream->setFormat->VFW_E_INVALIDMEDIATYPE",
                            .noMemory = L"CKestraStream->setFormat->E_OUTOFMEMORY",
                            .notReconnected = L"CKestraStream->setFormat->VFW_E_INVALIDMEDIATYPE",
                            .done = L"CKestraStream->setFormat->S_OK"},
              .getStreamCaps = {.start = L"CKestraStream->GetStreamCaps->start",
                                .none = nullptr,
                                .failed = L"CKestraStream->GetStreamCaps->FAILED(hr)",
                                .done = L"CKestraStream->GetStreamCaps->S_OK"},
              .getFormat = {.start = L"CKestraStream->GetFormat->start", .done = L"CKestraStream->GetFormat->S_OK"},
              .getNumberOfCapabilities = {.start = L"CKestraStream->GetNumberOfCapabilities->start",
                                          .done = L"CKestraStream->GetNumberOfCapabilities->S_OK"},
              .getPages = {.start = L"CKestraStream->GetPages->start", .done = L"CKestraStream->GetPages->S_OK"},
              .decideBufferSize = {.start = L"CKestraStream->DecideBufferSize->start",
                                   .failed = L"CKestraStream->DecideBufferSize->FAILED(hr)",
                                   .done = L"CKestraStream->DecideBufferSize->S_OK"},
              .active = {.start = L"CKestraStream->Active->start",
                         .isActive = L"CKestraStream->Active->m_pFilter->IsActive()",
                         .notConnected = L"CKestraStream->Active->!IsConnected()",
                         .failed = L"CKestraStream->Active->FAILED(hr)",
                         .noAccess = L"CKestraStream->Active->E_UNEXPECTED",
                         .notStarted = L"CKestraStream->Active->E_UNEXPECTED",
                         .done = L"CKestraStream->Active->NOERROR"},
              .inactive = {.start = L"CKestraStream->Inactive->start",
                           .notConnected = L"CKestraStream->Inactive->!IsConnected()",
                           .failed = L"CKestraStream->Inactive->FAILED(hr)",
                           .done = L"CKestraStream->Inactive->NOERROR"}},
    .matches = matchesVideoType,
    .indexOf = videoIndexOf,
    .setting = kVideoFormatValue,
    .formats = std::size(kVideoFormats),
    .capabilityBytes = sizeof(VIDEO_STREAM_CONFIG_CAPS),
    .page = kStreamFormatPage,
    .port = 0};
static_assert(kKind.formats == 4 && kKind.capabilityBytes == 128);

constexpr FrameTexts kFrameTexts = {.start = L"CKestraStream->SDIGrabVideoCallback->start",
                                    .notActive = L"CKestraStream->SDIGrabVideoCallback->!m_pFilter->IsActive()",
                                    .disconnected = L"CKestraStream->SDIGrabVideoCallback->DMA_STATUS_DICONNECTED",
                                    .dropped = L"CKestraStream->SDIGrabVideoCallback->DMA_STATUS_FRAME_DROPED",
                                    .overrun = L"CKestraStream->SDIGrabVideoCallback->DMA_STATUS_FIFO_OVERRUN",
                                    .aborted = L"CKestraStream->SDIGrabVideoCallback->DMA_STATUS_ABORTED",
                                    .noFrame = L"CKestraStream->SDIGrabVideoCallback->pFrameInfo->lpRawBuffer == NULL",
                                    .noBuffer = L"CKestraStream->SDIGrabVideoCallback->GetDeliveryBuffer",
                                    .notDelivered = L"CKestraStream->SDIGrabVideoCallback->Deliver",
                                    .done = L"CKestraStream->SDIGrabVideoCallback->S_OK",
                                    .notDeliveredIsDone = true};

class VideoRun final : public CaptureRun {
public:
    VideoRun(Receiver receiver, State state, const VideoFormat& format, long promisedBytes)
        : CaptureRun(kFrameTexts, std::move(receiver), state), m_format(format), m_promisedBytes(promisedBytes) {
        camera.outputSelector = format.outputSelector;
    }

protected:
    bool fill(IMediaSample& sample, const TarnisFrameInfo& frame) override {
        if (camera.status.interlaced == 1 && m_format.formatType == FORMAT_VideoInfo2) nameFirstField(sample);
        // Never more than the allocator's memory, whatever it says.
        const long length = std::max(0L, std::min(sample.GetActualDataLength(), sample.GetSize()));
        const auto bytes = static_cast<uint32_t>(length);
        if (sampleLineBytes(bytes, camera.status.height) < rawLineBytes(camera.outputSelector, camera.status.width)) {
            trace(L"CKestraStream->SDIGrabVideoCallback->SetActualDataLength");
            tellMisfit(frame.bufferSize, bytes, L"delivered");
            sample.SetActualDataLength(std::min(m_promisedBytes, sample.GetSize()));
            return false;
        }
        BYTE* pBuffer = nullptr;
        if (FAILED(sample.GetPointer(&pBuffer)) || !pBuffer) {
            trace(L"CKestraStream->SDIGrabVideoCallback->!pBuffer");
            return false;
        }
        sample.SetActualDataLength(length);
        if (!m_format.write(camera, static_cast<const uint8_t*>(frame.lpRawBuffer), frame.bufferSize, pBuffer, bytes))
            tellMisfit(frame.bufferSize, bytes, L"shown");
        return true;
    }
    void inputLost(CaptureFilter& filter) override {
        const auto parameter = reinterpret_cast<LONG_PTR>(static_cast<IBaseFilter*>(&filter));
        // Twice: see docs/compatibility.md.
        filter.NotifyEvent(EC_DEVICE_LOST, parameter, 0);
        filter.NotifyEvent(EC_DEVICE_LOST, parameter, 1);
    }

private:
    static void nameFirstField(IMediaSample& sample) {
        ComRef<IMediaSample2> second;
        AM_SAMPLE2_PROPERTIES properties{};
        auto* bytes = reinterpret_cast<BYTE*>(&properties);
        if (FAILED(sample.QueryInterface(IID_IMediaSample2, reinterpret_cast<void**>(second.out()))) ||
            FAILED(second->GetProperties(sizeof properties, bytes)))
            return;
        properties.dwTypeSpecificFlags = kFieldOneFirst;
        second->SetProperties(sizeof properties, bytes);
    }
    /// Once per run, so that whoever sees no picture finds the reason in the log.
    void tellMisfit(uint32_t frameBytes, uint32_t sampleBytes, const wchar_t* notDone) {
        if (m_misfitTold.exchange(true)) return;
        KESTRA_LOG(kUnit, "SDIGrabVideoCallback", LOG_WARNING, sampleBytes,
                   L"Frames of %ux%u, %u bytes, do not fit the connection's samples of %u bytes: they are not %ls",
                   unsigned{camera.status.width}, unsigned{camera.status.height}, frameBytes, sampleBytes, notDone);
    }

    const VideoFormat& m_format;
    const long m_promisedBytes;
    std::atomic<bool> m_misfitTold = false;
};

} // namespace

CKestraStream::CKestraStream(HRESULT* phr, CKestraCapture* pFilter)
    : CapturePin(NAME("Video Capture"), phr, pFilter, L"Video Capture", kKind), m_colors(*this, *pFilter) {
    trace(L"CKestraStream->Constructor");
    if (!videoPins.add(this) && phr) *phr = E_OUTOFMEMORY;
}

CKestraStream::~CKestraStream() {
    videoPins.remove(this);
    trace(L"CKestraStream->Destructor");
}

HRESULT STDMETHODCALLTYPE CKestraStream::NonDelegatingQueryInterface(REFIID riid, void** ppv) {
    if (IUnknown* found = m_colors.find(riid)) return GetInterface(found, ppv);
    return CapturePin::NonDelegatingQueryInterface(riid, ppv);
}

HRESULT CKestraStream::makeType(uint32_t index, CMediaType& type) {
    TarnisCameraStatus status{};
    TARNIS_GetCameraStatus(m_hGrabber, m_kind.port, &status);
    return makeVideoType(kVideoFormats[index], timingOf(status), type);
}

void CKestraStream::describe(const CMediaType& type, BYTE* capabilities) const {
    VIDEO_STREAM_CONFIG_CAPS caps{};
    const BITMAPINFOHEADER* header = bitmapHeaderOf(type);
    caps.guid = type.formattype;
    caps.InputSize = caps.MinCroppingSize = caps.MaxCroppingSize = caps.MinOutputSize =
        caps.MaxOutputSize = {header->biWidth, header->biHeight};
    // Both headers open alike.
    caps.MinFrameInterval = caps.MaxFrameInterval = reinterpret_cast<VIDEOINFOHEADER*>(type.pbFormat)->AvgTimePerFrame;
    std::memcpy(capabilities, &caps, sizeof caps);
}

void CKestraStream::requestBuffers(ALLOCATOR_PROPERTIES& properties) {
    if (properties.cBuffers == 0) properties.cBuffers = 2;
    properties.cbBuffer = static_cast<long>(m_mt.GetSampleSize());
}

bool CKestraStream::isRgbOut() const {
    const VideoFormat& format = m_Connected ? promisedFormat(m_mt) : kVideoFormats[m_format];
    return format.outputSelector == TARNIS_OUTPUT_RGB24;
}

const TarnisCameraData* CKestraStream::cameraData() const {
    return m_run && !m_run->hasEnded() ? &m_run->camera : nullptr;
}

void CKestraStream::prepareFor(const IFilterGraph* graph) noexcept {
    if (m_pFilter->GetFilterGraph() != graph || !IsConnected() || holdsAccess()) return;
    if (TARNIS_GetDMAAccess(m_hGrabber, m_kind.port) != TARNIS_SUCCESS) return;
    TarnisCameraData camera{};
    camera.outputSelector = m_promisedSelector;
    noexp_TARNIS_Prepare(m_hGrabber, m_kind.port, &camera); // the start then finds the channel prepared
    TARNIS_ReleaseDMAAccess(m_hGrabber, m_kind.port);
}

HRESULT CKestraStream::SetMediaType(const CMediaType* pmt) {
    m_promisedSelector = promisedFormat(*pmt).outputSelector;
    return CapturePin::SetMediaType(pmt);
}

HRESULT CKestraStream::begin() {
    audioPins.forEach([](CKestraAudioStream& pin) { pin.Active(); }); // their results do not matter here
    const HRESULT hr = startRun();
    return FAILED(hr) ? hr : traced(m_kind.texts.active.done, S_OK);
}

std::shared_ptr<CaptureRun> CKestraStream::makeRun(CaptureRun::Receiver receiver, CaptureRun::State state) const {
    return std::make_shared<VideoRun>(std::move(receiver), state, promisedFormat(m_mt),
                                      static_cast<long>(m_mt.GetSampleSize()));
}
