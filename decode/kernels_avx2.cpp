// Kernels for AVX2. The only file built with these instructions.
#include "decode/interleave128.h"
#include "decode/line_kernels.h"
#include "decode/region_template.h"
#include "decode/yuv_arithmetic.h"

#include <immintrin.h>

namespace kestra {
namespace {

/// The same 16 bytes in both lanes.
KESTRA_INLINE __m256i both(const Lane& lane) {
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(lane.data())));
}
template <class Bytes>
KESTRA_INLINE __m256i two(const Bytes& low, const Bytes& high) {
    return _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(low.data()))),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(high.data())), 1);
}
KESTRA_INLINE __m256i twoAt(const uint8_t* low, const uint8_t* high) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(low))),
                                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(high)), 1);
}

alignas(16) constexpr Lane kRepeatEven = {0, 1, 0, 1, 4, 5, 4, 5, 8, 9, 8, 9, 12, 13, 12, 13};
alignas(16) constexpr Lane kRepeatOdd = {2, 3, 2, 3, 6, 7, 6, 7, 10, 11, 10, 11, 14, 15, 14, 15};
alignas(16) constexpr Lane kSwapNeighbours = {2, 3, 0, 1, 6, 7, 4, 5, 10, 11, 8, 9, 14, 15, 12, 13};

struct Ops {
    using Vec = __m256i;
    static constexpr size_t kBytes = 32;

    static KESTRA_INLINE Vec load(const void* p) { return _mm256_loadu_si256(static_cast<const __m256i*>(p)); }
    static KESTRA_INLINE void store(void* p, Vec v) { _mm256_storeu_si256(static_cast<__m256i*>(p), v); }
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
    static KESTRA_INLINE Vec swapNeighbours(Vec v) { return _mm256_shuffle_epi8(v, both(kSwapNeighbours)); }
    static KESTRA_INLINE Vec repeatEven(Vec v) { return _mm256_shuffle_epi8(v, both(kRepeatEven)); }
    static KESTRA_INLINE Vec repeatOdd(Vec v) { return _mm256_shuffle_epi8(v, both(kRepeatOdd)); }
};

alignas(16) constexpr Lane kSpread[3] = {spread(0), spread(1), spread(2)};
alignas(16) constexpr Lane kTaken[3][3] = {{taken(0, 0), taken(0, 1), taken(0, 2)},
                                           {taken(1, 0), taken(1, 1), taken(1, 2)},
                                           {taken(2, 0), taken(2, 1), taken(2, 2)}};

/// One output register of each lane.
template <int kOut>
KESTRA_INLINE __m256i pick(__m256i b, __m256i g, __m256i r) {
    return _mm256_blendv_epi8(_mm256_blendv_epi8(b, g, both(kTaken[kOut][1])), r, both(kTaken[kOut][2]));
}

/// Limits to 0..255, interleaves and stores 32 pixels. `a` holds pixels 0..7 and 16..23, `b` 8..15 and 24..31.
KESTRA_INLINE void store32(uint8_t* rgb, const Channels<Ops>& a, const Channels<Ops>& b) {
    const __m256i blue = _mm256_shuffle_epi8(_mm256_packus_epi16(a.b, b.b), both(kSpread[0]));
    const __m256i green = _mm256_shuffle_epi8(_mm256_packus_epi16(a.g, b.g), both(kSpread[1]));
    const __m256i red = _mm256_shuffle_epi8(_mm256_packus_epi16(a.r, b.r), both(kSpread[2]));
    const __m256i first = pick<0>(blue, green, red);
    const __m256i second = pick<1>(blue, green, red);
    const __m256i third = pick<2>(blue, green, red);
    Ops::store(rgb, _mm256_permute2x128_si256(first, second, 0x20));
    Ops::store(rgb + 32, _mm256_blend_epi32(third, first, 0xF0)); // low lane of the third, high lane of the first
    Ops::store(rgb + 64, _mm256_permute2x128_si256(second, third, 0x31));
}

KESTRA_INLINE void convert32of8(const uint8_t* raw, uint8_t* rgb) {
    store32(rgb, convert8<Ops>(twoAt(raw, raw + 32)), convert8<Ops>(twoAt(raw + 16, raw + 48)));
}

template <int kGroup>
struct Unpack {
    alignas(16) static constexpr Lane kBytes = sampleBytes(groupOffset(kGroup));
    alignas(16) static constexpr std::array<uint16_t, 8> kFactors = sampleFactors(groupOffset(kGroup));
};

/// Four pixels of group kGroup and four of group kGroup + 4, in a lane each: Y in its low, C in its high half.
template <int kGroup>
KESTRA_INLINE __m256i unpack(const uint8_t* words, int firstWord) {
    const __m256i bytes =
        twoAt(words + 8 * (groupWord(kGroup) - firstWord), words + 8 * (groupWord(kGroup + 4) - firstWord));
    const __m256i lanes = _mm256_shuffle_epi8(bytes, two(Unpack<kGroup>::kBytes, Unpack<kGroup + 4>::kBytes));
    return _mm256_srli_epi16(_mm256_mullo_epi16(lanes, two(Unpack<kGroup>::kFactors, Unpack<kGroup + 4>::kFactors)), 6);
}

/// Converts 32 pixels that start with group kGroup (0..2 modulo 3); `words` is that group's word.
template <int kGroup>
KESTRA_INLINE void convert32of10(const uint8_t* words, uint8_t* rgb) {
    constexpr int kFirst = groupWord(kGroup);
    const __m256i v0 = unpack<kGroup>(words, kFirst), v1 = unpack<kGroup + 1>(words, kFirst);
    const __m256i v2 = unpack<kGroup + 2>(words, kFirst), v3 = unpack<kGroup + 3>(words, kFirst);
    store32(rgb, convert10<Ops>(_mm256_unpacklo_epi64(v0, v1), _mm256_unpackhi_epi64(v0, v1)),
            convert10<Ops>(_mm256_unpacklo_epi64(v2, v3), _mm256_unpackhi_epi64(v2, v3)));
}

KESTRA_INLINE void prefetch96(const uint8_t* p) {
    __builtin_prefetch(p, 1);
    __builtin_prefetch(p + 64, 1);
}

} // namespace

void convertLine8Avx2(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                      const uint8_t* nextLine) {
    constexpr uint32_t kBlock = 16; // pairs
    if (pairs < kBlock) return convertLine8Plain(conversion, raw, rgb, pairs, nextLine);
    uint32_t done = 0;
    for (; done + kBlock <= pairs; done += kBlock) {
        prefetch96(nextLine + size_t{6} * done);
        convert32of8(raw + size_t{4} * done, rgb + size_t{6} * done);
    }
    if (done < pairs) { // once more over what is done: the same bytes
        done = pairs - kBlock;
        convert32of8(raw + size_t{4} * done, rgb + size_t{6} * done);
    }
}

void convertLine10Avx2(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                       const uint8_t* nextLine) {
    constexpr uint32_t kBlock = 8; // groups of four pixels
    const uint32_t groups = pairs / 2;
    uint32_t done = 0;
    const auto block = [&](uint32_t group) {
        const uint8_t* words = raw + size_t{8} * (8 * group / 6);
        uint8_t* out = rgb + size_t{12} * group;
        prefetch96(nextLine + size_t{12} * group);
        switch (group % 3) {
        case 0:
            return convert32of10<0>(words, out);
        case 1:
            return convert32of10<1>(words, out);
        default:
            return convert32of10<2>(words, out);
        }
    };
    for (; done + 3 * kBlock <= groups; done += 3 * kBlock) {
        const uint8_t* words = raw + size_t{8} * (8 * done / 6);
        uint8_t* out = rgb + size_t{12} * done;
        const uint8_t* next = nextLine + size_t{12} * done;
        prefetch96(next);
        convert32of10<0>(words, out);
        prefetch96(next + 96);
        convert32of10<2>(words + 8 * groupWord(8), out + 96);
        prefetch96(next + 192);
        convert32of10<1>(words + 8 * groupWord(16), out + 192);
    }
    for (; done + kBlock <= groups; done += kBlock)
        block(done);
    if (groups < kBlock) return convertLine10Plain(conversion, raw, rgb, pairs, nextLine);
    if (done < groups) block(groups - kBlock); // once more over what is done: the same bytes
    if (pairs % 2 != 0) convertLastPair10(conversion, raw, rgb, pairs);
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

} // namespace kestra
