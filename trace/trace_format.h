// What a trace's files hold: a head, then one record after the other. docs/trace.md describes it for others. Portable;
// plain data.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

namespace kestra::trace {

inline constexpr char kMagic[8] = {'K', 'E', 'S', 'T', 'R', 'A', 'T', 'R'};
inline constexpr uint32_t kVersion = 1;
/// The files of one trace: the first stays as it is, since it holds the opening; the others follow each other in turn.
inline constexpr uint32_t kFiles = 4;
/// So much of what was sent or answered is kept.
inline constexpr uint32_t kMostBytes = 4096;

enum class RecordKind : uint8_t {
    Sent = 1,    ///< a request is about to be made
    Ended = 2,   ///< the outcome of the request of that number
    Event = 3,   //
    Content = 4, ///< the frame of the event of that number
    Lost = 5     ///< so many (`number`) records before this one found no room
};

enum class EventKind : uint8_t {
    Opened = 1,        ///< value: Win32 error; number of the opening in `opening`
    Closed = 2,        ///< the handle of that opening is let go
    Arrival = 3,       //
    Removal = 4,       //
    InputEvent = 5,    ///< the card has told the channel that its input changed
    CallbackBegin = 6, ///< value: DMA status; frame's size and hash
    CallbackEnd = 7,   //
    Snapped = 8        ///< frame's size and hash; value: number of the request
};

#pragma pack(push, 1)

struct FileHead {
    char magic[8];
    uint32_t version;
    uint32_t headBytes; ///< the records begin there
    uint64_t trace;     ///< the same in all files of a trace
    uint32_t part;      ///< how many files of the trace were begun before
    uint32_t reserved;
    uint64_t start100ns; ///< when the records' time is 0: UTC, since 1601-01-01
};

struct RecordHead {
    uint32_t bytes; ///< of the whole record
    RecordKind kind;
    uint8_t port;
    uint16_t thread; ///< the process's threads in the order in which they appeared, from 1 on
    uint32_t number; ///< of the request or event, from 1 on
    uint64_t time100ns;
};

/// What was sent follows.
struct SentRecord {
    RecordHead head;
    uint32_t code;
    uint32_t opening;   ///< which opening of a card in this process, from 1 on; 0: of an enumeration
    uint32_t threadId;  ///< the system's
    uint32_t sentBytes; ///< may be more than follow
    uint32_t replyRoom;
};

/// What was answered follows.
struct EndedRecord {
    RecordHead head;
    uint32_t code;
    uint32_t win32Error;
    uint32_t replyBytes; ///< may be more than follow
};

struct EventRecord {
    RecordHead head;
    EventKind event;
    uint8_t reserved[3];
    uint32_t value;
    uint32_t opening;
    uint32_t frameBytes;
    uint64_t frameHash;
};

/// The frame's bytes follow.
struct ContentRecord {
    RecordHead head;
};

#pragma pack(pop)

static_assert(sizeof(FileHead) == 40 && offsetof(FileHead, trace) == 16 && offsetof(FileHead, start100ns) == 32);
static_assert(sizeof(RecordHead) == 20 && offsetof(RecordHead, thread) == 6 && offsetof(RecordHead, time100ns) == 12);
static_assert(sizeof(SentRecord) == 40 && offsetof(SentRecord, opening) == 24 && offsetof(SentRecord, replyRoom) == 36);
static_assert(sizeof(EndedRecord) == 32 && offsetof(EndedRecord, win32Error) == 24);
static_assert(sizeof(EventRecord) == 44 && offsetof(EventRecord, value) == 24 &&
              offsetof(EventRecord, frameHash) == 36);
static_assert(std::is_trivially_copyable_v<EventRecord> && std::is_trivially_copyable_v<FileHead>);

/// A number that tells two runs of bytes apart, going on from an earlier one. No protection against intent.
inline uint64_t hashOf(std::span<const uint8_t> bytes, uint64_t hash = 0x9E3779B97F4A7C15) noexcept {
    const auto mix = [&hash](uint64_t word) {
        hash = (hash ^ word) * 0xD6E8FEB86659FD93;
        hash ^= hash >> 32;
    };
    size_t at = 0;
    for (uint64_t word = 0; at + sizeof word <= bytes.size(); at += sizeof word) {
        std::memcpy(&word, bytes.data() + at, sizeof word);
        mix(word);
    }
    uint64_t rest = bytes.size();
    for (; at < bytes.size(); ++at)
        rest = rest << 8 | bytes[at];
    mix(rest);
    return hash;
}

/// Of a frame: of 64 pieces of 64 bytes at even distances, so that a frame of any size costs a microsecond. A frame of
/// up to 4096 bytes is hashed whole.
inline uint64_t frameHash(std::span<const uint8_t> frame) noexcept {
    constexpr size_t kPieces = 64, kPieceBytes = 64;
    if (frame.size() <= kPieces * kPieceBytes) return hashOf(frame);
    uint64_t hash = hashOf({});
    for (size_t i = 0; i < kPieces; ++i)
        hash = hashOf(frame.subspan((frame.size() - kPieceBytes) * i / (kPieces - 1), kPieceBytes), hash);
    return hash;
}

} // namespace kestra::trace
