// Kernels for AVX-512 F, BW, VL and VBMI. The only file built with these instructions.
#include "decode/line_template.h"
#include "decode/sample_template.h"
#include "decode/yuv_arithmetic.h"

#include <immintrin.h>

#include <array>

namespace kestra {
namespace {

struct Ops {
    using Vec = __m512i;
    static constexpr size_t kBytes = 64;

    static KESTRA_INLINE Vec load(const void* p) { return _mm512_loadu_si512(p); }
    static KESTRA_INLINE void store(void* p, Vec v) { _mm512_storeu_si512(p, v); }
    static KESTRA_INLINE void stream(void* p, Vec v) { _mm512_stream_si512(static_cast<Vec*>(p), v); }
    static KESTRA_INLINE Vec set16(int v) { return _mm512_set1_epi16(static_cast<int16_t>(v)); }
    static KESTRA_INLINE Vec set32(int v) { return _mm512_set1_epi32(v); }
    static KESTRA_INLINE Vec add(Vec a, Vec b) { return _mm512_add_epi16(a, b); }
    static KESTRA_INLINE Vec sub(Vec a, Vec b) { return _mm512_sub_epi16(a, b); }
    static KESTRA_INLINE Vec high(Vec a, Vec b) { return _mm512_mulhi_epi16(a, b); }
    static KESTRA_INLINE Vec sign(Vec v) { return _mm512_srai_epi16(v, 15); }
    static KESTRA_INLINE Vec quarter(Vec v) { return _mm512_srai_epi16(v, 2); }
    static KESTRA_INLINE Vec eightTimesEvenBytes(Vec v) { return _mm512_maddubs_epi16(v, set16(0x0008)); }
    static KESTRA_INLINE Vec eightTimesOddBytes(Vec v) { return _mm512_maddubs_epi16(v, set16(0x0800)); }
    static KESTRA_INLINE Vec oddLanes(Vec v) { return _mm512_maskz_mov_epi16(0xAAAAAAAA, v); }
    static KESTRA_INLINE Vec swapBytes(Vec v) {
        return _mm512_or_si512(_mm512_slli_epi16(v, 8), _mm512_srli_epi16(v, 8));
    }
    static KESTRA_INLINE Vec expand(Vec v);
    static KESTRA_INLINE Vec swapNeighbours(Vec v) { return _mm512_rol_epi32(v, 16); }
};

using Index = std::array<uint8_t, 64>;

KESTRA_INLINE __m512i toVec(const Index& index) {
    return _mm512_loadu_si512(index.data());
}

alignas(64) constexpr Index kExpandIndex = [] {
    Index index{};
    for (size_t t = 0; t < 64; ++t)
        index[t] = static_cast<uint8_t>(t / 4 * 3 + t % 4);
    return index;
}();

KESTRA_INLINE __m512i Ops::expand(__m512i v) {
    return _mm512_maskz_permutexvar_epi8(0x7777777777777777, toVec(kExpandIndex), v);
}

// Packing leaves the byte of pixel p (0..31) of a register's first source at 16 * (p / 8) + p % 8, of its second 8 on.
constexpr size_t packedAt(size_t pixel) {
    return 16 * (pixel / 8) + pixel % 8;
}

/// Index of the bytes that output register `out` of the three takes from (first, redBlue), where `first` is the packed
/// blueRed and green of 32 pixels, of which the outer registers need no others.
constexpr Index outerIndex(size_t out) {
    Index index{};
    for (size_t t = 0; t < 64; ++t) {
        const size_t pixel = (64 * out + t) / 3, channel = (64 * out + t) % 3, at = packedAt(pixel % 32);
        index[t] = static_cast<uint8_t>(fromRedBlue(pixel, channel) ? 64 + at + 8 * (pixel / 32)
                                                                    : at + (channel == 1 ? 8 : 0));
    }
    return index;
}

/// The middle register is from both halves' blueRed and green, and then from redBlue.
constexpr Index middleIndex(bool redBlue) {
    Index index{};
    for (size_t t = 0; t < 64; ++t) {
        const size_t pixel = (64 + t) / 3, channel = (64 + t) % 3, at = packedAt(pixel % 32);
        index[t] =
            static_cast<uint8_t>(redBlue ? at + 8 * (pixel / 32) : 64 * (pixel / 32) + at + (channel == 1 ? 8 : 0));
    }
    return index;
}

constexpr uint64_t middleRedBlue() {
    uint64_t mask = 0;
    for (size_t t = 0; t < 64; ++t)
        if (fromRedBlue((64 + t) / 3, (64 + t) % 3)) mask |= uint64_t{1} << t;
    return mask;
}

alignas(64) constexpr Index kFirstOut = outerIndex(0);
alignas(64) constexpr Index kLastOut = outerIndex(2);
alignas(64) constexpr Index kMiddleOut = middleIndex(false);
alignas(64) constexpr Index kMiddleRedBlue = middleIndex(true);
constexpr __mmask64 kMiddleMask = middleRedBlue();

/// Limits to 0..255, interleaves and stores 64 pixels: 192 bytes.
template <class Store>
KESTRA_INLINE void store64(uint8_t* rgb, const PixelSums<Ops>& a, const PixelSums<Ops>& b) {
    const __m512i first = _mm512_packus_epi16(a.blueRed, a.green);
    const __m512i second = _mm512_packus_epi16(b.blueRed, b.green);
    const __m512i redBlue = _mm512_packus_epi16(a.redBlue, b.redBlue);
    const __m512i middle = _mm512_permutex2var_epi8(first, toVec(kMiddleOut), second);
    Store::put(rgb, _mm512_permutex2var_epi8(first, toVec(kFirstOut), redBlue));
    Store::put(rgb + 64, _mm512_mask_permutexvar_epi8(middle, kMiddleMask, toVec(kMiddleRedBlue), redBlue));
    Store::put(rgb + 128, _mm512_permutex2var_epi8(second, toVec(kLastOut), redBlue));
}

// Pairs of pixels, one kind of sample a register, as the 10-bit kernel has them: packing leaves the byte of pair n of a
// register's first source at 16 * (n / 8) + n % 8, of its second 8 on.

/// Index of the bytes that output register `out` takes from (blue0 green0, red0 blue1), or from (green1 red1).
constexpr Index pairsIndex(size_t out, bool last) {
    Index index{};
    for (size_t t = 0; t < 64; ++t) {
        const size_t pair = (64 * out + t) / 6, byte = (64 * out + t) % 6, kind = byte / 2;
        index[t] = static_cast<uint8_t>(packedAt(pair) + 8 * (byte % 2) + (last ? 0 : 64 * (kind % 2)));
    }
    return index;
}
constexpr uint64_t fromLastPack(size_t out) {
    uint64_t mask = 0;
    for (size_t t = 0; t < 64; ++t)
        if ((64 * out + t) % 6 / 2 == 2) mask |= uint64_t{1} << t;
    return mask;
}
template <size_t kOut>
struct PairsOut {
    alignas(64) static constexpr Index kFirst = pairsIndex(kOut, false);
    alignas(64) static constexpr Index kLast = pairsIndex(kOut, true);
    static constexpr __mmask64 kMask = fromLastPack(kOut);
};

template <class Store, size_t kOut>
KESTRA_INLINE void storePairs(uint8_t* rgb, __m512i first, __m512i second, __m512i last) {
    const __m512i bytes = _mm512_permutex2var_epi8(first, toVec(PairsOut<kOut>::kFirst), second);
    Store::put(rgb + 64 * kOut,
               _mm512_mask_permutexvar_epi8(bytes, PairsOut<kOut>::kMask, toVec(PairsOut<kOut>::kLast), last));
}

/// Limits to 0..255, interleaves and stores 64 pixels: 192 bytes.
template <class Store>
KESTRA_INLINE void store64(uint8_t* rgb, const PairSums<Ops>& v) {
    const __m512i first = _mm512_packus_epi16(v.blue0, v.green0), second = _mm512_packus_epi16(v.red0, v.blue1);
    const __m512i last = _mm512_packus_epi16(v.green1, v.red1);
    storePairs<Store, 0>(rgb, first, second, last);
    storePairs<Store, 1>(rgb, first, second, last);
    storePairs<Store, 2>(rgb, first, second, last);
}

/// How 16 pairs are unpacked whose first sample is sample kOffset of a word. They lie in 11 or 12 words, which two
/// registers of eight words hold, the second up to the last of them.
template <size_t kOffset>
struct Unpack {
    static constexpr size_t kSecondByte = 8 * ((kOffset + 64 + 5) / 6) - 64;

    /// Lane q of the first 16 holds sample `sample` of pair q, of the others sample `sample` + 2: Y0 and Y1, or Cb and
    /// Cr.
    static constexpr size_t sampleOf(size_t q, size_t sample) { return kOffset + 4 * (q % 16) + sample + q / 16 * 2; }
    static constexpr Index bytes(size_t sample) {
        Index index{};
        for (size_t q = 0; q < 32; ++q)
            for (size_t i = 0; i < 2; ++i) {
                const size_t byte = 8 * (sampleOf(q, sample) / 6) + 10 * (sampleOf(q, sample) % 6) / 8 + i;
                index[2 * q + i] = static_cast<uint8_t>(byte < 64 ? byte : 64 + byte - kSecondByte);
            }
        return index;
    }
    static constexpr std::array<uint16_t, 32> shifts(size_t sample) {
        std::array<uint16_t, 32> shifts{};
        for (size_t q = 0; q < 32; ++q)
            shifts[q] = static_cast<uint16_t>(10 * (sampleOf(q, sample) % 6) % 8);
        return shifts;
    }
    alignas(64) static constexpr Index kYBytes = bytes(0);
    alignas(64) static constexpr Index kCBytes = bytes(1);
    alignas(64) static constexpr std::array<uint16_t, 32> kYShifts = shifts(0);
    alignas(64) static constexpr std::array<uint16_t, 32> kCShifts = shifts(1);
};

/// Y0 and Y1, Cb and Cr of 16 pairs, each in half a register.
struct Halves {
    __m512i y, c;
};

/// 16 pairs from sample kSample on of those that begin at `words`.
template <size_t kSample>
KESTRA_INLINE Halves unpack(const uint8_t* words) {
    using U = Unpack<kSample % 6>;
    words += 8 * (kSample / 6);
    const __m512i low = Ops::load(words), high = Ops::load(words + U::kSecondByte), mask = Ops::set16(1023);
    const auto samples = [&](const Index& bytes, const std::array<uint16_t, 32>& shifts) {
        const __m512i lanes = _mm512_permutex2var_epi8(low, toVec(bytes), high);
        return _mm512_and_si512(_mm512_srlv_epi16(lanes, Ops::load(shifts.data())), mask);
    };
    return {samples(U::kYBytes, U::kYShifts), samples(U::kCBytes, U::kCShifts)};
}

/// The sums of the first and of the second 32 pixels of a block.
struct Sums {
    PixelSums<Ops> first, second;
};
KESTRA_INLINE void settle(Sums&) {} // memory-bound: the order does not matter

struct Kernel8Bit : Lines8Bit {
    using Set = Ops;
    using Terms = Sums;
    static constexpr uint32_t kBlockPairs = 32;
    template <size_t kPhase>
    static KESTRA_INLINE Samples8Bit<Ops> samples(const uint8_t* raw) {
        return {Ops::load(raw), Ops::load(raw + 64)};
    }
    static KESTRA_INLINE Terms terms(const Samples8Bit<Ops>& samples) {
        return {convert8<Ops>(samples.first), convert8<Ops>(samples.second)};
    }
    template <class Store>
    static KESTRA_INLINE void finish(uint8_t* rgb, const Terms& terms) {
        store64<Store>(rgb, terms.first, terms.second);
    }
};

struct Kernel10Bit : Lines10Bit {
    using Set = Ops;
    using Terms = PairTerms<Ops>;
    static constexpr uint32_t kBlockPairs = 32;
    template <size_t kPhase>
    static KESTRA_INLINE Samples10Bit<Ops> samples(const uint8_t* raw) {
        const Halves a = unpack<128 * kPhase>(raw), b = unpack<128 * kPhase + 64>(raw);
        return {_mm512_shuffle_i64x2(a.y, b.y, 0x44), _mm512_shuffle_i64x2(a.c, b.c, 0x44),
                _mm512_shuffle_i64x2(a.y, b.y, 0xEE), _mm512_shuffle_i64x2(a.c, b.c, 0xEE)};
    }
    static KESTRA_INLINE Terms terms(const Samples10Bit<Ops>& samples) { return pairTerms10<Ops>(samples); }
    template <class Store>
    static KESTRA_INLINE void finish(uint8_t* rgb, const Terms& terms) {
        store64<Store>(rgb, pairSums10<Ops>(terms));
    }
};

} // namespace

constinit const KernelSet kAvx512Kernels{.name = "avx512",
                                         .runsHere =
                                             []() noexcept {
                                                 return __builtin_cpu_supports("avx512f") &&
                                                        __builtin_cpu_supports("avx512bw") &&
                                                        __builtin_cpu_supports("avx512vl") &&
                                                        __builtin_cpu_supports("avx512vbmi");
                                             },
                                         .convertLine8Bit = convertLine<Kernel8Bit>,
                                         .convertLine10Bit = convertLine<Kernel10Bit>,
                                         .picosecondsPerPixel8Bit = 210,
                                         .picosecondsPerPixel10Bit = 240,
                                         .copyLine = copyLine<Ops>,
                                         .swapLine = swapLine<Ops>,
                                         .expandLine = expandLine<Ops>};

} // namespace kestra
