// A driver that never answers, in every verb and at each request that it makes: what the program says, how it exits,
// and that it does so soon.
#include "tests/ctl/card_trouble.h"

namespace kestra::test {
namespace {

using namespace kestra::simcard;

std::string silence(int card, const char* asked) {
    return "card " + std::to_string(card) + " does not answer: its driver was asked for " + asked +
           " and said nothing for 10 s";
}

class SilentDriver : public CardTrouble {
protected:
    struct Silence {
        const CardControl& card;
        uint32_t code;
        std::vector<TroubleCase> cases;
    };
    /// Runs all at once, as each waits for as long as it may.
    void expectWhenSilent(const std::vector<Silence>& silences) {
        std::vector<std::pair<TroubleCase, std::unique_ptr<ChildProgram>>> programs;
        for (const Silence& silent : silences)
            silent.card.addFault({FaultKind::NeverComplete, silent.code, 0, 0, kForever, {}});
        for (const Silence& silent : silences)
            for (const TroubleCase& one : silent.cases)
                programs.emplace_back(one,
                                      std::make_unique<ChildProgram>(ctlCommand(command(one, int(programs.size())))));
        for (const auto& [one, program] : programs)
            expectEnd(one, program->finish());
        for (const Silence& silent : silences)
            silent.card.clearFaults();
    }
};

} // namespace

TEST_F(SilentDriver, WhenItIsAskedWhatArrivesOrForItsChannel) {
    const std::string arrives = silence(0, "what arrives"), channel = silence(1, "a channel");
    expectWhenSilent({{m_card,
                       wire::kVideoStatus,
                       {{"list", 0, "  opens         no: " + arrives},
                        {"status", 1, arrives},
                        {"watch --passive", 1, arrives},
                        {"snap FILE", 1, arrives},
                        {"capture FILE", 1, arrives},
                        {"doctor --card 0", kProblems, "✘ Card 0          " + arrives}}},
                      {m_second,
                       wire::kChannelAccess,
                       {{"watch --card 1", 1, channel},
                        {"snap FILE --card 1", 1, channel},
                        {"capture FILE --card 1", 1, channel},
                        {"doctor --card 1", kProblems, "✘ Card 1          " + silence(1, "its channel")}}}});
}

TEST_F(SilentDriver, WhenAWatchThatGrabsAsksWhatArrives) {
    expectWhenSilent({{m_card, wire::kVideoStatus, {{"watch", 1, silence(0, "what arrives")}}}});
}

TEST_F(SilentDriver, WhenItIsReadOrSet) {
    const std::string asked = silence(0, "its converter"), set = silence(1, "another converter");
    expectWhenSilent({{m_card,
                       wire::kGetConverter,
                       {{"converter show", 1, asked},
                        {"converter set RedGain=2", 1, asked},
                        {"converter save FILE", 1, asked},
                        {"status", 1, asked}}},
                      {m_second,
                       wire::kSetConverter,
                       {{"converter default --card 1", 1, set},
                        {"converter preset bt709 --card 1", 1, set},
                        {"converter load SAVED --card 1", 1, set}}}});
}

TEST_F(SilentDriver, WhenItIsToStartOrToGiveAPicture) {
    expectWhenSilent({{m_card, wire::kStartGrabbing, {{"capture FILE", 1, silence(0, "frames")}}},
                      {m_second,
                       wire::kSnap,
                       {{"snap FILE --card 1", 1, "card 1 was asked for a picture, and its driver failed"}}}});
}

TEST_F(SilentDriver, WhenItGivesNoFramesOrDoesNotStop) {
    m_second.setOptions({Pace::AsTaken, StopBehaviour::Abort, 0, 0});
    expectWhenSilent({{m_card, wire::kLockBuffer, {{"capture FILE", 1, "card 0 has a signal, but gives no frames\n"}}},
                      {m_second,
                       wire::kStopGrabbing,
                       {{"capture FILE --sound none --frames 3 --card 1", 1, silence(1, "an end")}}}});
    EXPECT_GT(std::filesystem::file_size(file("file1")), size_t{3} * 320 * 180 * 2) << "what it gave is kept";
}

TEST_F(SilentDriver, WhenItsSlotIsAskedFor) {
    expectWhenSilent(
        {{m_card,
          wire::kGetSlotInfo,
          {{"list", 0, "card 0  (its driver gives no slot text)\n"}, {"status --card 1", 0, "card 1  Kestra"}}}});
}

} // namespace kestra::test
