// TARNIS_Decode as its callers see it: results, log texts, geometry, and every layout against a reference written
// plainly from the formulas.
#include "decode/decode.h"
#include "tests/support/recording_output.h"
#include "tests/unit/decode_support.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <thread>

#ifdef _WIN32
#include "tests/support/scoped_import_hook.h"
#endif

namespace kestra::test {
namespace {

constexpr uint8_t kUntouched = 0xA5;

uint32_t decode(const TarnisCameraData& data, const void* raw, void* rgb, int32_t* stride) {
    return TARNIS_Decode(&data, raw, rgb, stride, 2, nullptr, nullptr);
}

/// One sample of a raw frame's line.
uint32_t sampleAt(const uint8_t* line, uint32_t selector, uint32_t index) {
    if (selector == TARNIS_OUTPUT_YUV422_8) return line[index];
    uint64_t word = 0;
    std::memcpy(&word, line + index / 6 * 8, sizeof word);
    return static_cast<uint32_t>(word >> 10 * (index % 6)) & 1023;
}

int truncated(float value) {
    return static_cast<int>(value);
}

/// ITU-R BT.601 with the default parameters, term by term as they are rounded.
void referencePixel(uint32_t y, uint32_t cb, uint32_t cr, bool ten, uint8_t* bgr) {
    const int yOff = ten ? 64 : 16, cOff = ten ? 512 : 128, shift = ten ? 2 : 0;
    const int luma = truncated(static_cast<float>(static_cast<int>(y) - yOff) * 1.164f);
    const auto red = static_cast<float>(static_cast<int>(cr) - cOff),
               blue = static_cast<float>(static_cast<int>(cb) - cOff);
    const int sums[3] = {luma + truncated(2.017f * blue), luma - truncated(0.813f * red) - truncated(0.392f * blue),
                         luma + truncated(1.596f * red)};
    for (int i = 0; i < 3; ++i)
        bgr[i] = static_cast<uint8_t>(std::clamp(sums[i] >> shift, 0, 255));
}

/// The whole image that a decode must leave in `rgb` (top line first, `stride` bytes a line).
void reference(const TarnisCameraData& data, const uint8_t* raw, std::vector<uint8_t>& rgb, uint32_t stride) {
    uint32_t height = data.status.height;
    bool interlaced = data.status.interlaced == 1;
    if (interlaced && data.outputParameter == 1) {
        interlaced = false;
        height /= 2;
    }
    const uint32_t width = data.status.width, selector = data.outputSelector;
    const bool copy = selector == TARNIS_OUTPUT_RGB24;
    const uint32_t fieldLines = copy ? height / 2 : (height + 1) / 2;
    for (uint32_t r = 0; r < height; ++r) {
        uint32_t line = r;
        if (interlaced) {
            if (copy && r >= 2 * fieldLines) continue;
            line = r < fieldLines ? 2 * r : 2 * (r - fieldLines) + 1;
        }
        const uint8_t* in = raw + r * rawStride(selector, width);
        uint8_t* out = rgb.data() + size_t{line} * stride;
        if (copy) {
            std::copy(in, in + size_t{3} * width, out);
            continue;
        }
        for (uint32_t x = 0; x + 1 < width + (width % 2 == 0 ? 1 : 0) && x < width / 2 * 2; ++x)
            referencePixel(sampleAt(in, selector, 2 * x), sampleAt(in, selector, x / 2 * 4 + 1),
                           sampleAt(in, selector, x / 2 * 4 + 3), selector == TARNIS_OUTPUT_YUV422_10, out + 3 * x);
    }
}

class Decode : public testing::Test {
protected:
    LibraryLogCapture m_log;
};

class DecodeWithEverySet : public testing::TestWithParam<const KernelSet*> {};

/// Decodes a random frame with guards on all sides and compares every byte.
void compareWithReference(const TarnisCameraData& data, bool bottomUp, uint32_t extraStride, uint32_t offset,
                          bool atEnd, uint32_t seed) {
    const uint32_t width = data.status.width, height = data.status.height;
    GuardedBytes raw(rawStride(data.outputSelector, width) * height, atEnd);
    fillRandom(raw.begin(), raw.end(), seed);
    const uint32_t stride = rgbStride(width) + extraStride;
    std::vector<uint8_t> expected(size_t{stride} * height, kUntouched);
    reference(data, raw.data(), expected, stride);
    GuardedBytes image(offset + size_t{stride} * height, atEnd);
    std::fill(image.begin(), image.end(), kUntouched);
    int32_t step = bottomUp ? -static_cast<int32_t>(stride) : static_cast<int32_t>(stride);
    uint8_t* base = image.data() + (atEnd ? 0 : offset);
    uint8_t* top = bottomUp ? base + size_t{stride} * (height - 1) : base;
    ASSERT_EQ(decode(data, raw.data(), top, &step), 0u);
    for (uint32_t line = 0; line < height; ++line)
        ASSERT_EQ(std::memcmp(&expected[size_t{line} * stride],
                              base + size_t{bottomUp ? height - 1 - line : line} * stride, stride),
                  0)
            << "line " << line << " of " << height << ", " << width << " pixels, layout " << data.outputSelector
            << ", interlaced " << data.status.interlaced << ", bottom up " << bottomUp << ", seed " << seed;
}

} // namespace

TEST_F(Decode, NullRecordIsNamedWithItsLine) {
    int32_t stride = 0;
    EXPECT_EQ(TARNIS_Decode(nullptr, nullptr, nullptr, &stride, 2, nullptr, nullptr), 1u);
    ASSERT_EQ(m_log.records().size(), 1u);
    const SeenRecord record = m_log.records()[0];
    EXPECT_EQ(record.message, L"cameraData is NULL");
    EXPECT_EQ(record.group, "\"Unpack Functions\"");
    EXPECT_EQ(record.functionName, "TARNIS_Decode");
    EXPECT_EQ(record.moduleTag, "TARNIS");
    EXPECT_EQ(record.sourceFile, L".\\TARNIS_unpack.cpp");
    EXPECT_EQ(record.line, 610);
    EXPECT_EQ(record.severity, 4u);
}

TEST_F(Decode, NullStrideIsNamedWithItsLine) {
    const TarnisCameraData data = cameraData(1, 4, 2);
    uint8_t raw[32] = {}, rgb[32] = {};
    EXPECT_EQ(TARNIS_Decode(&data, raw, rgb, nullptr, 2, nullptr, nullptr), 1u);
    ASSERT_EQ(m_log.records().size(), 1u);
    EXPECT_EQ(m_log.records()[0].message, L"pStrideSize is NULL");
    EXPECT_EQ(m_log.records()[0].line, 611);
}

TEST_F(Decode, RecordIsCheckedBeforeTheStride) {
    EXPECT_EQ(TARNIS_Decode(nullptr, nullptr, nullptr, nullptr, 2, nullptr, nullptr), 1u);
    ASSERT_EQ(m_log.records().size(), 1u);
    EXPECT_EQ(m_log.records()[0].line, 610);
}

TEST_F(Decode, NullFrameIsNamedOnlyWithoutAnyWidth) {
    uint8_t rgb[64] = {};
    int32_t stride = 12;
    EXPECT_EQ(decode(cameraData(1, 4, 2), nullptr, rgb, &stride), 1u);
    EXPECT_EQ(stride, 12) << "set to 0 first, which is too small";
    EXPECT_TRUE(m_log.records().empty());
    stride = 77;
    EXPECT_EQ(decode(cameraData(1, 0, 2), nullptr, rgb, &stride), 1u);
    EXPECT_EQ(stride, 0);
    ASSERT_EQ(m_log.records().size(), 1u);
    EXPECT_EQ(m_log.records()[0].message, L"pRawPixels is NULL");
    EXPECT_EQ(m_log.records()[0].line, 624);
}

TEST(DecodeWithoutLog, FailuresHaveTheSameResultsWhileNothingListens) {
    int32_t stride = 12;
    uint8_t rgb[12] = {};
    EXPECT_EQ(TARNIS_Decode(nullptr, nullptr, nullptr, nullptr, 2, nullptr, nullptr), 1u);
    EXPECT_EQ(decode(cameraData(1, 0, 1), nullptr, rgb, &stride), 1u);
}

TEST_F(Decode, NullDestinationAsksForTheStrideOfEveryLayout) {
    const uint8_t raw[64] = {};
    for (const uint32_t selector : {0u, 1u, 2u})
        for (const uint16_t width : {1, 2, 3, 4, 1920, 1921, 65535}) {
            int32_t stride = 1 << 30;
            EXPECT_EQ(decode(cameraData(selector, width, 2), raw, nullptr, &stride), 1u);
            EXPECT_EQ(stride, int32_t((width * 3 + 3) & ~3));
        }
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(Decode, TooSmallAStrideIsAnsweredWithTheLeastOfEitherSign) {
    uint8_t raw[64] = {}, rgb[64];
    std::memset(rgb, kUntouched, sizeof rgb);
    for (int32_t given : {0, 11, -11, 1, -1}) {
        EXPECT_EQ(decode(cameraData(1, 4, 2), raw, rgb, &given), 1u);
        EXPECT_EQ(given, 12);
    }
    EXPECT_EQ(std::count(rgb, rgb + sizeof rgb, kUntouched), 64);
    int32_t least = -12;
    EXPECT_EQ(decode(cameraData(1, 4, 2), raw, rgb + 24, &least), 0u);
    EXPECT_EQ(least, -12) << "left as it was";
}

TEST_F(Decode, StrideOfTheLeastNumberIsNoOverflow) {
    uint8_t raw[64] = {}, rgb[64] = {};
    int32_t stride = INT32_MIN;
    EXPECT_EQ(decode(cameraData(1, 4, 1), raw, rgb, &stride), 0u);
}

TEST_F(Decode, UnknownLayoutIsRefusedAfterTheStrideCheck) {
    uint8_t raw[64] = {}, rgb[64];
    std::memset(rgb, kUntouched, sizeof rgb);
    for (const uint32_t selector : {3u, 0xFFFFFFFFu, 0x80000000u}) {
        int32_t stride = 12;
        EXPECT_EQ(decode(cameraData(selector, 4, 2), raw, rgb, &stride), 254u);
        stride = 11;
        EXPECT_EQ(decode(cameraData(selector, 4, 2), raw, rgb, &stride), 1u);
    }
    EXPECT_EQ(std::count(rgb, rgb + sizeof rgb, kUntouched), 64);
}

TEST_F(Decode, OutputFormatAndTheLastTwoArgumentsChangeNothing) {
    uint8_t raw[32];
    fillRandom(raw, raw + sizeof raw, 1);
    uint8_t expected[24] = {}, actual[24] = {};
    int32_t stride = 12;
    const TarnisCameraData data = cameraData(1, 4, 2);
    ASSERT_EQ(TARNIS_Decode(&data, raw, expected, &stride, 2, nullptr, nullptr), 0u);
    ASSERT_EQ(TARNIS_Decode(&data, raw, actual, &stride, 99, raw, expected), 0u);
    EXPECT_EQ(std::memcmp(expected, actual, sizeof actual), 0);
}

TEST_F(Decode, LastPixelOfAnOddWidthStaysUnwritten) {
    for (const uint32_t selector : {0u, 1u}) {
        std::vector<uint8_t> raw(rawStride(selector, 1921) * 2, 0x55), rgb(size_t{rgbStride(1921)} * 2, kUntouched);
        int32_t stride = static_cast<int32_t>(rgbStride(1921));
        ASSERT_EQ(decode(cameraData(selector, 1921, 2), raw.data(), rgb.data(), &stride), 0u);
        for (size_t line = 0; line < 2; ++line) {
            EXPECT_NE(rgb[line * rgbStride(1921) + 1920 * 3 - 1], kUntouched);
            for (uint32_t byte = 1920 * 3; byte < rgbStride(1921); ++byte)
                EXPECT_EQ(rgb[line * rgbStride(1921) + byte], kUntouched);
        }
    }
}

TEST_F(Decode, OddHeightsFirstFieldHasTheExtraLineAndTheCopyLeavesTheLastLineAlone) {
    for (const uint32_t selector : {0u, 1u, 2u}) {
        const TarnisCameraData data = cameraData(selector, 4, 5, true);
        std::vector<uint8_t> raw(rawStride(selector, 4) * 5);
        fillRandom(raw.data(), raw.data() + raw.size(), 3);
        std::vector<uint8_t> rgb(12 * 5, kUntouched), expected(12 * 5, kUntouched);
        reference(data, raw.data(), expected, 12);
        int32_t stride = 12;
        ASSERT_EQ(decode(data, raw.data(), rgb.data(), &stride), 0u);
        EXPECT_EQ(rgb, expected);
        const bool lastLineUntouched =
            std::all_of(rgb.end() - 12, rgb.end(), [](uint8_t byte) { return byte == kUntouched; });
        EXPECT_EQ(lastLineUntouched, selector == 2u);
    }
}

TEST_F(Decode, OneFieldAloneBecomesAnImageOfHalfTheHeight) {
    for (const uint32_t selector : {0u, 1u, 2u}) {
        TarnisCameraData data = cameraData(selector, 8, 7, true);
        data.outputParameter = 1;
        const TarnisCameraData before = data;
        std::vector<uint8_t> raw(rawStride(selector, 8) * 7);
        fillRandom(raw.data(), raw.data() + raw.size(), 4);
        std::vector<uint8_t> rgb(24 * 7, kUntouched), expected(24 * 7, kUntouched);
        reference(cameraData(selector, 8, 3), raw.data(), expected, 24);
        int32_t stride = 24;
        ASSERT_EQ(decode(data, raw.data(), rgb.data(), &stride), 0u);
        EXPECT_EQ(rgb, expected);
        EXPECT_EQ(std::memcmp(&before, &data, sizeof data), 0) << "the caller's record is never written";
        data.status.interlaced = 0; // the parameter means nothing for a progressive input
        std::fill(rgb.begin(), rgb.end(), kUntouched);
        reference(cameraData(selector, 8, 7), raw.data(), expected, 24);
        ASSERT_EQ(decode(data, raw.data(), rgb.data(), &stride), 0u);
        EXPECT_EQ(rgb, expected);
    }
}

TEST_F(Decode, InterlacedMeansExactlyOne) {
    TarnisCameraData data = cameraData(1, 4, 4);
    data.status.interlaced = 2;
    std::vector<uint8_t> raw(8 * 4);
    fillRandom(raw.data(), raw.data() + raw.size(), 5);
    std::vector<uint8_t> rgb(48), expected(48);
    reference(cameraData(1, 4, 4), raw.data(), expected, 12);
    int32_t stride = 12;
    ASSERT_EQ(decode(data, raw.data(), rgb.data(), &stride), 0u);
    EXPECT_EQ(rgb, expected);
}

TEST_F(Decode, BlackAndWhiteAreWhatTheTablesMakeOfThem) {
    const uint8_t raw[8] = {16, 128, 235, 128, 16, 128, 235, 128};
    uint8_t rgb[12];
    int32_t stride = 12;
    ASSERT_EQ(decode(cameraData(1, 4, 1), raw, rgb, &stride), 0u);
    const uint8_t expected[12] = {0, 0, 0, 254, 254, 254, 0, 0, 0, 254, 254, 254};
    EXPECT_EQ(std::memcmp(rgb, expected, sizeof rgb), 0);
    const std::vector<uint8_t> ten = pack10({64, 512, 940, 512});
    int32_t needed = 8;
    ASSERT_EQ(decode(cameraData(0, 2, 1), ten.data(), rgb, &needed), 0u);
    EXPECT_EQ(rgb[0], 0);
    EXPECT_EQ(rgb[5], 254); // 876 * 1.164 = 1019.66, truncated, over 4
}

TEST_F(Decode, ImageWithoutLinesOrPixelsIsDoneAtOnce) {
    uint8_t raw[16] = {}, rgb[16];
    std::memset(rgb, kUntouched, sizeof rgb);
    int32_t stride = 12;
    EXPECT_EQ(decode(cameraData(1, 4, 0), raw, rgb, &stride), 0u);
    EXPECT_EQ(decode(cameraData(1, 0, 4), raw, rgb, &stride), 0u);
    EXPECT_EQ(decode(cameraData(2, 4, 0), raw, rgb, &stride), 0u);
    EXPECT_EQ(decode(cameraData(2, 0, 4), raw, rgb, &stride), 0u);
    EXPECT_EQ(decode(cameraData(2, 4, 1, true), raw, rgb, &stride), 0u) << "fields of no lines";
    EXPECT_EQ(decode(cameraData(0, 0, 4), raw, rgb, &stride), 5u) << "no scratch image has no bytes";
    EXPECT_EQ(std::count(rgb, rgb + sizeof rgb, kUntouched), 16);
}

TEST(DecodeAtOnce, DecodesOfDifferentDepthDoNotDisturbEachOther) {
    constexpr uint16_t kWidth = 48, kHeight = 4;
    std::atomic<int> wrong{0};
    const auto decodeOften = [&](uint32_t selector) {
        const TarnisCameraData data = cameraData(selector, kWidth, kHeight);
        std::vector<uint8_t> raw(rawStride(selector, kWidth) * kHeight), rgb(size_t{rgbStride(kWidth)} * kHeight);
        fillRandom(raw.data(), raw.data() + raw.size(), selector + 1);
        std::vector<uint8_t> expected(rgb.size());
        reference(data, raw.data(), expected, rgbStride(kWidth));
        for (int i = 0; i < 3000; ++i) {
            auto stride = static_cast<int32_t>(rgbStride(kWidth));
            std::fill(rgb.begin(), rgb.end(), kUntouched);
            if (decode(data, raw.data(), rgb.data(), &stride) != 0 || rgb != expected) ++wrong;
        }
    };
    const ForcedKernels plain(kPlainKernels); // which reads the tables for every pixel
    std::thread tenBit(decodeOften, TARNIS_OUTPUT_YUV422_10);
    decodeOften(TARNIS_OUTPUT_YUV422_8);
    tenBit.join();
    EXPECT_EQ(wrong, 0);
}

TEST(DecodeSharing, FollowsFromTheTimeThatOneThreadIsExpectedToTake) {
    EXPECT_FALSE(isShared(kSharedNanoseconds - 1));
    EXPECT_TRUE(isShared(kSharedNanoseconds));
    const auto takes = [](uint32_t picosecondsPerPixel, uint64_t pixels) {
        return picosecondsPerPixel * pixels / 1000;
    };
    for (const KernelSet* set : kKernelSets) {
        const bool plain = set == &kPlainKernels;
        for (const uint32_t cost : {set->picosecondsPerPixel8Bit, set->picosecondsPerPixel10Bit})
            EXPECT_FALSE(isShared(takes(cost, 1920 * 1080))) << set->name;
        EXPECT_EQ(isShared(takes(set->picosecondsPerPixel8Bit, 3840 * 2160)), plain) << set->name;
        EXPECT_EQ(isShared(takes(set->picosecondsPerPixel10Bit, 3840 * 2160)), plain || set == &kSse2Kernels)
            << set->name;
    }
    const ForcedSharing always(Sharing::Always);
    EXPECT_TRUE(isShared(0));
    const ForcedSharing never(Sharing::Never);
    EXPECT_FALSE(isShared(kSharedNanoseconds));
}

TEST(DecodeFields, StrideThatDoublesBeyond32BitsIsWalkedAsItIs) {
    constexpr size_t kStride = size_t{3} << 29; // twice that is no 32-bit number
    for (const uint32_t selector : {0u, 1u, 2u}) {
        const TarnisCameraData data = cameraData(selector, 4, 4, true);
        std::vector<uint8_t> raw(rawStride(selector, 4) * 4);
        fillRandom(raw.data(), raw.data() + raw.size(), 5);
        std::vector<uint8_t> expected(size_t{12} * 4);
        reference(data, raw.data(), expected, 12);
        const SparseBytes image(kStride, 4);
        for (const bool bottomUp : {false, true}) {
            int32_t stride = bottomUp ? -int32_t{kStride} : int32_t{kStride};
            ASSERT_EQ(decode(data, raw.data(), image.at(bottomUp ? 3 : 0), &stride), 0u);
            for (size_t line = 0; line < 4; ++line)
                EXPECT_EQ(std::memcmp(image.at(bottomUp ? 3 - line : line), &expected[12 * line], 12), 0) << line;
        }
    }
}

#ifdef _WIN32
TEST_F(Decode, MissingScratchImageIsOutOfMemoryAndLeavesTheImageAlone) {
    static size_t asked;
    asked = 0;
    const ScopedImportHook<decltype(&VirtualAlloc)> hook("kernel32.dll", "VirtualAlloc",
                                                         [](void*, SIZE_T bytes, DWORD, DWORD) -> void* {
                                                             asked = bytes;
                                                             return nullptr;
                                                         });
    ASSERT_TRUE(hook.installed());
    std::vector<uint8_t> raw(rawStride(0, 1920) * 4), rgb(5760 * 4, kUntouched);
    int32_t stride = 5760;
    EXPECT_EQ(decode(cameraData(0, 1920, 4), raw.data(), rgb.data(), &stride), 5u);
    EXPECT_EQ(asked, 1920u * 4 * 4) << "two 16-bit samples a pixel";
    EXPECT_EQ(std::count(rgb.begin(), rgb.end(), kUntouched), 5760 * 4);
    EXPECT_EQ(decode(cameraData(1, 1920, 4), raw.data(), rgb.data(), &stride), 0u) << "8-bit input needs none";
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(Decode, ScratchImageIsGivenBack) {
    static void* base;
    static const void* freed;
    using Alloc = decltype(&VirtualAlloc);
    using Free = decltype(&VirtualFree);
    static Alloc alloc;
    static Free release;
    const ScopedImportHook<Alloc> onAlloc(
        "kernel32.dll", "VirtualAlloc",
        [](void* p, SIZE_T n, DWORD t, DWORD f) -> void* { return base = alloc(p, n, t, f); });
    const ScopedImportHook<Free> onFree("kernel32.dll", "VirtualFree", [](void* p, SIZE_T n, DWORD t) -> BOOL {
        freed = p;
        return release(p, n, t);
    });
    ASSERT_TRUE(onAlloc.installed() && onFree.installed());
    alloc = onAlloc.original();
    release = onFree.original();
    std::vector<uint8_t> raw(rawStride(0, 12)), rgb(36);
    int32_t stride = 36;
    EXPECT_EQ(decode(cameraData(0, 12, 1), raw.data(), rgb.data(), &stride), 0u);
    EXPECT_NE(base, nullptr);
    EXPECT_EQ(freed, base);
}
#endif

TEST_P(DecodeWithEverySet, EveryGeometryMatchesTheReference) {
    const ForcedKernels forced(*GetParam());
    uint32_t seed = 1;
    const uint32_t step = isLongRun() ? 1 : 3;
    for (const uint32_t selector : {0u, 1u, 2u})
        for (uint16_t width = 1; width <= 200; width = static_cast<uint16_t>(width + (width < 60 ? 1 : step)))
            for (uint16_t height = 1; height <= 9; height = static_cast<uint16_t>(height + (isLongRun() ? 1 : 4)))
                for (const bool interlaced : {false, true})
                    for (const bool bottomUp : {false, true})
                        for (const bool oneField : {false, true}) {
                            if (oneField && (!interlaced || height < 2)) continue;
                            TarnisCameraData data = cameraData(selector, width, height, interlaced);
                            data.outputParameter = oneField ? 1 : 0;
                            compareWithReference(data, bottomUp, seed % 7 * 4, seed % 64, seed % 2 == 0, seed);
                            ++seed;
                            if (HasFatalFailure()) return;
                        }
}

TEST_P(DecodeWithEverySet, LargeOddWidthsMatchTheReference) {
    const ForcedKernels forced(*GetParam());
    for (const uint32_t selector : {0u, 1u, 2u})
        for (const uint16_t width : {719, 720, 1279, 1280, 1439, 1919, 1920, 1921, 1922, 1999, 2047, 3839, 3840, 4095})
            for (const bool interlaced : {false, true}) {
                compareWithReference(cameraData(selector, width, 5, interlaced), true, 0, 0, true, width);
                if (HasFatalFailure()) return;
            }
}

TEST_P(DecodeWithEverySet, WholeFramesOnSeveralThreadsMatchTheReference) {
    const ForcedKernels forced(*GetParam());
    const ForcedSharing always(Sharing::Always);
    for (const uint32_t selector : {0u, 1u, 2u})
        for (const bool interlaced : {false, true}) {
            compareWithReference(cameraData(selector, 1920, 1080, interlaced), true, 0, 0, true, 9);
            if (HasFatalFailure()) return;
        }
}

TEST_P(DecodeWithEverySet, EveryAlignmentOfRawAndImageMatchesTheReference) {
    const ForcedKernels forced(*GetParam());
    constexpr uint16_t kWidth = 200;
    for (const uint32_t selector : {0u, 1u, 2u})
        for (uint32_t offset = 0; offset < 64; ++offset) {
            const TarnisCameraData data = cameraData(selector, kWidth, 2);
            std::vector<uint8_t> raw(offset + rawStride(selector, kWidth) * 2);
            fillRandom(raw.data(), raw.data() + raw.size(), offset);
            std::vector<uint8_t> expected(1200, kUntouched), image(64 + 1200 + 64, kUntouched);
            reference(data, raw.data() + offset, expected, 600);
            int32_t stride = 600;
            ASSERT_EQ(decode(data, raw.data() + offset, image.data() + 64 - offset, &stride), 0u);
            ASSERT_TRUE(std::equal(expected.begin(), expected.end(), image.begin() + 64 - offset)) << offset;
            ASSERT_EQ(std::count(image.begin(), image.begin() + 64 - offset, kUntouched), 64 - int(offset));
            ASSERT_EQ(std::count(image.end() - 64 - offset, image.end(), kUntouched), 64 + int(offset));
        }
}

INSTANTIATE_TEST_SUITE_P(, DecodeWithEverySet, testing::ValuesIn(runningSets()), setName);

} // namespace kestra::test
