// Compares pictures and sound in files with what the simulated card makes. Portable.
#pragma once

#include "simcard/model/picture.h"
#include "simcard/model/signal.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kestra::test {

/// What a file holds: the card's numbers of its frames, in order, and what is wrong first; empty: nothing.
struct MediaFindings {
    std::vector<uint32_t> numbers;
    std::string wrong;
};

/// A whole YUV4MPEG2 file: its header, and every sample of every picture by simcard::pixelAt.
MediaFindings checkY4m(std::string_view file, const simcard::Signal& signal, uint32_t depth);

/// Raw frames, one after the other.
MediaFindings checkRaw(std::string_view file, const simcard::Signal& signal, uint32_t depth);

/// A whole WAV file: its header, and every sample.
/// @param first  the number of the frame with which the sound begins
/// @return numbers: of the frames whose sound is there
MediaFindings checkWav(std::string_view file, const simcard::Signal& signal, uint32_t bits, uint32_t first);

} // namespace kestra::test
