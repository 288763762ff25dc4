// The conversion arithmetic of the vector kernels, written once for every register width. Each instruction set's file
// brings its own `Ops` in an unnamed namespace, so that no two builds of a template are ever merged. Private to
// decode/.
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

/// True if that byte of a pixel comes from `redBlue`; otherwise it comes from `blueRed` or, for channel 1, `green`.
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

// With byte shuffles at hand (SSE4.1, AVX2) the lanes hold one kind of sample each, a pair of pixels a lane, so that
// nothing has to change lanes before the bytes are interleaved.

/// Bytes Y, Cb of the first and Y, Cr of the second pixels.
template <class Ops>
struct Samples8Bit {
    typename Ops::Vec first, second;
};

template <class Ops>
struct Samples10Bit {
    typename Ops::Vec y0, cb, y1, cr;
};

/// What the sums of one register of pairs are made of: blue is luma + blue, green luma - green, red luma + red.
template <class Ops>
struct PairTerms {
    typename Ops::Vec luma0, luma1, blue, green, red;
};

/// Sums of one register of pairs, not yet limited.
template <class Ops>
struct PairSums {
    typename Ops::Vec blue0, green0, red0, blue1, green1, red1;
};

template <class Ops>
KESTRA_INLINE PairTerms<Ops> pairTerms8(const Samples8Bit<Ops>& samples) noexcept {
    const auto high = [](typename Ops::Vec x, int16_t c) { return Ops::high(x, Ops::set16(c)); };
    const auto luma = [&](typename Ops::Vec bytes) {
        const auto x = Ops::sub(Ops::eightTimesEvenBytes(bytes), Ops::set16(8 * yuv8::kYOff));
        return Ops::sub(high(x, yuv8::kY), Ops::sign(x));
    };
    const auto cb = Ops::sub(Ops::eightTimesOddBytes(samples.first), Ops::set16(8 * yuv8::kCOff));
    const auto cr = Ops::sub(Ops::eightTimesOddBytes(samples.second), Ops::set16(8 * yuv8::kCOff));
    const auto cbSign = Ops::sign(cb), crSign = Ops::sign(cr);
    return {luma(samples.first), luma(samples.second), Ops::sub(high(cb, yuv8::kCbB), cbSign),
            Ops::sub(Ops::add(high(cb, yuv8::kCbG), high(cr, yuv8::kCrG)), Ops::add(cbSign, crSign)),
            Ops::sub(high(cr, yuv8::kCrR), crSign)};
}

template <class Ops>
KESTRA_INLINE PairTerms<Ops> pairTerms10(const Samples10Bit<Ops>& samples) noexcept {
    const auto high = [](typename Ops::Vec x, int16_t c) { return Ops::high(x, Ops::set16(c)); };
    const auto luma = [&](typename Ops::Vec sample) {
        const auto x = Ops::sub(sample, Ops::set16(yuv10::kYOff));
        return Ops::sub(Ops::add(x, high(x, yuv10::kY)), Ops::sign(x));
    };
    const auto cb = Ops::sub(samples.cb, Ops::set16(yuv10::kCOff)), cr = Ops::sub(samples.cr, Ops::set16(yuv10::kCOff));
    const auto cbSign = Ops::sign(cb), crSign = Ops::sign(cr);
    const auto crTerm = Ops::sub(cr, crSign); // in red and in green
    return {luma(samples.y0), luma(samples.y1), Ops::sub(Ops::add(Ops::add(cb, cb), high(cb, yuv10::kCbB)), cbSign),
            Ops::add(Ops::sub(high(cb, yuv10::kCbG), cbSign), Ops::add(crTerm, high(cr, yuv10::kCrG))),
            Ops::add(Ops::add(cr, crTerm), high(cr, yuv10::kCrR))};
}

template <class Ops>
KESTRA_INLINE PairSums<Ops> pairSums8(const PairTerms<Ops>& t) noexcept {
    return {Ops::add(t.luma0, t.blue), Ops::sub(t.luma0, t.green), Ops::add(t.luma0, t.red),
            Ops::add(t.luma1, t.blue), Ops::sub(t.luma1, t.green), Ops::add(t.luma1, t.red)};
}

template <class Ops>
KESTRA_INLINE PairSums<Ops> pairSums10(const PairTerms<Ops>& t) noexcept {
    const PairSums<Ops> s = pairSums8<Ops>(t);
    return {Ops::quarter(s.blue0), Ops::quarter(s.green0), Ops::quarter(s.red0),
            Ops::quarter(s.blue1), Ops::quarter(s.green1), Ops::quarter(s.red1)};
}

/// Keeps the compiler from moving uses of these registers before this point, or their computation after it.
template <class Vec>
KESTRA_INLINE void settleRegister(Vec& v) noexcept {
    asm volatile("" : "+v"(v));
}
template <class Ops>
KESTRA_INLINE void settle(Samples8Bit<Ops>& s) noexcept {
    settleRegister(s.first), settleRegister(s.second);
}
template <class Ops>
KESTRA_INLINE void settle(Samples10Bit<Ops>& s) noexcept {
    settleRegister(s.y0), settleRegister(s.cb), settleRegister(s.y1), settleRegister(s.cr);
}
template <class Ops>
KESTRA_INLINE void settle(PairTerms<Ops>& t) noexcept {
    settleRegister(t.luma0), settleRegister(t.luma1), settleRegister(t.blue), settleRegister(t.green);
    settleRegister(t.red);
}

} // namespace kestra
