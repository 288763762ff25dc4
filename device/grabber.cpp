// Opening, closing, removal and arrival of a card.
#include "device/grabber.h"

#include "device/device_enumerator.h"
#include "log/log.h"

#include <new>

using namespace kestra;

namespace {

constexpr LogUnit kUnit{"Initializing functions", L".\\TARNIS_Init.cpp"};
constexpr DWORD kDrainMs = 1000;
constexpr DWORD kOpenMs = 1000; // for each request of the opening: nobody has a handle yet that could end it

UniqueObject logged(HANDLE object, const wchar_t* what) noexcept {
    if (!object) {
        const DWORD error = GetLastError();
        KESTRA_LOG(kUnit, "TARNIS_GIS::TARNIS_GIS", LOG_ERROR, error, L"%ls failed. GetLastError=%d(0x%X)", what,
                   static_cast<int>(error), static_cast<unsigned>(error));
    }
    return UniqueObject(object);
}

} // namespace

void PendingRequest::end(HANDLE device) noexcept {
    if (!issued) return;
    if (isPending()) CancelIoEx(device, &overlapped);
    DWORD bytes = 0;
    GetOverlappedResult(device, &overlapped, &bytes, TRUE);
    issued = false;
}

DmaBuffers::~DmaBuffers() {
    if (base) VirtualFree(base, 0, MEM_RELEASE);
}

bool DmaBuffers::isLocked() const noexcept {
    for (const auto& chunk : chunks)
        if (!chunk->lock.isPending()) return false;
    return !chunks.empty();
}

void DmaBuffers::unlock(HANDLE device) noexcept {
    for (const auto& chunk : chunks)
        chunk->lock.end(device);
}

TARNIS_GIS::TARNIS_GIS(const wchar_t* devicePath)
    : m_sessionEvent(logged(CreateEventW(nullptr, TRUE, TRUE, nullptr), L"session CreateEvent()")),
      m_mutexAccess(logged(CreateMutexW(nullptr, FALSE, nullptr), L"mutexAccess CreateMutex()")),
      m_stopCard(logged(CreateEventW(nullptr, TRUE, FALSE, nullptr), L"StopCard CreateEvent()")),
      m_ioctlEmpty(logged(CreateEventW(nullptr, TRUE, FALSE, nullptr), L"IOCTLEmpty CreateEvent()")),
      m_devicePath(devicePath) {
    m_channels[1].alternateFormat = true;
    if (!m_sessionEvent || !m_mutexAccess || !m_stopCard || !m_ioctlEmpty) return;
    m_notifier = std::make_unique<DeviceNotifier>();
    m_notifier->registerCallback(*this, kCardInterfaceClass);
    const MutexLock access(m_mutexAccess.get());
    if (deviceHandle() == INVALID_HANDLE_VALUE) OpenCard(); // an arrival may have been quicker
}

bool TARNIS_GIS::isUsable() noexcept {
    return m_sessionEvent && m_mutexAccess && m_stopCard && m_ioctlEmpty && deviceHandle() != INVALID_HANDLE_VALUE;
}

HANDLE TARNIS_GIS::deviceHandle() noexcept {
    const std::lock_guard lock(m_state);
    return m_device.get();
}

void TARNIS_GIS::release() noexcept {
    if (--m_references == 0) delete this;
}

/// Under mutexAccess.
void TARNIS_GIS::OpenCard() noexcept {
    resetStopCard();
    if (m_closing) { // set before StopCard was, so a reset that came after it is seen here
        setStopCard();
        return;
    }
    UniqueFile device(CreateFileW(m_devicePath.c_str(), GENERIC_READ | GENERIC_WRITE,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED, nullptr));
    if (!device) {
        const DWORD error = GetLastError();
        KESTRA_LOG(kUnit, "TARNIS_GIS::OpenCard", LOG_ERROR, error, L"CreateFile(%ls) failed. GetLastError=%d(0x%X)",
                   m_devicePath.c_str(), static_cast<int>(error), static_cast<unsigned>(error));
        return;
    }
    {
        const std::lock_guard lock(m_state);
        m_device = std::move(device);
    }
    wire::Header request{};
    wire::OpenSessionReply session{};
    m_sessionId = 0;
    const RequestResult opened = ask(wire::kOpenSession, 0, request, session, kOpenMs);
    if (opened.status == TARNIS_SUCCESS) m_sessionId = session.sessionId;
    // A card without a session refuses everything else: it does not count as opened.
    bool refused = opened.status != TARNIS_SUCCESS;

    if (!refused) {
        m_watchHeader = {0, sessionId()};
        issueLasting(wire::kSessionWatch, &m_watchHeader, sizeof m_watchHeader, &m_watchReply, sizeof m_watchReply,
                     m_sessionWatch);
        for (int8_t port = 0; port < 2; ++port) {
            wire::RegisterInputEventRequest registration{};
            registration.eventHandle = reinterpret_cast<uint64_t>(channel(port).inputCheck.get());
            wire::Reply reply{};
            if (ask(wire::kRegisterInputEvent, port, registration, reply, kOpenMs).driverResult != 0) refused = true;
        }
    }
    if (refused) closeDevice();
}

void TARNIS_GIS::setStopCard() noexcept {
    m_stopped = true;
    SetEvent(m_stopCard.get());
}

void TARNIS_GIS::resetStopCard() noexcept {
    ResetEvent(m_stopCard.get());
    m_stopped = false;
}

/// With StopCard set, so that no request follows: lets those under way end by themselves for a while. The event is
/// signalled only with StopCard set; a request that was through before does not count any more.
void TARNIS_GIS::waitForRequests() noexcept {
    ResetEvent(m_ioctlEmpty.get());
    if (m_requestCount.load() != 0) WaitForSingleObject(m_ioctlEmpty.get(), kDrainMs);
}

/// Ends the requests that are under way on other threads. With StopCard set.
void TARNIS_GIS::cancelRequests(HANDLE device) noexcept {
    while (m_requestCount.load() != 0) {
        CancelIoEx(device, nullptr);
        WaitForSingleObject(m_ioctlEmpty.get(), 10);
    }
}

/// Sets StopCard so that no arrival resets it, and lets what is under way end. Needs no lock: the notifier's thread may
/// hold mutexAccess, inside a request that the card never answers.
void TARNIS_GIS::refuseRequestsForGood() noexcept {
    m_closing = true;
    setStopCard();
    waitForRequests();
    cancelRequests(deviceHandle());
}

/// Ends every request and closes the handle. Under mutexAccess.
void TARNIS_GIS::closeDevice() noexcept {
    const HANDLE device = deviceHandle();
    if (device == INVALID_HANDLE_VALUE) return;
    m_sessionWatch.end(device);
    for (Channel& channel : m_channels) {
        std::shared_ptr<DmaBuffers> buffers;
        {
            const std::lock_guard lock(m_state);
            buffers = channel.buffers;
        }
        if (buffers) buffers->unlock(device);
    }
    cancelRequests(device); // nobody may be in one when the handle goes
    UniqueFile closing;
    const std::lock_guard lock(m_state);
    std::swap(closing, m_device);
}

/// Stops requests and threads and closes the handle. Under mutexAccess.
/// @param resumeLater  arrival shall start again what was grabbing
void TARNIS_GIS::stopCard(bool resumeLater) noexcept {
    setStopCard();
    waitForRequests();
    for (int8_t port = 0; port < 2; ++port) {
        Channel& channel = this->channel(port);
        std::shared_ptr<GrabRun> run;
        {
            const std::lock_guard lock(m_state);
            run = channel.run;
            if (run && resumeLater && run->reported) run->cardLost = true;
        }
        if (!run) continue;
        TARNIS_StopGrab(this, port);
        if (run->cardLost) {
            const std::lock_guard lock(m_state);
            channel.interrupted = run;
        }
        // Without DMA access that was refused: the run must end all the same, it keeps the instance alive.
        if (WaitForSingleObject(run->stop.get(), 0) != WAIT_OBJECT_0) {
            SetEvent(run->stop.get());
            if (run->threadId != GetCurrentThreadId()) WaitForSingleObject(run->thread.get(), kDrainMs);
            const std::lock_guard lock(m_state);
            if (channel.run == run) channel.run.reset();
        }
    }
    const HANDLE device = deviceHandle();
    if (device == INVALID_HANDLE_VALUE) return;
    if (!resumeLater) {
        // Refused, as everything is now: the driver learns of the release by the closing of the handle.
        wire::ChannelAccessRequest request{};
        wire::Reply reply{};
        ask(wire::kChannelAccess, 0, request, reply);
    }
    closeDevice();
}

void TARNIS_GIS::closeAndRelease() noexcept {
    if (m_stopCard && m_ioctlEmpty) refuseRequestsForGood();
    // Before the mutex: the notifier's thread may be waiting for it in a handler.
    m_notifier.reset();
    if (m_mutexAccess) {
        const MutexLock access(m_mutexAccess.get());
        if (m_stopCard && m_ioctlEmpty) stopCard(false);
        const std::lock_guard lock(m_state);
        for (Channel& channel : m_channels) {
            channel.buffers.reset();
            channel.prepared.reset();
            channel.interrupted.reset();
        }
    }
    release();
}

bool TARNIS_GIS::isPath(const DEV_BROADCAST_DEVICEINTERFACE_W& device) const noexcept {
    return lstrcmpiW(device.dbcc_name, m_devicePath.c_str()) == 0;
}

void TARNIS_GIS::resumeChannel(int8_t port) noexcept {
    Channel& channel = this->channel(port);
    std::shared_ptr<GrabRun> interrupted;
    TarnisCameraData data{};
    {
        const std::lock_guard lock(m_state);
        interrupted = std::move(channel.interrupted);
        channel.interrupted.reset();
        if (!interrupted || !hasAccess(port) || !channel.prepared) return;
        data = *channel.prepared;
        channel.prepared.reset();
    }
    TARNIS_StartGrab(this, port, interrupted->startParam, &data, interrupted->callback, interrupted->context);
}

void TARNIS_GIS::DeviceArrived(const DEV_BROADCAST_DEVICEINTERFACE_W& device) noexcept {
    constexpr char kFunction[] = "TARNIS_GIS::DeviceArrived";
    KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"DeviceArrived Enter");
    {
        const MutexLock access(m_mutexAccess.get());
        if (deviceHandle() != INVALID_HANDLE_VALUE) {
            KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"hDevice != INVALID_HANDLE_VALUE");
        } else if (isPath(device)) {
            OpenCard();
            if (deviceHandle() == INVALID_HANDLE_VALUE) {
                KESTRA_LOG(kUnit, kFunction, LOG_ERROR, TARNIS_FAILURE, L"hDevice == INVALID_HANDLE_VALUE");
            } else {
                wire::ChannelAccessRequest request{{}, m_channelFlags.load()};
                wire::Reply reply{};
                ask(wire::kChannelAccess, 0, request, reply);
                for (int8_t port = 0; port < 2; ++port)
                    resumeChannel(port);
                KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"OnCardStarted Leave");
            }
        }
    }
    KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"DeviceArrived Leave");
}

void TARNIS_GIS::DeviceRemoved(const DEV_BROADCAST_DEVICEINTERFACE_W& device) noexcept {
    constexpr char kFunction[] = "TARNIS_GIS::DeviceRemoved";
    KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"DeviceRemoved Enter");
    if (!isPath(device)) {
        KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"Foreign device.");
    } else {
        const MutexLock access(m_mutexAccess.get());
        stopCard(true);
        KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"OnCardStopped Leave");
    }
    KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"DeviceRemoved Leave");
}

TARNIS_HANDLE TARNIS_InitByHandle(const DeviceInterfaceDetail* pDevice) {
    if (!pDevice) return nullptr;
    try {
        auto* instance = new TARNIS_GIS(pDevice->devicePath);
        if (instance->isUsable()) return instance;
        instance->closeAndRelease();
        return nullptr;
    } catch (const std::exception&) { // no memory, or no thread
        KESTRA_LOG(kUnit, "TARNIS_InitByHandle", LOG_ERROR, TARNIS_OUT_OF_MEMORY, L"Can't allocate GIS structure");
        return nullptr;
    }
}

uint32_t TARNIS_Done(TARNIS_HANDLE hGrabber) {
    if (!hGrabber) {
        KESTRA_LOG(kUnit, "TARNIS_Done", LOG_ERROR, TARNIS_INVALID_ARGUMENT, L"hGrabber is NULL");
        return TARNIS_INVALID_ARGUMENT;
    }
    hGrabber->closeAndRelease();
    return TARNIS_SUCCESS;
}
