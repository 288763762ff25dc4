// What a recorded card answered, for a simulated one that is to answer the same. The owner keeps the memory, which the
// control program has filled. Knows no operating system, takes no memory. Entered under the card's lock.
#pragma once

#include "simcard/model/control_wire.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace kestra::simcard {

/// The NT status of a request that was never answered.
constexpr uint32_t kNeverAnswered = 0x103;

enum class ReplayEventKind : uint32_t { Input = 0, Removal = 1, Arrival = 2 };

#pragma pack(push, 1)

/// Starts a script; keys, answers, locks, events and replies follow.
struct ReplayHead {
    uint32_t keys, answers, locks, events, replyBytes;
    Signal signal; ///< at the beginning
};

/// Requests of one kind that send the same, but for what is a session's own.
struct ReplayKey {
    uint32_t code;
    uint64_t sentHash;     ///< of the request, without the fields of kind Own
    uint32_t first, count; ///< of its answers
    uint32_t next;         ///< how many are used up
    uint32_t inAnyEpoch;   ///< 1: buffers go round whatever happens
};

struct ReplayAnswer {
    uint32_t status;  ///< NT
    uint32_t delayMs; ///< before it comes
    uint32_t epoch;   ///< how many events there were before
    uint32_t replyOffset, replyBytes;
};

/// What a lock of a buffer was answered.
struct ReplayLock {
    uint32_t port;
    uint32_t run;             ///< how many starts of the port there were before
    uint64_t afterStart100ns; ///< when
    ReplayAnswer answer;
};

struct ReplayEvent {
    ReplayEventKind kind;
    uint32_t starts;     ///< how many starts of any port there were before
    uint64_t after100ns; ///< since the last of them, or since the first request
    uint32_t unlocks[2]; ///< how many buffers a port's client had given back since the port's start
    Signal signal;       ///< from then on
};

#pragma pack(pop)
static_assert(sizeof(ReplayHead) == 44 && sizeof(ReplayKey) == 28 && sizeof(ReplayAnswer) == 20);
static_assert(sizeof(ReplayLock) == 36 && sizeof(ReplayEvent) == 48);

/// What tells requests of one code apart: of what was sent, whose fields of kind Own are set to 0.
uint64_t replayHash(uint32_t code, std::span<uint8_t> sent) noexcept;

/// A card keeps its own slot: a recording holds those of all cards that were listed.
constexpr bool isReplayed(uint32_t code) noexcept {
    return code != wire::kGetSlotInfo;
}

class Replay {
public:
    /// Takes a script. @return false: its parts do not fit its size, and nothing is replayed
    bool load(uint8_t* script, size_t bytes) noexcept;
    void unload() noexcept { *this = Replay(); }
    bool isLoaded() const noexcept { return m_script != nullptr; }
    const Signal& signal() const noexcept { return m_head.signal; }

    /// The answer to a request, which is then used up. Null: none such was recorded here, or none is left.
    /// @param sent  the request, or what a chunk table says
    const ReplayAnswer* answerTo(uint32_t code, const uint8_t* sent, uint32_t sentBytes, uint64_t now100ns) noexcept;
    const uint8_t* reply(const ReplayAnswer& answer) const noexcept { return m_replies + answer.replyOffset; }

    void started(uint32_t port, uint64_t now100ns) noexcept;
    /// True if a lock of the port may be answered by now.
    bool isLockDue(uint32_t port, uint64_t now100ns) const noexcept;
    /// Null: the card answers by itself.
    const ReplayAnswer* takeLock(uint32_t port) noexcept;

    /// The next event, once its time has come and the client has given back as many buffers as the recorded one had by
    /// then: a slower client would otherwise never see the frames before a change. Null: not yet.
    const ReplayEvent* takeEvent(uint64_t now100ns) noexcept;

    void readReport(ReplayReport& report) const noexcept;

private:
    ReplayLock* nextLock(uint32_t port) const noexcept;
    bool isClientBehind(const ReplayEvent& event) const noexcept;

    uint8_t* m_script = nullptr;
    ReplayHead m_head{};
    ReplayKey* m_keys = nullptr;
    ReplayAnswer* m_answers = nullptr;
    ReplayLock* m_locks = nullptr;
    ReplayEvent* m_events = nullptr;
    uint8_t* m_replies = nullptr;
    uint32_t m_lock[2] = {}, m_run[2] = {}, m_unlocks[2] = {};
    uint64_t m_portStart[2] = {};
    uint32_t m_event = 0, m_starts = 0;
    uint64_t m_lastStart = 0;
    uint64_t m_late = 0; ///< how late the last event was: those after it keep their distance
    bool m_hasBegun = false;
    ReplayReport m_report{};
};

} // namespace kestra::simcard
