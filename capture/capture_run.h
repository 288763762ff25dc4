// One run of a pin, from its start to its stop: what its frames are, and whom they are for. The grab engine's threads
// know a run by a number and bring it frames; a thread that comes late finds its own run, which is over, or none.
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

/// The lines that a frame leaves, which stand whole in the pin's class.
struct FrameTexts {
    const wchar_t *start, *notActive, *disconnected, *dropped, *overrun, *aborted, *noFrame, *noBuffer, *notDelivered,
        *done;
    bool notDeliveredIsDone; ///< a frame that was not delivered leaves the line `done` too
};

/// Frames per second of an input; 25 without a known rate.
int32_t framesPerSecond(const TarnisCameraStatus& status) noexcept;

class CaptureRun {
public:
    enum class State { Stopped, Starting, Active };
    /// Whom the samples are for. Held by the run until it ends, and by every callback until it returns: a receiver that
    /// blocks for longer than whoever stops the filter waits finds all of it as it was.
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

    /// Makes the run known to the grab engine. @return its number, for onFrame
    static uint64_t enlist(const std::shared_ptr<CaptureRun>& run);
    /// The grab engine's callback.
    static void onFrame(uint64_t number, const TarnisFrameInfo* frame) noexcept;

    /// What the filter is: frames are delivered while it is active, and wait while it starts, so that none is lost that
    /// comes early. Never waits for a callback.
    void setState(State state);
    /// For good; lets go of the receiver.
    void end();
    bool hasEnded();

    TarnisCameraData camera{};      ///< changed by the start only, before the first frame is taken
    std::atomic<int32_t> rate = 25; ///< frames per second, never 0

protected:
    /// Brings a frame into a sample. @return false, after its own line: the sample is not delivered
    virtual bool fill(IMediaSample& sample, const TarnisFrameInfo& frame) = 0;
    /// The input is not what the run was started for any more; the stream has been ended.
    virtual void inputLost(CaptureFilter&) {}

private:
    void frameArrived(const TarnisFrameInfo& frame);
    std::shared_ptr<const Receiver> activeReceiver();
    void deliver(const Receiver& receiver, const TarnisFrameInfo& frame);

    const FrameTexts& m_texts;
    std::mutex m_mutex; ///< guards the next three; the callback must not take the filter's lock, which a stop holds
    std::condition_variable m_changed;
    State m_state;
    std::shared_ptr<const Receiver> m_receiver;
    uint64_t m_number = 0;
    std::atomic<int64_t> m_delivered = 0;
};

} // namespace kestra
