// Reads a trace's files, whatever they hold. Portable; any thread.
#pragma once

#include "trace/trace_format.h"

#include <cstdint>
#include <span>
#include <stdexcept>
#include <vector>

namespace kestra::trace {

/// This is no trace, or one of a version that is not known. what() says which.
class NoTrace : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Request {
    uint32_t number = 0;
    uint32_t code = 0;
    uint8_t port = 0;
    uint16_t thread = 0;
    uint32_t threadId = 0;
    uint32_t opening = 0;
    uint64_t begin100ns = 0;
    uint64_t end100ns = 0; ///< of one that has not ended: as begin100ns
    bool hasBegun = false; ///< false: only its end is in the files that are left
    bool hasEnded = false;
    uint32_t win32Error = 0;
    uint32_t sentBytes = 0, replyRoom = 0, replyBytes = 0;
    std::vector<uint8_t> sent, reply;
};

struct Event {
    uint32_t number = 0;
    EventKind kind{};
    uint8_t port = 0;
    uint16_t thread = 0;
    uint32_t opening = 0;
    uint64_t time100ns = 0;
    uint32_t value = 0;
    uint32_t frameBytes = 0;
    uint64_t frameHash = 0;
    std::vector<uint8_t> content; ///< empty: it was not kept
};

struct Trace {
    uint64_t trace = 0;
    uint64_t start100ns = 0;
    std::vector<Request> requests; ///< in the order of their beginnings
    std::vector<Event> events;     ///< in the order of their times
    uint64_t lost = 0;             ///< records that found no room
    uint32_t missingParts = 0;     ///< files that were begun and are not here
    bool isCut = false;            ///< a file ends within a record: the program ended while it was written
};

/// @param file  what one file holds. Throws NoTrace.
FileHead headOf(std::span<const uint8_t> file);

/// @param files  what the files of one trace hold, in any order; at least one. Throws NoTrace if one is not of it.
Trace readTrace(std::span<const std::vector<uint8_t>> files);

} // namespace kestra::trace
