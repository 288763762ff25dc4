// Walks ten thousand calls; a walk that fails is shortened and printed. KESTRA_SEED=N: another walk, or the act that
// failed; KESTRA_LONG=1: a million calls from a seed of the time; KESTRA_WALK_CALLS=N: so many.
#include "tests/support/card_fixture.h"
#include "tests/support/long_run.h"
#include "tests/walk/walk.h"
#include "tests/walk/walker.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace kestra::walk {
namespace {

uint64_t fromEnvironment(const char* name, uint64_t otherwise) {
    const char* value = std::getenv(name);
    return value && *value ? std::strtoull(value, nullptr, 0) : otherwise;
}

class Walks : public test::CardTest {
protected:
    void SetUp() override {
        CardTest::SetUp();
        ASSERT_NO_THROW(simcard::CardControl(1).reset());
    }
    void TearDown() override {
        simcard::CardControl(1).reset();
        CardTest::TearDown();
    }
};

} // namespace

TEST_F(Walks, NoOrderOfCallsBreaksAnything) {
    const bool isLong = test::isLongRun();
    const uint64_t seed = fromEnvironment("KESTRA_SEED", isLong ? static_cast<uint64_t>(std::time(nullptr)) << 16 : 1);
    const uint64_t calls = fromEnvironment("KESTRA_WALK_CALLS", test::repetitions(10'000, 1'000'000));
    const auto began = Walker::Clock::now();
    const Walker walker(KESTRA_WALK);
    std::string output;
    std::printf("KESTRA_SEED=0x%llX\n", static_cast<unsigned long long>(seed));
    std::fflush(stdout);
    const std::optional<Fault> fault =
        walker.walk(seed, calls, output, isLong ? std::chrono::seconds(7000) : std::chrono::seconds(250));
    std::printf("%s", output.c_str());
    if (!fault) return;
    ADD_FAILURE() << fault->kind << "\n" << fault->output;
    if (fault->seed == 0) return; // no act that has failed
    // A test that is not long ends before the watch over hanging tests ends it.
    const auto until = isLong ? Walker::Clock::now() + std::chrono::minutes(20) : began + std::chrono::seconds(230);
    const std::optional<Shortest> found = walker.shortest(*fault, kStepsOfAct, until);
    if (found)
        std::printf("KESTRA_SEED=0x%llX fails with %zu steps (--keep %s):\n%s%s",
                    static_cast<unsigned long long>(fault->seed), found->steps.size(),
                    textOfSteps(found->steps).c_str(), found->listing.c_str(), found->fault.output.c_str());
    else
        std::printf("KESTRA_SEED=0x%llX has not failed again\n", static_cast<unsigned long long>(fault->seed));
}

} // namespace kestra::walk
