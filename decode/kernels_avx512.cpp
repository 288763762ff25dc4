// Kernels for AVX-512 F, BW, VL and VBMI. The only file built with these instructions.
#include "decode/line_kernels.h"
#include "decode/region_template.h"
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
    static KESTRA_INLINE Vec zero() { return _mm512_setzero_si512(); }
    static KESTRA_INLINE Vec shiftRight(Vec v, unsigned count) {
        return _mm512_srl_epi16(v, _mm_cvtsi32_si128(static_cast<int>(count)));
    }
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
    static KESTRA_INLINE Vec swapNeighbours(Vec v) { return _mm512_rol_epi32(v, 16); }
    static KESTRA_INLINE Vec repeatEven(Vec v) {
        return _mm512_shuffle_epi8(v, set128(0x0504050401000100, 0x0D0C0D0C09080908));
    }
    static KESTRA_INLINE Vec repeatOdd(Vec v) {
        return _mm512_shuffle_epi8(v, set128(0x0706070603020302, 0x0F0E0F0E0B0A0B0A));
    }

private:
    static KESTRA_INLINE Vec set128(long long low, long long high) {
        return _mm512_broadcast_i32x4(_mm_set_epi64x(high, low));
    }
};

using Index = std::array<uint8_t, 64>;

KESTRA_INLINE __m512i toVec(const Index& index) {
    return _mm512_loadu_si512(index.data());
}

// Packing leaves the byte of pixel p (0..31) of a register's first source at 16 * (p / 8) + p % 8, of its second 8 on.
constexpr int packedAt(int pixel) {
    return 16 * (pixel / 8) + pixel % 8;
}

/// Where byte t of 64 B, G, R output bytes that start at byte `first` of 192 comes from: `bg` of its pixel's half
/// (second half: + 64 if both halves are at hand), or red's register, whose first half's pixels come first.
template <int kFirst>
constexpr Index interleaved(bool fromRed) {
    Index index{};
    for (int t = 0; t < 64; ++t) {
        const int byte = kFirst + t, pixel = byte / 3, channel = byte % 3;
        const int half = pixel / 32, at = packedAt(pixel % 32);
        if (fromRed)
            index[static_cast<size_t>(t)] = static_cast<uint8_t>(at + 8 * half);
        else
            index[static_cast<size_t>(t)] = static_cast<uint8_t>(64 * half + at + 8 * channel);
    }
    return index;
}

template <int kFirst>
constexpr uint64_t redBytes() {
    uint64_t mask = 0;
    for (int t = 0; t < 64; ++t)
        if ((kFirst + t) % 3 == 2) mask |= uint64_t{1} << t;
    return mask;
}

/// Index into (bg of one half, red) for the outer two output registers, which lie within one half but for a few pixels.
template <int kFirst>
constexpr Index oneHalf() {
    Index index{};
    for (int t = 0; t < 64; ++t) {
        const int byte = kFirst + t, pixel = byte / 3, channel = byte % 3;
        const int at = packedAt(pixel % 32);
        index[static_cast<size_t>(t)] =
            static_cast<uint8_t>(channel == 2 ? 64 + at + 8 * (pixel / 32) : at + 8 * channel);
    }
    return index;
}

alignas(64) constexpr Index kFirstOut = oneHalf<0>();
alignas(64) constexpr Index kLastOut = oneHalf<128>();
alignas(64) constexpr Index kMiddleBlueGreen = interleaved<64>(false);
alignas(64) constexpr Index kMiddleRed = interleaved<64>(true);
constexpr __mmask64 kMiddleRedBytes = redBytes<64>();

struct Rgb64 {
    __m512i first, middle, last; ///< 192 bytes of 64 pixels
};

/// Limits to 0..255 and interleaves.
KESTRA_INLINE Rgb64 interleave(const Channels<Ops>& a, const Channels<Ops>& b) {
    const __m512i bgA = _mm512_packus_epi16(a.b, a.g);
    const __m512i bgB = _mm512_packus_epi16(b.b, b.g);
    const __m512i red = _mm512_packus_epi16(a.r, b.r);
    const __m512i middle = _mm512_permutex2var_epi8(bgA, toVec(kMiddleBlueGreen), bgB);
    return {_mm512_permutex2var_epi8(bgA, toVec(kFirstOut), red),
            _mm512_mask_permutexvar_epi8(middle, kMiddleRedBytes, toVec(kMiddleRed), red),
            _mm512_permutex2var_epi8(bgB, toVec(kLastOut), red)};
}

KESTRA_INLINE void store(uint8_t* rgb, const Rgb64& v) {
    _mm512_storeu_si512(rgb, v.first);
    _mm512_storeu_si512(rgb + 64, v.middle);
    _mm512_storeu_si512(rgb + 128, v.last);
}

/// The low `count` bits of 64, for any count.
KESTRA_INLINE __mmask64 lowBits(int64_t count) {
    if (count <= 0) return 0;
    return count >= 64 ? ~__mmask64{0} : (__mmask64{1} << count) - 1;
}

KESTRA_INLINE void prefetch192(const uint8_t* p) {
    __builtin_prefetch(p, 1);
    __builtin_prefetch(p + 64, 1);
    __builtin_prefetch(p + 128, 1);
}

// 10-bit samples. 64 samples from an even pixel on start at sample 0, 2 or 4 of a word and lie in 11 or 12 words.

/// Bytes that hold sample `first + 2 * q + odd` in lane q.
template <int kOffset>
constexpr Index sampleBytes(int odd) {
    Index index{};
    for (int q = 0; q < 32; ++q) {
        const int sample = kOffset + 2 * q + odd, byte = 8 * (sample / 6) + 10 * (sample % 6) / 8;
        index[static_cast<size_t>(2 * q)] = static_cast<uint8_t>(byte);
        index[static_cast<size_t>(2 * q + 1)] = static_cast<uint8_t>(byte + 1);
    }
    return index;
}

template <int kOffset>
constexpr std::array<uint16_t, 32> sampleShifts(int odd) {
    std::array<uint16_t, 32> shifts{};
    for (int q = 0; q < 32; ++q)
        shifts[static_cast<size_t>(q)] = static_cast<uint16_t>(10 * ((kOffset + 2 * q + odd) % 6) % 8);
    return shifts;
}

template <int kOffset>
struct Unpack {
    alignas(64) static constexpr Index kYBytes = sampleBytes<kOffset>(0);
    alignas(64) static constexpr Index kCBytes = sampleBytes<kOffset>(1);
    alignas(64) static constexpr std::array<uint16_t, 32> kYShifts = sampleShifts<kOffset>(0);
    alignas(64) static constexpr std::array<uint16_t, 32> kCShifts = sampleShifts<kOffset>(1);
};

/// Converts 32 pixels whose first sample is sample kOffset of the word at `words`.
template <int kOffset>
KESTRA_INLINE Channels<Ops> convert32(const uint8_t* words) {
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

/// Converts 64 pixels: 128 samples from sample kOffset of the word at `words` on.
template <int kOffset>
KESTRA_INLINE void convert64(const uint8_t* words, uint8_t* rgb) {
    constexpr int kSecond = kOffset + 64;
    store(rgb, interleave(convert32<kOffset>(words), convert32<kSecond % 6>(words + 8 * (kSecond / 6))));
}

} // namespace

void convertLine8Avx512(const LineConversion& /*conversion*/, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                        const uint8_t* nextLine) {
    uint32_t n = pairs;
    for (; n >= 32; n -= 32, raw += 128, rgb += 192, nextLine += 192) {
        prefetch192(nextLine);
        store(rgb, interleave(convert8<Ops>(Ops::load(raw)), convert8<Ops>(Ops::load(raw + 64))));
    }
    if (n == 0) return;
    const int64_t in = int64_t{4} * n, out = int64_t{6} * n;
    const Rgb64 last = interleave(convert8<Ops>(_mm512_maskz_loadu_epi8(lowBits(in), raw)),
                                  convert8<Ops>(_mm512_maskz_loadu_epi8(lowBits(in - 64), raw + 64)));
    _mm512_mask_storeu_epi8(rgb, lowBits(out), last.first);
    _mm512_mask_storeu_epi8(rgb + 64, lowBits(out - 64), last.middle);
    _mm512_mask_storeu_epi8(rgb + 128, lowBits(out - 128), last.last);
}

void convertLine10Avx512(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                         const uint8_t* nextLine) {
    constexpr uint32_t kBlock = 32; // pairs
    if (pairs < kBlock) return convertLine10Plain(conversion, raw, rgb, pairs, nextLine);
    uint32_t done = 0;
    const auto block = [&](uint32_t pair) {
        const uint32_t sample = 4 * pair;
        const uint8_t* words = raw + size_t{8} * (sample / 6);
        uint8_t* out = rgb + size_t{6} * pair;
        switch (sample % 6) {
        case 0:
            return convert64<0>(words, out);
        case 2:
            return convert64<2>(words, out);
        default:
            return convert64<4>(words, out);
        }
    };
    for (; done + 3 * kBlock <= pairs; done += 3 * kBlock) { // 384 samples are 64 words
        const uint8_t* words = raw + size_t{8} * (4 * done / 6);
        uint8_t* out = rgb + size_t{6} * done;
        const uint8_t* next = nextLine + size_t{6} * done;
        prefetch192(next);
        convert64<0>(words, out);
        prefetch192(next + 192);
        convert64<2>(words + 8 * 21, out + 192);
        prefetch192(next + 384);
        convert64<4>(words + 8 * 42, out + 384);
    }
    for (; done + kBlock <= pairs; done += kBlock)
        block(done);
    if (done < pairs) block(pairs - kBlock); // once more over what is done: the same bytes
}

int32_t copyC3Avx512(const uint8_t* src, int32_t srcStep, uint8_t* dst, int32_t dstStep, RegionSize region) {
    return copyC3<Ops>(src, srcStep, dst, dstStep, region);
}
int32_t copy16C1Avx512(const void* src, int32_t srcStep, void* dst, int32_t dstStep, RegionSize region) {
    return copy16C1<Ops>(src, srcStep, dst, dstStep, region);
}
int32_t shiftRight16C1Avx512(uint32_t shift, void* image, int32_t step, RegionSize region) {
    return shiftRight16C1<Ops>(shift, image, step, region);
}

} // namespace kestra
