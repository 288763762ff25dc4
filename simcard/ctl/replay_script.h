// Makes of a trace what a simulated card needs to answer as the recorded one did. Portable.
#pragma once

#include "simcard/model/replay.h"
#include "trace/trace_reader.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestra::simcard {

struct ReplayScript {
    std::vector<uint8_t> bytes;        ///< for Replay::load
    Signal signal{};                   ///< at the beginning, as the answers tell
    uint32_t openRefusal = 0;          ///< for a fault that refuses openings; 0: somebody could open the card
    std::vector<std::string> cautions; ///< what will not be as it was, in words
};

ReplayScript replayScriptOf(const trace::Trace& trace);

} // namespace kestra::simcard
