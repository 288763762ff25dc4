// Interleaving of three registers of bytes to B, G, R in every 128-bit lane, and the places of 10-bit samples there:
// what the SSE4.1 and AVX2 kernels share. Private to decode/.
//
// Pixel i's green belongs to byte 3 i + 1 of the 48 that a lane's 16 pixels make, and likewise for the other two
// sources (see fromRedBlue). No two bytes of a source belong to the same byte modulo 16, so one shuffle puts every byte
// where it belongs, whichever of the three output registers that is in; each output register then takes every third
// byte from each of the three sources.
#pragma once

#include "decode/yuv_arithmetic.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace kestra {

using Lane = std::array<uint8_t, 16>;

enum Source { kBlueRed = 0, kGreen = 1, kRedBlue = 2 };

constexpr Source sourceOf(size_t pixel, size_t channel) {
    return channel == 1 ? kGreen : fromRedBlue(pixel, channel) ? kRedBlue : kBlueRed;
}

/// Which byte of the source goes to every byte of a lane.
constexpr Lane spread(Source source) {
    Lane lane{};
    for (size_t byte = 0; byte < 48; ++byte)
        if (sourceOf(byte / 3, byte % 3) == source) lane[byte % 16] = static_cast<uint8_t>(byte / 3);
    return lane;
}

/// 0xFF where byte p of output register `out` is from that source.
constexpr Lane taken(size_t out, Source source) {
    Lane lane{};
    for (size_t p = 0; p < 16; ++p) {
        const size_t byte = 16 * out + p;
        lane[p] = sourceOf(byte / 3, byte % 3) == source ? 0xFF : 0;
    }
    return lane;
}

// Eight 10-bit samples (four pixels) from sample 0, 2 or 4 of a word on lie in that word and the next. A byte shuffle
// brings the two bytes of each into its lane, Y first and then C; a product puts the sample on top of its lane.

/// Bytes of the samples of four pixels: lanes 0..3 Y, lanes 4..7 Cb, Cr, Cb, Cr.
constexpr Lane sampleBytes(size_t offset) {
    Lane lane{};
    for (size_t q = 0; q < 8; ++q) {
        const size_t sample = offset + (q < 4 ? 2 * q : 2 * (q - 4) + 1);
        const size_t byte = 8 * (sample / 6) + 10 * (sample % 6) / 8;
        lane[2 * q] = static_cast<uint8_t>(byte);
        lane[2 * q + 1] = static_cast<uint8_t>(byte + 1);
    }
    return lane;
}

/// What to multiply each lane with so that its sample fills bits 6..15.
constexpr std::array<uint16_t, 8> sampleFactors(size_t offset) {
    std::array<uint16_t, 8> factors{};
    for (size_t q = 0; q < 8; ++q) {
        const size_t sample = offset + (q < 4 ? 2 * q : 2 * (q - 4) + 1);
        factors[q] = static_cast<uint16_t>(1u << (6 - 10 * (sample % 6) % 8));
    }
    return factors;
}

/// Sample of its word at which group g of four pixels starts, and the byte at which that word starts.
constexpr size_t groupOffset(size_t group) {
    return 8 * group % 6;
}
constexpr size_t groupByte(size_t group) {
    return 8 * (8 * group / 6);
}

} // namespace kestra
