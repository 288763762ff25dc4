// The sample kernels: every set against the plain one at every length and alignment, guards included.
#include "tests/unit/decode_support.h"

#include <algorithm>

namespace kestra::test {
namespace {

class SampleKernels : public testing::TestWithParam<const KernelSet*> {
protected:
    void compare(SampleLine KernelSet::*kernel, size_t unit, size_t outUnit) const {
        for (size_t units = 0; units <= 150; ++units)
            for (const size_t offset : {size_t{0}, size_t{1}, size_t{16}, size_t{32}, units % 64})
                for (const bool streamed : {false, true}) {
                    GuardedBytes src(units * unit + (units == 0 ? 1 : 0));
                    fillRandom(src.begin(), src.end(), static_cast<uint32_t>(units));
                    std::vector<uint8_t> memory(64 + 64 + units * outUnit + 64), expected;
                    uint8_t* dst = memory.data() + (64 - reinterpret_cast<uintptr_t>(memory.data()) % 64) + offset;
                    std::fill(memory.begin(), memory.end(), uint8_t{0xA5});
                    (kPlainKernels.*kernel)(src.data(), dst, units * unit, streamed);
                    expected = memory;
                    std::fill(memory.begin(), memory.end(), uint8_t{0xA5});
                    (GetParam()->*kernel)(src.data(), dst, units * unit, streamed);
                    ASSERT_EQ(memory, expected) << units << " units, offset " << offset << ", streamed " << streamed;
                }
    }
};

} // namespace

TEST_P(SampleKernels, CopyIsExact) {
    compare(&KernelSet::copyLine, 1, 1);
    compare(&KernelSet::copyLine, 4, 4);
}

TEST_P(SampleKernels, SwapIsExact) {
    compare(&KernelSet::swapLine, 2, 2);
    const uint8_t src[5] = {1, 2, 3, 4, 5};
    uint8_t dst[5] = {9, 9, 9, 9, 9};
    GetParam()->swapLine(src, dst, 5, false);
    EXPECT_EQ(std::vector<uint8_t>(dst, dst + 5), (std::vector<uint8_t>{2, 1, 4, 3, 9}));
}

TEST_P(SampleKernels, ExpansionIsExactAndItsFourthByteZero) {
    compare(&KernelSet::expandLine, 3, 4);
    const uint8_t src[6] = {1, 2, 3, 4, 5, 6};
    uint8_t dst[8];
    std::fill(dst, dst + 8, uint8_t{9});
    GetParam()->expandLine(src, dst, 6, false);
    EXPECT_EQ(std::vector<uint8_t>(dst, dst + 8), (std::vector<uint8_t>{1, 2, 3, 0, 4, 5, 6, 0}));
}

INSTANTIATE_TEST_SUITE_P(, SampleKernels, testing::ValuesIn(runningSets()), setName);

} // namespace kestra::test
