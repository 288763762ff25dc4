// The samples, built from the installed folder alone: what they print and how they end, and that `recover` does.
#include "tests/support/card_fixture.h"
#include "tests/support/child_program.h"
#include "tests/support/wait_until.h"

#include <gmock/gmock.h>

namespace kestra::test {
namespace {

using namespace simcard;
using testing::ContainsRegex;
using testing::HasSubstr;

constexpr uint32_t kStatusAccessDenied = 0xC0000022;

class SdkSamples : public CardTest {
protected:
    void SetUp() override {
        CardTest::SetUp();
        m_second.reset();
    }
    void TearDown() override {
        m_second.reset();
        CardTest::TearDown();
    }
    static std::string sample(const std::string& name) { return "\"" SDK_SAMPLES "/" + name + ".exe\""; }
    static std::string other(const std::string& name) { return "\"" SDK_OTHERS "/" + name + ".exe\""; }
    /// Waits until the program has written the text.
    static bool says(const ChildProgram& program, const std::string& text) {
        return waitUntil([&] { return program.outputSoFar().find(text) != std::string::npos; },
                         std::chrono::seconds(30));
    }
    static Signal signal(uint16_t width, uint16_t height, uint32_t framesPerSecond) {
        Signal wanted = kDefaultSignal;
        wanted.width = width;
        wanted.height = height;
        wanted.rateNumerator = framesPerSecond;
        return wanted;
    }

    CardControl m_second{1};
};

} // namespace

TEST_F(SdkSamples, GrabTakesTheFramesItWasAskedFor) {
    const ProgramResult grab = runProgram(sample("grab") + " 30");
    EXPECT_EQ(grab.exitCode, 0u) << grab.output;
    EXPECT_THAT(grab.output, HasSubstr("grabbing 1920 x 1080 progressive, 60 frames a second"));
    EXPECT_THAT(grab.output, ContainsRegex("card 0: .*\r\n  opened\r\ncard 1: "));
    EXPECT_THAT(grab.output, ContainsRegex("\n3\\d frames, "));
}

TEST_F(SdkSamples, GrabTakesTheFirstCardThatHasASignal) {
    m_card.setSignal({});
    m_second.setSignal(signal(1280, 720, 50));
    const ProgramResult grab = runProgram(sample("grab") + " 3");
    EXPECT_EQ(grab.exitCode, 0u) << grab.output;
    EXPECT_THAT(grab.output, ContainsRegex("  no signal\r\ncard 1: .*\r\n  opened\r\n"));
    EXPECT_THAT(grab.output, HasSubstr("grabbing 1280 x 720 progressive, 50 frames a second"));
}

TEST_F(SdkSamples, GrabSaysThatNoCardHasASignal) {
    m_card.setSignal({});
    m_second.setSignal({});
    const ProgramResult grab = runProgram(sample("grab"));
    EXPECT_EQ(grab.exitCode, 4u);
    EXPECT_THAT(grab.error, HasSubstr("grab: no card has a signal"));
}

TEST_F(SdkSamples, GrabSaysThatThereIsNoCard) {
    m_card.unplug();
    m_second.unplug();
    const ProgramResult grab = runProgram(sample("grab"));
    EXPECT_EQ(grab.exitCode, 3u);
    EXPECT_THAT(grab.error, HasSubstr("grab: there is no card"));
}

TEST_F(SdkSamples, GrabSaysThatAnotherProgramHasTheCard) {
    m_card.failNext(wire::kChannelAccess, kStatusAccessDenied);
    const ProgramResult grab = runProgram(sample("grab"));
    EXPECT_EQ(grab.exitCode, 5u);
    EXPECT_THAT(grab.error, HasSubstr("another program grabs this card (result 4)"));
}

TEST_F(SdkSamples, GrabSaysThatTheInputHasChanged) {
    Fault change{};
    change.kind = FaultKind::SignalAtFrame;
    change.value = 5;
    change.count = 1;
    change.signal = signal(1280, 720, 60);
    m_card.addFault(change);
    const ProgramResult grab = runProgram(sample("grab") + " 100");
    EXPECT_EQ(grab.exitCode, 1u) << grab.output;
    EXPECT_THAT(grab.error, HasSubstr("the input has changed"));
}

TEST_F(SdkSamples, GrabBuiltThroughPkgConfigDoesTheSame) {
    const ProgramResult grab = runProgram(other("grab") + " 3");
    EXPECT_EQ(grab.exitCode, 0u) << grab.output;
}

TEST_F(SdkSamples, AProgramOfAnotherLinkerReachesTheLibrary) {
    const ProgramResult bare = runProgram(other("bare"));
    EXPECT_EQ(bare.exitCode, 42u);
}

TEST_F(SdkSamples, RecoverGoesOnAfterUnplugFormatChangeAndLossOfTheInput) {
    m_card.setSignal(signal(640, 480, 25)); // slow: it must not be done before the last event
    ChildProgram recover(sample("recover") + " 2500");
    ASSERT_TRUE(says(recover, "grabbing 640 x 480, 25 a second")) << recover.outputSoFar();

    m_card.unplug();
    ASSERT_TRUE(says(recover, "the card is gone; waiting for it")) << recover.outputSoFar();
    m_card.plug();
    ASSERT_TRUE(says(recover, "frames again, of 614400 bytes")) << recover.outputSoFar();

    m_card.setSignal(signal(320, 240, 30));
    ASSERT_TRUE(says(recover, "the input has changed")) << recover.outputSoFar();
    ASSERT_TRUE(says(recover, "grabbing 320 x 240, 30 a second")) << recover.outputSoFar();

    m_card.setSignal({});
    ASSERT_TRUE(says(recover, "no signal; waiting for it")) << recover.outputSoFar();
    m_card.setSignal(signal(640, 480, 25));
    ASSERT_TRUE(waitUntil(
        [&] { // by the card's change or by a look, whichever is first
            const std::string output = recover.outputSoFar();
            return output.find("grabbing 640 x 480", output.find("no signal")) != std::string::npos;
        },
        std::chrono::seconds(30)))
        << recover.outputSoFar();

    m_card.setOptions({Pace::AsTaken, StopBehaviour::Abort, 0, 0});
    const ProgramResult result = recover.finish();
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    EXPECT_THAT(result.output, ContainsRegex("\n25\\d\\d frames, "));
}

TEST_F(SdkSamples, RecoverTakesTheFormatThatTheCardComesBackWith) {
    m_card.setSignal(signal(640, 480, 25));
    ChildProgram recover(sample("recover") + " 2500");
    ASSERT_TRUE(says(recover, "grabbing 640 x 480, 25 a second")) << recover.outputSoFar();
    m_card.unplug();
    ASSERT_TRUE(says(recover, "the card is gone; waiting for it")) << recover.outputSoFar();
    m_card.setSignal(signal(320, 240, 30));
    m_card.plug();
    ASSERT_TRUE(says(recover, "153600 bytes")) << recover.outputSoFar();
    m_card.setOptions({Pace::AsTaken, StopBehaviour::Abort, 0, 0});
    EXPECT_EQ(recover.finish().exitCode, 0u);
}

} // namespace kestra::test
