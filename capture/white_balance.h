// White balance from the means of a picture. Portable; pure functions.
#pragma once

#include <cstdint>

namespace kestra {

struct WhiteBalance {
    uint8_t meanRed, meanGreen, meanBlue; ///< of the picture without gains and offsets, fractions dropped
    float gainRed, gainGreen, gainBlue;   ///< what makes the three means equal, at least 1
};

/// The gains that raise two channels to the strongest one's mean. A single black channel gets an infinite gain, on
/// purpose; an all-black picture gets gains of 1.
/// @param means of blue, green and red, 0 to 255
WhiteBalance whiteBalanceOf(const double (&means)[3]) noexcept;

} // namespace kestra
