// Kernels for AVX2. The only file built with these instructions.
#include "decode/interleave128.h"
#include "decode/line_template.h"
#include "decode/region_template.h"
#include "decode/sample_template.h"

#include <immintrin.h>

namespace kestra {
namespace {

/// A constant of full width, so that it can be an operand in memory: there are more than registers.
template <class Half>
struct alignas(32) Wide {
    Half low, high;
    KESTRA_INLINE __m256i vec() const { return _mm256_load_si256(reinterpret_cast<const __m256i*>(this)); }
};
template <class Half>
constexpr Wide<Half> twice(const Half& half) {
    return {half, half};
}
KESTRA_INLINE __m256i twoAt(const uint8_t* low, const uint8_t* high) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(low))),
                                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(high)), 1);
}

constexpr Wide<Lane> kExpandBytes = twice(Lane{0, 1, 2, 128, 3, 4, 5, 128, 6, 7, 8, 128, 9, 10, 11, 128});
constexpr Wide<Lane> kSwapNeighbours = twice(Lane{2, 3, 0, 1, 6, 7, 4, 5, 10, 11, 8, 9, 14, 15, 12, 13});

struct Ops {
    using Vec = __m256i;
    static constexpr size_t kBytes = 32;

    static KESTRA_INLINE Vec load(const void* p) { return _mm256_loadu_si256(static_cast<const __m256i*>(p)); }
    static KESTRA_INLINE void store(void* p, Vec v) { _mm256_storeu_si256(static_cast<__m256i*>(p), v); }
    static KESTRA_INLINE void stream(void* p, Vec v) { _mm256_stream_si256(static_cast<Vec*>(p), v); }
    static KESTRA_INLINE Vec zero() { return _mm256_setzero_si256(); }
    static KESTRA_INLINE Vec shiftRight(Vec v, unsigned count) {
        return _mm256_srl_epi16(v, _mm_cvtsi32_si128(static_cast<int>(count)));
    }
    static KESTRA_INLINE Vec set16(int v) { return _mm256_set1_epi16(static_cast<int16_t>(v)); }
    static KESTRA_INLINE Vec set32(int v) { return _mm256_set1_epi32(v); }
    static KESTRA_INLINE Vec add(Vec a, Vec b) { return _mm256_add_epi16(a, b); }
    static KESTRA_INLINE Vec sub(Vec a, Vec b) { return _mm256_sub_epi16(a, b); }
    static KESTRA_INLINE Vec high(Vec a, Vec b) { return _mm256_mulhi_epi16(a, b); }
    static KESTRA_INLINE Vec sign(Vec v) { return _mm256_srai_epi16(v, 15); }
    static KESTRA_INLINE Vec quarter(Vec v) { return _mm256_srai_epi16(v, 2); }
    static KESTRA_INLINE Vec eightTimesEvenBytes(Vec v) { return _mm256_maddubs_epi16(v, set16(0x0008)); }
    static KESTRA_INLINE Vec eightTimesOddBytes(Vec v) { return _mm256_maddubs_epi16(v, set16(0x0800)); }
    static KESTRA_INLINE Vec oddLanes(Vec v) { return _mm256_blend_epi16(zero(), v, 0xAA); }
    static KESTRA_INLINE Vec swapBytes(Vec v) {
        return _mm256_or_si256(_mm256_slli_epi16(v, 8), _mm256_srli_epi16(v, 8));
    }
    static KESTRA_INLINE Vec expand(Vec v) {
        const Vec halves = _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(0, 1, 2, 2, 3, 4, 5, 5));
        return _mm256_shuffle_epi8(halves, kExpandBytes.vec());
    }
    static KESTRA_INLINE Vec swapNeighbours(Vec v) { return _mm256_shuffle_epi8(v, kSwapNeighbours.vec()); }
};

constexpr Wide<Lane> kSpread[3] = {twice(spread(kBlueRed)), twice(spread(kGreen)), twice(spread(kRedBlue))};
constexpr Wide<Lane> kTakeGreen[3] = {twice(taken(0, kGreen)), twice(taken(1, kGreen)), twice(taken(2, kGreen))};
constexpr Wide<Lane> kTakeRedBlue[3] = {twice(taken(0, kRedBlue)), twice(taken(1, kRedBlue)),
                                        twice(taken(2, kRedBlue))};

struct CachedStore {
    static KESTRA_INLINE void put(uint8_t* p, __m256i v) { Ops::store(p, v); }
};
struct StreamingStore {
    static KESTRA_INLINE void put(uint8_t* p, __m256i v) { Ops::stream(p, v); }
};

/// One output register of each lane.
template <size_t kOut>
KESTRA_INLINE __m256i pick(__m256i blueRed, __m256i green, __m256i redBlue) {
    return _mm256_blendv_epi8(_mm256_blendv_epi8(blueRed, green, kTakeGreen[kOut].vec()), redBlue,
                              kTakeRedBlue[kOut].vec());
}

/// Limits to 0..255, interleaves and stores 32 pixels. `a` holds pixels 0..7 and 16..23, `b` 8..15 and 24..31.
template <class Store>
KESTRA_INLINE void store32(uint8_t* rgb, const PixelSums<Ops>& a, const PixelSums<Ops>& b) {
    const __m256i blueRed = _mm256_shuffle_epi8(_mm256_packus_epi16(a.blueRed, b.blueRed), kSpread[kBlueRed].vec());
    const __m256i green = _mm256_shuffle_epi8(_mm256_packus_epi16(a.green, b.green), kSpread[kGreen].vec());
    const __m256i redBlue = _mm256_shuffle_epi8(_mm256_packus_epi16(a.redBlue, b.redBlue), kSpread[kRedBlue].vec());
    const __m256i first = pick<0>(blueRed, green, redBlue);
    const __m256i second = pick<1>(blueRed, green, redBlue);
    const __m256i third = pick<2>(blueRed, green, redBlue);
    Store::put(rgb, _mm256_permute2x128_si256(first, second, 0x20));
    Store::put(rgb + 32, _mm256_blend_epi32(third, first, 0xF0)); // low lane of the third, high lane of the first
    Store::put(rgb + 64, _mm256_permute2x128_si256(second, third, 0x31));
}

template <size_t kGroup>
struct Unpack {
    static constexpr Wide<Lane> kBytes = {sampleBytes(groupOffset(kGroup)), sampleBytes(groupOffset(kGroup + 4))};
    static constexpr Wide<std::array<uint16_t, 8>> kFactors = {sampleFactors(groupOffset(kGroup)),
                                                               sampleFactors(groupOffset(kGroup + 4))};
};

/// Four pixels of group kGroup and four of group kGroup + 4, in a lane each: Y in its low, C in its high half.
template <size_t kGroup>
KESTRA_INLINE __m256i unpack(const uint8_t* words) {
    const __m256i bytes = twoAt(words + groupByte(kGroup), words + groupByte(kGroup + 4));
    const __m256i lanes = _mm256_shuffle_epi8(bytes, Unpack<kGroup>::kBytes.vec());
    return _mm256_srli_epi16(_mm256_mullo_epi16(lanes, Unpack<kGroup>::kFactors.vec()), 6);
}

/// Converts 32 pixels that start with group kGroup (0..2 modulo 3); `words` is the word of the group that starts the
/// three.
template <class Store, size_t kGroup>
KESTRA_INLINE void convert32(const uint8_t* words, uint8_t* rgb) {
    const __m256i v0 = unpack<kGroup>(words), v1 = unpack<kGroup + 1>(words);
    const __m256i v2 = unpack<kGroup + 2>(words), v3 = unpack<kGroup + 3>(words);
    store32<Store>(rgb, convert10<Ops>(_mm256_unpacklo_epi64(v0, v1), _mm256_unpackhi_epi64(v0, v1)),
                   convert10<Ops>(_mm256_unpacklo_epi64(v2, v3), _mm256_unpackhi_epi64(v2, v3)));
}

struct Common {
    static constexpr uint32_t kBlockPairs = 16, kAlignment = 32;
    using Cached = CachedStore;
    using Streaming = StreamingStore;
};

struct Eight : Common {
    static constexpr uint32_t kUnitPairs = 1;
    static constexpr ConvertLine plain = convertLine8Plain;
    static void lastPair(const LineConversion&, const uint8_t*, uint8_t*, uint32_t) {} // every pair is a unit
    template <class Store>
    static KESTRA_INLINE void block(const uint8_t* raw, uint8_t* rgb, uint32_t pair) {
        const uint8_t* in = raw + size_t{4} * pair;
        store32<Store>(rgb + size_t{6} * pair, convert8<Ops>(twoAt(in, in + 32)),
                       convert8<Ops>(twoAt(in + 16, in + 48)));
    }
};

struct Ten : Common {
    static constexpr uint32_t kUnitPairs = 2; // a group of four pixels
    static constexpr ConvertLine plain = convertLine10Plain;
    static constexpr auto lastPair = convertLastPair10;
    template <class Store>
    static KESTRA_INLINE void block(const uint8_t* raw, uint8_t* rgb, uint32_t pair) {
        const uint8_t* words = raw + size_t{32} * (pair / 6); // 24 samples of three groups lie in four words
        uint8_t* out = rgb + size_t{6} * pair;
        switch (pair / 2 % 3) {
        case 0:
            return convert32<Store, 0>(words, out);
        case 1:
            return convert32<Store, 1>(words, out);
        default:
            return convert32<Store, 2>(words, out);
        }
    }
};

} // namespace

void convertLine8Avx2(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                      const uint8_t* nextLine) {
    convertLine<Eight>(conversion, raw, rgb, pairs, nextLine);
}

void convertLine10Avx2(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                       const uint8_t* nextLine) {
    convertLine<Ten>(conversion, raw, rgb, pairs, nextLine);
}

int32_t copyC3Avx2(const uint8_t* src, int32_t srcStep, uint8_t* dst, int32_t dstStep, RegionSize region) {
    return copyC3<Ops>(src, srcStep, dst, dstStep, region);
}
int32_t copy16C1Avx2(const void* src, int32_t srcStep, void* dst, int32_t dstStep, RegionSize region) {
    return copy16C1<Ops>(src, srcStep, dst, dstStep, region);
}
int32_t shiftRight16C1Avx2(uint32_t shift, void* image, int32_t step, RegionSize region) {
    return shiftRight16C1<Ops>(shift, image, step, region);
}

void copyLineAvx2(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed) {
    copySampleLine<Ops>(src, dst, bytes, streamed);
}
void swapLineAvx2(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed) {
    swapSampleLine<Ops>(src, dst, bytes, streamed);
}
void expandLineAvx2(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed) {
    expandSampleLine<Ops>(src, dst, bytes, streamed);
}

} // namespace kestra
