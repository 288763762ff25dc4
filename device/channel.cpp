// Preparing a channel, and what its life asks for: threads, waits and the card's start and stop.
#include "device/channel.h"

#include "device/card.h"
#include "device/card_queries.h"
#include "device/grab_loop.h"
#include "log/log.h"
#include "win32/module.h"

#include <algorithm>
#include <new>

#include <process.h>

namespace kestra {
namespace {

constexpr LogUnit kGrabUnit{"\"Grabbing Functions\"", L".\\TARNIS_grab.cpp"};
constexpr LogUnit kInternalUnit{"\"Internal Functions\"", L".\\TARNIS_noexp.cpp"};
constexpr char kThreadFunction[] = "TARNIS_GrabThread";
constexpr uint32_t kBufferCount = 10; // whatever a client asks for
constexpr ULONGLONG kStopMs = 1000;   // a stop waits no longer for a callback

/// On the audio channel the record's last word takes the selector's place.
constexpr bool hasAlternateFormat(int8_t port) noexcept {
    return port == 1;
}

} // namespace

Channel::Channel(Card& card, CardRequests& requests, int8_t port) : m_card(card), m_requests(requests), m_port(port) {}

Channel::Start Channel::start(uint32_t startParam, TarnisCameraData* cameraData, TarnisFrameCallback callback,
                              uint64_t context) {
    GrabSetup setup{startParam, {}, callback, context};
    if (cameraData) setup.wanted = *cameraData;
    const RunPointer run = m_life.start(setup);
    if (!run) return Start::NoThread;
    const bool started = m_life.hasStarted(*run);
    const LockGuard lock(m_mutex);
    if (cameraData) *cameraData = *run->setup.wanted;
    return started ? Start::Started : Start::NotStarted;
}

void Channel::arrive() noexcept {
    if (!m_life.arrive())
        KESTRA_LOG(kGrabUnit, "TARNIS_StartGrab", LOG_ERROR, TARNIS_FAILURE, L"Grabbing thread not started!");
}

uint32_t Channel::bufferSizeBytes() {
    const std::shared_ptr<DmaBuffers> current = buffers();
    return current ? current->bufferSizeBytes() : 0;
}

std::shared_ptr<DmaBuffers> Channel::buffers() {
    const LockGuard lock(m_mutex);
    return m_buffers;
}

void Channel::unlockBuffers() noexcept {
    if (const std::shared_ptr<DmaBuffers> current = buffers()) current->unlock(m_requests);
}

void Channel::forget() noexcept {
    const LockGuard lock(m_mutex);
    m_buffers.reset();
    m_prepared.reset();
}

bool Channel::matchesPrepared(const TarnisCameraStatus& input) const noexcept {
    return m_prepared && m_prepared->status.width == input.width && m_prepared->status.height == input.height &&
           m_prepared->status.signalFlags == input.signalFlags;
}

bool Channel::isPreparedFor(const TarnisCameraStatus& input) noexcept {
    const LockGuard lock(m_mutex);
    return matchesPrepared(input);
}

bool Channel::isPreparedFor(const TarnisCameraData& wanted) const noexcept {
    return matchesPrepared(wanted.status) && m_buffers && m_buffers->isLocked() &&
           m_prepared->outputSelector == wanted.outputSelector &&
           m_prepared->outputParameter == wanted.outputParameter &&
           (!hasAlternateFormat(m_port) || m_prepared->extra == wanted.extra);
}

uint32_t Channel::prepare(TarnisCameraData& cameraData) {
    const LockGuard oneAtATime(m_prepareMutex);
    const uint32_t statusCode = cameraStatus(m_requests, m_port, cameraData.status);
    TarnisCameraData stored = cameraData;
    {
        const LockGuard lock(m_mutex);
        if (isPreparedFor(cameraData)) return statusCode;
        if (stored.status.interlaced == 0) stored.outputParameter = 0;
        m_prepared = stored;
    }
    wire::PrepareRequest request{};
    request.selector = static_cast<uint8_t>(hasAlternateFormat(m_port) ? stored.extra : stored.outputSelector);
    request.videoMode = static_cast<uint8_t>(stored.status.videoMode);
    request.outputParameter = static_cast<uint8_t>(stored.outputParameter);
    request.constants[1] = request.constants[3] = 1;
    wire::PrepareReply reply{};
    const RequestResult result = m_requests.ask<wire::Prepare>(m_port, request, reply);
    if (result.status != TARNIS_SUCCESS) {
        const LockGuard lock(m_mutex);
        m_prepared.reset();
        return result.status;
    }
    return replaceBuffers(reply.frameSizeBytes);
}

uint32_t Channel::replaceBuffers(uint32_t sizeBytes) {
    unlockBuffers();
    {
        const LockGuard lock(m_mutex);
        m_buffers.reset();
    }
    if (sizeBytes == 0) return TARNIS_FAILURE; // the driver prepared nothing
    const std::shared_ptr<DmaBuffers> fresh = DmaBuffers::allocate(kBufferCount, sizeBytes);
    if (!fresh) return TARNIS_OUT_OF_MEMORY;
    if (const uint32_t code = fresh->lock(m_requests, m_port)) return code;
    const LockGuard lock(m_mutex);
    m_buffers = fresh;
    return TARNIS_SUCCESS;
}

/// What a new thread is given: it may outlive the last object that anybody else holds.
struct Channel::ThreadStart {
    Channel& channel;
    RunPointer run;
    ModuleReference module;
};

unsigned __stdcall Channel::threadEntry(void* parameter) {
    std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(parameter));
    ModuleReference module(std::move(start->module));
    Channel& channel = start->channel;
    Card& card = channel.m_card;
    channel.m_life.live(start->run);
    start.reset();
    card.release();
    module.releaseAndExitThread(0);
}

Channel::RunPointer Channel::makeThread(const GrabSetup& setup) {
    try {
        auto run = std::make_shared<GrabRun>(setup);
        run->session = m_requests.session();
        HANDLE own = nullptr;
        DuplicateHandle(GetCurrentProcess(), inputCheck(), GetCurrentProcess(), &own, 0, FALSE, DUPLICATE_SAME_ACCESS);
        run->inputCheck = UniqueObject(own);
        if (!run->isUsable()) return nullptr;
        auto parameter = std::make_unique<ThreadStart>(ThreadStart{*this, run, ModuleReference()});
        unsigned id = 0;
        // Suspended until the run knows its thread: a callback may ask whether it runs on it.
        run->thread = UniqueObject(
            reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, threadEntry, parameter.get(), CREATE_SUSPENDED, &id)));
        if (!run->thread) return nullptr;
        (void)parameter.release(); // the thread's from here on
        m_card.addReference();
        run->threadId = id;
        ResetEvent(inputCheck());
        return run;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

GrabSetup Channel::resumedSetup(const Run& run) {
    const LockGuard lock(m_mutex);
    return run.setup;
}

void Channel::awaitStart(const Run& run) {
    const HANDLE first[] = {run.thread.get(), run.stopEvent.get(), run.startedEvent.get()};
    WaitForMultipleObjects(3, first, FALSE, INFINITE);
}

bool Channel::prepare(Run& run) {
    uint32_t code = TARNIS_FAILURE;
    if (!run.setup.wanted) {
        KESTRA_LOG(kInternalUnit, "noexp_TARNIS_Prepare", LOG_ERROR, TARNIS_INVALID_ARGUMENT, L"pCameraData is NULL");
        code = TARNIS_INVALID_ARGUMENT;
    } else if (!m_card.hasAccess(m_port)) {
        code = TARNIS_NO_DMA_ACCESS;
    } else {
        try {
            TarnisCameraData data = *run.setup.wanted;
            code = prepare(data);
            const LockGuard lock(m_mutex);
            run.setup.wanted = code == TARNIS_SUCCESS && m_prepared ? *m_prepared : data;
        } catch (const std::bad_alloc&) {
            code = TARNIS_OUT_OF_MEMORY;
        }
    }
    if (code != TARNIS_SUCCESS) KESTRA_LOG(kGrabUnit, kThreadFunction, LOG_ERROR, code, L"Prepare Failed!");
    return code == TARNIS_SUCCESS;
}

bool Channel::startCard(Run& run) {
    wire::StartGrabbingRequest request{{}, run.setup.startParam};
    wire::Reply reply{};
    const RequestResult result = m_requests.ask<wire::StartGrabbing>(m_port, request, reply, INFINITE, run.session);
    if (result.status == TARNIS_SUCCESS) return true;
    KESTRA_LOG(kGrabUnit, kThreadFunction, LOG_ERROR, result.status, L"KESTRACTL_DMA_START_GRABBING failed!");
    return false;
}

uint32_t Channel::stopCard(const Run* /*run*/) {
    wire::Header request{};
    wire::Reply reply{};
    return m_requests.ask<wire::StopGrabbing>(m_port, request, reply).status;
}

bool Channel::awaitEarlier(const Run& run, const Run& earlier) {
    const HANDLE either[] = {run.stopEvent.get(), earlier.thread.get()};
    return WaitForMultipleObjects(2, either, FALSE, INFINITE) != WAIT_OBJECT_0;
}

Channel::Life::LoopEnd Channel::loop(Run& run) {
    return GrabLoop(*this, run).run();
}

void Channel::tellClient(const Run& run) const {
    TarnisFrameInfo frame{};
    frame.dmaStatus = DMA_STATUS_DICONNECTED;
    callClient(run, frame);
}

void Channel::callClient(const Run& run, const TarnisFrameInfo& frame) const {
    if (!run.setup.callback) return;
    traceEvent(trace::EventKind::CallbackBegin, m_port, frame.dmaStatus, 0, frame.lpRawBuffer, frame.bufferSize);
    run.setup.callback(run.setup.context, &frame);
    traceEvent(trace::EventKind::CallbackEnd, m_port);
}

Channel::Patience Channel::stopPatience() {
    return {GetTickCount64() + kStopMs};
}

bool Channel::awaitEnd(const Run& run, const Patience& patience) {
    if (run.threadId == GetCurrentThreadId()) return true;
    DWORD patienceMs = INFINITE;
    if (patience.untilMs != Patience{}.untilMs) {
        const ULONGLONG now = GetTickCount64();
        patienceMs = static_cast<DWORD>(patience.untilMs - std::min(patience.untilMs, now));
    }
    return WaitForSingleObject(run.thread.get(), patienceMs) != WAIT_TIMEOUT;
}

} // namespace kestra
