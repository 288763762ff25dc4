// Kernels for SSSE3 and SSE4.1. The only file built with these instructions.
#include "decode/interleave128.h"
#include "decode/sample_template.h"

#include <smmintrin.h>

namespace kestra {
namespace {

template <class Bytes>
KESTRA_INLINE __m128i vec(const Bytes& lane) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(lane.data()));
}

alignas(16) constexpr Lane kExpandBytes = {0, 1, 2, 128, 3, 4, 5, 128, 6, 7, 8, 128, 9, 10, 11, 128};

template <size_t kGroup>
struct Unpack {
    alignas(16) static constexpr Lane kBytes = sampleBytes(groupOffset(kGroup));
    alignas(16) static constexpr std::array<uint16_t, 8> kFactors = sampleFactors(groupOffset(kGroup));
};

struct Ops {
    using Vec = __m128i;
    static constexpr size_t kBytes = 16;

    static KESTRA_INLINE Vec load(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
    static KESTRA_INLINE void store(void* p, Vec v) { _mm_storeu_si128(static_cast<__m128i*>(p), v); }
    static KESTRA_INLINE void stream(void* p, Vec v) { _mm_stream_si128(static_cast<Vec*>(p), v); }
    static KESTRA_INLINE Vec set16(int v) { return _mm_set1_epi16(static_cast<int16_t>(v)); }
    static KESTRA_INLINE Vec set32(int v) { return _mm_set1_epi32(v); }
    static KESTRA_INLINE Vec add(Vec a, Vec b) { return _mm_add_epi16(a, b); }
    static KESTRA_INLINE Vec sub(Vec a, Vec b) { return _mm_sub_epi16(a, b); }
    static KESTRA_INLINE Vec high(Vec a, Vec b) { return _mm_mulhi_epi16(a, b); }
    static KESTRA_INLINE Vec sign(Vec v) { return _mm_srai_epi16(v, 15); }
    static KESTRA_INLINE Vec quarter(Vec v) { return _mm_srai_epi16(v, 2); }
    static KESTRA_INLINE Vec eightTimesEvenBytes(Vec v) { return _mm_maddubs_epi16(v, set16(0x0008)); }
    static KESTRA_INLINE Vec eightTimesOddBytes(Vec v) { return _mm_maddubs_epi16(v, set16(0x0800)); }
    static KESTRA_INLINE Vec swapBytes(Vec v) { return _mm_or_si128(_mm_slli_epi16(v, 8), _mm_srli_epi16(v, 8)); }
    static KESTRA_INLINE Vec expand(Vec v) { return _mm_shuffle_epi8(v, vec(kExpandBytes)); }
    // Of every 128-bit lane, pieces of so many bits of both in turn.
    static KESTRA_INLINE Vec low32(Vec a, Vec b) { return _mm_unpacklo_epi32(a, b); }
    static KESTRA_INLINE Vec high32(Vec a, Vec b) { return _mm_unpackhi_epi32(a, b); }
    static KESTRA_INLINE Vec low64(Vec a, Vec b) { return _mm_unpacklo_epi64(a, b); }
    static KESTRA_INLINE Vec high64(Vec a, Vec b) { return _mm_unpackhi_epi64(a, b); }
    static KESTRA_INLINE Vec oddFromSecond(Vec a, Vec b) { return _mm_blend_epi16(a, b, 0xAA); }
    /// Four pixels.
    template <size_t kGroup>
    static KESTRA_INLINE Vec unpack(const uint8_t* words) {
        const Vec lanes = _mm_shuffle_epi8(load(words + groupByte(kGroup)), vec(Unpack<kGroup>::kBytes));
        return _mm_srli_epi16(_mm_mullo_epi16(lanes, vec(Unpack<kGroup>::kFactors)), 6);
    }
};

/// How the words of each kind are spread; kStep as in spreadWords.
template <size_t kStep>
struct Spread {
    alignas(16) static constexpr Lane kWords[3] = {spreadWords(0, kStep), spreadWords(1, kStep), spreadWords(2, kStep)};
};

template <size_t kOut>
KESTRA_INLINE __m128i pick(const __m128i (&words)[3]) {
    constexpr int kSecond = takenWords(kOut, 1), kThird = takenWords(kOut, 2); // immediates even in a debug build
    return _mm_blend_epi16(_mm_blend_epi16(words[0], words[1], kSecond), words[2], kThird);
}

/// Limits to 0..255, interleaves and stores 16 pixels.
template <class Store, size_t kStep>
KESTRA_INLINE void store16(uint8_t* rgb, const PairSums<Ops>& v) {
    using S = Spread<kStep>;
    const __m128i words[3] = {_mm_shuffle_epi8(_mm_packus_epi16(v.blue0, v.green0), vec(S::kWords[0])),
                              _mm_shuffle_epi8(_mm_packus_epi16(v.red0, v.blue1), vec(S::kWords[1])),
                              _mm_shuffle_epi8(_mm_packus_epi16(v.green1, v.red1), vec(S::kWords[2]))};
    Store::put(rgb, pick<0>(words));
    Store::put(rgb + 16, pick<1>(words));
    Store::put(rgb + 32, pick<2>(words));
}

struct Kernel8Bit : LaneKernel8Bit<Ops> {
    template <class Store>
    static KESTRA_INLINE void finish(uint8_t* rgb, const Terms& terms) {
        store16<Store, 2>(rgb, pairSums8<Ops>(terms));
    }
};

struct Kernel10Bit : LaneKernel10Bit<Ops> {
    template <class Store>
    static KESTRA_INLINE void finish(uint8_t* rgb, const Terms& terms) {
        store16<Store, 1>(rgb, pairSums10<Ops>(terms));
    }
};

} // namespace

constinit const KernelSet kSse41Kernels{
    .name = "sse4.1",
    .runsHere = []() noexcept { return __builtin_cpu_supports("ssse3") && __builtin_cpu_supports("sse4.1"); },
    .convertLine8Bit = convertLine<Kernel8Bit>,
    .convertLine10Bit = convertLine<Kernel10Bit>,
    .picosecondsPerPixel8Bit = 350,
    .picosecondsPerPixel10Bit = 460,
    .copyLine = copyLine<Ops>,
    .swapLine = swapLine<Ops>,
    .expandLine = expandLine<Ops>};

} // namespace kestra
