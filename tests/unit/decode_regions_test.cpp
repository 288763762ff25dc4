// The region kernels: status values, steps, overlaps, and every variant against the plain one, guards included.
#include "decode/region_kernels.h"
#include "tests/unit/decode_support.h"

#include <algorithm>

namespace kestra::test {
namespace {

constexpr uint8_t kUntouched = 0xA5;

class RegionKernels : public testing::TestWithParam<int> {
protected:
    CopyC3 copyC3() const { return kCopyC3[static_cast<size_t>(GetParam())]; }
    Copy16C1 copy16() const { return kCopy16C1[static_cast<size_t>(GetParam())]; }
    ShiftRight16C1 shift() const { return kShiftRight16C1[static_cast<size_t>(GetParam())]; }
};

} // namespace

TEST_P(RegionKernels, NullPointersComeBeforeSizes) {
    uint8_t bytes[64] = {};
    EXPECT_EQ(copyC3()(nullptr, 3, bytes, 3, {0, 0}), -8);
    EXPECT_EQ(copyC3()(bytes, 3, nullptr, 3, {1, 1}), -8);
    EXPECT_EQ(copy16()(nullptr, 2, bytes, 2, {0, 0}), -8);
    EXPECT_EQ(copy16()(bytes, 2, nullptr, 2, {1, 1}), -8);
    EXPECT_EQ(shift()(1, nullptr, 0, {0, 0}), -8);
}

TEST_P(RegionKernels, EmptyRegionsAreRefusedAndNothingIsWritten) {
    uint8_t src[64] = {}, dst[64];
    std::memset(dst, kUntouched, sizeof dst);
    for (const RegionSize region : {RegionSize{0, 1}, RegionSize{1, 0}, RegionSize{-1, 1}, RegionSize{1, -1}}) {
        EXPECT_EQ(copyC3()(src, 3, dst, 3, region), -6);
        EXPECT_EQ(copy16()(src, 2, dst, 2, region), -6);
        EXPECT_EQ(shift()(1, dst, 2, region), -6);
    }
    EXPECT_EQ(std::count(dst, dst + sizeof dst, kUntouched), 64);
}

TEST_P(RegionKernels, ShiftRefusesStepsBelowOneBeforeSizes) {
    uint16_t image[4] = {4, 4, 4, 4};
    EXPECT_EQ(shift()(1, image, 0, {0, 0}), -14);
    EXPECT_EQ(shift()(1, image, -2, {1, 1}), -14);
    EXPECT_EQ(shift()(1, image, 1, {1, 1}), 0);
    EXPECT_EQ(image[0], 2);
}

TEST_P(RegionKernels, CopyOfThreeChannelsIsThatOfThePlainOneAtEveryWidthAlignmentAndStepSign) {
    for (int32_t width = 1; width <= 130; ++width)
        for (uint32_t offset = 0; offset < 64; offset += width < 20 ? 1 : 7)
            for (const bool bottomUp : {false, true}) {
                const int32_t step = width * 3 + 5, height = 3;
                GuardedBytes src(static_cast<size_t>(step) * 2 + static_cast<size_t>(width) * 3, offset % 2 == 0);
                fillRandom(src.begin(), src.end(), static_cast<uint32_t>(width));
                std::vector<uint8_t> expected(64 + static_cast<size_t>(step) * 3 + 64, kUntouched), actual = expected;
                const int32_t dstStep = bottomUp ? -step : step;
                const size_t first = offset + (bottomUp ? static_cast<size_t>(step) * 2 : 0);
                ASSERT_EQ(copyC3Plain(src.data(), step, expected.data() + first, dstStep, {width, height}), 0);
                ASSERT_EQ(copyC3()(src.data(), step, actual.data() + first, dstStep, {width, height}), 0);
                ASSERT_EQ(actual, expected) << width << " pixels, offset " << offset << ", bottom up " << bottomUp;
            }
}

TEST_P(RegionKernels, CopyWithANegativeStepIsTheFlippedCopy) {
    uint8_t src[3 * 3 * 4], up[sizeof src], down[sizeof src];
    fillRandom(src, src + sizeof src, 2);
    ASSERT_EQ(copyC3()(src, 12, down, 12, {4, 3}), 0);
    ASSERT_EQ(copyC3()(src, 12, up + 24, -12, {4, 3}), 0);
    for (int line = 0; line < 3; ++line)
        EXPECT_EQ(std::memcmp(up + 12 * (2 - line), down + 12 * line, 12), 0);
    ASSERT_EQ(copyC3()(src + 24, -12, up, 12, {4, 3}), 0) << "of the source too";
    EXPECT_EQ(std::memcmp(up, src + 24, 12), 0);
}

TEST_P(RegionKernels, CopyOfUnitsIsThatOfThePlainOneAtEveryWidthAndAlignment) {
    for (int32_t width = 1; width <= 100; ++width)
        for (uint32_t offset = 0; offset < 64; offset += width < 20 ? 1 : 7) {
            const int32_t step = width * 2 + 3; // lines at odd addresses too
            GuardedBytes src(static_cast<size_t>(step) * 2 + static_cast<size_t>(width) * 2);
            fillRandom(src.begin(), src.end(), static_cast<uint32_t>(width));
            std::vector<uint8_t> expected(64 + static_cast<size_t>(step) * 3 + 64, kUntouched), actual = expected;
            ASSERT_EQ(copy16C1Plain(src.data(), step, expected.data() + offset, step, {width, 3}), 0);
            ASSERT_EQ(copy16()(src.data(), step, actual.data() + offset, step, {width, 3}), 0);
            ASSERT_EQ(actual, expected) << width << " pixels, offset " << offset;
        }
}

TEST_P(RegionKernels, OverlappingUnitsAreCopiedOneAfterTheOther) {
    for (const int shift : {-64, -6, -2, -1, 1, 2, 6, 64}) {
        std::vector<uint8_t> expected(600);
        fillRandom(expected.data(), expected.data() + expected.size(), 3);
        std::vector<uint8_t> actual = expected;
        ASSERT_EQ(copy16C1Plain(expected.data() + 100, 200, expected.data() + 100 + shift, 200, {90, 2}), 0);
        ASSERT_EQ(copy16()(actual.data() + 100, 200, actual.data() + 100 + shift, 200, {90, 2}), 0);
        EXPECT_EQ(actual, expected) << "moved by " << shift;
        if (shift == 2) {
            EXPECT_EQ(std::memcmp(&actual[102], &actual[100], 2), 0) << "the first unit runs through the line";
        }
    }
}

TEST_P(RegionKernels, ShiftIsThatOfThePlainOneForEveryCount) {
    for (uint32_t count = 0; count <= 17; ++count)
        for (const int32_t width : {1, 2, 7, 8, 9, 15, 16, 17, 31, 32, 33, 63, 64, 65, 100})
            for (const uint32_t offset : {0u, 1u, 2u}) {
                const int32_t step = width * 2 + 1;
                GuardedBytes actual(offset + static_cast<size_t>(step) + static_cast<size_t>(width) * 2);
                fillRandom(actual.begin(), actual.end(), count);
                std::vector<uint8_t> expected(actual.begin(), actual.end());
                ASSERT_EQ(shiftRight16C1Plain(count, expected.data() + offset, step, {width, 2}), 0);
                ASSERT_EQ(shift()(count, actual.data() + offset, step, {width, 2}), 0);
                ASSERT_TRUE(std::equal(expected.begin(), expected.end(), actual.begin()))
                    << "by " << count << ", " << width << " samples";
            }
}

TEST_P(RegionKernels, ShiftIsLogicalAndClearsAboveFifteen) {
    std::vector<uint16_t> image(40, 0xFFC0);
    ASSERT_EQ(shift()(6, image.data(), 80, {40, 1}), 0);
    EXPECT_EQ(image, std::vector<uint16_t>(40, 0x3FF));
    ASSERT_EQ(shift()(0, image.data(), 80, {40, 1}), 0);
    EXPECT_EQ(image[39], 0x3FF);
    ASSERT_EQ(shift()(16, image.data(), 80, {39, 1}), 0);
    EXPECT_EQ(image[38], 0);
    EXPECT_EQ(image[39], 0x3FF) << "beyond the region";
}

TEST(RegionEntries, GoThroughTheProcessesVariant) {
    const ForcedVariant plain(kPlain);
    uint8_t src[12] = {1, 2, 3, 4, 5, 6}, dst[12] = {};
    EXPECT_EQ(copyRegionC3(src, 6, dst, 6, {2, 1}), 0);
    EXPECT_EQ(std::memcmp(src, dst, 6), 0);
    EXPECT_EQ(copyRegion16C1(src, 6, dst + 6, 6, {3, 1}), 0);
    EXPECT_EQ(std::memcmp(src, dst + 6, 6), 0);
    uint16_t sample = 0x40;
    EXPECT_EQ(shiftRightRegion16C1(6, &sample, 2, {1, 1}), 0);
    EXPECT_EQ(sample, 1);
}

INSTANTIATE_TEST_SUITE_P(, RegionKernels, testing::ValuesIn(runningVariants()), variantName);

} // namespace kestra::test
