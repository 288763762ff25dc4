// Waits for filled buffers, hands each to the callback and gives it back. One thread per run; a thread that outlived
// its run (a callback that blocked through a stop) finds that out before it touches the channel again.
#include "device/grab_thread.h"

#include "log/log.h"
#include "protocol/frame_rate.h"

#include <new>

#include <process.h>

namespace kestra {
namespace {

constexpr LogUnit kUnit{"\"Grabbing Functions\"", L".\\TARNIS_grab.cpp"};
constexpr char kFunction[] = "TARNIS_GrabThread";
constexpr DWORD kSettleMs = 10; // between two looks at an input that is settling
constexpr DWORD kRetryMs = 10;  // after a lock request that failed at once

void tellDisconnected(const GrabRun& run) {
    TarnisFrameInfo frame{};
    frame.dmaStatus = DMA_STATUS_DICONNECTED;
    if (run.callback) run.callback(run.context, &frame);
}

class GrabLoop {
public:
    explicit GrabLoop(GrabRun& run) : m_run(run), m_instance(*run.instance) {
        HANDLE own = nullptr;
        DuplicateHandle(GetCurrentProcess(), channel().inputCheck.get(), GetCurrentProcess(), &own, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
        m_inputCheck = UniqueObject(own);
        const std::lock_guard lock(m_instance.m_state);
        m_buffers = channel().buffers;
    }
    ~GrabLoop() { m_lock.end(m_instance.deviceHandle()); }

    void run() {
        if (!m_lock.event || !m_unlock.event || !m_inputCheck) return;
        while (isCurrent()) {
            if (!m_lock.issued) issueLock();
            const HANDLE events[] = {m_run.stop.get(), m_inputCheck.get(), m_lock.event.get()};
            // A lock that could not be issued is tried again after a pause, which a stop cuts short.
            const DWORD count = m_lock.issued ? 3 : 2;
            switch (WaitForMultipleObjects(count, events, FALSE, m_lock.issued ? INFINITE : kRetryMs)) {
            case WAIT_OBJECT_0 + 1:
                if (!checkInput()) return;
                break;
            case WAIT_OBJECT_0 + 2:
                if (!isCurrent()) return;
                takeBuffer(true);
                break;
            case WAIT_TIMEOUT:
                break;
            default:
                return;
            }
        }
    }

private:
    Channel& channel() { return m_instance.channel(m_run.port); }

    bool isCurrent() {
        const std::lock_guard lock(m_instance.m_state);
        return channel().run.get() == &m_run;
    }

    void issueLock() {
        m_request = {};
        m_reply = {};
        const RequestResult result = m_instance.IOCtl(wire::kLockBuffer, m_run.port, &m_request, sizeof m_request,
                                                      &m_reply, sizeof m_reply, &m_lock.overlapped, true);
        m_lock.issued = result.status == TARNIS_SUCCESS;
        if (!m_lock.issued) reportLockFailure(result.win32Error);
    }

    void reportLockFailure(DWORD error) {
        KESTRA_LOG(kUnit, kFunction, LOG_ERROR, error, L"KESTRACTL_DMA_LOCK_BUFFER failed: ErrorCode=%d(0x%08X)",
                   static_cast<int>(error), static_cast<unsigned>(error));
    }

    /// Collects the lock request that has ended. @param deliver false: the frame is dropped without a callback.
    void takeBuffer(bool deliver) {
        DWORD bytes = 0;
        m_lock.issued = false;
        if (!GetOverlappedResult(m_instance.deviceHandle(), &m_lock.overlapped, &bytes, FALSE)) {
            reportLockFailure(GetLastError());
            pause();
            return;
        }
        if (bytes < sizeof m_reply || m_reply.result != 0) {
            // No buffer: the reply is cut short, or the driver is not grabbing, which is no failure during a stop.
            if (pause()) reportLockFailure(m_reply.result != 0 ? m_reply.result : uint32_t{ERROR_INVALID_DATA});
            return;
        }
        if (deliver) callBack();
        wire::UnlockBufferRequest request{{}, m_reply.bufferId};
        wire::Reply reply{};
        m_instance.IOCtl(wire::kUnlockBuffer, m_run.port, &request, sizeof request, &reply, sizeof reply,
                         &m_unlock.overlapped);
    }

    void callBack() {
        TarnisFrameInfo frame{};
        if (m_reply.dmaStatus != DMA_STATUS_GOOD) {
            KESTRA_LOG(kUnit, kFunction, LOG_ERROR, m_reply.dmaStatus,
                       L"TARNISCTL_DMA_LOCK_BUFFER returns with DMA Status = %d", static_cast<int>(m_reply.dmaStatus));
            frame.dmaStatus = m_reply.dmaStatus;
        } else {
            frame.frameWord0 = m_reply.frameWord0;
            frame.frameWord1 = m_reply.frameWord1;
            frame.lpRawBuffer = reinterpret_cast<const void*>(static_cast<uintptr_t>(m_reply.bufferAddress));
            if (!m_buffers || !m_buffers->contains(frame.lpRawBuffer)) { // prepared anew since the last frame
                const std::lock_guard lock(m_instance.m_state);
                m_buffers = channel().buffers;
            }
            frame.bufferSize = m_buffers ? m_buffers->bufferSize : 0;
            frame.frameByte = m_reply.frameByte;
            frame.frameWord2 = m_reply.frameWord2;
        }
        if (m_run.callback) m_run.callback(m_run.context, &frame);
    }

    /// @return false: stopped meanwhile.
    bool pause() { return WaitForSingleObject(m_run.stop.get(), kRetryMs) == WAIT_TIMEOUT; }

    /// The input changed. @return false: the run is over.
    bool checkInput() {
        ResetEvent(m_inputCheck.get());
        uint8_t connected = 0;
        TarnisCameraStatus status{};
        if (TARNIS_IsCameraConnected(&m_instance, m_run.port, &connected) == TARNIS_SUCCESS && connected != 0 &&
            TARNIS_GetCameraStatus(&m_instance, m_run.port, &status) == TARNIS_SUCCESS) {
            while (status.signalFlags != 0 && isSettling(status.videoMode)) {
                if (WaitForSingleObject(m_run.stop.get(), kSettleMs) != WAIT_TIMEOUT) return false;
                if (TARNIS_GetCameraStatus(&m_instance, m_run.port, &status) != TARNIS_SUCCESS) break;
            }
            if (status.signalFlags != 0 && differsFromPrepared(status)) {
                endForNewFormat();
                return false;
            }
        }
        return dropPendingBuffer();
    }

    bool differsFromPrepared(const TarnisCameraStatus& status) {
        const std::lock_guard lock(m_instance.m_state);
        const auto& prepared = channel().prepared;
        return !prepared || prepared->status.width != status.width || prepared->status.height != status.height ||
               prepared->status.signalFlags != status.signalFlags;
    }

    void endForNewFormat() {
        TARNIS_StopGrab(&m_instance, m_run.port);
        tellDisconnected(m_run);
    }

    /// The frame that was on its way may be torn: it goes back without a callback. A stop or another change of the
    /// input ends the wait. @return false: stopped.
    bool dropPendingBuffer() {
        if (!m_lock.issued) return true;
        const HANDLE events[] = {m_run.stop.get(), m_inputCheck.get(), m_lock.event.get()};
        switch (WaitForMultipleObjects(3, events, FALSE, INFINITE)) {
        case WAIT_OBJECT_0 + 1:
            return true; // the loop looks at it again
        case WAIT_OBJECT_0 + 2:
            takeBuffer(false);
            return true;
        default:
            return false;
        }
    }

    GrabRun& m_run;
    TARNIS_GIS& m_instance;
    UniqueObject m_inputCheck;
    std::shared_ptr<DmaBuffers> m_buffers; // held: the channel may be prepared anew while the callback looks at a frame
    wire::Header m_request{};
    wire::LockBufferReply m_reply{};
    PendingRequest m_unlock; // its event serves every unlock
    PendingRequest m_lock;   // never left while the system may write to m_reply: see the destructor
};

uint32_t grab(GrabRun& run) {
    TARNIS_GIS& instance = *run.instance;
    if (const uint32_t code = noexp_TARNIS_Prepare(&instance, run.port, run.cameraData)) {
        KESTRA_LOG(kUnit, kFunction, LOG_ERROR, code, L"Prepare Failed!");
        return code;
    }
    wire::StartGrabbingRequest request{{}, run.startParam};
    wire::Reply reply{};
    const RequestResult started = instance.ask(wire::kStartGrabbing, run.port, request, reply);
    if (started.status != TARNIS_SUCCESS) {
        KESTRA_LOG(kUnit, kFunction, LOG_ERROR, started.status, L"KESTRACTL_DMA_START_GRABBING failed!");
        TARNIS_StopGrab(&instance, run.port);
        return started.status;
    }
    {
        GrabLoop loop(run);
        SetEvent(run.started.get());
        loop.run();
    }
    if (run.cardLost) tellDisconnected(run); // nobody else would tell a client that no frame follows
    return TARNIS_SUCCESS;
}

/// What a new thread is given: it may outlive the last object that anybody else holds.
struct ThreadStart {
    std::shared_ptr<GrabRun> run;
    ModuleReference module;
};

uint32_t grabAndRelease(std::shared_ptr<GrabRun> run) {
    TARNIS_GIS* instance = run->instance;
    const uint32_t code = grab(*run);
    run.reset();
    instance->release();
    return code;
}

unsigned __stdcall threadEntry(void* parameter) {
    std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(parameter));
    ModuleReference module(std::move(start->module));
    std::shared_ptr<GrabRun> run(std::move(start->run));
    start.reset();
    module.releaseAndExitThread(grabAndRelease(std::move(run)));
}

} // namespace

std::shared_ptr<GrabRun> startGrabThread(TARNIS_GIS& instance, int8_t port, uint32_t startParam,
                                         TarnisCameraData* cameraData, TarnisFrameCallback callback,
                                         uint64_t context) noexcept {
    try {
        auto run = std::make_shared<GrabRun>();
        run->instance = &instance;
        run->port = port;
        run->startParam = startParam;
        run->cameraData = cameraData;
        run->callback = callback;
        run->context = context;
        if (!run->stop || !run->started) return nullptr;
        Channel& channel = instance.channel(port);
        auto parameter = std::make_unique<ThreadStart>(ThreadStart{run, ModuleReference()});
        unsigned id = 0;
        // Suspended until the run knows its thread: a callback may ask whether it runs on it.
        UniqueObject thread(
            reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, threadEntry, parameter.get(), CREATE_SUSPENDED, &id)));
        if (!thread) return nullptr;
        (void)parameter.release(); // the thread's from here on
        instance.addReference();
        run->thread = std::move(thread);
        run->threadId = id;
        ResetEvent(channel.inputCheck.get());
        {
            const std::lock_guard lock(instance.m_state);
            channel.run = run;
            channel.interrupted.reset();
        }
        ResumeThread(run->thread.get());
        return run;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

} // namespace kestra
