// Kernels for SSSE3 and SSE4.1. The only file built with these instructions.
#include "decode/interleave128.h"
#include "decode/line_kernels.h"
#include "decode/region_template.h"
#include "decode/yuv_arithmetic.h"

#include <smmintrin.h>

namespace kestra {
namespace {

template <class Bytes>
KESTRA_INLINE __m128i vec(const Bytes& lane) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(lane.data()));
}

struct Ops {
    using Vec = __m128i;
    static constexpr size_t kBytes = 16;

    static KESTRA_INLINE Vec load(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
    static KESTRA_INLINE void store(void* p, Vec v) { _mm_storeu_si128(static_cast<__m128i*>(p), v); }
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
    static KESTRA_INLINE Vec swapNeighbours(Vec v) { return _mm_shufflehi_epi16(_mm_shufflelo_epi16(v, 0xB1), 0xB1); }
    static KESTRA_INLINE Vec repeatEven(Vec v) { return _mm_shufflehi_epi16(_mm_shufflelo_epi16(v, 0xA0), 0xA0); }
    static KESTRA_INLINE Vec repeatOdd(Vec v) { return _mm_shufflehi_epi16(_mm_shufflelo_epi16(v, 0xF5), 0xF5); }
};

alignas(16) constexpr Lane kSpread[3] = {spread(0), spread(1), spread(2)};
alignas(16) constexpr Lane kTaken[3][3] = {{taken(0, 0), taken(0, 1), taken(0, 2)},
                                           {taken(1, 0), taken(1, 1), taken(1, 2)},
                                           {taken(2, 0), taken(2, 1), taken(2, 2)}};

template <int kOut>
KESTRA_INLINE __m128i pick(__m128i b, __m128i g, __m128i r) {
    return _mm_blendv_epi8(_mm_blendv_epi8(b, g, vec(kTaken[kOut][1])), r, vec(kTaken[kOut][2]));
}

/// Limits to 0..255, interleaves and stores 16 pixels, eight in `a` and eight in `b`.
KESTRA_INLINE void store16(uint8_t* rgb, const Channels<Ops>& a, const Channels<Ops>& b) {
    const __m128i blue = _mm_shuffle_epi8(_mm_packus_epi16(a.b, b.b), vec(kSpread[0]));
    const __m128i green = _mm_shuffle_epi8(_mm_packus_epi16(a.g, b.g), vec(kSpread[1]));
    const __m128i red = _mm_shuffle_epi8(_mm_packus_epi16(a.r, b.r), vec(kSpread[2]));
    Ops::store(rgb, pick<0>(blue, green, red));
    Ops::store(rgb + 16, pick<1>(blue, green, red));
    Ops::store(rgb + 32, pick<2>(blue, green, red));
}

KESTRA_INLINE void convert16of8(const uint8_t* raw, uint8_t* rgb) {
    store16(rgb, convert8<Ops>(Ops::load(raw)), convert8<Ops>(Ops::load(raw + 16)));
}

template <int kGroup>
struct Unpack {
    alignas(16) static constexpr Lane kBytes = sampleBytes(groupOffset(kGroup));
    alignas(16) static constexpr std::array<uint16_t, 8> kFactors = sampleFactors(groupOffset(kGroup));
};

/// Four pixels: Y in the low, C in the high half.
template <int kGroup>
KESTRA_INLINE __m128i unpack(const uint8_t* words, int firstWord) {
    const __m128i bytes = Ops::load(words + 8 * (groupWord(kGroup) - firstWord));
    return _mm_srli_epi16(
        _mm_mullo_epi16(_mm_shuffle_epi8(bytes, vec(Unpack<kGroup>::kBytes)), vec(Unpack<kGroup>::kFactors)), 6);
}

/// Converts 16 pixels that start with group kGroup (0..2 modulo 3); `words` is that group's word.
template <int kGroup>
KESTRA_INLINE void convert16of10(const uint8_t* words, uint8_t* rgb) {
    constexpr int kFirst = groupWord(kGroup);
    const __m128i v0 = unpack<kGroup>(words, kFirst), v1 = unpack<kGroup + 1>(words, kFirst);
    const __m128i v2 = unpack<kGroup + 2>(words, kFirst), v3 = unpack<kGroup + 3>(words, kFirst);
    store16(rgb, convert10<Ops>(_mm_unpacklo_epi64(v0, v1), _mm_unpackhi_epi64(v0, v1)),
            convert10<Ops>(_mm_unpacklo_epi64(v2, v3), _mm_unpackhi_epi64(v2, v3)));
}

} // namespace

void convertLine8Sse41(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                       const uint8_t* nextLine) {
    constexpr uint32_t kBlock = 8; // pairs
    if (pairs < kBlock) return convertLine8Plain(conversion, raw, rgb, pairs, nextLine);
    uint32_t done = 0;
    for (; done + kBlock <= pairs; done += kBlock) {
        __builtin_prefetch(nextLine + size_t{6} * done, 1);
        convert16of8(raw + size_t{4} * done, rgb + size_t{6} * done);
    }
    if (done < pairs) { // once more over what is done: the same bytes
        done = pairs - kBlock;
        convert16of8(raw + size_t{4} * done, rgb + size_t{6} * done);
    }
}

void convertLine10Sse41(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                        const uint8_t* nextLine) {
    constexpr uint32_t kBlock = 4; // groups of four pixels
    const uint32_t groups = pairs / 2;
    if (groups < kBlock) return convertLine10Plain(conversion, raw, rgb, pairs, nextLine);
    const auto block = [&](uint32_t group) {
        const uint8_t* words = raw + size_t{8} * (8 * group / 6);
        uint8_t* out = rgb + size_t{12} * group;
        __builtin_prefetch(nextLine + size_t{12} * group, 1);
        switch (group % 3) {
        case 0:
            return convert16of10<0>(words, out);
        case 1:
            return convert16of10<1>(words, out);
        default:
            return convert16of10<2>(words, out);
        }
    };
    uint32_t done = 0;
    for (; done + kBlock <= groups; done += kBlock)
        block(done);
    if (done < groups) block(groups - kBlock); // once more over what is done: the same bytes
    if (pairs % 2 != 0) convertLastPair10(conversion, raw, rgb, pairs);
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

} // namespace kestra
