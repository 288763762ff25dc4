// Every request to the card's driver: the handle that they go through, the session that they belong to, and how they
// end when the card goes. Any thread. Private to device/.
//
// A request counts itself before it looks whether requests are refused; whoever closes the handle refuses them first
// and waits for the count: so a handle is never closed under a request.
#pragma once

#include "device/request_thread.h"
#include "protocol/records.h"
#include "protocol/requests.h"
#include "win32/handle.h"

#include <windows.h>

#include <atomic>
#include <cstring>

namespace kestra {

/// Outcome of one driver request.
struct RequestResult {
    uint16_t win32Error = 0;
    uint8_t driverResult = 0;        ///< low byte of a driver result that is not 0
    uint8_t status = TARNIS_SUCCESS; ///< 0, 4, 254 or 255
};
static_assert(sizeof(RequestResult) == 4);

/// The library's status for a Win32 error.
uint8_t statusOf(DWORD error) noexcept;

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
    bool issued = false;
};

class CardRequests {
public:
    static constexpr uint32_t kAnySession = 0;

    /// Logs what the system does not give; isUsable() says whether it gave all. Throws if there is no thread.
    CardRequests();
    CardRequests(const CardRequests&) = delete;
    CardRequests& operator=(const CardRequests&) = delete;

    bool isUsable() const noexcept { return m_stopCard && m_ioctlEmpty; }
    bool isOpen() const noexcept { return m_handle != INVALID_HANDLE_VALUE; }

    /// Takes the handle of a card that has been opened, while requests are refused. The session has no id yet.
    void adopt(UniqueFile device) noexcept;
    void setSessionId(uint32_t id) noexcept { m_sessionId = id; }
    /// The number of this opening: it changes with every adopt().
    uint32_t session() const noexcept { return m_session; }

    /// Resets and sets StopCard: with it set every request ends at once with error 995 and does not reach the driver.
    void accept() noexcept;
    void refuse() noexcept;
    /// While they are refused: lets those under way end by themselves for a second, then cancels them.
    void drain() noexcept;
    /// While they are refused: closes the handle once no request is under way.
    void close() noexcept;

    /// Makes a request and judges the outcome. Failures are logged.
    /// @param patienceMs    a request that takes longer is cancelled: error 995
    /// @param onlyInSession refused like any other after a close if that session is over
    /// @param waiting       its event serves the wait, if given
    template <class R>
    RequestResult ask(int8_t port, typename R::Sent& sent, typename R::Answer& answer, DWORD patienceMs = INFINITE,
                      uint32_t onlyInSession = kAnySession, PendingRequest* waiting = nullptr) noexcept {
        putHeader(port, &sent);
        return judged(R::kCode, &answer, wire::kReadBytes<typename R::Answer>,
                      {R::kCode, &sent, sizeof sent, &answer, sizeof answer, onlyInSession}, patienceMs, waiting);
    }
    /// Issues a request that stays pending; both records must stay until it has ended.
    template <class R>
    RequestResult issue(int8_t port, typename R::Sent& sent, typename R::Answer& answer, PendingRequest& pending,
                        uint32_t onlyInSession = kAnySession) noexcept {
        putHeader(port, &sent);
        return loggedFailure(R::kCode,
                             issueRaw({R::kCode, &sent, sizeof sent, &answer, sizeof answer, onlyInSession}, pending));
    }
    /// The same, issued by the thread that lives as long as this: the system cancels what a thread that ends has
    /// issued.
    template <class R>
    RequestResult issueLasting(int8_t port, typename R::Sent& sent, typename R::Answer& answer,
                               PendingRequest& pending) noexcept {
        putHeader(port, &sent);
        answer = {};
        return judgedAtOnce(
            R::kCode, &answer,
            issueByThread({R::kCode, &sent, sizeof sent, &answer, sizeof answer, kAnySession}, pending));
    }
    /// Without header, and without a look at what comes back: the memory is the caller's. Logs nothing.
    RequestResult askDirect(uint32_t code, void* memory, uint32_t bytes, DWORD patienceMs) noexcept;
    RequestResult issueDirect(uint32_t code, void* memory, uint32_t bytes, PendingRequest& pending) noexcept {
        return issueByThread({code, nullptr, 0, memory, bytes, kAnySession}, pending);
    }

    /// Takes the result of a request that has ended. @return its Win32 error
    DWORD collect(PendingRequest& pending, DWORD& bytes) noexcept;
    /// Cancels a request that is pending and waits until the system has let go of it.
    void end(PendingRequest& pending) noexcept;

    static void logDriverResult(uint32_t code, uint32_t driverResult) noexcept;

private:
    struct Raw {
        uint32_t code;
        const void* sent;
        uint32_t sentBytes;
        void* answer;
        uint32_t answerBytes;
        uint32_t onlyInSession;
    };
    class UnderWay;

    void putHeader(int8_t port, void* sent) const noexcept;
    DWORD askRaw(const Raw& raw, DWORD patienceMs, PendingRequest* waiting, DWORD& bytes) noexcept;
    RequestResult issueRaw(const Raw& raw, PendingRequest& pending) noexcept;
    RequestResult issueByThread(const Raw& raw, PendingRequest& pending) noexcept;
    RequestResult judged(uint32_t code, const void* answer, uint32_t readBytes, const Raw& raw, DWORD patienceMs,
                         PendingRequest* waiting) noexcept;
    static RequestResult judgedAtOnce(uint32_t code, const void* answer, RequestResult result) noexcept;
    static RequestResult loggedFailure(uint32_t code, RequestResult result) noexcept;

    const UniqueObject m_stopCard, m_ioctlEmpty;
    std::atomic<int32_t> m_count{0};
    /// Follows StopCard, and is what requests look at: asking the system twice a frame would show.
    std::atomic<bool> m_refusing{true};
    UniqueFile m_device; // changed while requests are refused and none is under way
    std::atomic<HANDLE> m_handle{INVALID_HANDLE_VALUE};
    std::atomic<uint32_t> m_session{0}, m_sessionId{0};
    RequestThread m_thread;
};

} // namespace kestra
