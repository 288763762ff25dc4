// The region copy: status values, steps, and every kernel set against the plain one, guards included.
#include "decode/region_copy.h"
#include "tests/unit/decode_support.h"

#include <algorithm>

namespace kestra::test {
namespace {

constexpr uint8_t kUntouched = 0xA5;

class RegionCopy : public testing::TestWithParam<const KernelSet*> {
    const ForcedKernels m_forced{*GetParam()};
};

} // namespace

TEST_P(RegionCopy, NullPointersComeBeforeSizes) {
    uint8_t bytes[64] = {};
    EXPECT_EQ(copyRegionC3(nullptr, 3, bytes, 3, {0, 0}, false), -8);
    EXPECT_EQ(copyRegionC3(bytes, 3, nullptr, 3, {1, 1}, false), -8);
}

TEST_P(RegionCopy, EmptyRegionsAreRefusedAndNothingIsWritten) {
    uint8_t src[64] = {}, dst[64];
    std::memset(dst, kUntouched, sizeof dst);
    for (const RegionSize region : {RegionSize{0, 1}, RegionSize{1, 0}, RegionSize{-1, 1}, RegionSize{1, -1}})
        EXPECT_EQ(copyRegionC3(src, 3, dst, 3, region, false), -6);
    EXPECT_EQ(std::count(dst, dst + sizeof dst, kUntouched), 64);
}

TEST_P(RegionCopy, IsThatOfThePlainSetAtEveryWidthAlignmentAndStepSign) {
    for (int32_t width = 1; width <= 130; ++width)
        for (uint32_t offset = 0; offset < 64; offset += width < 20 ? 1 : 7)
            for (const bool bottomUp : {false, true})
                for (const bool streamed : {false, true}) {
                    const int32_t step = width * 3 + 5, height = 3;
                    GuardedBytes src(static_cast<size_t>(step) * 2 + static_cast<size_t>(width) * 3, offset % 2 == 0);
                    fillRandom(src.begin(), src.end(), static_cast<uint32_t>(width));
                    std::vector<uint8_t> expected(64 + static_cast<size_t>(step) * 3 + 64, kUntouched);
                    std::vector<uint8_t> actual = expected;
                    const int32_t dstStep = bottomUp ? -step : step;
                    const size_t first = offset + (bottomUp ? static_cast<size_t>(step) * 2 : 0);
                    {
                        const ForcedKernels plain(kPlainKernels);
                        ASSERT_EQ(
                            copyRegionC3(src.data(), step, expected.data() + first, dstStep, {width, height}, streamed),
                            0);
                    }
                    ASSERT_EQ(copyRegionC3(src.data(), step, actual.data() + first, dstStep, {width, height}, streamed),
                              0);
                    ASSERT_EQ(actual, expected) << width << " pixels, offset " << offset << ", bottom up " << bottomUp
                                                << ", streamed " << streamed;
                }
}

TEST_P(RegionCopy, CopyWithANegativeStepIsTheFlippedCopy) {
    uint8_t src[3 * 3 * 4], up[sizeof src], down[sizeof src];
    fillRandom(src, src + sizeof src, 2);
    ASSERT_EQ(copyRegionC3(src, 12, down, 12, {4, 3}, false), 0);
    ASSERT_EQ(copyRegionC3(src, 12, up + 24, -12, {4, 3}, false), 0);
    EXPECT_EQ(std::memcmp(down, src, sizeof src), 0);
    for (int line = 0; line < 3; ++line)
        EXPECT_EQ(std::memcmp(up + 12 * (2 - line), down + 12 * line, 12), 0);
    ASSERT_EQ(copyRegionC3(src + 24, -12, up, 12, {4, 3}, false), 0) << "of the source too";
    EXPECT_EQ(std::memcmp(up, src + 24, 12), 0);
}

INSTANTIATE_TEST_SUITE_P(, RegionCopy, testing::ValuesIn(runningSets()), setName);

} // namespace kestra::test
