// One channel of a card: what it is prepared for, its buffers and its grabs. Any thread. Private to device/.
//
// ChannelLife decides what is to be done and in which order; here it is done, with system threads and requests.
#pragma once

#include "device/card_requests.h"
#include "device/channel_life.h"
#include "device/dma_buffers.h"
#include "device/tarnis.h"
#include "sync/mutex.h"

#include <windows.h>

#include <atomic>
#include <memory>
#include <optional>

namespace kestra {

class Card;
class Channel;

/// What a client gives with a start.
struct GrabSetup {
    uint32_t startParam;
    std::optional<TarnisCameraData> wanted; ///< empty: the client gave none, and the start will fail
    TarnisFrameCallback callback;
    uint64_t context;
};

/// One run of a grabbing thread, shared by the thread and whoever waits for it.
struct GrabRun : LifeRun<GrabRun> {
    explicit GrabRun(GrabSetup grabSetup) : setup(grabSetup) {}

    GrabSetup setup; ///< `wanted`: under the channel's mutex
    uint32_t session = 0;
    UniqueObject stopEvent{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    UniqueObject startedEvent{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    UniqueObject inputCheck; ///< its own handle of the channel's event
    PendingRequest lock;
    UniqueObject thread;
    DWORD threadId = 0;
    std::atomic<bool> told = false; ///< follows the stop event: asking the system every frame would show

    bool isUsable() const noexcept { return stopEvent && startedEvent && inputCheck && lock.event; }
    void tellToLeave() noexcept {
        told = true;
        SetEvent(stopEvent.get());
    }
};

class Channel {
public:
    Channel(Card& card, CardRequests& requests, int8_t port);

    /// The event that the card sets when its input has changed; null if the system gave none.
    HANDLE inputCheck() const noexcept { return m_inputCheck.get(); }

    enum class Start { Started, NotStarted, NoThread };
    /// @param cameraData  in: what is wanted; out: what the channel was prepared for, if the start got that far
    Start start(uint32_t startParam, TarnisCameraData* cameraData, TarnisFrameCallback callback, uint64_t context);
    uint32_t stop() { return m_life.stop(); }
    /// Removal, AccessReleased or Close.
    void leave(LifeEvent event) { m_life.leave(event); }
    void arrive() noexcept;

    /// Programs the channel and locks its buffers, unless that is what it has. Needs DMA access. Throws std::bad_alloc.
    uint32_t prepare(TarnisCameraData& cameraData) EXCLUDES(m_prepareMutex, m_mutex);
    uint32_t bufferSizeBytes() EXCLUDES(m_mutex);
    /// While the card refuses requests: waits until the system no longer uses the buffers.
    void unlockBuffers() noexcept EXCLUDES(m_mutex);
    /// Closed: a late callback may keep the buffers.
    void forget() noexcept EXCLUDES(m_mutex);

private:
    friend class ChannelLife<Channel>;
    friend class GrabLoop;
    using Life = ChannelLife<Channel>;
    using Run = GrabRun;
    using RunPointer = std::shared_ptr<Run>;
    using Mutex = kestra::Mutex;

    // The life's port.
    RunPointer makeThread(const GrabSetup& setup);
    GrabSetup resumedSetup(const Run& run);
    static void release(const RunPointer& run) { ResumeThread(run->thread.get()); }
    static void awaitStart(const Run& run);
    bool prepare(Run& run);
    bool startCard(Run& run);
    uint32_t stopCard(const Run* run);
    static void started(Run& run) { SetEvent(run.startedEvent.get()); }
    static bool awaitEarlier(const Run& run, const Run& earlier);
    Life::LoopEnd loop(Run& run);
    void tellClient(const Run& run) const;
    void callClient(const Run& run, const TarnisFrameInfo& frame) const;
    static void tellToLeave(Run& run) { run.tellToLeave(); }
    struct Patience {
        ULONGLONG untilMs = ~0ull; ///< of the system's tick count
    };
    static Patience stopPatience();
    static bool awaitEnd(const Run& run, const Patience& patience);

    struct ThreadStart;
    static unsigned __stdcall threadEntry(void* parameter);

    bool isPreparedFor(const TarnisCameraData& wanted) const noexcept REQUIRES(m_mutex);
    bool isPreparedFor(const TarnisCameraStatus& input) noexcept EXCLUDES(m_mutex);
    bool matchesPrepared(const TarnisCameraStatus& input) const noexcept REQUIRES(m_mutex);
    uint32_t replaceBuffers(uint32_t sizeBytes) REQUIRES(m_prepareMutex);
    std::shared_ptr<DmaBuffers> buffers() EXCLUDES(m_mutex);

    Card& m_card;
    CardRequests& m_requests;
    const int8_t m_port;
    const UniqueObject m_inputCheck{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    Mutex m_prepareMutex; ///< one prepare at a time; held over its requests
    Mutex m_mutex;        ///< for the fields below; no request is made under it
    std::optional<TarnisCameraData> m_prepared GUARDED_BY(m_mutex); ///< the stored camera data
    std::shared_ptr<DmaBuffers> m_buffers GUARDED_BY(m_mutex);
    Life m_life{*this};
};

} // namespace kestra
