// Interleaving of a register of pairs to B, G, R in every 128-bit lane, and the places of samples there: what the
// SSE4.1 and AVX2 kernels share. Private to decode/.
// A lane of eight pairs becomes 24 words: B0 G0, R0 B1, G1 R1 of each pair. Word 3 n + k of the 24 is the k-th of pair
// n; for one k no two of them belong to the same word modulo 8, so one shuffle of the bytes of all the k-th words puts
// each where it belongs, whichever of the three output registers that is in; each output register then takes every
// third word from each of the three, which a blend with an immediate mask does.
#pragma once

#include "decode/line_template.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace kestra {

using Lane = std::array<uint8_t, 16>;

/// Which byte of a packed register (first bytes of the words of eight pairs, then their second bytes) goes to every
/// byte of a lane.
/// @param k     which word of each pair
/// @param step  lane of pair n is n * step, modulo 7 above it: 1 where the pairs are in their order, 2 where two
///              registers' halves of 32 bits alternate (0, 4, 1, 5, ...)
constexpr Lane spreadWords(size_t k, size_t step = 1) {
    Lane lane{};
    for (size_t pair = 0; pair < 8; ++pair) {
        const size_t word = (3 * pair + k) % 8, from = pair * step > 7 ? pair * step - 7 : pair * step;
        lane[2 * word] = static_cast<uint8_t>(from);
        lane[2 * word + 1] = static_cast<uint8_t>(8 + from);
    }
    return lane;
}

/// Bit p is set where word p of output register `out` is the k-th of its pair.
constexpr int takenWords(size_t out, size_t k) {
    int mask = 0;
    for (size_t p = 0; p < 8; ++p)
        if ((8 * out + p) % 3 == k) mask |= 1 << p;
    return mask;
}

// Eight 10-bit samples (four pixels) from sample 0, 2 or 4 of a word on lie in that word and the next. A byte shuffle
// brings the two bytes of each into its lane; a product puts the sample on top of its lane.

/// Sample of a group whose place is lane q: Y0, Y0, Y1, Y1, Cb, Cb, Cr, Cr of its two pairs.
constexpr size_t sampleInLane(size_t q) {
    constexpr size_t kFirst[4] = {0, 2, 1, 3};
    return kFirst[q / 2] + 4 * (q % 2);
}

/// Bytes of the samples of four pixels.
constexpr Lane sampleBytes(size_t offset) {
    Lane lane{};
    for (size_t q = 0; q < 8; ++q) {
        const size_t sample = offset + sampleInLane(q);
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
        const size_t sample = offset + sampleInLane(q);
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

/// The two kernels but for what each set does in its own way: to unpack groups, and to put lanes in their order.
template <class Ops>
struct LaneKernel {
    using Set = Ops;
    using Terms = PairTerms<Ops>;
    static constexpr uint32_t kBlockPairs = Ops::kBytes / 2;
};

template <class Ops>
struct LaneKernel8Bit : Lines8Bit, LaneKernel<Ops> {
    template <size_t kPhase>
    static KESTRA_INLINE Samples8Bit<Ops> samples(const uint8_t* raw) {
        // Loads two bytes off in place of shifts: the words beside each other change places with them.
        return {Ops::oddFromSecond(Ops::load(raw), Ops::load(raw + Ops::kBytes - 2)),
                Ops::oddFromSecond(Ops::load(raw + 2), Ops::load(raw + Ops::kBytes))};
    }
    static KESTRA_INLINE PairTerms<Ops> terms(const Samples8Bit<Ops>& samples) { return pairTerms8<Ops>(samples); }
};

template <class Ops>
struct LaneKernel10Bit : Lines10Bit, LaneKernel<Ops> {
    template <size_t kPhase>
    static KESTRA_INLINE Samples10Bit<Ops> samples(const uint8_t* raw) {
        using Vec = typename Ops::Vec;
        constexpr size_t kGroup = LaneKernel<Ops>::kBlockPairs / 2 * kPhase;
        const Vec v0 = Ops::template unpack<kGroup>(raw), v1 = Ops::template unpack<kGroup + 1>(raw);
        const Vec v2 = Ops::template unpack<kGroup + 2>(raw), v3 = Ops::template unpack<kGroup + 3>(raw);
        const Vec y01 = Ops::low32(v0, v1), c01 = Ops::high32(v0, v1), y23 = Ops::low32(v2, v3),
                  c23 = Ops::high32(v2, v3);
        return {Ops::low64(y01, y23), Ops::low64(c01, c23), Ops::high64(y01, y23), Ops::high64(c01, c23)};
    }
    static KESTRA_INLINE PairTerms<Ops> terms(const Samples10Bit<Ops>& samples) { return pairTerms10<Ops>(samples); }
};

} // namespace kestra
