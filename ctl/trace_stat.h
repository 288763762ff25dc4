// A trace in figures: how long requests took, how even frames came, what was lost and why. Portable; pure functions.
#pragma once

#include "ctl/json.h"
#include "ctl/loss_account.h"
#include "trace/trace_reader.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestra::ctl {

/// Of durations, in 100 ns.
struct Percentiles {
    uint64_t count = 0, p50 = 0, p90 = 0, p99 = 0, most = 0;
    /// Each is one of the values; they are sorted.
    static Percentiles of(std::vector<uint64_t>& values);
};

struct TraceStat {
    struct Kind {
        uint32_t code = 0;
        uint8_t port = 0;
        uint64_t failed = 0;  ///< the system or the driver refused, or it was cancelled
        uint64_t refused = 0; ///< the driver answered with a result of its own
        uint64_t unended = 0; ///< not answered, or not in the files that are left
        Percentiles latency;  ///< of those that succeeded
    };
    struct Frames {
        uint8_t port = 0;
        LossAccount account;
        Percentiles interval; ///< between good frames of one run
    };
    uint64_t length100ns = 0;
    std::vector<Kind> kinds;                    ///< in the order of the protocol's list
    std::vector<Frames> frames;                 ///< of the ports that had some
    std::vector<const trace::Request*> slowest; ///< of those that do not wait for something to happen
    uint64_t events = 0;
};

/// @param trace  must outlive the result
TraceStat statOf(const trace::Trace& trace);
/// True for requests that wait until something happens: a frame, the end of a session.
bool isWaiting(uint32_t code) noexcept;

std::string statText(const TraceStat& stat);
Json statJson(const TraceStat& stat);

} // namespace kestra::ctl
