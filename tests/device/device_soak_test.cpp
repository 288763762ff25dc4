// Both channels of two cards at the highest pace that the cards give: every buffer that is locked is given back, once,
// before the next. A long run lasts an hour.
#include "tests/device/device_test.h"
#include "tests/support/long_run.h"
#include "tests/support/process_counts.h"

#include <windows.h>

#include <array>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

ULONGLONG runMs() {
    return repetitions<ULONGLONG>(3'000, 3'600'000);
}

/// Follows the requests of one card and judges the locks and unlocks of its two channels.
class LockAudit {
public:
    explicit LockAudit(uint32_t card) : m_card(card) {}
    /// Takes in what the card received since the last look. @return false: some was overwritten before it was read.
    bool follow() {
        for (const LogEntry& entry : m_card.log(m_next)) {
            if (entry.sequence != m_next) return false;
            ++m_next;
            if (entry.code == wire::kLockBuffer)
                lock(entry.bytes[0]);
            else if (entry.code == wire::kUnlockBuffer)
                unlock(entry.bytes[0], entry);
        }
        return true;
    }
    uint32_t locks(uint8_t port) const { return m_ports[port].locks; }
    uint32_t unlocks(uint8_t port) const { return m_ports[port].unlocks; }
    uint32_t faults() const { return m_faults; }

private:
    struct Port {
        uint32_t locks = 0, unlocks = 0, lastId = 0;
    };
    void lock(uint8_t port) {
        Port& p = m_ports[port];
        // At most one buffer is out at a time: the one before has come back.
        if (p.locks != p.unlocks) ++m_faults;
        ++p.locks;
    }
    void unlock(uint8_t port, const LogEntry& entry) {
        Port& p = m_ports[port];
        uint32_t id = 0;
        std::memcpy(&id, entry.bytes + 5, sizeof id);
        if (p.locks != p.unlocks + 1 || (p.unlocks != 0 && id == p.lastId) || entry.result != 0) ++m_faults;
        p.lastId = id;
        ++p.unlocks;
    }

    CardControl m_card;
    uint64_t m_next = 1;
    std::array<Port, 2> m_ports{};
    uint32_t m_faults = 0;
};

/// What a callback saw of one channel: numbers that follow each other.
struct Counted {
    std::atomic<uint32_t> frames{0}, gaps{0}, bad{0};
    uint32_t last = 0;
    static void onFrame(uint64_t context, const TarnisFrameInfo* frame) {
        auto& self = *reinterpret_cast<Counted*>(context);
        if (frame->dmaStatus != DMA_STATUS_GOOD) {
            self.bad += frame->dmaStatus != DMA_STATUS_ABORTED; // a stop may abort the lock that waits
            return;
        }
        if (self.last != 0 && frame->frameWord0 != self.last + 1) ++self.gaps;
        self.last = frame->frameWord0;
        ++self.frames;
    }
};

class DeviceSoak : public DeviceTest {};

} // namespace

TEST_F(DeviceSoak, TwoCardsBothChannelsGiveEveryBufferBackOnce) {
    const CardControl second(1);
    second.reset();
    TARNIS_HANDLE other = openCard(1);
    ASSERT_NE(other, nullptr);
    Options fast = kDefaultOptions;
    fast.pace = Pace::AsTaken;
    m_card.setOptions(fast);
    second.setOptions(fast);
    m_card.clearLog();
    second.clearLog();

    const std::array<TARNIS_HANDLE, 2> cards = {m_grabber, other};
    std::array<LockAudit, 2> audits{LockAudit(0), LockAudit(1)};
    Counted counted[2][2];
    for (int card = 0; card < 2; ++card)
        for (int8_t port = 0; port < 2; ++port) {
            TarnisCameraData data{};
            data.outputSelector = TARNIS_OUTPUT_YUV422_8;
            data.extra = 1;
            ASSERT_EQ(TARNIS_GetDMAAccess(cards[size_t(card)], port), 0u);
            ASSERT_EQ(TARNIS_StartGrab(cards[size_t(card)], port, 0, &data, Counted::onFrame,
                                       reinterpret_cast<uint64_t>(&counted[card][port])),
                      0u);
        }
    CountsOverCycles counts;
    const ULONGLONG end = GetTickCount64() + runMs();
    waitUntil(
        [&] {
            for (LockAudit& audit : audits)
                if (!audit.follow()) {
                    ADD_FAILURE() << "requests went unread";
                    return true;
                }
            counts.noteNowAndThen();
            return GetTickCount64() >= end;
        },
        std::chrono::milliseconds(runMs() + 60'000));
    for (int card = 0; card < 2; ++card)
        for (int8_t port = 0; port < 2; ++port) {
            EXPECT_EQ(TARNIS_StopGrab(cards[size_t(card)], port), 0u);
            EXPECT_EQ(TARNIS_ReleaseDMAAccess(cards[size_t(card)], port), 0u);
        }
    EXPECT_EQ(TARNIS_Done(other), 0u);
    for (uint8_t card = 0; card < 2; ++card) {
        EXPECT_TRUE(audits[card].follow());
        EXPECT_EQ(audits[card].faults(), 0u);
        for (uint8_t port = 0; port < 2; ++port) {
            SCOPED_TRACE(testing::Message() << "card " << int{card} << " port " << int{port});
            const Counted& seen = counted[card][port];
            std::printf("card %d port %d: %u frames, %u locks, %u unlocks, %u gaps, %u bad\n", card, port,
                        seen.frames.load(), audits[card].locks(port), audits[card].unlocks(port), seen.gaps.load(),
                        seen.bad.load());
            EXPECT_GT(seen.frames.load(), 20u);
            EXPECT_EQ(seen.gaps.load(), 0u) << "no frame is lost when the card waits for its buffers";
            EXPECT_EQ(seen.bad.load(), 0u);
            // The last lock is ended by the stop: aborted, it comes back too, or cancelled, it never held a buffer.
            EXPECT_LE(audits[card].locks(port) - audits[card].unlocks(port), 1u);
            EXPECT_LE(audits[card].unlocks(port) - seen.frames.load(), 1u);
        }
    }
    counts.report("looks");
    // Requests under way hold handles of the system for a moment; a leak would show thousands.
    EXPECT_LE(counts.growth().handles, 16);
    EXPECT_EQ(counts.growth().threads, 0);
    EXPECT_LT(counts.growth().privateBytes, 2 << 20);
}

} // namespace kestra::test
