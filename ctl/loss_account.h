// What was received and what was lost, by cause, from what the card says of each frame. Portable; one thread's.
#pragma once

#include "protocol/records.h"

#include <cstdint>

namespace kestra::ctl {

struct Losses {
    uint64_t cardDropped = 0; ///< no buffer was free in time: by the frames' numbers, and where the driver says so
    uint64_t overrun = 0;     ///< the card's memory overflowed
    uint64_t aborted = 0;     ///< ended by a stop
    uint64_t otherStatus = 0; ///< a status that is in no list
    uint64_t ringFull = 0;    ///< the program was too slow to make what is written
    uint64_t diskSlow = 0;    ///< the file or the pipe took too little
    uint64_t unwritten = 0;   ///< the file or the pipe failed before they were written

    /// What a user would call lost: not those that a stop ended.
    uint64_t total() const noexcept { return cardDropped + overrun + otherStatus + ringFull + diskSlow + unwritten; }
};

/// Counts the frames of one channel. The driver numbers frames in their first word; one that does not counts no gaps.
class LossAccount {
public:
    /// A frame has come, or did not come through.
    /// @param timeNs  of a clock that only goes forward
    void take(uint32_t dmaStatus, uint32_t frameNumber, int64_t timeNs) noexcept {
        switch (dmaStatus) {
        case DMA_STATUS_GOOD:
            takeGood(frameNumber, timeNs);
            return;
        case DMA_STATUS_FRAME_DROPED:
            ++losses.cardDropped;
            break;
        case DMA_STATUS_FIFO_OVERRUN:
            ++losses.overrun;
            break;
        case DMA_STATUS_ABORTED:
            ++losses.aborted;
            return;
        case DMA_STATUS_DICONNECTED:
            wasAway();
            return;
        default:
            ++losses.otherStatus;
        }
        ++m_failedSinceGood;
    }

    /// The card or its signal was away, or the grab begins anew: what passes by until the next good frame is no loss.
    void wasAway() noexcept { m_wasAway = true; }

    /// The card's other channel has found that the card was away since then. A gap that has been counted since is no
    /// loss either: a busy machine delivers what was on its way so late that the clock alone shows no pause.
    void wasAwaySince(int64_t timeNs) noexcept {
        wasAway();
        if (m_gap == 0 || m_gapNs <= timeNs) return;
        losses.cardDropped -= m_gap;
        missedWhileAway += m_gap;
        ++interruptions;
        m_gap = 0;
    }

    int64_t lastNs() const noexcept { return m_lastNs; } ///< of the last good frame
    bool expectsGap() const noexcept { return m_wasAway; }

    uint64_t frames = 0;
    uint64_t interruptions = 0;   ///< the card or its signal was away for a while
    uint64_t missedWhileAway = 0; ///< frames, by their numbers
    Losses losses;

private:
    /// Longer than any frame takes and than a buffered one can be late: nothing arrived.
    static constexpr int64_t kAwayNs = 300'000'000;

    void takeGood(uint32_t number, int64_t timeNs) noexcept {
        if (frames != 0) {
            const uint32_t step = number - m_lastNumber;
            const bool isForward = step != 0 && step < 0x80000000u;
            const uint64_t gap = isForward ? step - 1 : 0;
            const uint64_t missing = gap - (gap < m_failedSinceGood ? gap : m_failedSinceGood);
            if (m_wasAway || (timeNs - m_lastNs > kAwayNs && m_failedSinceGood == 0)) {
                if (missing != 0 || !isForward) ++interruptions; // else a frame was only late
                missedWhileAway += missing;
            } else if (missing != 0) {
                losses.cardDropped += missing;
                m_gap = missing;
                m_gapNs = timeNs;
            }
        }
        m_wasAway = false;
        ++frames;
        m_failedSinceGood = 0;
        m_lastNumber = number;
        m_lastNs = timeNs;
    }

    uint32_t m_lastNumber = 0;
    int64_t m_lastNs = 0;
    uint64_t m_failedSinceGood = 0;
    bool m_wasAway = false;
    uint64_t m_gap = 0; ///< the last one that was counted as a loss, and when it ended
    int64_t m_gapNs = 0;
};

/// The same for one of a card's two channels, which are away together.
inline void take(LossAccount& account, LossAccount& other, uint32_t dmaStatus, uint32_t frameNumber,
                 int64_t timeNs) noexcept {
    const uint64_t interruptions = account.interruptions;
    const int64_t sinceNs = account.lastNs();
    const bool isNews = !account.expectsGap(); // else the other knows already
    account.take(dmaStatus, frameNumber, timeNs);
    if (isNews && account.interruptions != interruptions) other.wasAwaySince(sinceNs);
}

/// How fast something goes, by a clock: from its first sighting to its last.
class RateMeter {
public:
    /// @param count  how many there have been so far
    void take(uint64_t count, int64_t timeNs) noexcept {
        if (!m_begun) m_firstCount = count, m_firstNs = timeNs, m_begun = true;
        m_lastCount = count;
        m_lastNs = timeNs;
    }
    /// Per second; 0: not seen twice yet.
    double perSecond() const noexcept {
        const double seconds = static_cast<double>(m_lastNs - m_firstNs) * 1e-9;
        return seconds > 0 ? static_cast<double>(m_lastCount - m_firstCount) / seconds : 0;
    }
    double seconds() const noexcept { return static_cast<double>(m_lastNs - m_firstNs) * 1e-9; }
    int64_t firstNs() const noexcept { return m_firstNs; }
    int64_t lastNs() const noexcept { return m_lastNs; }
    bool hasBegun() const noexcept { return m_begun; }

private:
    bool m_begun = false;
    uint64_t m_firstCount = 0, m_lastCount = 0;
    int64_t m_firstNs = 0, m_lastNs = 0;
};

} // namespace kestra::ctl
