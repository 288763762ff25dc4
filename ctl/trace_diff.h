// Whether two programs, or two versions of the library, asked the same of a card and were told the same. Portable; pure
// functions.
#pragma once

#include "ctl/json.h"
#include "trace/trace_reader.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestra::ctl {

/// What one thread asked of one port, in its order.
struct TraceLane {
    uint16_t thread = 0;
    uint8_t port = 0;
    std::vector<std::string> steps;
};

/// The lanes of a trace, without what only time decides: ids, addresses and counters, how often something is repeated
/// in a row, and what a lock or an unlock came to that a stop overtook.
std::vector<TraceLane> lanesOf(const trace::Trace& trace);

struct TraceDiff {
    struct Line {
        char side; ///< '-' only in the first, '+' only in the second, ' ' in both
        std::string step;
    };
    struct Lane {
        std::string name; ///< "thread 3, port 0"
        std::vector<Line> lines;
    };
    std::vector<Lane> lanes; ///< those that differ
    size_t same = 0;         ///< how many do not
};

TraceDiff diffOf(const trace::Trace& first, const trace::Trace& second);
/// With the durations of both, which are never the same.
std::string diffText(const TraceDiff& diff, const trace::Trace& first, const trace::Trace& second);
Json diffJson(const TraceDiff& diff);

} // namespace kestra::ctl
