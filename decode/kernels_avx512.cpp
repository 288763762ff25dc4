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

struct CachedStore {
    static KESTRA_INLINE void put(uint8_t* p, __m512i v) { Ops::store(p, v); }
};
struct StreamingStore {
    static KESTRA_INLINE void put(uint8_t* p, __m512i v) { Ops::stream(p, v); }
};

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

// 10-bit samples. 64 samples from an even pixel on start at sample 0, 2 or 4 of a word and lie in 11 or 12 words.

/// Bytes that hold sample `first + 2 * q + odd` in lane q.
template <size_t kOffset>
constexpr Index sampleBytes(size_t odd) {
    Index index{};
    for (size_t q = 0; q < 32; ++q) {
        const size_t sample = kOffset + 2 * q + odd, byte = 8 * (sample / 6) + 10 * (sample % 6) / 8;
        index[2 * q] = static_cast<uint8_t>(byte);
        index[2 * q + 1] = static_cast<uint8_t>(byte + 1);
    }
    return index;
}

template <size_t kOffset>
constexpr std::array<uint16_t, 32> sampleShifts(size_t odd) {
    std::array<uint16_t, 32> shifts{};
    for (size_t q = 0; q < 32; ++q)
        shifts[q] = static_cast<uint16_t>(10 * ((kOffset + 2 * q + odd) % 6) % 8);
    return shifts;
}

template <size_t kOffset>
struct Unpack {
    alignas(64) static constexpr Index kYBytes = sampleBytes<kOffset>(0);
    alignas(64) static constexpr Index kCBytes = sampleBytes<kOffset>(1);
    alignas(64) static constexpr std::array<uint16_t, 32> kYShifts = sampleShifts<kOffset>(0);
    alignas(64) static constexpr std::array<uint16_t, 32> kCShifts = sampleShifts<kOffset>(1);
};

/// Converts 32 pixels whose first sample is sample kOffset of the word at `words`.
template <size_t kOffset>
KESTRA_INLINE PixelSums<Ops> convert32(const uint8_t* words) {
    constexpr __mmask8 kRest = (kOffset + 64 + 5) / 6 == 12 ? 0x0F : 0x07;
    const __m512i low = _mm512_loadu_si512(words);
    const __m512i rest = _mm512_maskz_loadu_epi64(kRest, words + 64);
    const __m512i mask = _mm512_set1_epi16(1023);
    const __m512i y = _mm512_permutex2var_epi8(low, toVec(Unpack<kOffset>::kYBytes), rest);
    const __m512i c = _mm512_permutex2var_epi8(low, toVec(Unpack<kOffset>::kCBytes), rest);
    return convert10<Ops>(
        _mm512_and_si512(_mm512_srlv_epi16(y, _mm512_loadu_si512(Unpack<kOffset>::kYShifts.data())), mask),
        _mm512_and_si512(_mm512_srlv_epi16(c, _mm512_loadu_si512(Unpack<kOffset>::kCShifts.data())), mask));
}

/// The sums of the first and of the second 32 pixels of a block.
struct Sums {
    PixelSums<Ops> first, second;
};

/// Reads 64 pixels: 128 samples from sample kOffset of the word at `words` on.
template <size_t kOffset>
KESTRA_INLINE Sums begin64(const uint8_t* words) {
    constexpr size_t kSecond = kOffset + 64;
    return {convert32<kOffset>(words), convert32<kSecond % 6>(words + 8 * (kSecond / 6))};
}

struct KernelCommon {
    static constexpr uint32_t kBlockPairs = 32, kUnitPairs = 1, kAlignment = 64;
    static constexpr bool kInterleaved = false;
    using Cached = CachedStore;
    using Streaming = StreamingStore;
    static void lastPair(const LineConversion&, const uint8_t*, uint8_t*, uint32_t) {} // every pair is a unit
    template <class Store>
    static KESTRA_INLINE void finish(uint8_t* rgb, uint32_t pair, const Sums& begun) {
        store64<Store>(rgb + size_t{6} * pair, begun.first, begun.second);
    }
};

struct Kernel8Bit : KernelCommon {
    static constexpr ConvertLine plain = convertLine8BitPlain;
    static KESTRA_INLINE Sums begin(const uint8_t* raw, uint32_t pair) {
        const uint8_t* in = raw + size_t{4} * pair;
        return {convert8<Ops>(Ops::load(in)), convert8<Ops>(Ops::load(in + 64))};
    }
};

struct Kernel10Bit : KernelCommon {
    static constexpr ConvertLine plain = convertLine10BitPlain;
    static KESTRA_INLINE Sums begin(const uint8_t* raw, uint32_t pair) {
        const uint32_t sample = 4 * pair;
        const uint8_t* words = raw + size_t{8} * (sample / 6);
        switch (sample % 6) {
        case 0:
            return begin64<0>(words);
        case 2:
            return begin64<2>(words);
        default:
            return begin64<4>(words);
        }
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
                                         .copyLine = copyLine<Ops>,
                                         .swapLine = swapLine<Ops>,
                                         .expandLine = expandLine<Ops>};

} // namespace kestra
