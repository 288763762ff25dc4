// Interleaving of three registers of bytes to B, G, R in every 128-bit lane, and the places of 10-bit samples there:
// what the SSE4.1 and AVX2 kernels share. Private to decode/.
//
// Byte i of blue belongs to byte 3 i of the 48 that a lane's 16 pixels make. As 3 has an inverse modulo 16, one shuffle
// puts every blue byte where it belongs modulo 16, whichever of the three output registers that is in; so do one for
// green and one for red, and each output register takes every third byte from each of the three.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kestra {

using Lane = std::array<uint8_t, 16>;

/// Source byte for every byte of a lane; channel 0 blue, 1 green, 2 red.
constexpr Lane spread(int channel) {
    Lane lane{};
    for (int i = 0; i < 16; ++i)
        lane[static_cast<size_t>((3 * i + channel) % 16)] = static_cast<uint8_t>(i);
    return lane;
}

/// 0xFF where byte p of output register `out` is of that channel.
constexpr Lane taken(int out, int channel) {
    Lane lane{};
    for (int p = 0; p < 16; ++p)
        lane[static_cast<size_t>(p)] = (16 * out + p) % 3 == channel ? 0xFF : 0;
    return lane;
}

// Eight 10-bit samples (four pixels) from sample 0, 2 or 4 of a word on lie in that word and the next. A byte shuffle
// brings the two bytes of each into its lane, Y first and then C; a product puts the sample on top of its lane.

/// Bytes of the samples of four pixels: lanes 0..3 Y, lanes 4..7 Cb, Cr, Cb, Cr.
constexpr Lane sampleBytes(int offset) {
    Lane lane{};
    for (int q = 0; q < 8; ++q) {
        const int sample = offset + (q < 4 ? 2 * q : 2 * (q - 4) + 1);
        const int byte = 8 * (sample / 6) + 10 * (sample % 6) / 8;
        lane[static_cast<size_t>(2 * q)] = static_cast<uint8_t>(byte);
        lane[static_cast<size_t>(2 * q + 1)] = static_cast<uint8_t>(byte + 1);
    }
    return lane;
}

/// What to multiply each lane with so that its sample fills bits 6..15.
constexpr std::array<uint16_t, 8> sampleFactors(int offset) {
    std::array<uint16_t, 8> factors{};
    for (int q = 0; q < 8; ++q) {
        const int sample = offset + (q < 4 ? 2 * q : 2 * (q - 4) + 1);
        factors[static_cast<size_t>(q)] = static_cast<uint16_t>(1 << (6 - 10 * (sample % 6) % 8));
    }
    return factors;
}

/// Sample of its word at which group g of four pixels starts, and that word.
constexpr int groupOffset(int group) {
    return 8 * group % 6;
}
constexpr int groupWord(int group) {
    return 8 * group / 6;
}

} // namespace kestra
