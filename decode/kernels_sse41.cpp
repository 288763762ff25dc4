// Kernels for SSSE3 and SSE4.1. The only file built with these instructions.
#include "decode/interleave128.h"
#include "decode/line_template.h"
#include "decode/region_template.h"
#include "decode/sample_template.h"

#include <smmintrin.h>

namespace kestra {
namespace {

template <class Bytes>
KESTRA_INLINE __m128i vec(const Bytes& lane) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(lane.data()));
}

alignas(16) constexpr Lane kExpandBytes = {0, 1, 2, 128, 3, 4, 5, 128, 6, 7, 8, 128, 9, 10, 11, 128};

struct Ops {
    using Vec = __m128i;
    static constexpr size_t kBytes = 16;

    static KESTRA_INLINE Vec load(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
    static KESTRA_INLINE void store(void* p, Vec v) { _mm_storeu_si128(static_cast<__m128i*>(p), v); }
    static KESTRA_INLINE void stream(void* p, Vec v) { _mm_stream_si128(static_cast<Vec*>(p), v); }
    static KESTRA_INLINE Vec zero() { return _mm_setzero_si128(); }
    static KESTRA_INLINE Vec shiftRight(Vec v, unsigned count) {
        return _mm_srl_epi16(v, _mm_cvtsi32_si128(static_cast<int>(count)));
    }
    static KESTRA_INLINE Vec set16(int v) { return _mm_set1_epi16(static_cast<int16_t>(v)); }
    static KESTRA_INLINE Vec set32(int v) { return _mm_set1_epi32(v); }
    static KESTRA_INLINE Vec add(Vec a, Vec b) { return _mm_add_epi16(a, b); }
    static KESTRA_INLINE Vec sub(Vec a, Vec b) { return _mm_sub_epi16(a, b); }
    static KESTRA_INLINE Vec high(Vec a, Vec b) { return _mm_mulhi_epi16(a, b); }
    static KESTRA_INLINE Vec sign(Vec v) { return _mm_srai_epi16(v, 15); }
    static KESTRA_INLINE Vec quarter(Vec v) { return _mm_srai_epi16(v, 2); }
    static KESTRA_INLINE Vec eightTimesEvenBytes(Vec v) { return _mm_maddubs_epi16(v, set16(0x0008)); }
    static KESTRA_INLINE Vec eightTimesOddBytes(Vec v) { return _mm_maddubs_epi16(v, set16(0x0800)); }
    static KESTRA_INLINE Vec oddLanes(Vec v) { return _mm_blend_epi16(zero(), v, 0xAA); }
    static KESTRA_INLINE Vec swapBytes(Vec v) { return _mm_or_si128(_mm_slli_epi16(v, 8), _mm_srli_epi16(v, 8)); }
    static KESTRA_INLINE Vec expand(Vec v) { return _mm_shuffle_epi8(v, vec(kExpandBytes)); }
    static KESTRA_INLINE Vec swapNeighbours(Vec v) { return _mm_shufflehi_epi16(_mm_shufflelo_epi16(v, 0xB1), 0xB1); }
};

alignas(16) constexpr Lane kSpread[3] = {spread(kBlueRed), spread(kGreen), spread(kRedBlue)};
alignas(16) constexpr Lane kTakeGreen[3] = {taken(0, kGreen), taken(1, kGreen), taken(2, kGreen)};
alignas(16) constexpr Lane kTakeRedBlue[3] = {taken(0, kRedBlue), taken(1, kRedBlue), taken(2, kRedBlue)};

struct CachedStore {
    static KESTRA_INLINE void put(uint8_t* p, __m128i v) { Ops::store(p, v); }
};
struct StreamingStore {
    static KESTRA_INLINE void put(uint8_t* p, __m128i v) { Ops::stream(p, v); }
};

template <size_t kOut>
KESTRA_INLINE __m128i pick(__m128i blueRed, __m128i green, __m128i redBlue) {
    return _mm_blendv_epi8(_mm_blendv_epi8(blueRed, green, vec(kTakeGreen[kOut])), redBlue, vec(kTakeRedBlue[kOut]));
}

/// Limits to 0..255, interleaves and stores 16 pixels, eight in `a` and eight in `b`.
template <class Store>
KESTRA_INLINE void store16(uint8_t* rgb, const PixelSums<Ops>& a, const PixelSums<Ops>& b) {
    const __m128i blueRed = _mm_shuffle_epi8(_mm_packus_epi16(a.blueRed, b.blueRed), vec(kSpread[kBlueRed]));
    const __m128i green = _mm_shuffle_epi8(_mm_packus_epi16(a.green, b.green), vec(kSpread[kGreen]));
    const __m128i redBlue = _mm_shuffle_epi8(_mm_packus_epi16(a.redBlue, b.redBlue), vec(kSpread[kRedBlue]));
    Store::put(rgb, pick<0>(blueRed, green, redBlue));
    Store::put(rgb + 16, pick<1>(blueRed, green, redBlue));
    Store::put(rgb + 32, pick<2>(blueRed, green, redBlue));
}

template <size_t kGroup>
struct Unpack {
    alignas(16) static constexpr Lane kBytes = sampleBytes(groupOffset(kGroup));
    alignas(16) static constexpr std::array<uint16_t, 8> kFactors = sampleFactors(groupOffset(kGroup));
};

/// Four pixels: Y in the low, C in the high half.
template <size_t kGroup>
KESTRA_INLINE __m128i unpack(const uint8_t* words) {
    const __m128i bytes = Ops::load(words + groupByte(kGroup));
    return _mm_srli_epi16(
        _mm_mullo_epi16(_mm_shuffle_epi8(bytes, vec(Unpack<kGroup>::kBytes)), vec(Unpack<kGroup>::kFactors)), 6);
}

/// Converts 16 pixels that start with group kGroup (0..2 modulo 3); `words` is the word of the group that starts the
/// three.
template <class Store, size_t kGroup>
KESTRA_INLINE void convert16(const uint8_t* words, uint8_t* rgb) {
    const __m128i v0 = unpack<kGroup>(words), v1 = unpack<kGroup + 1>(words);
    const __m128i v2 = unpack<kGroup + 2>(words), v3 = unpack<kGroup + 3>(words);
    store16<Store>(rgb, convert10<Ops>(_mm_unpacklo_epi64(v0, v1), _mm_unpackhi_epi64(v0, v1)),
                   convert10<Ops>(_mm_unpacklo_epi64(v2, v3), _mm_unpackhi_epi64(v2, v3)));
}

struct Common {
    static constexpr uint32_t kBlockPairs = 8, kAlignment = 16;
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
        store16<Store>(rgb + size_t{6} * pair, convert8<Ops>(Ops::load(in)), convert8<Ops>(Ops::load(in + 16)));
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
            return convert16<Store, 0>(words, out);
        case 1:
            return convert16<Store, 1>(words, out);
        default:
            return convert16<Store, 2>(words, out);
        }
    }
};

} // namespace

void convertLine8Sse41(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                       const uint8_t* nextLine) {
    convertLine<Eight>(conversion, raw, rgb, pairs, nextLine);
}

void convertLine10Sse41(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                        const uint8_t* nextLine) {
    convertLine<Ten>(conversion, raw, rgb, pairs, nextLine);
}

int32_t copyC3Sse41(const uint8_t* src, int32_t srcStep, uint8_t* dst, int32_t dstStep, RegionSize region) {
    return copyC3<Ops>(src, srcStep, dst, dstStep, region);
}
int32_t copy16C1Sse41(const void* src, int32_t srcStep, void* dst, int32_t dstStep, RegionSize region) {
    return copy16C1<Ops>(src, srcStep, dst, dstStep, region);
}
int32_t shiftRight16C1Sse41(uint32_t shift, void* image, int32_t step, RegionSize region) {
    return shiftRight16C1<Ops>(shift, image, step, region);
}

void copyLineSse41(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed) {
    copySampleLine<Ops>(src, dst, bytes, streamed);
}
void swapLineSse41(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed) {
    swapSampleLine<Ops>(src, dst, bytes, streamed);
}
void expandLineSse41(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed) {
    expandSampleLine<Ops>(src, dst, bytes, streamed);
}

} // namespace kestra
