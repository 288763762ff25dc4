// Counts what arrives on both channels of a card, for whoever looks at it meanwhile. Portable.
#pragma once

#include "ctl/frame_receiver.h"
#include "ctl/loss_account.h"

#include <mutex>

namespace kestra::ctl {

class FrameCounter final : public FrameReceiver {
public:
    /// What has been counted at one moment.
    struct Counts {
        LossAccount picture, sound;
        RateMeter rate; ///< of pictures, since the last start or interruption
    };

    void receive(int port, const TarnisFrameInfo& frame, int64_t timeNs) noexcept override {
        const std::lock_guard lock(m_mutex);
        if (frame.dmaStatus == DMA_STATUS_DICONNECTED) m_hasChanged = true;
        if (port == 0)
            receivePicture(frame, timeNs);
        else if (m_hasPicture) // sound begins first; none is lost before its picture
            take(m_counts.sound, m_counts.picture, frame.dmaStatus, frame.frameWord0, timeNs);
    }
    /// Frames are about to come, for the first time or again.
    void begin(int64_t timeNs) {
        const std::lock_guard lock(m_mutex);
        m_hasChanged = m_hasPicture = false;
        m_counts.picture.wasAway();
        m_counts.sound.wasAway();
        m_counts.rate = {};
        m_lastNs = timeNs;
    }
    Counts counts() const {
        const std::lock_guard lock(m_mutex);
        return m_counts;
    }
    /// True if the input has changed, or no picture has come for so long that none will.
    bool hasStopped(int64_t nowNs) const {
        const std::lock_guard lock(m_mutex);
        return m_hasChanged || nowNs - m_lastNs > kSilenceNs;
    }

private:
    static constexpr int64_t kSilenceNs = 3'000'000'000;

    void receivePicture(const TarnisFrameInfo& frame, int64_t timeNs) noexcept {
        const uint64_t interruptions = m_counts.picture.interruptions;
        take(m_counts.picture, m_counts.sound, frame.dmaStatus, frame.frameWord0, timeNs);
        if (m_counts.picture.interruptions != interruptions) m_counts.rate = {}; // the time away is no part of it
        if (frame.dmaStatus != DMA_STATUS_GOOD) return;
        m_hasPicture = true;
        m_counts.rate.take(m_counts.picture.frames, timeNs);
        m_lastNs = timeNs;
    }

    mutable std::mutex m_mutex;
    Counts m_counts;
    int64_t m_lastNs = 0;
    bool m_hasChanged = false, m_hasPicture = false;
};

} // namespace kestra::ctl
