// Kernels for AVX2. The only file built with these instructions.
#include "decode/interleave128.h"
#include "decode/sample_template.h"

#include <immintrin.h>

namespace kestra {
namespace {

/// A full-width constant, so that it can be a memory operand: there are more constants than registers.
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

template <size_t kGroup>
struct Unpack {
    static constexpr Wide<Lane> kBytes = {sampleBytes(groupOffset(kGroup)), sampleBytes(groupOffset(kGroup + 4))};
    static constexpr Wide<std::array<uint16_t, 8>> kFactors = {sampleFactors(groupOffset(kGroup)),
                                                               sampleFactors(groupOffset(kGroup + 4))};
};

struct Ops {
    using Vec = __m256i;
    static constexpr size_t kBytes = 32;

    static KESTRA_INLINE Vec load(const void* p) { return _mm256_loadu_si256(static_cast<const __m256i*>(p)); }
    static KESTRA_INLINE void store(void* p, Vec v) { _mm256_storeu_si256(static_cast<__m256i*>(p), v); }
    static KESTRA_INLINE void stream(void* p, Vec v) { _mm256_stream_si256(static_cast<Vec*>(p), v); }
    static KESTRA_INLINE Vec zero() { return _mm256_setzero_si256(); }
    static KESTRA_INLINE Vec set16(int v) { return _mm256_set1_epi16(static_cast<int16_t>(v)); }
    static KESTRA_INLINE Vec set32(int v) { return _mm256_set1_epi32(v); }
    static KESTRA_INLINE Vec add(Vec a, Vec b) { return _mm256_add_epi16(a, b); }
    static KESTRA_INLINE Vec sub(Vec a, Vec b) { return _mm256_sub_epi16(a, b); }
    static KESTRA_INLINE Vec high(Vec a, Vec b) { return _mm256_mulhi_epi16(a, b); }
    static KESTRA_INLINE Vec sign(Vec v) { return _mm256_cmpgt_epi16(zero(), v); }
    static KESTRA_INLINE Vec quarter(Vec v) { return _mm256_srai_epi16(v, 2); }
    static KESTRA_INLINE Vec eightTimesEvenBytes(Vec v) { return _mm256_maddubs_epi16(v, set16(0x0008)); }
    static KESTRA_INLINE Vec eightTimesOddBytes(Vec v) { return _mm256_maddubs_epi16(v, set16(0x0800)); }
    static KESTRA_INLINE Vec swapBytes(Vec v) {
        return _mm256_or_si256(_mm256_slli_epi16(v, 8), _mm256_srli_epi16(v, 8));
    }
    static KESTRA_INLINE Vec expand(Vec v) {
        const Vec halves = _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(0, 1, 2, 2, 3, 4, 5, 5));
        return _mm256_shuffle_epi8(halves, kExpandBytes.vec());
    }
    // Of every 128-bit lane, pieces of so many bits of both in turn.
    static KESTRA_INLINE Vec low32(Vec a, Vec b) { return _mm256_unpacklo_epi32(a, b); }
    static KESTRA_INLINE Vec high32(Vec a, Vec b) { return _mm256_unpackhi_epi32(a, b); }
    static KESTRA_INLINE Vec low64(Vec a, Vec b) { return _mm256_unpacklo_epi64(a, b); }
    static KESTRA_INLINE Vec high64(Vec a, Vec b) { return _mm256_unpackhi_epi64(a, b); }
    static KESTRA_INLINE Vec oddFromSecond(Vec a, Vec b) { return _mm256_blend_epi16(a, b, 0xAA); }
    /// Four pixels of group kGroup and four of group kGroup + 4, in a lane each.
    template <size_t kGroup>
    static KESTRA_INLINE Vec unpack(const uint8_t* words) {
        const Vec bytes = twoAt(words + groupByte(kGroup), words + groupByte(kGroup + 4));
        const Vec lanes = _mm256_shuffle_epi8(bytes, Unpack<kGroup>::kBytes.vec());
        return _mm256_srli_epi16(_mm256_mullo_epi16(lanes, Unpack<kGroup>::kFactors.vec()), 6);
    }
};

/// The words of each kind, limited to 0..255 and spread over the lanes.
struct Words {
    __m256i kinds[3];
    KESTRA_INLINE Words(const PairSums<Ops>& v, const Wide<Lane> (&spread)[3])
        : kinds{_mm256_shuffle_epi8(_mm256_packus_epi16(v.blue0, v.green0), spread[0].vec()),
                _mm256_shuffle_epi8(_mm256_packus_epi16(v.red0, v.blue1), spread[1].vec()),
                _mm256_shuffle_epi8(_mm256_packus_epi16(v.green1, v.red1), spread[2].vec())} {}
    /// Each word of output register kOut of a lane, taken from the register of its kind.
    template <size_t kOut>
    KESTRA_INLINE __m256i pick() const {
        constexpr int kSecond = takenWords(kOut, 1), kThird = takenWords(kOut, 2); // immediates even in a debug build
        return _mm256_blend_epi16(_mm256_blend_epi16(kinds[0], kinds[1], kSecond), kinds[2], kThird);
    }
};

constexpr Wide<Lane> kOrdered[3] = {twice(spreadWords(0)), twice(spreadWords(1)), twice(spreadWords(2))};

/// Stores 32 pixels, the first 16 of which are in the low lanes.
template <class Store>
KESTRA_INLINE void store32(uint8_t* rgb, const PairSums<Ops>& v) {
    const Words words(v, kOrdered);
    const __m256i first = words.pick<0>(), second = words.pick<1>(), third = words.pick<2>();
    Store::put(rgb, _mm256_permute2x128_si256(first, second, 0x20));
    Store::put(rgb + 32, _mm256_blend_epi32(third, first, 0xF0)); // low lane of the third, high lane of the first
    Store::put(rgb + 64, _mm256_permute2x128_si256(second, third, 0x31));
}

// Two plain loads leave pairs 0..3 and 8..11 in the low lanes and 4..7 and 12..15 in the high ones, alternating: runs
// A, C and B, D, each of which becomes three quads of words. The quads are laid out so that every register has words
// of the same kinds in both lanes, and five instructions put them in their order.

/// The half of its lane where a quad is put; each run's quads go to three registers.
constexpr size_t kHalfOfQuad[2][2][3] = {{{1, 1, 0}, {0, 0, 1}}, {{0, 1, 1}, {1, 0, 0}}}; // A, C; B, D

constexpr Lane spreadRuns(size_t k, size_t lane) {
    Lane bytes{};
    for (size_t run = 0; run < 2; ++run)
        for (size_t pair = 0; pair < 4; ++pair) {
            const size_t word = 3 * pair + k, to = 4 * kHalfOfQuad[lane][run][word / 4] + word % 4;
            bytes[2 * to] = static_cast<uint8_t>(2 * pair + run);
            bytes[2 * to + 1] = static_cast<uint8_t>(8 + 2 * pair + run);
        }
    return bytes;
}

constexpr Wide<Lane> kRuns[3] = {
    {spreadRuns(0, 0), spreadRuns(0, 1)}, {spreadRuns(1, 0), spreadRuns(1, 1)}, {spreadRuns(2, 0), spreadRuns(2, 1)}};

/// In every lane the low or high quad of `a` and then of `b`, as the bits of kMask say.
template <int kMask>
KESTRA_INLINE __m256i quadsOf(__m256i a, __m256i b) {
    return _mm256_castpd_si256(_mm256_shuffle_pd(_mm256_castsi256_pd(a), _mm256_castsi256_pd(b), kMask));
}

template <class Store>
KESTRA_INLINE void storeRuns32(uint8_t* rgb, const PairSums<Ops>& v) {
    const Words words(v, kRuns);
    const __m256i c0a1b0b1 = words.pick<0>(), c1c2d1b2 = words.pick<2>(), a2a0d2d0 = words.pick<1>();
    const __m256i a0d0a2d2 = _mm256_permute4x64_epi64(a2a0d2d0, 0x8D);
    const __m256i c0c1b1b2 = quadsOf<0b1100>(c0a1b0b1, c1c2d1b2);
    Store::put(rgb, quadsOf<0b0010>(a0d0a2d2, c0a1b0b1));           // A0 A1 A2 B0
    Store::put(rgb + 32, _mm256_permute4x64_epi64(c0c1b1b2, 0x4E)); // B1 B2 C0 C1
    Store::put(rgb + 64, quadsOf<0b1011>(c1c2d1b2, a0d0a2d2));      // C2 D0 D1 D2
}

struct Kernel8Bit : LaneKernel8Bit<Ops> {
    template <class Store>
    static KESTRA_INLINE void finish(uint8_t* rgb, const Terms& terms) {
        storeRuns32<Store>(rgb, pairSums8<Ops>(terms));
    }
};

struct Kernel10Bit : LaneKernel10Bit<Ops> {
    template <class Store>
    static KESTRA_INLINE void finish(uint8_t* rgb, const Terms& terms) {
        store32<Store>(rgb, pairSums10<Ops>(terms));
    }
};

} // namespace

constinit const KernelSet kAvx2Kernels{.name = "avx2",
                                       .runsHere = []() noexcept { return __builtin_cpu_supports("avx2") != 0; },
                                       .convertLine8Bit = convertLine<Kernel8Bit>,
                                       .convertLine10Bit = convertLine<Kernel10Bit>,
                                       .picosecondsPerPixel8Bit = 250,
                                       .picosecondsPerPixel10Bit = 290,
                                       .copyLine = copyLine<Ops>,
                                       .swapLine = swapLine<Ops>,
                                       .expandLine = expandLine<Ops>};

} // namespace kestra
