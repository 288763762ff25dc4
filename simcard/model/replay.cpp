// A script is an array after the other; cursors stand in it.
#include "simcard/model/replay.h"

#include "protocol/request_fields.h"
#include "trace/trace_format.h"

#include <cstring>

namespace kestra::simcard {

namespace {

constexpr uint32_t kLongestSent = 4096;
constexpr uint64_t kPatience100ns = 20'000'000; // of an event with a client that is behind

/// The next `count` records of the script, which then begins after them; null: there are not so many.
template <class Record>
Record* cut(uint8_t*& at, size_t& left, uint32_t count) noexcept {
    if (count > left / sizeof(Record)) return nullptr;
    auto* records = reinterpret_cast<Record*>(at);
    at += count * sizeof(Record);
    left -= count * sizeof(Record);
    return records;
}

uint64_t hashOfSent(uint32_t code, const uint8_t* sent, uint32_t bytes) noexcept {
    uint8_t kept[kLongestSent];
    if (bytes > sizeof kept) bytes = sizeof kept;
    if (bytes != 0) std::memcpy(kept, sent, bytes);
    return replayHash(code, {kept, bytes});
}

} // namespace

uint64_t replayHash(uint32_t code, std::span<uint8_t> sent) noexcept {
    const wire::RequestFields& fields = wire::fieldsOf(code);
    wire::clearFields(sent, fields.sent, {wire::FieldKind::Own});
    if (!fields.repeated.empty() && !fields.sent.empty()) {
        const size_t head = size_t{fields.sent.back().offset} + fields.sent.back().bytes;
        const size_t size = size_t{fields.repeated.back().offset} + fields.repeated.back().bytes;
        for (size_t at = head; at + size <= sent.size(); at += size)
            wire::clearFields(sent.subspan(at, size), fields.repeated, {wire::FieldKind::Own});
    }
    return trace::hashOf(sent);
}

bool Replay::load(uint8_t* script, size_t bytes) noexcept {
    unload();
    Replay loaded;
    if (bytes < sizeof m_head) return false;
    std::memcpy(&loaded.m_head, script, sizeof m_head);
    uint8_t* at = script + sizeof m_head;
    size_t left = bytes - sizeof m_head;
    const ReplayHead& head = loaded.m_head;
    loaded.m_script = script;
    loaded.m_keys = cut<ReplayKey>(at, left, head.keys);
    loaded.m_answers = loaded.m_keys ? cut<ReplayAnswer>(at, left, head.answers) : nullptr;
    loaded.m_locks = loaded.m_answers ? cut<ReplayLock>(at, left, head.locks) : nullptr;
    loaded.m_events = loaded.m_locks ? cut<ReplayEvent>(at, left, head.events) : nullptr;
    loaded.m_replies = at;
    if (!loaded.m_events || left != head.replyBytes || !head.signal.isValid()) return false;
    const auto fits = [&](const ReplayAnswer& answer) {
        return answer.replyOffset <= head.replyBytes && answer.replyBytes <= head.replyBytes - answer.replyOffset;
    };
    for (uint32_t i = 0; i < head.keys; ++i) {
        const ReplayKey& key = loaded.m_keys[i];
        if (key.first > head.answers || key.count > head.answers - key.first || key.next > key.count) return false;
    }
    for (uint32_t i = 0; i < head.answers; ++i)
        if (!fits(loaded.m_answers[i])) return false;
    for (uint32_t i = 0; i < head.locks; ++i)
        if (loaded.m_locks[i].port > 1 || !fits(loaded.m_locks[i].answer)) return false;
    for (uint32_t i = 0; i < head.events; ++i)
        if (!loaded.m_events[i].signal.isValid()) return false;
    *this = loaded;
    return true;
}

const ReplayAnswer* Replay::answerTo(uint32_t code, const uint8_t* sent, uint32_t sentBytes,
                                     uint64_t now100ns) noexcept {
    if (!m_hasBegun) {
        m_hasBegun = true;
        m_lastStart = now100ns;
    }
    if (!isReplayed(code) || code == wire::kLockBuffer) return nullptr;
    if (code == wire::kUnlockBuffer && sentBytes != 0) ++m_unlocks[sent[0] & 1];
    const uint64_t hash = hashOfSent(code, sent, sentBytes);
    for (uint32_t i = 0; i < m_head.keys; ++i) {
        ReplayKey& key = m_keys[i];
        if (key.code != code || key.sentHash != hash) continue;
        const ReplayAnswer* answers = m_answers + key.first;
        while (!key.inAnyEpoch && key.next < key.count && answers[key.next].epoch < m_event)
            ++key.next;
        if (key.next < key.count && (key.inAnyEpoch || answers[key.next].epoch == m_event)) {
            ++m_report.answered;
            return answers + key.next++;
        }
        if (key.inAnyEpoch) return nullptr; // more frames than were recorded are no difference
        ++m_report.askedAgain;
        return nullptr;
    }
    if (m_report.notRecorded < kReportedCodes) m_report.codes[m_report.notRecorded] = code;
    ++m_report.notRecorded;
    return nullptr;
}

void Replay::started(uint32_t port, uint64_t now100ns) noexcept {
    m_lastStart = m_portStart[port] = now100ns;
    m_late = 0;
    m_unlocks[port] = 0;
    ++m_starts;
    ++m_run[port];
}

/// The first lock of the port that is not used up and not of an earlier run; null if it is of a later one.
ReplayLock* Replay::nextLock(uint32_t port) const noexcept {
    for (uint32_t i = m_lock[port]; i < m_head.locks; ++i)
        if (m_locks[i].port == port && m_locks[i].run >= m_run[port])
            return m_locks[i].run == m_run[port] ? m_locks + i : nullptr;
    return nullptr;
}

bool Replay::isLockDue(uint32_t port, uint64_t now100ns) const noexcept {
    if (const ReplayLock* lock = nextLock(port)) return now100ns - m_portStart[port] >= lock->afterStart100ns;
    // A card that was pulled, or whose input changed, had no more frames until that was noticed.
    return m_event == m_head.events || m_events[m_event].starts > m_starts;
}

const ReplayAnswer* Replay::takeLock(uint32_t port) noexcept {
    const ReplayLock* lock = nextLock(port);
    if (!lock) return nullptr;
    m_lock[port] = static_cast<uint32_t>(lock - m_locks) + 1;
    ++m_report.answered;
    return &lock->answer;
}

bool Replay::isClientBehind(const ReplayEvent& event) const noexcept {
    return m_unlocks[0] < event.unlocks[0] || m_unlocks[1] < event.unlocks[1];
}

const ReplayEvent* Replay::takeEvent(uint64_t now100ns) noexcept {
    if (!m_hasBegun || m_event == m_head.events) return nullptr;
    const ReplayEvent& event = m_events[m_event];
    if (event.starts > m_starts) return nullptr;
    if (event.starts == m_starts) {
        const uint64_t due = m_lastStart + m_late + event.after100ns;
        if (now100ns < due || (now100ns < due + kPatience100ns && isClientBehind(event))) return nullptr;
        m_late += now100ns - due;
    }
    ++m_event;
    ++m_report.events;
    return &event;
}

void Replay::readReport(ReplayReport& report) const noexcept {
    report = m_report;
    report.isLoaded = isLoaded();
    report.notAsked = 0;
    for (uint32_t i = 0; i < m_head.keys; ++i)
        if (!m_keys[i].inAnyEpoch) report.notAsked += m_keys[i].count - m_keys[i].next;
    report.eventsLeft = m_head.events - m_event;
}

} // namespace kestra::simcard
