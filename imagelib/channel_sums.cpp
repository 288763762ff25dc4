#include "imagelib/channel_sums.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace kestra {

void addLinePlain(const uint8_t* line, size_t pixels, uint64_t (&sums)[3]) noexcept {
    uint64_t first = 0, second = 0, third = 0;
    for (size_t i = 0; i < pixels; ++i, line += 3) {
        first += line[0];
        second += line[1];
        third += line[2];
    }
    sums[0] += first;
    sums[1] += second;
    sums[2] += third;
}

#ifdef __SSE2__

// Sixteen pixels are three registers. A channel keeps every third byte of each, and never the same place twice: the
// three remainders fill one register, which one instruction sums up. SSE2 belongs to every 64-bit processor.
void addLineSse2(const uint8_t* line, size_t pixels, uint64_t (&sums)[3]) noexcept {
    constexpr size_t kBlock = 16;
    const __m128i every0 = _mm_setr_epi8(-1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1);
    const __m128i every1 = _mm_setr_epi8(0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0);
    const __m128i every2 = _mm_setr_epi8(0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0);
    const __m128i zero = _mm_setzero_si128();
    const auto gather = [](__m128i a, __m128i inA, __m128i b, __m128i inB, __m128i c, __m128i inC) noexcept {
        return _mm_or_si128(_mm_and_si128(a, inA), _mm_or_si128(_mm_and_si128(b, inB), _mm_and_si128(c, inC)));
    };
    __m128i first = zero, second = zero, third = zero;
    for (; pixels >= kBlock; pixels -= kBlock, line += 3 * kBlock) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(line));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(line + 16));
        const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(line + 32));
        first = _mm_add_epi64(first, _mm_sad_epu8(gather(a, every0, b, every2, c, every1), zero));
        second = _mm_add_epi64(second, _mm_sad_epu8(gather(a, every1, b, every0, c, every2), zero));
        third = _mm_add_epi64(third, _mm_sad_epu8(gather(a, every2, b, every1, c, every0), zero));
    }
    const auto total = [](__m128i halves) noexcept {
        const __m128i sum = _mm_add_epi64(halves, _mm_unpackhi_epi64(halves, halves));
        return static_cast<uint64_t>(_mm_cvtsi128_si64(sum));
    };
    sums[0] += total(first);
    sums[1] += total(second);
    sums[2] += total(third);
    addLinePlain(line, pixels, sums);
}

#endif

std::span<const AddLineVariant> addLineVariants() noexcept {
    static constexpr AddLineVariant kVariants[] = {
        {"plain", addLinePlain},
#ifdef __SSE2__
        {"sse2", addLineSse2},
#endif
    };
    return kVariants;
}

} // namespace kestra
