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
constexpr DWORD kCancelAgainMs = 10; // a request may have been let through and not yet issued

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

/// A request on its way: let through or not, counted, and holding the handle that it uses.
class CardRequests::UnderWay {
public:
    UnderWay(CardRequests& requests, const Raw& raw) noexcept : m_requests(requests) {
        const LockGuard lock(m_requests.m_mutex);
        if (m_requests.m_refusing || !m_requests.m_card) return;
        if (raw.onlyInSession != kAnySession && raw.onlyInSession != m_requests.m_card->number) return;
        m_card = m_requests.m_card;
        ++m_requests.m_underWay;
        const wire::Header header{static_cast<uint8_t>(raw.port), m_card->sessionId};
        if (raw.sent) std::memcpy(raw.sent, &header, sizeof header);
    }
    ~UnderWay() {
        if (!m_card) return;
        const LockGuard lock(m_requests.m_mutex);
        // Somebody may be waiting for it.
        if (m_requests.m_givenUp != 0) --m_requests.m_givenUp; // while refusing, only those can be left
        if (--m_requests.m_underWay == 0 && m_requests.m_refusing) SetEvent(m_requests.m_ioctlEmpty.get());
    }
    UnderWay(const UnderWay&) = delete;
    UnderWay& operator=(const UnderWay&) = delete;
    explicit operator bool() const noexcept { return m_card != nullptr; }
    const std::shared_ptr<OpenedCard>& card() const noexcept { return m_card; }
    HANDLE device() const noexcept { return m_card->file.get(); }

private:
    CardRequests& m_requests;
    std::shared_ptr<OpenedCard> m_card; // with the last one goes the handle, after the lock
};

CardRequests::CardRequests() : m_stopCard(loggedEvent(L"StopCard")), m_ioctlEmpty(loggedEvent(L"IOCTLEmpty")) {}

bool CardRequests::isOpen() const noexcept {
    return session() != 0;
}

uint32_t CardRequests::session() const noexcept {
    const LockGuard lock(m_mutex);
    return m_card ? m_card->number : 0;
}

bool CardRequests::adopt(UniqueFile device) noexcept {
    try {
        auto card = std::make_shared<OpenedCard>();
        card->file = std::move(device);
        const LockGuard lock(m_mutex);
        card->number = ++m_openings;
        traceEvent(trace::EventKind::Opened, 0, ERROR_SUCCESS, card->traceNumber);
        m_card = std::move(card);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void CardRequests::setSessionId(uint32_t id) noexcept {
    const LockGuard lock(m_mutex);
    if (m_card) m_card->sessionId = id;
}

void CardRequests::accept() noexcept {
    const LockGuard lock(m_mutex);
    ResetEvent(m_stopCard.get());
    m_refusing = false;
}

void CardRequests::refuse() noexcept {
    const LockGuard lock(m_mutex);
    m_refusing = true;
    SetEvent(m_stopCard.get());
}

void CardRequests::drain() noexcept {
    DWORD waitMs = kDrainMs;
    const ULONGLONG last = GetTickCount64() + kDrainMs + kCancelMs;
    for (;;) {
        std::shared_ptr<OpenedCard> card;
        {
            const LockGuard lock(m_mutex);
            if (m_underWay == m_givenUp) return;
            if (GetTickCount64() >= last) {
                m_givenUp = m_underWay;
                return;
            }
            // It is signalled only with StopCard set; a request that was through before does not count any more.
            ResetEvent(m_ioctlEmpty.get());
            card = m_card;
        }
        if (WaitForSingleObject(m_ioctlEmpty.get(), waitMs) == WAIT_OBJECT_0) continue;
        if (card) CancelIoEx(card->file.get(), nullptr);
        waitMs = kCancelAgainMs;
    }
}

void CardRequests::close() noexcept {
    drain();
    std::shared_ptr<OpenedCard> closing; // outlives the lock
    const LockGuard lock(m_mutex);
    closing.swap(m_card);
}

/// Waits for the end of a pending request. It is cancelled when its time is over, or that of a card which is stopped.
DWORD CardRequests::awaitAnswer(HANDLE device, OVERLAPPED& overlapped, DWORD patienceMs, DWORD& bytes) const noexcept {
    const HANDLE either[] = {overlapped.hEvent, m_stopCard.get()};
    DWORD first = WaitForMultipleObjects(2, either, FALSE, patienceMs);
    if (first == WAIT_OBJECT_0 + 1) first = WaitForSingleObject(overlapped.hEvent, kDrainMs);
    if (first != WAIT_OBJECT_0) CancelIoEx(device, &overlapped);
    return GetOverlappedResult(device, &overlapped, &bytes, TRUE) ? DWORD{ERROR_SUCCESS} : GetLastError();
}

DWORD CardRequests::askRaw(const Raw& raw, DWORD patienceMs, DWORD& bytes) noexcept {
    const UnderWay request(*this, raw);
    if (!request) return ERROR_OPERATION_ABORTED;
    UniqueObject event = takeEvent();
    if (!event) return ERROR_NO_SYSTEM_RESOURCES; // without it the end could not be awaited
    OVERLAPPED overlapped{};
    overlapped.hEvent = event.get();
    DWORD error = ERROR_SUCCESS;
    TracedRequest traced;
    traced.begin(raw.traced(*request.card()));
    if (!DeviceIoControl(request.device(), raw.code, raw.sent, raw.sentBytes, raw.answer, raw.answerBytes, &bytes,
                         &overlapped)) {
        error = GetLastError();
        if (error == ERROR_IO_PENDING) error = awaitAnswer(request.device(), overlapped, patienceMs, bytes);
    }
    traced.end(error, bytes);
    keepEvent(std::move(event));
    return error;
}

UniqueObject CardRequests::takeEvent() noexcept {
    {
        const LockGuard lock(m_mutex);
        for (UniqueObject& spare : m_spareEvents)
            if (spare) return std::move(spare);
    }
    return UniqueObject(CreateEventW(nullptr, TRUE, FALSE, nullptr));
}

void CardRequests::keepEvent(UniqueObject event) noexcept {
    const LockGuard lock(m_mutex);
    for (UniqueObject& spare : m_spareEvents)
        if (!spare) {
            spare = std::move(event);
            return;
        }
}

RequestResult CardRequests::issueRaw(const Raw& raw, PendingRequest& pending) noexcept {
    const UnderWay request(*this, raw);
    if (!request) return resultOf(ERROR_OPERATION_ABORTED);
    if (!pending.event) return resultOf(ERROR_NO_SYSTEM_RESOURCES);
    if (pending.isPending()) return resultOf(ERROR_BUSY); // given up by an earlier close: the system may still write
    pending.card = request.card();
    DWORD bytes = 0;
    DWORD error = ERROR_SUCCESS;
    pending.traced.begin(raw.traced(*request.card()));
    if (!DeviceIoControl(request.device(), raw.code, raw.sent, raw.sentBytes, raw.answer, raw.answerBytes, &bytes,
                         &pending.overlapped))
        error = GetLastError();
    if (error == ERROR_IO_PENDING) error = ERROR_SUCCESS;
    pending.issued = error == ERROR_SUCCESS;
    if (!pending.issued) pending.traced.end(error, 0);
    return resultOf(error);
}

// Also because of Wine, which sends such memory to its server through a pipe and stops a process's first thread
// whenever another process writes into it, as the simulated card does with every frame: a thread that is stopped in the
// middle of more than 64 KB is lost, with the lock of the process's memory in its hands.
RequestResult CardRequests::issueByThread(const Raw& raw, PendingRequest& pending) noexcept {
    RequestResult result;
    auto work = [&]() noexcept { result = issueRaw(raw, pending); };
    m_thread.call(work);
    return result;
}

RequestResult CardRequests::askDirect(uint32_t code, void* memory, uint32_t bytes, DWORD patienceMs) noexcept {
    const Raw raw{code, 0, nullptr, 0, memory, bytes, kAnySession};
    const UnderWay request(*this, raw); // until it has ended, not only until it has been issued
    if (!request) return resultOf(ERROR_OPERATION_ABORTED);
    PendingRequest pending;
    const RequestResult result = issueByThread(raw, pending);
    DWORD answered = 0;
    if (!pending.issued) return result;
    const DWORD error = awaitAnswer(request.device(), pending.overlapped, patienceMs, answered);
    pending.traced.end(error, answered);
    return resultOf(error);
}

RequestResult CardRequests::judged(const Raw& raw, uint32_t readBytes, DWORD patienceMs) noexcept {
    DWORD bytes = 0;
    const RequestResult result = resultOf(askRaw(raw, patienceMs, bytes));
    if (result.win32Error != ERROR_SUCCESS) return loggedFailure(raw.code, result);
    switch (kindOfReply(raw.answer, bytes, readBytes)) {
    case ReplyKind::Refused:
        return judgedAtOnce(raw.code, raw.answer, result);
    case ReplyKind::Short:
        return loggedFailure(raw.code, resultOf(ERROR_INVALID_DATA));
    case ReplyKind::Good:
        break;
    }
    return result;
}

RequestResult CardRequests::judgeEnded(uint32_t code, const void* answer, PendingRequest& pending) noexcept {
    if (!pending.issued || pending.isPending()) return {};
    DWORD bytes = 0;
    return judgedAtOnce(code, answer, resultOf(collect(pending, bytes)));
}

RequestResult CardRequests::judgedAtOnce(uint32_t code, const void* answer, RequestResult result) noexcept {
    if (result.win32Error != ERROR_SUCCESS) return loggedFailure(code, result);
    const uint32_t word = driverResultOf(answer);
    if (word == 0) return result;
    result.driverResult = static_cast<uint8_t>(word);
    result.status = TARNIS_FAILURE;
    logDriverResult(code, word);
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
    const std::shared_ptr<OpenedCard> card = pending.card.lock();
    const DWORD error = GetOverlappedResult(card ? card->file.get() : nullptr, &pending.overlapped, &bytes, FALSE)
                            ? DWORD{ERROR_SUCCESS}
                            : GetLastError();
    pending.traced.end(error, bytes);
    return error;
}

bool CardRequests::end(PendingRequest& pending, DWORD patienceMs) noexcept {
    if (!pending.issued) return true;
    if (pending.isPending())
        if (const std::shared_ptr<OpenedCard> card = pending.card.lock())
            CancelIoEx(card->file.get(), &pending.overlapped); // else the close has ended it
    if (WaitForSingleObject(pending.event.get(), patienceMs) != WAIT_OBJECT_0) return false;
    DWORD bytes = 0;
    if (pending.traced.isTraced())
        collect(pending, bytes);
    else
        pending.issued = false;
    return true;
}

} // namespace kestra
