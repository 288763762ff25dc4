// Opening, closing, removal and arrival of a card, and the claims of its channels.
#include "device/card.h"

#include "device/device_enumerator.h"
#include "log/log.h"

#include <exception>

namespace kestra {
namespace {

constexpr LogUnit kUnit{"Initializing functions", L".\\TARNIS_Init.cpp"};
constexpr DWORD kOpenMs = 5000; // for each request of the opening: nobody has a handle yet that could end it

UniqueObject logged(HANDLE object, const wchar_t* what) noexcept {
    if (!object) {
        const DWORD error = GetLastError();
        KESTRA_LOG(kUnit, "TARNIS_GIS::TARNIS_GIS", LOG_ERROR, error, L"%ls failed. GetLastError=%d(0x%X)", what,
                   static_cast<int>(error), static_cast<unsigned>(error));
    }
    return UniqueObject(object);
}

} // namespace

Card::Card(const wchar_t* devicePath)
    : m_sessionWatch(logged(CreateEventW(nullptr, TRUE, TRUE, nullptr), L"session CreateEvent()")),
      m_mutexAccess(logged(CreateMutexW(nullptr, FALSE, nullptr), L"mutexAccess CreateMutex()")),
      m_devicePath(devicePath) {
    if (!hasObjects()) return;
    m_notifier = std::make_unique<DeviceNotifier>();
    m_notifier->registerCallback(*this, kCardInterfaceClass);
    const LockGuard access(m_mutexAccess);
    if (!m_requests.isOpen()) OpenCard(); // an arrival may have been quicker
}

bool Card::hasObjects() const noexcept {
    return m_sessionWatch.event && m_mutexAccess && m_requests.isUsable() && m_video.inputCheck() &&
           m_audio.inputCheck();
}

void Card::release() noexcept {
    if (--m_references == 0) delete static_cast<TARNIS_GIS*>(this);
}

void Card::OpenCard() {
    UniqueFile device(CreateFileW(m_devicePath.c_str(), GENERIC_READ | GENERIC_WRITE,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED, nullptr));
    if (!device) {
        const DWORD error = GetLastError();
        traceEvent(trace::EventKind::Opened, 0, error);
        KESTRA_LOG(kUnit, "TARNIS_GIS::OpenCard", LOG_ERROR, error, L"CreateFile(%ls) failed. GetLastError=%d(0x%X)",
                   m_devicePath.c_str(), static_cast<int>(error), static_cast<unsigned>(error));
        return;
    }
    if (!m_requests.adopt(std::move(device))) return;
    m_requests.accept();
    if (m_closing) m_requests.refuse(); // set before the close refused them, so a close that came after is seen here
    if (!startSession()) closeDevice();
}

/// @return false: the driver answered a request with a result of its own
bool Card::startSession() {
    wire::Header request{};
    wire::OpenSessionReply session{};
    const RequestResult opened = m_requests.ask<wire::OpenSession>(0, request, session, kOpenMs);
    if (opened.driverResult != 0) return false;
    if (opened.status == TARNIS_SUCCESS) m_requests.setSessionId(session.sessionId);
    bool refused =
        m_requests.issueLasting<wire::SessionWatch>(0, m_watchHeader, m_watchReply, m_sessionWatch).driverResult != 0;
    for (const int8_t port : {0, 1}) {
        wire::RegisterInputEventRequest registration{};
        registration.eventHandle = reinterpret_cast<uint64_t>(channel(port).inputCheck());
        wire::Reply reply{};
        if (m_requests.ask<wire::RegisterInputEvent>(port, registration, reply, kOpenMs).driverResult != 0)
            refused = true;
    }
    const RequestResult watch = CardRequests::judgeEnded(wire::kSessionWatch, &m_watchReply, m_sessionWatch);
    return !refused && watch.driverResult == 0;
}

void Card::closeDevice() {
    m_requests.refuse();
    m_requests.drain();
    if (!m_requests.end(m_sessionWatch, CardRequests::kCancelMs)) addReference(); // it is written into: stays for good
    m_video.unlockBuffers();
    m_audio.unlockBuffers();
    m_requests.close();
}

/// Stops requests and threads and closes the handle. @param why  Removal: arrival goes on; Close
void Card::stopCard(LifeEvent why) {
    m_requests.refuse();
    m_requests.drain();
    m_video.leave(why);
    m_audio.leave(why);
    if (!m_requests.isOpen()) return;
    if (why == LifeEvent::Close) {
        // Refused, as everything is now: the driver learns of the release by the closing of the handle.
        wire::ChannelAccessRequest request{};
        wire::Reply reply{};
        m_requests.ask<wire::ChannelAccess>(0, request, reply);
    }
    closeDevice();
}

void Card::closeAndRelease() noexcept {
    // Without a lock: the notifier's thread may hold mutexAccess, inside a request that the card never answers.
    m_closing = true;
    m_requests.refuse();
    m_requests.drain();
    m_notifier.reset(); // before the mutex, too: its thread may be waiting for that in a handler
    {
        const LockGuard access(m_mutexAccess);
        stopCard(LifeEvent::Close);
    }
    m_video.forget();
    m_audio.forget();
    release();
}

uint32_t Card::sendFlags(int8_t port) {
    wire::ChannelAccessRequest request{{}, m_channelFlags};
    wire::Reply reply{};
    return m_requests.ask<wire::ChannelAccess>(port, request, reply).status;
}

std::optional<uint32_t> Card::claim(int8_t port) {
    const LockGuard access(m_access);
    ++openCount(port);
    if (hasAccess(port)) return {};
    m_channelFlags |= wire::accessBit(port);
    const uint32_t code = sendFlags(port);
    if (code != TARNIS_SUCCESS) {
        m_channelFlags &= ~wire::accessBit(port);
        --openCount(port);
    }
    return code;
}

std::optional<uint32_t> Card::giveUp(int8_t port) {
    uint32_t code = TARNIS_SUCCESS;
    {
        const LockGuard access(m_access);
        if (!hasAccess(port)) return {};
        if (--openCount(port) != 0) return TARNIS_SUCCESS;
        m_channelFlags &= ~wire::accessBit(port);
        code = sendFlags(port);
    }
    channel(port).leave(LifeEvent::AccessReleased);
    return code;
}

bool Card::isPath(const DEV_BROADCAST_DEVICEINTERFACE_W& device) const noexcept {
    return lstrcmpiW(device.dbcc_name, m_devicePath.c_str()) == 0;
}

void Card::DeviceArrived(const DEV_BROADCAST_DEVICEINTERFACE_W& device) noexcept {
    constexpr char kFunction[] = "TARNIS_GIS::DeviceArrived";
    KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"DeviceArrived Enter");
    if (isPath(device)) traceEvent(trace::EventKind::Arrival);
    {
        const LockGuard access(m_mutexAccess);
        if (m_requests.isOpen()) {
            KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"hDevice != INVALID_HANDLE_VALUE");
        } else if (isPath(device)) {
            OpenCard();
            if (!m_requests.isOpen()) {
                KESTRA_LOG(kUnit, kFunction, LOG_ERROR, TARNIS_FAILURE, L"hDevice == INVALID_HANDLE_VALUE");
            } else {
                {
                    const LockGuard claims(m_access);
                    sendFlags(0);
                }
                m_video.arrive();
                m_audio.arrive();
                KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"OnCardStarted Leave");
            }
        }
    }
    KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"DeviceArrived Leave");
}

void Card::DeviceRemoved(const DEV_BROADCAST_DEVICEINTERFACE_W& device) noexcept {
    constexpr char kFunction[] = "TARNIS_GIS::DeviceRemoved";
    KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"DeviceRemoved Enter");
    if (!isPath(device)) {
        KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"Foreign device.");
    } else {
        traceEvent(trace::EventKind::Removal);
        const LockGuard access(m_mutexAccess);
        stopCard(LifeEvent::Removal);
        KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"OnCardStopped Leave");
    }
    KESTRA_LOG(kUnit, kFunction, LOG_TRACE, 0, L"DeviceRemoved Leave");
}

} // namespace kestra
