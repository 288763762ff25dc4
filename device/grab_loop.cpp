// One pass of the loop is one buffer: lock, callback, unlock. Everything is asked in the session that the run began in,
// so that a thread that is late touches nobody else's buffers.
#include "device/grab_loop.h"

#include "device/card_queries.h"
#include "log/log.h"
#include "protocol/frame_rate.h"

namespace kestra {
namespace {

constexpr LogUnit kUnit{"\"Grabbing Functions\"", L".\\TARNIS_grab.cpp"};
constexpr char kFunction[] = "TARNIS_GrabThread";
constexpr DWORD kSettleMs = 10; // between two looks at an input that is settling
constexpr DWORD kRetryMs = 10;  // after a lock request that failed

void reportLockFailure(DWORD error) {
    KESTRA_LOG(kUnit, kFunction, LOG_ERROR, error, L"KESTRACTL_DMA_LOCK_BUFFER failed: ErrorCode=%d(0x%08X)",
               static_cast<int>(error), static_cast<unsigned>(error));
}

} // namespace

GrabLoop::GrabLoop(Channel& channel, GrabRun& run)
    : m_channel(channel), m_requests(channel.m_requests), m_run(run), m_buffers(channel.buffers()) {}

GrabLoop::~GrabLoop() {
    m_requests.end(m_run.lock);
}

GrabLoop::End GrabLoop::run() {
    while (!m_run.told) {
        if (!m_run.lock.issued) issueLock();
        const HANDLE events[] = {m_run.stopEvent.get(), m_run.inputCheck.get(), m_run.lock.event.get()};
        // A lock that could not be issued is tried again after a pause, which a stop cuts short.
        const DWORD count = m_run.lock.issued ? 3 : 2;
        switch (WaitForMultipleObjects(count, events, FALSE, m_run.lock.issued ? INFINITE : kRetryMs)) {
        case WAIT_OBJECT_0:
            return End::ToldToLeave;
        case WAIT_OBJECT_0 + 1:
            if (const std::optional<End> end = checkInput()) return *end;
            break;
        case WAIT_OBJECT_0 + 2:
            if (!takeBuffer(true)) return End::ToldToLeave;
            break;
        case WAIT_TIMEOUT:
            break;
        default:
            return End::Broken;
        }
    }
    return End::ToldToLeave;
}

void GrabLoop::issueLock() {
    m_request = {};
    m_reply = {};
    const RequestResult result =
        m_requests.issue<wire::LockBuffer>(m_channel.m_port, m_request, m_reply, m_run.lock, m_run.session);
    if (result.status != TARNIS_SUCCESS && !m_run.told) reportLockFailure(result.win32Error);
}

bool GrabLoop::takeBuffer(bool deliver) {
    DWORD bytes = 0;
    if (const DWORD error = m_requests.collect(m_run.lock, bytes)) {
        reportLockFailure(error);
        pause();
        return true;
    }
    const ReplyKind kind = kindOfReply(&m_reply, bytes, wire::kReadBytes<wire::LockBufferReply>);
    if (kind != ReplyKind::Good) {
        // A card that has been told to stop refuses as well, which is no failure.
        if (pause()) {
            if (kind == ReplyKind::Refused)
                m_requests.logDriverResult(wire::kLockBuffer, m_reply.result);
            else
                reportLockFailure(ERROR_INVALID_DATA);
        }
        if (namesBuffer(m_reply, bytes)) giveBack();
        return true;
    }
    if (deliver) callBack();
    if (!m_channel.m_life.mayTouchCard(m_run)) return false; // the callback took longer than the run
    giveBack();
    return true;
}

void GrabLoop::callBack() {
    TarnisFrameInfo frame{};
    if (m_reply.dmaStatus != DMA_STATUS_GOOD) {
        KESTRA_LOG(kUnit, kFunction, LOG_ERROR, m_reply.dmaStatus,
                   L"TARNISCTL_DMA_LOCK_BUFFER returns with DMA Status = %d", static_cast<int>(m_reply.dmaStatus));
        frame.dmaStatus = m_reply.dmaStatus;
    } else {
        if (!knowsBuffer()) {
            KESTRA_LOG(kUnit, kFunction, LOG_ERROR, TARNIS_FAILURE,
                       L"KESTRACTL_DMA_LOCK_BUFFER returned an address outside of the buffers: 0x%I64X",
                       static_cast<unsigned long long>(m_reply.bufferAddress));
            return;
        }
        frame.frameWord0 = m_reply.frameWord0;
        frame.frameWord1 = m_reply.frameWord1;
        frame.lpRawBuffer = reinterpret_cast<const void*>(static_cast<uintptr_t>(m_reply.bufferAddress));
        frame.bufferSize = m_buffers->bufferSizeBytes();
        frame.frameByte = m_reply.frameByte;
        frame.frameWord2 = m_reply.frameWord2;
    }
    m_channel.callClient(m_run, frame);
}

bool GrabLoop::knowsBuffer() {
    if (m_buffers && m_buffers->contains(m_reply.bufferAddress)) return true;
    m_buffers = m_channel.buffers(); // the channel may have been prepared anew since the last frame
    return m_buffers && m_buffers->contains(m_reply.bufferAddress);
}

void GrabLoop::giveBack() {
    wire::UnlockBufferRequest request{{}, m_reply.bufferId};
    wire::Reply reply{};
    m_requests.ask<wire::UnlockBuffer>(m_channel.m_port, request, reply, INFINITE, m_run.session);
}

/// @return false: told to leave meanwhile
bool GrabLoop::pause() const {
    return WaitForSingleObject(m_run.stopEvent.get(), kRetryMs) == WAIT_TIMEOUT;
}

std::optional<GrabLoop::End> GrabLoop::checkInput() {
    ResetEvent(m_run.inputCheck.get());
    traceEvent(trace::EventKind::InputEvent, m_channel.m_port);
    uint8_t connected = 0;
    TarnisCameraStatus status{};
    if (isConnected(m_requests, m_channel.m_port, connected) == TARNIS_SUCCESS && connected != 0 &&
        cameraStatus(m_requests, m_channel.m_port, status) == TARNIS_SUCCESS) {
        while (status.signalFlags != 0 && isSettling(status.videoMode)) {
            if (WaitForSingleObject(m_run.stopEvent.get(), kSettleMs) != WAIT_TIMEOUT) return End::ToldToLeave;
            if (cameraStatus(m_requests, m_channel.m_port, status) != TARNIS_SUCCESS) break;
        }
        if (status.signalFlags != 0 && !m_channel.isPreparedFor(status)) return End::FormatChange;
    }
    return dropPendingBuffer();
}

/// The frame that was on its way may be torn: it goes back without a callback. A stop or another change of the input
/// ends the wait.
std::optional<GrabLoop::End> GrabLoop::dropPendingBuffer() {
    if (!m_run.lock.issued) return {};
    const HANDLE events[] = {m_run.stopEvent.get(), m_run.inputCheck.get(), m_run.lock.event.get()};
    switch (WaitForMultipleObjects(3, events, FALSE, INFINITE)) {
    case WAIT_OBJECT_0:
        return End::ToldToLeave;
    case WAIT_OBJECT_0 + 1:
        return {}; // the loop looks at it again
    case WAIT_OBJECT_0 + 2:
        if (takeBuffer(false)) return {};
        return End::ToldToLeave;
    default:
        return End::Broken;
    }
}

} // namespace kestra
