// One opened card: its session, its two channels, and its way through removal and arrival. Any thread. Private to
// device/.
//
// Locks, in the order in which they may be taken: mutexAccess (open, close, arrival, removal), m_access (claims), those
// of the channels. Requests are made under the first two, but closing takes neither before every request has been
// refused or cancelled.
#pragma once

#include "device/card_requests.h"
#include "device/channel.h"
#include "device/device_notifier.h"
#include "device/tarnis.h"
#include "sync/mutex.h"
#include "win32/module.h"

#include <windows.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>

namespace kestra {

/// A mutex object of the system, as a lock.
class CAPABILITY("mutex") SystemMutex {
public:
    explicit SystemMutex(UniqueObject mutex) noexcept : m_mutex(std::move(mutex)) {}
    explicit operator bool() const noexcept { return bool(m_mutex); }
    void lock() ACQUIRE() { WaitForSingleObject(m_mutex.get(), INFINITE); }
    void unlock() RELEASE() { ReleaseMutex(m_mutex.get()); }

private:
    const UniqueObject m_mutex;
};

/// Counted: the creator, each grabbing thread and each call in progress hold a reference, so that a close on another
/// thread never frees it while it is in use.
class Card : public IDeviceAddRemove {
public:
    /// Opens the card. isUsable() says whether that went well. Throws if there is no memory or no thread.
    explicit Card(const wchar_t* devicePath);
    Card(const Card&) = delete;
    Card& operator=(const Card&) = delete;

    bool isUsable() const { return hasObjects() && m_requests.isOpen(); }
    /// Ends the notifier, closes the card and gives the creator's reference back.
    void closeAndRelease() noexcept;
    void addReference() noexcept { ++m_references; }
    void release() noexcept;

    CardRequests& requests() noexcept { return m_requests; }
    /// @param port  0 or 1, checked by the caller
    Channel& channel(int8_t port) noexcept { return port == 0 ? m_video : m_audio; }

    bool hasAccess(int8_t port) const noexcept { return (m_channelFlags & wire::accessBit(port)) != 0; }
    /// Claims a channel's DMA access. @return a TarnisResult; empty: it was claimed already, and is counted once more
    std::optional<uint32_t> claim(int8_t port) EXCLUDES(m_access);
    /// The reverse; ends what the channel still grabs. Empty: it was not claimed.
    std::optional<uint32_t> giveUp(int8_t port) EXCLUDES(m_access);

    void DeviceRemoved(const DEV_BROADCAST_DEVICEINTERFACE_W& device) noexcept override;
    void DeviceArrived(const DEV_BROADCAST_DEVICEINTERFACE_W& device) noexcept override;

protected:
    ~Card() = default;

private:
    const ModuleReference m_module; ///< first: a card has threads, which must not lose their code while it is open
    const TraceUse m_trace;         ///< before all that may be traced

    bool hasObjects() const noexcept;
    void OpenCard() REQUIRES(m_mutexAccess);
    bool startSession() REQUIRES(m_mutexAccess);
    void closeDevice() REQUIRES(m_mutexAccess);
    void stopCard(LifeEvent why) REQUIRES(m_mutexAccess);
    uint32_t sendFlags(int8_t port) REQUIRES(m_access);
    uint32_t& openCount(int8_t port) REQUIRES(m_access) { return port == 0 ? m_videoOpenCount : m_audioOpenCount; }
    bool isPath(const DEV_BROADCAST_DEVICEINTERFACE_W& device) const noexcept;

    std::atomic<int> m_references{1};
    std::atomic<bool> m_closing{false};
    PendingRequest m_sessionWatch; ///< its event is the session event
    SystemMutex m_mutexAccess;
    CardRequests m_requests;
    const std::wstring m_devicePath;
    wire::Header m_watchHeader GUARDED_BY(m_mutexAccess){};
    wire::Reply m_watchReply GUARDED_BY(m_mutexAccess){};
    Mutex m_access;                          ///< claims, releases and arrival's restoring follow each other
    std::atomic<uint32_t> m_channelFlags{0}; ///< changed under m_access
    uint32_t m_videoOpenCount GUARDED_BY(m_access) = 0, m_audioOpenCount GUARDED_BY(m_access) = 0;
    Channel m_video{*this, m_requests, 0}, m_audio{*this, m_requests, 1};
    std::unique_ptr<DeviceNotifier> m_notifier;
};

/// Keeps the card for the time of one call.
class CallGuard {
public:
    explicit CallGuard(Card& card) noexcept : m_card(card) { card.addReference(); }
    ~CallGuard() { m_card.release(); }
    CallGuard(const CallGuard&) = delete;
    CallGuard& operator=(const CallGuard&) = delete;

private:
    Card& m_card;
};

} // namespace kestra

/// What a handle points to.
struct TARNIS_GIS final : kestra::Card {
    using Card::Card;
};
