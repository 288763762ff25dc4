// main() of the test programs in a build for ./kestra mutate: tells of each test how long it took and which mutants it
// came by.
#include "mutant.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr unsigned kMost = 1u << 16;

class Teller : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override { std::memset(kestra::mutant::seen, 0, kMost); }
    void OnTestEnd(const testing::TestInfo& test) override {
        std::printf("[ MUTANTS  ] %s.%s %lld", test.test_suite_name(), test.name(),
                    static_cast<long long>(test.result()->elapsed_time()));
        for (unsigned id = 0; id < kMost; ++id)
            if (kestra::mutant::seen[id]) std::printf(" %u", id);
        std::printf("\n");
        std::fflush(stdout);
    }
};

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    if (std::getenv("KESTRA_MUTANT_TELL")) testing::UnitTest::GetInstance()->listeners().Append(new Teller);
    return RUN_ALL_TESTS();
}
