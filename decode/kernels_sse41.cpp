// Kernels for SSSE3 and SSE4.1. The only file built with these instructions.
#include "decode/interleave128.h"
#include "decode/line_template.h"
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
};

struct CachedStore {
    static KESTRA_INLINE void put(uint8_t* p, __m128i v) { Ops::store(p, v); }
};
struct StreamingStore {
    static KESTRA_INLINE void put(uint8_t* p, __m128i v) { Ops::stream(p, v); }
};

/// How the words of each kind are spread; kStep as in spreadWords.
template <size_t kStep>
struct Spread {
    alignas(16) static constexpr Lane kWords[3] = {spreadWords(0, kStep), spreadWords(1, kStep), spreadWords(2, kStep)};
};

template <size_t kOut>
KESTRA_INLINE __m128i pick(const __m128i (&words)[3]) {
    constexpr int kSecond = takenWords(kOut, 1), kThird = takenWords(kOut, 2); // immediates, also in a debug build
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

template <size_t kGroup>
struct Unpack {
    alignas(16) static constexpr Lane kBytes = sampleBytes(groupOffset(kGroup));
    alignas(16) static constexpr std::array<uint16_t, 8> kFactors = sampleFactors(groupOffset(kGroup));
};

/// Four pixels.
template <size_t kGroup>
KESTRA_INLINE __m128i unpack(const uint8_t* words) {
    const __m128i bytes = Ops::load(words + groupByte(kGroup));
    return _mm_srli_epi16(
        _mm_mullo_epi16(_mm_shuffle_epi8(bytes, vec(Unpack<kGroup>::kBytes)), vec(Unpack<kGroup>::kFactors)), 6);
}

/// 16 pixels, which begin with group kGroup of those at `words`.
template <size_t kGroup>
KESTRA_INLINE Samples10Bit<Ops> samples16(const uint8_t* words) {
    const __m128i v0 = unpack<kGroup>(words), v1 = unpack<kGroup + 1>(words);
    const __m128i v2 = unpack<kGroup + 2>(words), v3 = unpack<kGroup + 3>(words);
    const __m128i y01 = _mm_unpacklo_epi32(v0, v1), c01 = _mm_unpackhi_epi32(v0, v1);
    const __m128i y23 = _mm_unpacklo_epi32(v2, v3), c23 = _mm_unpackhi_epi32(v2, v3);
    return {_mm_unpacklo_epi64(y01, y23), _mm_unpacklo_epi64(c01, c23), _mm_unpackhi_epi64(y01, y23),
            _mm_unpackhi_epi64(c01, c23)};
}

struct KernelCommon {
    using Terms = PairTerms<Ops>;
    static constexpr uint32_t kBlockPairs = 8, kAlignment = 16;
    using Cached = CachedStore;
    using Streaming = StreamingStore;
};

struct Kernel8Bit : KernelCommon {
    static constexpr uint32_t kPhases = 1, kUnitPairs = 1;
    static constexpr ConvertLine plain = convertLine8BitPlain;
    static constexpr size_t rawByte(uint32_t pair) { return size_t{4} * pair; }
    template <size_t kPhase>
    static KESTRA_INLINE Samples8Bit<Ops> samples(const uint8_t* raw) {
        // Loads two bytes off in place of shifts: the words beside each other change places with them.
        return {_mm_blend_epi16(Ops::load(raw), Ops::load(raw + 14), 0xAA),
                _mm_blend_epi16(Ops::load(raw + 2), Ops::load(raw + 16), 0xAA)};
    }
    static KESTRA_INLINE Terms terms(const Samples8Bit<Ops>& samples) { return pairTerms8<Ops>(samples); }
    template <class Store>
    static KESTRA_INLINE void finish(uint8_t* rgb, const Terms& terms) {
        store16<Store, 2>(rgb, pairSums8<Ops>(terms));
    }
};

struct Kernel10Bit : KernelCommon {
    static constexpr uint32_t kPhases = 3, kUnitPairs = 6; // four words
    static constexpr ConvertLine plain = convertLine10BitPlain;
    static constexpr size_t rawByte(uint32_t pair) { return size_t{32} * (pair / 6); }
    template <size_t kPhase>
    static KESTRA_INLINE Samples10Bit<Ops> samples(const uint8_t* raw) {
        return samples16<4 * kPhase>(raw);
    }
    static KESTRA_INLINE Terms terms(const Samples10Bit<Ops>& samples) { return pairTerms10<Ops>(samples); }
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
    .copyLine = copyLine<Ops>,
    .swapLine = swapLine<Ops>,
    .expandLine = expandLine<Ops>};

} // namespace kestra
