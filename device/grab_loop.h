// The loop of a grabbing thread: waits for filled buffers, hands each to the callback and gives it back. Private to
// device/.
#pragma once

#include "device/channel.h"

#include <memory>

namespace kestra {

/// Made and run on the run's thread, once its card has been started.
class GrabLoop {
public:
    using End = ChannelLife<Channel>::LoopEnd;

    GrabLoop(Channel& channel, GrabRun& run);
    /// Awaits the lock request, which writes into this object.
    ~GrabLoop();
    GrabLoop(const GrabLoop&) = delete;
    GrabLoop& operator=(const GrabLoop&) = delete;

    End run();

private:
    void issueLock();
    /// Collects the lock request that has ended. @return false: the run has outlived itself
    bool takeBuffer(bool deliver);
    void callBack();
    void giveBack();
    bool knowsBuffer();
    bool pause() const;
    /// The input has changed. @return empty: the loop goes on
    std::optional<End> checkInput();
    std::optional<End> dropPendingBuffer();

    Channel& m_channel;
    CardRequests& m_requests;
    GrabRun& m_run;
    std::shared_ptr<DmaBuffers> m_buffers; // held: the channel may be prepared anew while the callback looks at a frame
    wire::Header m_request{};
    wire::LockBufferReply m_reply{};
};

} // namespace kestra
