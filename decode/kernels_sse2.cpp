// Kernels for SSE2, which every 64-bit x86 processor has.
#include "decode/sample_template.h"
#include "decode/yuv_arithmetic.h"

#include <emmintrin.h>

#include <algorithm>
#include <cstring>

namespace kestra {
namespace {

struct Ops {
    using Vec = __m128i;
    static constexpr size_t kBytes = 16;

    static KESTRA_INLINE Vec load(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
    static KESTRA_INLINE void store(void* p, Vec v) { _mm_storeu_si128(static_cast<__m128i*>(p), v); }
    static KESTRA_INLINE void stream(void* p, Vec v) { _mm_stream_si128(static_cast<Vec*>(p), v); }
    static KESTRA_INLINE Vec zero() { return _mm_setzero_si128(); }
    static KESTRA_INLINE Vec set16(int v) { return _mm_set1_epi16(static_cast<int16_t>(v)); }
    static KESTRA_INLINE Vec set32(int v) { return _mm_set1_epi32(v); }
    static KESTRA_INLINE Vec add(Vec a, Vec b) { return _mm_add_epi16(a, b); }
    static KESTRA_INLINE Vec sub(Vec a, Vec b) { return _mm_sub_epi16(a, b); }
    static KESTRA_INLINE Vec high(Vec a, Vec b) { return _mm_mulhi_epi16(a, b); }
    static KESTRA_INLINE Vec sign(Vec v) { return _mm_srai_epi16(v, 15); }
    static KESTRA_INLINE Vec quarter(Vec v) { return _mm_srai_epi16(v, 2); }
    static KESTRA_INLINE Vec eightTimesEvenBytes(Vec v) { return _mm_slli_epi16(_mm_and_si128(v, set16(0x00FF)), 3); }
    static KESTRA_INLINE Vec eightTimesOddBytes(Vec v) { return _mm_slli_epi16(_mm_srli_epi16(v, 8), 3); }
    static KESTRA_INLINE Vec oddLanes(Vec v) { return _mm_slli_epi32(_mm_srli_epi32(v, 16), 16); }
    static KESTRA_INLINE Vec swapBytes(Vec v) { return _mm_or_si128(_mm_slli_epi16(v, 8), _mm_srli_epi16(v, 8)); }
    static KESTRA_INLINE Vec swapNeighbours(Vec v) { return _mm_shufflehi_epi16(_mm_shufflelo_epi16(v, 0xB1), 0xB1); }
};

/// Four pixels of B, G, R, 0 become twelve bytes of B, G, R and four that are 0.
KESTRA_INLINE __m128i closeGaps(__m128i bgrx) {
    const __m128i even = _mm_and_si128(bgrx, _mm_set1_epi64x(0x0000000000FFFFFF));
    const __m128i odd = _mm_and_si128(_mm_srli_epi64(bgrx, 8), _mm_set1_epi64x(0x0000FFFFFF000000));
    const __m128i six = _mm_or_si128(even, odd); // six bytes in each half
    const __m128i low = _mm_move_epi64(six);
    return _mm_or_si128(low, _mm_slli_si128(_mm_srli_si128(six, 8), 6));
}

/// Limits to 0..255, interleaves and stores eight pixels: 24 bytes.
KESTRA_INLINE void store8(uint8_t* rgb, const PixelSums<Ops>& v) {
    const __m128i even = _mm_set1_epi32(0x0000FFFF);
    const __m128i blue = _mm_or_si128(_mm_and_si128(even, v.blueRed), _mm_andnot_si128(even, v.redBlue));
    const __m128i red = _mm_or_si128(_mm_and_si128(even, v.redBlue), _mm_andnot_si128(even, v.blueRed));
    const __m128i bg = _mm_unpacklo_epi8(_mm_packus_epi16(blue, blue), _mm_packus_epi16(v.green, v.green));
    const __m128i rx = _mm_unpacklo_epi8(_mm_packus_epi16(red, red), Ops::zero());
    const __m128i first = closeGaps(_mm_unpacklo_epi16(bg, rx)), second = closeGaps(_mm_unpackhi_epi16(bg, rx));
    Ops::store(rgb, _mm_or_si128(first, _mm_slli_si128(second, 12)));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(rgb + 16), _mm_srli_si128(second, 4));
}

KESTRA_INLINE void convert8of8(const uint8_t* raw, uint8_t* rgb) {
    store8(rgb, convert8<Ops>(Ops::load(raw)));
}

/// @param samples sixteen samples: Y, Cb, Y, Cr
KESTRA_INLINE void convert8of10(const uint16_t* samples, uint8_t* rgb) {
    const __m128i low = Ops::load(samples), high = Ops::load(samples + 8);
    const auto evens = [](__m128i v) { return _mm_srai_epi32(_mm_slli_epi32(v, 16), 16); };
    const __m128i y = _mm_packs_epi32(evens(low), evens(high));
    const __m128i c = _mm_packs_epi32(_mm_srai_epi32(low, 16), _mm_srai_epi32(high, 16));
    store8(rgb, convert10<Ops>(y, c));
}

void convertLine8Bit(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                     const uint8_t* nextLine) {
    constexpr uint32_t kBlock = 4; // pairs
    if (pairs < kBlock) return convertLine8BitPlain(conversion, raw, rgb, pairs, nextLine);
    uint32_t done = 0;
    for (; done + kBlock <= pairs; done += kBlock) {
        if (nextLine) __builtin_prefetch(nextLine + size_t{6} * done, 1);
        convert8of8(raw + size_t{4} * done, rgb + size_t{6} * done);
    }
    if (done < pairs) { // overlaps what is done and writes the same bytes
        done = pairs - kBlock;
        convert8of8(raw + size_t{4} * done, rgb + size_t{6} * done);
    }
}

void convertLine10Bit(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                      const uint8_t* nextLine) {
    // Without a byte shuffle the samples are unpacked one by one, eight words (12 pairs) at a time.
    constexpr uint32_t kBlock = 12, kSamples = 4 * kBlock;
    uint32_t done = 0;
    for (; done + kBlock <= pairs; done += kBlock) {
        uint16_t samples[kSamples];
        const uint8_t* words = raw + size_t{8} * (4 * done / 6);
        for (uint32_t k = 0; k < kSamples / 6; ++k) {
            uint64_t word = 0;
            std::memcpy(&word, words + size_t{8} * k, sizeof word);
            for (uint32_t j = 0; j < 6; ++j)
                samples[6 * k + j] = static_cast<uint16_t>(word >> 10 * j & 1023);
        }
        if (nextLine) __builtin_prefetch(nextLine + size_t{6} * done, 1);
        for (uint32_t part = 0; part < 3; ++part)
            convert8of10(samples + size_t{16} * part, rgb + size_t{6} * done + size_t{24} * part);
    }
    const size_t words = 4 * done / 6;
    convertLine10BitPlain(conversion, raw + 8 * words, rgb + size_t{6} * done, pairs - done, nextLine);
}

} // namespace

constinit const KernelSet kSse2Kernels{.name = "sse2",
                                       .runsHere = []() noexcept { return __builtin_cpu_supports("sse2") != 0; },
                                       .convertLine8Bit = convertLine8Bit,
                                       .convertLine10Bit = convertLine10Bit,
                                       .picosecondsPerPixel8Bit = 650,
                                       .picosecondsPerPixel10Bit = 1400,
                                       .copyLine = copyLine<Ops>,
                                       .swapLine = swapLine<Ops>,
                                       .expandLine = expandLinePlain}; // without a byte shuffle, registers gain nothing

} // namespace kestra
