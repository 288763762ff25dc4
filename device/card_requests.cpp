// One way in for every request, and one way out for every outcome.
#include "device/card_requests.h"

#include "log/log.h"

namespace kestra {
namespace {

constexpr LogUnit kUnit{"IO Control wrapper", L".\\TARNIS_ioctl.cpp"};
constexpr LogUnit kInitUnit{"Initializing functions", L".\\TARNIS_Init.cpp"};
constexpr char kFunction[] = "TARNIS_GIS::IOCtl";
constexpr int32_t kRequestFailed = 0x494F4641; // IOFA
constexpr int32_t kDriverRefused = 0x494F4652; // IOFR
constexpr DWORD kDrainMs = 1000;
constexpr DWORD kCancelAgainMs = 10; // a request may have been counted and not yet issued

UniqueObject loggedEvent(const wchar_t* what) noexcept {
    UniqueObject event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!event) {
        const DWORD error = GetLastError();
        KESTRA_LOG(kInitUnit, "TARNIS_GIS::TARNIS_GIS", LOG_ERROR, error,
                   L"%ls CreateEvent() failed. GetLastError=%d(0x%X)", what, static_cast<int>(error),
                   static_cast<unsigned>(error));
    }
    return event;
}

RequestResult resultOf(DWORD error) noexcept {
    RequestResult result;
    result.win32Error = static_cast<uint16_t>(error);
    result.status = statusOf(error);
    return result;
}

} // namespace

uint8_t statusOf(DWORD error) noexcept {
    switch (error) {
    case ERROR_SUCCESS:
        return TARNIS_SUCCESS;
    case ERROR_ACCESS_DENIED:
        return TARNIS_ACCESS_DENIED;
    case ERROR_NOT_SUPPORTED:
        return TARNIS_NOT_SUPPORTED;
    default:
        return TARNIS_FAILURE;
    }
}

/// Counts a use of the handle for as long as it lasts.
class CardRequests::UnderWay {
public:
    explicit UnderWay(CardRequests& requests) noexcept : m_requests(requests) { ++m_requests.m_count; }
    ~UnderWay() {
        // Somebody may be waiting for it.
        if (--m_requests.m_count == 0 && m_requests.m_refusing) SetEvent(m_requests.m_ioctlEmpty.get());
    }
    UnderWay(const UnderWay&) = delete;
    UnderWay& operator=(const UnderWay&) = delete;
    /// After it was counted, so that no close comes between.
    bool isAllowed(uint32_t onlyInSession) const noexcept {
        return !m_requests.m_refusing && (onlyInSession == kAnySession || onlyInSession == m_requests.m_session);
    }

private:
    CardRequests& m_requests;
};

CardRequests::CardRequests() : m_stopCard(loggedEvent(L"StopCard")), m_ioctlEmpty(loggedEvent(L"IOCTLEmpty")) {}

void CardRequests::adopt(UniqueFile device) noexcept {
    m_device = std::move(device);
    ++m_session;
    m_sessionId = 0;
    m_handle = m_device.get();
}

void CardRequests::accept() noexcept {
    ResetEvent(m_stopCard.get());
    m_refusing = false;
}

void CardRequests::refuse() noexcept {
    m_refusing = true;
    SetEvent(m_stopCard.get());
}

void CardRequests::drain() noexcept {
    // The event is signalled only with StopCard set; a request that was through before does not count any more.
    ResetEvent(m_ioctlEmpty.get());
    if (m_count != 0) WaitForSingleObject(m_ioctlEmpty.get(), kDrainMs);
    while (m_count != 0) {
        CancelIoEx(m_handle, nullptr);
        WaitForSingleObject(m_ioctlEmpty.get(), kCancelAgainMs);
    }
}

void CardRequests::close() noexcept {
    m_handle = INVALID_HANDLE_VALUE; // before the count is looked at: end() counts itself and then looks here
    while (m_count != 0) {
        CancelIoEx(m_device.get(), nullptr);
        WaitForSingleObject(m_ioctlEmpty.get(), kCancelAgainMs);
    }
    m_device = UniqueFile();
}

void CardRequests::putHeader(int8_t port, void* sent) const noexcept {
    const wire::Header header{static_cast<uint8_t>(port), m_sessionId};
    std::memcpy(sent, &header, sizeof header);
}

DWORD CardRequests::askRaw(const Raw& raw, DWORD patienceMs, PendingRequest* waiting, DWORD& bytes) noexcept {
    const UnderWay underWay(*this);
    if (!underWay.isAllowed(raw.onlyInSession)) return ERROR_OPERATION_ABORTED;
    UniqueObject event;
    OVERLAPPED own{};
    OVERLAPPED& overlapped = waiting ? waiting->overlapped : own;
    if (!waiting) {
        event = UniqueObject(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        own.hEvent = event.get();
    }
    if (!overlapped.hEvent) return ERROR_NO_SYSTEM_RESOURCES; // without an event its end could not be awaited
    const HANDLE device = m_handle;
    if (DeviceIoControl(device, raw.code, const_cast<void*>(raw.sent), raw.sentBytes, raw.answer, raw.answerBytes,
                        &bytes, &overlapped))
        return ERROR_SUCCESS;
    const DWORD error = GetLastError();
    if (error != ERROR_IO_PENDING) return error;
    if (patienceMs != INFINITE && WaitForSingleObject(overlapped.hEvent, patienceMs) == WAIT_TIMEOUT)
        CancelIoEx(device, &overlapped);
    return GetOverlappedResult(device, &overlapped, &bytes, TRUE) ? DWORD{ERROR_SUCCESS} : GetLastError();
}

RequestResult CardRequests::issueRaw(const Raw& raw, PendingRequest& pending) noexcept {
    const UnderWay underWay(*this);
    if (!underWay.isAllowed(raw.onlyInSession)) return resultOf(ERROR_OPERATION_ABORTED);
    if (!pending.event) return resultOf(ERROR_NO_SYSTEM_RESOURCES);
    DWORD bytes = 0;
    DWORD error = ERROR_SUCCESS;
    if (!DeviceIoControl(m_handle, raw.code, const_cast<void*>(raw.sent), raw.sentBytes, raw.answer, raw.answerBytes,
                         &bytes, &pending.overlapped))
        error = GetLastError();
    if (error == ERROR_IO_PENDING) error = ERROR_SUCCESS;
    pending.issued = error == ERROR_SUCCESS;
    return resultOf(error);
}

RequestResult CardRequests::issueByThread(const Raw& raw, PendingRequest& pending) noexcept {
    RequestResult result;
    auto work = [&]() noexcept { result = issueRaw(raw, pending); };
    m_thread.call(work);
    return result;
}

RequestResult CardRequests::askDirect(uint32_t code, void* memory, uint32_t bytes, DWORD patienceMs) noexcept {
    DWORD answered = 0;
    return resultOf(askRaw({code, nullptr, 0, memory, bytes, kAnySession}, patienceMs, nullptr, answered));
}

RequestResult CardRequests::judged(uint32_t code, const void* answer, uint32_t readBytes, const Raw& raw,
                                   DWORD patienceMs, PendingRequest* waiting) noexcept {
    DWORD bytes = 0;
    RequestResult result = resultOf(askRaw(raw, patienceMs, waiting, bytes));
    if (result.win32Error != ERROR_SUCCESS) return loggedFailure(code, result);
    // The driver's own word comes first; a reply is too short only if something is missing that is read.
    if (bytes >= sizeof(wire::Reply)) result = judgedAtOnce(code, answer, result);
    if (result.status == TARNIS_SUCCESS && bytes < readBytes) {
        result = resultOf(ERROR_INVALID_DATA);
        return loggedFailure(code, result);
    }
    return result;
}

RequestResult CardRequests::judgedAtOnce(uint32_t code, const void* answer, RequestResult result) noexcept {
    if (result.win32Error != ERROR_SUCCESS) return loggedFailure(code, result);
    wire::Reply reply{};
    std::memcpy(&reply, answer, sizeof reply);
    if (reply.result == 0) return result;
    result.driverResult = static_cast<uint8_t>(reply.result);
    result.status = TARNIS_FAILURE;
    logDriverResult(code, reply.result);
    return result;
}

RequestResult CardRequests::loggedFailure(uint32_t code, RequestResult result) noexcept {
    if (result.win32Error != ERROR_SUCCESS)
        KESTRA_LOG(kUnit, kFunction, LOG_ERROR, kRequestFailed, L"DeviceIOCtl(0x%08X) failed. ErrorCode=%d(0x%08X).",
                   code, static_cast<int>(result.win32Error), static_cast<unsigned>(result.win32Error));
    return result;
}

void CardRequests::logDriverResult(uint32_t code, uint32_t driverResult) noexcept {
    KESTRA_LOG(kUnit, kFunction, LOG_ERROR, kDriverRefused, L"DeviceIOCtl(0x%08X) returned with result=%d(0x%08X).",
               code, static_cast<int>(driverResult), driverResult);
}

DWORD CardRequests::collect(PendingRequest& pending, DWORD& bytes) noexcept {
    pending.issued = false;
    return GetOverlappedResult(m_handle, &pending.overlapped, &bytes, FALSE) ? DWORD{ERROR_SUCCESS} : GetLastError();
}

void CardRequests::end(PendingRequest& pending) noexcept {
    if (!pending.issued) return;
    if (pending.isPending()) {
        const UnderWay underWay(*this);
        const HANDLE device = m_handle;
        if (device != INVALID_HANDLE_VALUE) CancelIoEx(device, &pending.overlapped); // else the close has ended it
    }
    WaitForSingleObject(pending.event.get(), INFINITE);
    pending.issued = false;
}

} // namespace kestra
