// One opened card: handle, session, channels, and its way through removal and arrival. Private to device/.
//
// Locks, in the order in which they may be taken: mutexAccess (open, close, arrival, removal), a channel's prepare
// mutex, m_state (short, for the fields below it). No request is made under m_state.
#pragma once

#include "device/device_notifier.h"
#include "device/request_thread.h"
#include "device/tarnis.h"
#include "log/log.h"
#include "protocol/requests.h"
#include "win32/handle.h"
#include "win32/module.h"
#include "win32/mutex_lock.h"

#include <windows.h>

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

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

/// A request that the system may still write to. Its memory must stay until it has ended.
struct PendingRequest {
    OVERLAPPED overlapped{};
    UniqueObject event{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    bool issued = false;

    PendingRequest() { overlapped.hEvent = event.get(); }
    /// True from a successful issue until the system has completed it.
    bool isPending() const noexcept { return issued && WaitForSingleObject(event.get(), 0) == WAIT_TIMEOUT; }
    /// Cancels it and waits until the system has let go.
    void end(HANDLE device) noexcept;
};

/// The DMA buffers of one channel: one committed region, locked by pending requests. Lives as long as somebody may
/// look at a frame in it; the locks end when the channel is prepared anew or the card is closed.
class DmaBuffers {
public:
    ~DmaBuffers();

    std::byte* base = nullptr;
    uint32_t bufferSize = 0, bufferCount = 0;
    struct Chunk {
        uint64_t offset, length;
        uint32_t firstBuffer, bufferCount;
        PendingRequest lock;
    };
    std::vector<std::unique_ptr<Chunk>> chunks;

    bool isLocked() const noexcept;
    bool contains(const void* address) const noexcept {
        const auto offset = static_cast<uint64_t>(static_cast<const std::byte*>(address) - base);
        return offset < uint64_t{bufferSize} * bufferCount;
    }
    void unlock(HANDLE device) noexcept;
};

/// One run of a grabbing thread. The thread and its starter share it; the channel points to the current one.
struct GrabRun {
    TARNIS_GIS* instance = nullptr; // the thread holds a reference
    int8_t port = 0;
    uint32_t startParam = 0;
    TarnisCameraData* cameraData = nullptr; // the starter's; used until `started`
    TarnisFrameCallback callback = nullptr;
    uint64_t context = 0;
    UniqueObject stop{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    UniqueObject started{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    UniqueObject thread;
    DWORD threadId = 0;
    bool reported = false; // TARNIS_StartGrab has returned 0; under m_state
    std::atomic<bool> cardLost = false;
};

struct Channel {
    uint32_t openCount = 0;
    uint32_t bufferCount = 10;
    bool alternateFormat = false; ///< prepare sends the record's last word in the selector's place
    UniqueObject inputCheck{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::mutex prepareMutex;

    // Under the instance's m_state:
    std::optional<TarnisCameraData> prepared; ///< the stored camera data
    std::shared_ptr<DmaBuffers> buffers;
    std::shared_ptr<GrabRun> run;
    /// What arrival resumes: the run that removal stopped.
    std::shared_ptr<GrabRun> interrupted;
};

/// Checks that every function with a handle and a port makes. @return 0 or 1, logged.
uint32_t checkHandleAndPort(const LogUnit& unit, const char* function, int line, TARNIS_HANDLE hGrabber,
                            int8_t port) noexcept;

} // namespace kestra

/// One opened card. Counted: the creator, each grabbing thread and each call that is under way hold it, so that a close
/// on another thread takes it from under nobody.
struct TARNIS_GIS final : public IDeviceAddRemove {
public:
    /// Opens the card. isUsable() says whether that went well.
    explicit TARNIS_GIS(const wchar_t* devicePath);

    bool isUsable() noexcept;
    /// Ends the notifier, closes the card and gives the creator's reference back.
    void closeAndRelease() noexcept;
    void addReference() noexcept { ++m_references; }
    void release() noexcept;

    void DeviceRemoved(const DEV_BROADCAST_DEVICEINTERFACE_W& device) noexcept override;
    void DeviceArrived(const DEV_BROADCAST_DEVICEINTERFACE_W& device) noexcept override;

    /// Makes one request of the driver: fills the header in, judges the outcome, logs failures.
    /// @param overlapped    with `asynchronous`: stays pending, the caller collects it; else null, or a record with an
    ///                      event of the caller's that is waited for
    /// @param patienceMs    a synchronous request that takes longer is cancelled: error 995
    kestra::RequestResult IOCtl(uint32_t code, int8_t port, void* request, uint32_t requestSize, void* reply,
                                uint32_t replySize, OVERLAPPED* overlapped = nullptr, bool asynchronous = false,
                                DWORD patienceMs = INFINITE) noexcept;
    /// The same without header and without a look at the reply.
    kestra::RequestResult rawIOCtl(uint32_t code, const void* request, uint32_t requestSize, void* reply,
                                   uint32_t replySize, OVERLAPPED* overlapped, bool asynchronous,
                                   DWORD* replyBytes = nullptr, DWORD patienceMs = INFINITE) noexcept;
    template <class Request, class Reply>
    kestra::RequestResult ask(uint32_t code, int8_t port, Request& request, Reply& reply,
                              DWORD patienceMs = INFINITE) noexcept {
        return IOCtl(code, port, &request, sizeof request, &reply, sizeof reply, nullptr, false, patienceMs);
    }
    /// Issues a request that must outlive the calling thread, from the thread that lives as long as the instance.
    kestra::RequestResult issueLasting(uint32_t code, const void* request, uint32_t requestSize, void* reply,
                                       uint32_t replySize, kestra::PendingRequest& pending) noexcept;

    HANDLE deviceHandle() noexcept;
    uint32_t sessionId() const noexcept { return m_sessionId.load(std::memory_order_relaxed); }
    uint32_t requestCount() const noexcept { return static_cast<uint32_t>(m_requestCount.load()); }
    bool hasAccess(int8_t port) const noexcept { return (m_channelFlags.load() & kestra::wire::accessBit(port)) != 0; }
    /// @param port  0 or 1, checked by the caller
    kestra::Channel& channel(int8_t port) noexcept { return m_channels[port == 0 ? 0 : 1]; }

    std::mutex m_state;
    std::mutex m_accessMutex; // claims and releases of DMA access follow each other
    std::atomic<uint32_t> m_channelFlags{0};
    std::array<kestra::Channel, 2> m_channels;

private:
    ~TARNIS_GIS() = default;

    void OpenCard() noexcept;
    void setStopCard() noexcept;
    void resetStopCard() noexcept;
    void waitForRequests() noexcept;
    void refuseRequestsForGood() noexcept;
    void cancelRequests(HANDLE device) noexcept;
    void stopCard(bool resumeLater) noexcept;
    void closeDevice() noexcept;
    void resumeChannel(int8_t port) noexcept;
    bool isPath(const DEV_BROADCAST_DEVICEINTERFACE_W& device) const noexcept;

    std::atomic<int> m_references{1};
    std::atomic<int32_t> m_requestCount{0};
    std::atomic<bool> m_closing{false};
    /// Follows the StopCard event, and is what requests look at: asking the system twice a frame would show.
    std::atomic<bool> m_stopped{false};
    kestra::UniqueObject m_sessionEvent, m_mutexAccess, m_stopCard, m_ioctlEmpty;
    const std::wstring m_devicePath;
    kestra::UniqueFile m_device; // replaced under m_state
    std::atomic<uint32_t> m_sessionId{0};
    kestra::PendingRequest m_sessionWatch;
    kestra::wire::Header m_watchHeader{};
    kestra::wire::Reply m_watchReply{};
    kestra::RequestThread m_requestThread;
    std::unique_ptr<kestra::DeviceNotifier> m_notifier;
};

namespace kestra {

/// Keeps the instance for the time of one call.
class CallGuard {
public:
    explicit CallGuard(TARNIS_GIS& instance) noexcept : m_instance(instance) { instance.addReference(); }
    ~CallGuard() { m_instance.release(); }
    CallGuard(const CallGuard&) = delete;
    CallGuard& operator=(const CallGuard&) = delete;

private:
    TARNIS_GIS& m_instance;
};

} // namespace kestra
