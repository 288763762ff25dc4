// Every request to the card's driver: the handle that they go through, the session that they belong to, and how they
// end when the card goes. Any thread. Private to device/.
#pragma once

#include "device/replies.h"
#include "device/tracing.h"
#include "sync/mutex.h"
#include "sync/request_thread.h"
#include "win32/handle.h"

#include <windows.h>

#include <array>
#include <cstring>
#include <memory>

namespace kestra {

/// The library's status for a Win32 error.
uint8_t statusOf(DWORD error) noexcept;

/// One opening of the card. Whoever uses the handle holds this, so that it is never closed while in use.
struct OpenedCard {
    UniqueFile file;
    uint32_t number = 0;    ///< of the opening: 1, 2, ...
    uint32_t sessionId = 0; ///< the driver's
    uint32_t traceNumber = nextTraceOpening();

    OpenedCard() = default;
    OpenedCard(const OpenedCard&) = delete;
    OpenedCard& operator=(const OpenedCard&) = delete;
    ~OpenedCard() {
        if (file) traceEvent(trace::EventKind::Closed, 0, 0, traceNumber);
    }
};

/// A request that the system may still write to. Its memory must stay until it has ended, see CardRequests::end.
struct PendingRequest {
    explicit PendingRequest(UniqueObject itsEvent = UniqueObject(CreateEventW(nullptr, TRUE, FALSE, nullptr)))
        : event(std::move(itsEvent)) {
        overlapped.hEvent = event.get();
    }
    PendingRequest(const PendingRequest&) = delete;
    PendingRequest& operator=(const PendingRequest&) = delete;
    /// True from a successful issue until the system has completed it.
    bool isPending() const noexcept { return issued && WaitForSingleObject(event.get(), 0) == WAIT_TIMEOUT; }

    OVERLAPPED overlapped{};
    const UniqueObject event;
    std::weak_ptr<OpenedCard> card; ///< a handle that has been closed has nothing left to cancel
    bool issued = false;
    TracedRequest traced;
};

class CardRequests {
public:
    static constexpr uint32_t kAnySession = 0;

    /// Logs what the system does not give; isUsable() says whether it gave all. Throws if there is no thread.
    CardRequests();
    CardRequests(const CardRequests&) = delete;
    CardRequests& operator=(const CardRequests&) = delete;

    bool isUsable() const noexcept { return m_stopCard && m_ioctlEmpty; }
    bool isOpen() const noexcept EXCLUDES(m_mutex);

    /// Takes the handle of a card that has been opened, while requests are refused. The session has no id yet.
    /// @return false: there is no memory, and the handle is closed again
    bool adopt(UniqueFile device) noexcept EXCLUDES(m_mutex);
    void setSessionId(uint32_t id) noexcept EXCLUDES(m_mutex);
    /// The number of this opening: it changes with every adopt().
    uint32_t session() const noexcept EXCLUDES(m_mutex);

    /// Resets and sets StopCard: with it set every request ends at once with error 995 and does not reach the driver.
    void accept() noexcept EXCLUDES(m_mutex);
    void refuse() noexcept EXCLUDES(m_mutex);
    /// While they are refused: lets those under way end by themselves for a second, then cancels them. A driver that
    /// does not even answer that is given up after a few seconds.
    void drain() noexcept EXCLUDES(m_mutex);
    /// While they are refused: closes the handle, or leaves that to the request that the driver does not let go of.
    void close() noexcept EXCLUDES(m_mutex);

    /// Makes a request and judges the outcome. Failures are logged.
    /// @param patienceMs    a request that takes longer is cancelled: error 995
    /// @param onlyInSession refused like any other after a close if that session is over
    template <class R>
    RequestResult ask(int8_t port, typename R::Sent& sent, typename R::Answer& answer, DWORD patienceMs = INFINITE,
                      uint32_t onlyInSession = kAnySession) noexcept {
        return judged({R::kCode, port, &sent, sizeof sent, &answer, sizeof answer, onlyInSession},
                      wire::kReadBytes<typename R::Answer>, patienceMs);
    }
    /// Issues a request that stays pending; both records must stay until it has ended.
    template <class R>
    RequestResult issue(int8_t port, typename R::Sent& sent, typename R::Answer& answer, PendingRequest& pending,
                        uint32_t onlyInSession = kAnySession) noexcept {
        return loggedFailure(
            R::kCode, issueRaw({R::kCode, port, &sent, sizeof sent, &answer, sizeof answer, onlyInSession}, pending));
    }
    /// The same, issued by the thread that lives as long as this: the system cancels what a thread that ends has
    /// issued.
    template <class R>
    RequestResult issueLasting(int8_t port, typename R::Sent& sent, typename R::Answer& answer,
                               PendingRequest& pending) noexcept {
        answer = {};
        return judgedAtOnce(
            R::kCode, &answer,
            issueByThread({R::kCode, port, &sent, sizeof sent, &answer, sizeof answer, kAnySession}, pending));
    }
    /// The outcome of a lasting request that has ended by now: a driver may take it and refuse it a moment later.
    static RequestResult judgeEnded(uint32_t code, const void* answer, PendingRequest& pending) noexcept;
    /// Without a header, and the reply is not judged: the memory is the caller's. Logs nothing. Both are issued
    /// by the thread that lives as long as this.
    RequestResult askDirect(uint32_t code, void* memory, uint32_t bytes, DWORD patienceMs) noexcept;
    RequestResult issueDirect(uint32_t code, void* memory, uint32_t bytes, PendingRequest& pending) noexcept {
        return issueByThread({code, 0, nullptr, 0, memory, bytes, kAnySession}, pending);
    }

    /// Takes the result of a request that has ended. @return its Win32 error
    static DWORD collect(PendingRequest& pending, DWORD& bytes) noexcept;
    /// Cancels a request that is pending and waits until the system has let go of it.
    /// @return false: it has not within that time, and the request's memory must stay for good
    static bool end(PendingRequest& pending, DWORD patienceMs = INFINITE) noexcept;
    /// How long a driver is waited for that does not answer a cancel.
    static constexpr DWORD kCancelMs = 2000;

    static void logDriverResult(uint32_t code, uint32_t driverResult) noexcept;

private:
    struct Raw {
        uint32_t code;
        int8_t port;
        void* sent; ///< null: none; else it begins with a header, which is filled in
        uint32_t sentBytes;
        void* answer;
        uint32_t answerBytes;
        uint32_t onlyInSession;

        TracedRequest::What traced(const OpenedCard& card) const noexcept {
            return {code, port, card.traceNumber, sent, sentBytes, answer, answerBytes};
        }
    };
    class UnderWay;

    DWORD askRaw(const Raw& raw, DWORD patienceMs, DWORD& bytes) noexcept EXCLUDES(m_mutex);
    DWORD awaitAnswer(HANDLE device, OVERLAPPED& overlapped, DWORD patienceMs, DWORD& bytes) const noexcept;
    RequestResult issueRaw(const Raw& raw, PendingRequest& pending) noexcept EXCLUDES(m_mutex);
    RequestResult issueByThread(const Raw& raw, PendingRequest& pending) noexcept EXCLUDES(m_mutex);
    RequestResult judged(const Raw& raw, uint32_t readBytes, DWORD patienceMs) noexcept EXCLUDES(m_mutex);
    static RequestResult judgedAtOnce(uint32_t code, const void* answer, RequestResult result) noexcept;
    static RequestResult loggedFailure(uint32_t code, RequestResult result) noexcept;
    UniqueObject takeEvent() noexcept EXCLUDES(m_mutex);
    void keepEvent(UniqueObject event) noexcept EXCLUDES(m_mutex);

    const UniqueObject m_stopCard, m_ioctlEmpty;
    mutable Mutex m_mutex;
    std::shared_ptr<OpenedCard> m_card GUARDED_BY(m_mutex);
    uint32_t m_openings GUARDED_BY(m_mutex) = 0;
    uint32_t m_underWay GUARDED_BY(m_mutex) = 0;
    uint32_t m_givenUp GUARDED_BY(m_mutex) = 0; ///< of those: a drain has waited for them in vain
    bool m_refusing GUARDED_BY(m_mutex) = true; ///< what StopCard says: asking the system twice a frame would show
    /// Kept for later requests: making an event for each would show in the time per frame.
    std::array<UniqueObject, 4> m_spareEvents GUARDED_BY(m_mutex);
    RequestThread m_thread;
};

} // namespace kestra
