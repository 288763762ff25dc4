// The conversion arithmetic of the vector kernels, written once for every register width. Each instruction set's file
// brings its own `Ops` in an unnamed namespace, so that no two builds of a template are ever merged. Private to
// decode/.
//
// Lanes are 16 bits wide. A chroma register holds Cb in the even and Cr in the odd lanes, as they arrive.
#pragma once

#include "decode/yuv_constants.h"

#include <cstddef>

#define KESTRA_INLINE inline __attribute__((always_inline))

namespace kestra {

/// Sums of one register of pixels, not yet limited. Blue and red stay where their chroma came in: of even pixels
/// `blueRed` holds blue and `redBlue` red, of odd pixels the other way round.
template <class Ops>
struct PixelSums {
    typename Ops::Vec blueRed, green, redBlue;
};

/// True if that byte of a pixel comes from `redBlue`, else from `blueRed` or, channel 1, `green`.
constexpr bool fromRedBlue(size_t pixel, size_t channel) noexcept {
    return channel != 1 && (channel == 2) == (pixel % 2 == 0);
}

/// Even lanes `cb`, odd lanes `cr`.
constexpr int32_t alternating(int16_t cb, int16_t cr) noexcept {
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint16_t>(cr)) << 16 | static_cast<uint16_t>(cb));
}

template <class Ops>
KESTRA_INLINE PixelSums<Ops> addTerms(typename Ops::Vec y, typename Ops::Vec blueRed,
                                      typename Ops::Vec green) noexcept {
    // Cb and Cr terms of green: added to their neighbour, both lanes of a pair hold the sum.
    green = Ops::add(green, Ops::swapNeighbours(green));
    return {Ops::add(y, blueRed), Ops::sub(y, green), Ops::add(y, Ops::swapNeighbours(blueRed))};
}

/// @param raw bytes Y, Cb, Y, Cr
template <class Ops>
KESTRA_INLINE PixelSums<Ops> convert8(typename Ops::Vec raw) noexcept {
    const auto y = Ops::sub(Ops::eightTimesEvenBytes(raw), Ops::set16(8 * yuv8::kYOff));
    const auto c = Ops::sub(Ops::eightTimesOddBytes(raw), Ops::set16(8 * yuv8::kCOff));
    const auto sign = Ops::sign(c);
    return addTerms<Ops>(Ops::sub(Ops::high(y, Ops::set16(yuv8::kY)), Ops::sign(y)),
                         Ops::sub(Ops::high(c, Ops::set32(alternating(yuv8::kCbB, yuv8::kCrR))), sign),
                         Ops::sub(Ops::high(c, Ops::set32(alternating(yuv8::kCbG, yuv8::kCrG))), sign));
}

/// @param ySamples, cSamples 10-bit samples, one a lane
template <class Ops>
KESTRA_INLINE PixelSums<Ops> convert10(typename Ops::Vec ySamples, typename Ops::Vec cSamples) noexcept {
    const auto y = Ops::sub(ySamples, Ops::set16(yuv10::kYOff));
    const auto c = Ops::sub(cSamples, Ops::set16(yuv10::kCOff));
    const auto sign = Ops::sign(c);
    const auto yTerm = Ops::sub(Ops::add(y, Ops::high(y, Ops::set16(yuv10::kY))), Ops::sign(y));
    const auto blueRed =
        Ops::sub(Ops::add(Ops::add(c, c), Ops::high(c, Ops::set32(alternating(yuv10::kCbB, yuv10::kCrR)))), sign);
    const auto green =
        Ops::sub(Ops::add(Ops::oddLanes(c), Ops::high(c, Ops::set32(alternating(yuv10::kCbG, yuv10::kCrG)))), sign);
    auto sums = addTerms<Ops>(yTerm, blueRed, green);
    return {Ops::quarter(sums.blueRed), Ops::quarter(sums.green), Ops::quarter(sums.redBlue)};
}

} // namespace kestra
