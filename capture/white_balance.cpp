// Gains from the means of a picture.
#include "capture/white_balance.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kestra {
namespace {

float gainOf(double strongest, double mean) noexcept {
    // The quotient where C++ leaves a division by zero undefined.
    if (mean == 0) return strongest > 0 ? std::numeric_limits<float>::infinity() : 1.0f;
    const auto gain = static_cast<float>(strongest / mean);
    return std::isnan(gain) ? 1.0f : gain;
}

uint8_t wholeMean(double mean) noexcept {
    return static_cast<uint8_t>(std::clamp(mean, 0.0, 255.0));
}

} // namespace

WhiteBalance whiteBalanceOf(const double (&means)[3]) noexcept {
    const double strongest = std::max({means[0], means[1], means[2]});
    return {wholeMean(means[2]),         wholeMean(means[1]),         wholeMean(means[0]),
            gainOf(strongest, means[2]), gainOf(strongest, means[1]), gainOf(strongest, means[0])};
}

} // namespace kestra
