// A card that is pulled, in every verb and at each request that it makes: what the program says, and how it exits.
#include "tests/ctl/card_trouble.h"

namespace kestra::test {
namespace {

using namespace kestra::simcard;
using testing::HasSubstr;

constexpr char kPulled[] = "kestra-ctl: card 0 has been pulled\n            plug it in again\n";

class PulledCard : public CardTrouble {
protected:
    /// Runs each alone; the card goes when the request arrives, and is back for the next.
    void expectWhenPulled(uint32_t code, const std::vector<TroubleCase>& cases) {
        for (const TroubleCase& one : cases) {
            m_card.addFault({FaultKind::Unplug, code, 0, 0, 1, {}});
            expectEnd(one, ctl(command(one)));
            EXPECT_EQ(m_card.state().plugged, 0u) << one.arguments << ": the request was not made";
            m_card.clearFaults();
            m_card.plug();
        }
    }
};

} // namespace

TEST_F(PulledCard, WhenItIsAskedWhatArrives) {
    expectWhenPulled(wire::kVideoStatus,
                     {{"list", 0, "  opens         no: card 0 has been pulled\n"},
                      {"status", 3, kPulled},
                      {"watch --passive --seconds 1", 0, "  the card is not there\n"},
                      {"watch --seconds 1", 0, "  the card is not there  0.00/s  0 frames  lost 0\n"},
                      {"snap FILE", 3, kPulled},
                      {"capture FILE", 3, kPulled},
                      {"doctor --card 0", kProblems, "✘ Card 0          card 0 has been pulled\n"}});
}

TEST_F(PulledCard, WhenItsChannelIsClaimed) {
    expectWhenPulled(wire::kChannelAccess,
                     {{"watch", 3, kPulled},
                      {"snap FILE", 3, kPulled},
                      {"capture FILE", 3, kPulled},
                      {"doctor --card 0", kProblems, "✘ Card 0          its picture cannot be claimed: "}});
}

TEST_F(PulledCard, WhenItIsReadOrSet) {
    expectWhenPulled(wire::kGetConverter, {{"converter show", 3, kPulled},
                                           {"converter set RedGain=2", 3, kPulled},
                                           {"converter save FILE", 3, kPulled},
                                           {"status", 3, kPulled}});
    expectWhenPulled(wire::kSetConverter, {{"converter default", 3, kPulled},
                                           {"converter preset bt709", 3, kPulled},
                                           {"converter load SAVED", 3, kPulled}});
    expectWhenPulled(wire::kGrabStatistics, {{"status", 3, kPulled}});
    expectWhenPulled(wire::kReadRegister, {{"status --json", 3, kPulled}});
    EXPECT_FALSE(std::filesystem::exists(file("file0")));
}

TEST_F(PulledCard, WhenItIsToGiveFrames) {
    expectWhenPulled(wire::kPrepare, {{"capture FILE", 3, kPulled}});
    expectWhenPulled(wire::kStartGrabbing, {{"capture FILE", 3, kPulled}});
    expectWhenPulled(wire::kSnap, {{"snap FILE", 3, kPulled}});
    EXPECT_FALSE(std::filesystem::exists(file("file0"))) << "nothing came, and no empty file is left";
    m_card.setOptions({Pace::AsTaken, StopBehaviour::Abort, 0, 0});
    expectWhenPulled(wire::kStopGrabbing, {{"capture FILE --sound none --frames 3", 0, "3 frames of 320x180p30"}});
}

TEST_F(PulledCard, VerbsThatNeedNoneDoTheirWork) {
    m_card.unplug();
    m_second.unplug();
    for (const char* arguments : {"formats show", "log show", "--version", "status --help"})
        EXPECT_EQ(ctl(arguments).exitCode, 0u) << arguments;
    const ProgramResult bundle = ctl("log bundle " + file("report"));
    EXPECT_EQ(bundle.exitCode, 0u);
    EXPECT_THAT(readWholeFile(m_folder / "report" / "doctor.txt"), HasSubstr("no card is there"));
    for (const char* arguments : {"list", "status", "watch", "snap a", "capture a", "converter show"})
        EXPECT_EQ(ctl(arguments).exitCode, 3u) << arguments;
    m_card.plug();
}

} // namespace kestra::test
