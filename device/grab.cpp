// The channel functions of the API. Any thread.
#include "device/grab_thread.h"
#include "device/grabber.h"
#include "log/log.h"
#include "protocol/converter.h"
#include "protocol/frame_rate.h"
#include "protocol/registers.h"

using namespace kestra;

namespace {

constexpr LogUnit kUnit{"\"Grabbing Functions\"", L".\\TARNIS_grab.cpp"};
constexpr int32_t kAlreadyOpened = 0x444D412B; // DMA+
constexpr DWORD kStopMs = 1000;
constexpr DWORD kSnapMs = 1000; // no frame takes so long: the signal has gone meanwhile

/// Logs and returns the code for a pointer that must not be null.
uint32_t nullPointer(const char* function, int line, const wchar_t* text) noexcept {
    KESTRA_LOG_AT(line, kUnit, function, LOG_ERROR, TARNIS_INVALID_ARGUMENT, L"%ls", text);
    return TARNIS_INVALID_ARGUMENT;
}

uint32_t sendAccess(TARNIS_HANDLE hGrabber, int8_t port, uint32_t flags) noexcept {
    wire::ChannelAccessRequest request{{}, flags};
    wire::Reply reply{};
    return hGrabber->ask(wire::kChannelAccess, port, request, reply).status;
}

} // namespace

uint32_t kestra::checkHandleAndPort(const LogUnit& unit, const char* function, int line, TARNIS_HANDLE hGrabber,
                                    int8_t port) noexcept {
    if (!hGrabber) {
        KESTRA_LOG_AT(line, unit, function, LOG_ERROR, TARNIS_INVALID_ARGUMENT, L"hGrabber is NULL");
        return TARNIS_INVALID_ARGUMENT;
    }
    if (port < 0 || port > 1) {
        KESTRA_LOG_AT(line, unit, function, LOG_ERROR, TARNIS_INVALID_ARGUMENT, L"Invalid port %d",
                      static_cast<int>(port));
        return TARNIS_INVALID_ARGUMENT;
    }
    return TARNIS_SUCCESS;
}

uint32_t TARNIS_GetDMAAccess(TARNIS_HANDLE hGrabber, int8_t port) {
    if (const uint32_t code = checkHandleAndPort(kUnit, __func__, __LINE__, hGrabber, port)) return code;
    const CallGuard call(*hGrabber);
    const std::lock_guard access(hGrabber->m_accessMutex);
    Channel& channel = hGrabber->channel(port);
    ++channel.openCount;
    if (hGrabber->hasAccess(port)) {
        KESTRA_LOG(kUnit, __func__, LOG_TRACE, kAlreadyOpened, L"Channel %d already opened", static_cast<int>(port));
        return TARNIS_SUCCESS;
    }
    const uint32_t flags = hGrabber->m_channelFlags |= wire::accessBit(port);
    const uint32_t code = sendAccess(hGrabber, port, flags);
    if (code != TARNIS_SUCCESS) {
        hGrabber->m_channelFlags &= ~wire::accessBit(port);
        --channel.openCount;
    }
    return code;
}

uint32_t TARNIS_ReleaseDMAAccess(TARNIS_HANDLE hGrabber, int8_t port) {
    if (const uint32_t code = checkHandleAndPort(kUnit, __func__, __LINE__, hGrabber, port)) return code;
    const CallGuard call(*hGrabber);
    const std::lock_guard access(hGrabber->m_accessMutex);
    Channel& channel = hGrabber->channel(port);
    if (!hGrabber->hasAccess(port)) {
        KESTRA_LOG(kUnit, __func__, LOG_ERROR, TARNIS_SUCCESS, L"Channel %d has not been open", static_cast<int>(port));
        return TARNIS_SUCCESS;
    }
    if (--channel.openCount != 0) return TARNIS_SUCCESS;
    const uint32_t flags = hGrabber->m_channelFlags &= ~wire::accessBit(port);
    return sendAccess(hGrabber, port, flags);
}

uint32_t TARNIS_SetBufferCount(TARNIS_HANDLE hGrabber, int8_t port, uint32_t /*count: every channel has ten*/) {
    if (const uint32_t code = checkHandleAndPort(kUnit, __func__, __LINE__, hGrabber, port)) return code;
    if (!hGrabber->hasAccess(port)) return TARNIS_NO_DMA_ACCESS;
    hGrabber->channel(port).bufferCount = 10;
    return TARNIS_SUCCESS;
}

uint32_t TARNIS_IsCameraConnected(TARNIS_HANDLE hGrabber, int8_t port, uint8_t* pConnected) {
    if (const uint32_t code = checkHandleAndPort(kUnit, __func__, __LINE__, hGrabber, port)) return code;
    if (!pConnected) return nullPointer(__func__, __LINE__, L"pConnected is NULL");
    wire::Header request{};
    wire::ConnectionReply reply{};
    const RequestResult result = hGrabber->ask(wire::kConnection, wire::inputPort(port), request, reply);
    if (result.status == TARNIS_SUCCESS) *pConnected = reply.connected;
    return result.status;
}

uint32_t TARNIS_GetCameraStatus(TARNIS_HANDLE hGrabber, int8_t port, TarnisCameraStatus* pCameraStatus) {
    if (const uint32_t code = checkHandleAndPort(kUnit, __func__, __LINE__, hGrabber, port)) return code;
    const CallGuard call(*hGrabber);
    if (!pCameraStatus) return nullPointer(__func__, __LINE__, L"pCameraStatus is NULL");
    const int8_t input = wire::inputPort(port);

    wire::Header request{};
    wire::VideoStatusReply video{};
    const RequestResult result = hGrabber->ask(wire::kVideoStatus, input, request, video);
    if (result.status != TARNIS_SUCCESS) return result.status;
    TarnisCameraStatus status = *pCameraStatus;
    status.videoMode = video.videoMode;
    status.formatByte = video.formatByte;
    status.signalFlags = video.signal != 0 ? TARNIS_SIGNAL_PRESENT : 0;

    uint16_t format = 0;
    noexp_TARNIS_ReadI2C(hGrabber, input, kRegisterInput, &format);
    status.interlaced = (format & kInputInterlaced) != 0 ? 1 : 0;

    TarnisGrabStat statistics{};
    TARNIS_GetGrabStat(hGrabber, input, &statistics);
    status.frameRate = rateOfMeasured(statistics.frameRate, format);

    wire::FormatSizeReply size{};
    if (hGrabber->ask(wire::kFormatSize, input, request, size).status == TARNIS_SUCCESS) {
        status.width = size.width;
        status.height = size.height;
    }
    if (status.signalFlags & TARNIS_SIGNAL_PRESENT) {
        uint16_t audio = 0;
        noexp_TARNIS_ReadI2C(hGrabber, input, kRegisterInput, &format);
        const bool other = (format & kInputAudioAlternate) != 0;
        noexp_TARNIS_ReadI2C(hGrabber, input, other ? kRegisterAudioAlternate : kRegisterAudio, &audio);
        if (audio & (other ? kAudioAlternateMask : kAudioMask)) status.signalFlags |= TARNIS_SIGNAL_AUDIO;
    }
    *pCameraStatus = status;
    return TARNIS_SUCCESS;
}

uint32_t TARNIS_GetGrabStat(TARNIS_HANDLE hGrabber, int8_t port, TarnisGrabStat* pGrabStat) {
    if (const uint32_t code = checkHandleAndPort(kUnit, __func__, __LINE__, hGrabber, port)) return code;
    if (!pGrabStat) return nullPointer(__func__, __LINE__, L"pGrabStat is NULL");
    wire::Header request{};
    wire::GrabStatisticsReply reply{};
    const RequestResult result = hGrabber->ask(wire::kGrabStatistics, port, request, reply);
    if (result.status == TARNIS_SUCCESS)
        *pGrabStat = {reply.frameRate, {reply.counter64, reply.counter48, reply.counter28, reply.counter32}};
    return result.status;
}

uint32_t TARNIS_GetDefaultColorSpaceConverterParams(TarnisConverterParams* pCSC) {
    if (!pCSC) return nullPointer(__func__, __LINE__, L"pCSC is NULL");
    *pCSC = wire::kDefaultConverter;
    return TARNIS_SUCCESS;
}

uint32_t TARNIS_GetColorSpaceConverterParams(TARNIS_HANDLE hGrabber, TarnisConverterParams* pCSC) {
    if (const uint32_t code = checkHandleAndPort(kUnit, __func__, __LINE__, hGrabber, 0)) return code;
    if (!pCSC) return nullPointer(__func__, __LINE__, L"pCSC is NULL");
    wire::Header request{};
    wire::GetConverterReply reply{};
    const RequestResult result = hGrabber->ask(wire::kGetConverter, 0, request, reply);
    if (result.status == TARNIS_SUCCESS) *pCSC = wire::fromWire(reply.converter);
    return result.status;
}

uint32_t TARNIS_SetColorSpaceConverterParams(TARNIS_HANDLE hGrabber, const TarnisConverterParams* pCSC) {
    if (const uint32_t code = checkHandleAndPort(kUnit, __func__, __LINE__, hGrabber, 0)) return code;
    if (!pCSC) return nullPointer(__func__, __LINE__, L"pCSC is NULL");
    wire::SetConverterRequest request{{}, wire::toWire(*pCSC)};
    wire::Reply reply{};
    return hGrabber->ask(wire::kSetConverter, 0, request, reply).status;
}

uint32_t TARNIS_StartGrab(TARNIS_HANDLE hGrabber, int8_t port, uint32_t startParam, TarnisCameraData* pCameraData,
                          TarnisFrameCallback callback, uint64_t context) {
    if (const uint32_t code = checkHandleAndPort(kUnit, __func__, __LINE__, hGrabber, port)) return code;
    const CallGuard call(*hGrabber);
    if (!hGrabber->hasAccess(port)) {
        KESTRA_LOG(kUnit, __func__, LOG_ERROR, TARNIS_NO_DMA_ACCESS, L"No DMA Access!");
        return TARNIS_NO_DMA_ACCESS;
    }
    Channel& channel = hGrabber->channel(port);
    bool grabbing = false;
    {
        const std::lock_guard lock(hGrabber->m_state);
        grabbing = channel.run != nullptr;
    }
    if (grabbing) TARNIS_StopGrab(hGrabber, port); // a second start takes the first one's place

    const std::shared_ptr<GrabRun> run = startGrabThread(*hGrabber, port, startParam, pCameraData, callback, context);
    if (!run) {
        KESTRA_LOG(kUnit, __func__, LOG_ERROR, TARNIS_FAILURE, L"Grabbing thread not started!");
        return TARNIS_FAILURE;
    }
    const HANDLE first[] = {run->thread.get(), run->stop.get(), run->started.get()};
    if (WaitForMultipleObjects(3, first, FALSE, INFINITE) == WAIT_OBJECT_0 + 2) {
        const std::lock_guard lock(hGrabber->m_state);
        if (channel.prepared && pCameraData) *pCameraData = *channel.prepared;
        run->reported = true;
        return TARNIS_SUCCESS;
    }
    // Until it has started or left, the thread may look at the caller's record.
    if (WaitForSingleObject(run->started.get(), 0) != WAIT_OBJECT_0) WaitForSingleObject(run->thread.get(), INFINITE);
    {
        const std::lock_guard lock(hGrabber->m_state);
        if (channel.run == run) channel.run.reset();
    }
    KESTRA_LOG(kUnit, __func__, LOG_ERROR, TARNIS_FAILURE, L"Grab not started!");
    return TARNIS_FAILURE;
}

uint32_t TARNIS_StopGrab(TARNIS_HANDLE hGrabber, int8_t port) {
    if (const uint32_t code = checkHandleAndPort(kUnit, __func__, __LINE__, hGrabber, port)) return code;
    const CallGuard call(*hGrabber);
    if (!hGrabber->hasAccess(port)) return TARNIS_NO_DMA_ACCESS;
    wire::Header request{};
    wire::Reply reply{};
    const RequestResult result = hGrabber->ask(wire::kStopGrabbing, port, request, reply);
    std::shared_ptr<GrabRun> run;
    {
        const std::lock_guard lock(hGrabber->m_state);
        Channel& channel = hGrabber->channel(port);
        run = std::move(channel.run);
        channel.run.reset();
        channel.interrupted.reset(); // whoever stops while the card is gone does not want it resumed
    }
    if (run) {
        SetEvent(run->stop.get());
        if (run->threadId != GetCurrentThreadId()) WaitForSingleObject(run->thread.get(), kStopMs);
    }
    return result.status;
}

uint32_t TARNIS_SnapFrames(TARNIS_HANDLE hGrabber, int8_t /*port: always 0*/, TarnisCameraData* pCameraData,
                           void* lpBuffer, uint32_t bufferLength, uint32_t* pBufferSize) {
    if (const uint32_t code = checkHandleAndPort(kUnit, __func__, __LINE__, hGrabber, 0)) return code;
    const CallGuard call(*hGrabber);
    if (!hGrabber->hasAccess(0)) return TARNIS_NO_DMA_ACCESS;
    if (const uint32_t code = noexp_TARNIS_Prepare(hGrabber, 0, pCameraData)) return code;
    if (pBufferSize) {
        const std::lock_guard lock(hGrabber->m_state);
        const auto& buffers = hGrabber->channel(0).buffers;
        *pBufferSize = buffers ? buffers->bufferSize : 0;
    }
    if (!lpBuffer) return nullPointer(__func__, __LINE__, L"lpBuffer is NULL");
    return hGrabber->rawIOCtl(wire::kSnap, nullptr, 0, lpBuffer, bufferLength, nullptr, false, nullptr, kSnapMs).status;
}
