// One run of a pin, from start to stop: what its frames are and who receives them. The grabbing threads know a run by
// its number; a late thread finds its own run, already over, or none.
#pragma once

#include "device/tarnis.h"
#include "win32/com_ref.h"

#include <streams.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

class CaptureFilter;

namespace kestra {

/// The trace texts of a frame, given whole in the pin's class.
struct FrameTexts {
    const wchar_t *start, *notActive, *disconnected, *dropped, *overrun, *aborted, *noFrame, *noBuffer, *notDelivered,
        *done;
    bool notDeliveredIsDone; ///< a frame that was not delivered also writes `done`
};

/// Frames per second of an input; 25 if the rate is unknown.
int32_t framesPerSecond(const TarnisCameraStatus& status) noexcept;

class CaptureRun {
public:
    enum class State { Stopped, Starting, Active };
    /// Where the samples go. Held by the run until it ends and by every callback until it returns, so all of it stays
    /// valid for a receiver that blocks longer than a stop is willing to wait.
    struct Receiver {
        CaptureFilter& filter;
        ComRef<IUnknown> owner; ///< the filter's, and so the pin's
        ComRef<IPin> pin;
        ComRef<IMemInputPin> input;
        ComRef<IMemAllocator> allocator;
    };

    CaptureRun(const FrameTexts& texts, Receiver receiver, State state);
    virtual ~CaptureRun();
    CaptureRun(const CaptureRun&) = delete;
    CaptureRun& operator=(const CaptureRun&) = delete;

    /// Registers the run with the grab engine. @return its number, for onFrame
    static uint64_t enlist(const std::shared_ptr<CaptureRun>& run);
    /// The grab engine's callback.
    static void onFrame(uint64_t number, const TarnisFrameInfo* frame) noexcept;

    /// Sets the filter's state: frames are delivered while it is active and wait while it starts, so that early ones
    /// are not lost. Never waits for a callback.
    void setState(State state);
    /// Ends the run for good and releases the receiver.
    void end();
    bool hasEnded();

    TarnisCameraData camera{};      ///< changed only by the start, before the first frame is taken
    std::atomic<int32_t> rate = 25; ///< frames per second, never 0

protected:
    /// Fills a sample from a frame. @return false, after tracing why, if the sample is not to be delivered
    virtual bool fill(IMediaSample& sample, const TarnisFrameInfo& frame) = 0;
    /// True once the input no longer matches the run; the stream has then been ended.
    virtual void inputLost(CaptureFilter&) {}

private:
    void frameArrived(const TarnisFrameInfo& frame);
    std::shared_ptr<const Receiver> activeReceiver();
    void deliver(const Receiver& receiver, const TarnisFrameInfo& frame);

    const FrameTexts& m_texts;
    std::mutex m_mutex; ///< guards the next three members; not the filter's lock, which a stop holds
    std::condition_variable m_changed;
    State m_state;
    std::shared_ptr<const Receiver> m_receiver;
    uint64_t m_number = 0;
    std::atomic<int64_t> m_delivered = 0;
};

} // namespace kestra
