// The walks themselves: the same seed makes the same steps, each way to fail is seen, and a walk that fails is
// shortened to the steps that it needs.
#include "tests/walk/walk.h"
#include "tests/walk/walker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

namespace kestra::walk {
namespace {

using testing::HasSubstr;

constexpr auto kDeadline = std::chrono::seconds(60);

class Planted : public testing::Test {
protected:
    static void plant(const char* fault) { SetEnvironmentVariableA("KESTRA_PLANTED", fault); }
    ~Planted() override { plant(nullptr); }
    const Walker m_walker{KESTRA_WALK};
    std::string m_output;
};

struct FaultOfAKind {
    const char *name, *kind;
    std::vector<const char*> says;
    size_t steps; ///< that it needs; 0: not looked for, each attempt takes too long
    const char* needs;
};
const FaultOfAKind kFaults[] = {
    {"check", "check", {"FAILED check: it fired in act 0x", "    after "}, 3, "0 arm "},
    {"crash", "crash", {"exception 0xC0000005 in act 0x", "planted_walk.exe+0x", " fire "}, 3, " fire "},
    {"hang", "hang", {"planted_walk.exe+0x", " fire "}, 0, ""},
    {"leak", "growth", {"FAILED growth: 9 times: handles "}, 1, " leak "},
};
void PrintTo(const FaultOfAKind& fault, std::ostream* out) {
    *out << fault.name;
}

class PlantedFault : public Planted, public testing::WithParamInterface<FaultOfAKind> {};

} // namespace

TEST(Act, IsTheSameForTheSameSeedAndAnotherForAnother) {
    const std::vector<Call> calls = {{"one", 3, 3}, {"two", 1, 1}};
    const auto text = [&](uint64_t seed) {
        std::string all;
        for (const Step& step : makeAct(seed, calls).steps)
            all += std::to_string(step.thread) + "," + std::to_string(step.call) + "," + std::to_string(step.a) + "," +
                   std::to_string(step.b) + ";";
        return all;
    };
    EXPECT_EQ(text(7), text(7));
    EXPECT_NE(text(7), text(8));
}

TEST(Act, HasCallsByTheirWeightsAndStepsForEachOfItsThreads) {
    const std::vector<Call> calls = {{"often", 9, 1}, {"seldom", 1, 1}, {"wild", 1, 0}};
    std::map<int, int> threads;
    bool calm = false, wild = false;
    for (uint64_t seed = 0; seed < 40; ++seed) {
        const Act act = makeAct(seed, calls, 1000);
        ++threads[act.threads];
        (act.calm ? calm : wild) = true;
        std::map<int, int> made, steps;
        for (const Step& step : act.steps)
            ++made[step.call], ++steps[step.thread];
        EXPECT_EQ(static_cast<int>(steps.size()), act.threads);
        if (act.calm) {
            EXPECT_EQ(made[2], 0);
            EXPECT_NEAR(made[0], 500, 120);
        } else {
            EXPECT_NEAR(made[0], 9000 / 11, 120);
            EXPECT_GT(made[2], 0);
        }
    }
    EXPECT_EQ(threads.size(), 4u);
    EXPECT_TRUE(calm && wild);
}

TEST(Steps, AreTextAndBack) {
    const std::vector<size_t> steps = {0, 2, 3, 4, 9, 11, 12};
    EXPECT_EQ(textOfSteps(steps), "0,2-4,9,11-12");
    EXPECT_EQ(stepsFromText("0,2-4,9,11-12"), steps);
    EXPECT_TRUE(stepsFromText("").empty());
}

TEST(Shrink, LeavesTheStepsThatAreNeeded) {
    std::vector<size_t> all(170);
    for (size_t i = 0; i < all.size(); ++i)
        all[i] = i;
    const auto needs = [](const std::vector<size_t>& steps) {
        return std::count_if(steps.begin(), steps.end(), [](size_t i) { return i == 3 || i == 90 || i == 169; }) == 3;
    };
    int walked = 0;
    const auto fails = [&](const std::vector<size_t>& steps) {
        ++walked;
        return needs(steps);
    };
    EXPECT_EQ(shrink(all, fails, [] { return true; }), (std::vector<size_t>{3, 90, 169}));
    EXPECT_LT(walked, 100);
    const std::vector<size_t> cutShort = shrink(all, fails, [&] { return walked < 105; });
    EXPECT_TRUE(needs(cutShort)) << "a search that is cut short still fails";
}

TEST_F(Planted, WalkWithoutFaultPassesAndSaysWhatItDid) {
    EXPECT_FALSE(m_walker.walk(5, 3000, m_output, kDeadline));
    EXPECT_THAT(m_output, HasSubstr("walk 0x5: 18 acts, 3060 calls in "));
    EXPECT_THAT(m_output, HasSubstr("  nothing: 0 x 1"));
    EXPECT_THAT(m_output, HasSubstr("18 acts: handles "));
}

TEST_P(PlantedFault, IsSeenAndShortenedToTheStepsThatItNeeds) {
    const FaultOfAKind& planted = GetParam();
    plant(planted.name);
    const std::optional<Fault> fault = m_walker.walk(5, 3000, m_output, kDeadline);
    ASSERT_TRUE(fault);
    EXPECT_EQ(fault->kind, planted.kind);
    for (const char* text : planted.says)
        EXPECT_THAT(fault->output, HasSubstr(text));
    if (planted.steps == 0) return;
    const auto found = m_walker.shortest(*fault, kStepsOfAct, Walker::Clock::now() + std::chrono::seconds(200));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->steps.size(), planted.steps);
    EXPECT_THAT(found->listing, HasSubstr(planted.needs));
}

INSTANTIATE_TEST_SUITE_P(OfEachKind, PlantedFault, testing::ValuesIn(kFaults),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace kestra::walk
