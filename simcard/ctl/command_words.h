// What kestrasimctl's words mean: numbers, signals, faults. Portable; pure functions, which throw UsageError.
#pragma once

#include "simcard/model/control_wire.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestra::simcard {

/// The words make no sense; the text says which.
struct UsageError {
    std::string text;
};

/// The words behind the program's name.
struct CommandLine {
    uint32_t card = 0;
    bool json = false;
    bool help = false; ///< the words behind --help do not count
    std::string command;
    std::vector<std::string> arguments;
};
CommandLine parseCommandLine(const std::vector<std::string>& words);

/// @param base  0: decimal, or hexadecimal behind 0x
/// @param most  a larger number is refused
uint32_t parseNumber(const std::string& text, int base = 0, uint32_t most = 0xFFFFFFFF);
/// none | WxH RATE [i] [noaudio] [mode=N]. Whether a card could receive it is the card's to say.
Signal parseSignal(const std::vector<std::string>& words);
/// KIND CODE VALUE [COUNT [SKIP]] | signal CODE SKIP SIGNAL... | signal-at-frame 0 FRAME SIGNAL...
Fault parseFault(const std::vector<std::string>& words);

} // namespace kestra::simcard
