// The files may end anywhere and hold anything: nothing is taken that is not there.
#include "trace/trace_reader.h"

#include <algorithm>
#include <unordered_map>

namespace kestra::trace {
namespace {

/// @return false: there is not enough of it
template <class Record>
bool take(Record& record, std::span<const uint8_t> bytes) noexcept {
    if (bytes.size() < sizeof record) return false;
    std::memcpy(&record, bytes.data(), sizeof record);
    return true;
}

template <class Record>
std::vector<uint8_t> after(std::span<const uint8_t> bytes) {
    return {bytes.begin() + sizeof(Record), bytes.end()};
}

class Reading {
public:
    void file(std::span<const uint8_t> bytes, const FileHead& head) {
        bytes = bytes.subspan(head.headBytes);
        RecordHead record{};
        while (!bytes.empty()) {
            if (!take(record, bytes) || record.bytes < sizeof record || record.bytes > bytes.size()) {
                trace.isCut = true;
                return;
            }
            one(record, bytes.first(record.bytes));
            bytes = bytes.subspan(record.bytes);
        }
    }

    void finish() {
        for (Request& request : trace.requests) {
            if (!request.hasBegun) request.begin100ns = request.end100ns;
            request.end100ns = std::max(request.end100ns, request.begin100ns); // also if it has none
        }
        std::stable_sort(trace.requests.begin(), trace.requests.end(),
                         [](const Request& a, const Request& b) { return a.begin100ns < b.begin100ns; });
        std::stable_sort(trace.events.begin(), trace.events.end(),
                         [](const Event& a, const Event& b) { return a.time100ns < b.time100ns; });
    }

    Trace trace;

private:
    void one(const RecordHead& head, std::span<const uint8_t> bytes) {
        switch (head.kind) {
        case RecordKind::Sent:
            return sent(bytes);
        case RecordKind::Ended:
            return ended(bytes);
        case RecordKind::Event:
            return event(bytes);
        case RecordKind::Content:
            if (const auto found = m_events.find(head.number); found != m_events.end())
                trace.events[found->second].content = after<ContentRecord>(bytes);
            return;
        case RecordKind::Lost:
            trace.lost += head.number;
            return;
        }
    }

    Request& requestOf(uint32_t number) {
        const auto [found, isNew] = m_requests.try_emplace(number, trace.requests.size());
        if (isNew) trace.requests.emplace_back().number = number;
        return trace.requests[found->second];
    }

    void sent(std::span<const uint8_t> bytes) {
        SentRecord record{};
        if (!take(record, bytes)) return;
        Request& request = requestOf(record.head.number);
        request.code = record.code;
        request.port = record.head.port;
        request.thread = record.head.thread;
        request.threadId = record.threadId;
        request.opening = record.opening;
        request.begin100ns = record.head.time100ns;
        request.hasBegun = true;
        request.sentBytes = record.sentBytes;
        request.replyRoom = record.replyRoom;
        request.sent = after<SentRecord>(bytes);
    }

    void ended(std::span<const uint8_t> bytes) {
        EndedRecord record{};
        if (!take(record, bytes)) return;
        Request& request = requestOf(record.head.number);
        if (!request.hasBegun) {
            request.code = record.code;
            request.port = record.head.port;
        }
        request.end100ns = record.head.time100ns;
        request.hasEnded = true;
        request.win32Error = record.win32Error;
        request.replyBytes = record.replyBytes;
        request.reply = after<EndedRecord>(bytes);
    }

    void event(std::span<const uint8_t> bytes) {
        EventRecord record{};
        if (!take(record, bytes)) return;
        m_events[record.head.number] = trace.events.size();
        Event& event = trace.events.emplace_back();
        event.number = record.head.number;
        event.kind = record.event;
        event.port = record.head.port;
        event.thread = record.head.thread;
        event.opening = record.opening;
        event.time100ns = record.head.time100ns;
        event.value = record.value;
        event.frameBytes = record.frameBytes;
        event.frameHash = record.frameHash;
    }

    std::unordered_map<uint32_t, size_t> m_requests, m_events; // number, index
};

} // namespace

FileHead headOf(std::span<const uint8_t> file) {
    FileHead head{};
    if (!take(head, file) || std::memcmp(head.magic, kMagic, sizeof kMagic) != 0) throw NoTrace("it is no trace");
    if (head.version != kVersion)
        throw NoTrace("it is a trace of version " + std::to_string(head.version) + ", and only version " +
                      std::to_string(kVersion) + " is known");
    if (head.headBytes < sizeof head || head.headBytes > file.size()) throw NoTrace("its head is damaged");
    return head;
}

Trace readTrace(std::span<const std::vector<uint8_t>> files) {
    std::vector<std::pair<FileHead, size_t>> parts;
    for (size_t i = 0; i < files.size(); ++i)
        parts.emplace_back(headOf(files[i]), i);
    std::stable_sort(parts.begin(), parts.end(),
                     [](const auto& a, const auto& b) { return a.first.part < b.first.part; });
    if (parts.empty()) throw NoTrace("there is no file");
    Reading reading;
    reading.trace.trace = parts.front().first.trace;
    reading.trace.start100ns = parts.front().first.start100ns;
    uint32_t next = 0;
    for (const auto& [head, index] : parts) {
        if (head.trace != reading.trace.trace) throw NoTrace("its files are of different traces");
        reading.trace.missingParts += head.part > next ? head.part - next : 0;
        next = head.part + 1;
        reading.file(files[index], head);
    }
    reading.finish();
    return std::move(reading.trace);
}

} // namespace kestra::trace
