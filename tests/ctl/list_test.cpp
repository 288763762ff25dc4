// list and status, as a person and as a script see them.
#include "tests/ctl/ctl_test.h"

namespace kestra::test {
namespace {

using nlohmann::json;
using testing::HasSubstr;

class List : public CtlTest {};
class Status : public CtlTest {};

constexpr simcard::Signal kInterlaced = {1, 1, 0, 5, 0, 0, 1920, 1080, 0, 25, 1, 0};

} // namespace

TEST_F(List, ShowsEachCardAndWhatArrives) {
    m_card.setSignal(kInterlaced);
    const ProgramResult result = ctl("list");
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    expectGolden("list.txt", result.output);
}

TEST_F(List, JsonHoldsTheSame) {
    const ProgramResult result = ctl("list --json");
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    expectSchema("list", result.output);
    const json card = json::parse(result.output).at("cards").at(0);
    EXPECT_EQ(card.at("opens"), true);
    EXPECT_EQ(card.at("signal").at("width"), 1920);
    EXPECT_EQ(card.at("signal").at("framesPerSecond"), 60);
}

TEST_F(List, ShowsACardThatDoesNotOpen) {
    m_card.addFault({simcard::FaultKind::RefuseOpen, 0, 0, 0, simcard::kForever, {}});
    const ProgramResult result = ctl("list");
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_THAT(result.output, HasSubstr("card 0  (its driver gives no slot text)\n"));
    EXPECT_THAT(result.output, HasSubstr("  opens         no: "));
    EXPECT_THAT(result.output, HasSubstr("card 1  Kestra HD-SDI (simulated)\n"));
    const ProgramResult asJson = ctl("list --json");
    expectSchema("list", asJson.output);
    EXPECT_EQ(json::parse(asJson.output).at("cards").at(0).at("opens"), false);
}

TEST_F(List, WithoutACardSaysWhatToDo) {
    m_card.unplug();
    simcard::CardControl(1).unplug();
    const ProgramResult result = ctl("list");
    simcard::CardControl(1).plug();
    expectFailure(result, 3, "there is no card",
                  "plug one in and install its driver; the system's device manager shows whether it is found");
}

TEST_F(Status, TellsEverythingOfAProgressiveSignal) {
    const KeptKey formats(kFormatsKey);
    const ProgramResult result = ctl("status");
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    EXPECT_EQ(result.error, "");
    expectGolden("status-1080p60.txt", result.output);
    expectSchema("status", ctl("status --json").output);
}

TEST_F(Status, TellsEverythingOfAnInterlacedSignalWithoutSound) {
    m_card.setSignal({1, 1, 0, 5, 0, 0, 720, 576, 0, 25, 1, 0});
    const ProgramResult result = ctl("status");
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    expectGolden("status-576i50.txt", result.output);
}

TEST_F(Status, WithoutASignalEndsWithItsOwnCode) {
    m_card.setSignal({});
    const ProgramResult result = ctl("status");
    EXPECT_EQ(result.exitCode, 4u) << result.error;
    expectGolden("status-none.txt", result.output);
    const ProgramResult asJson = ctl("status --json");
    expectSchema("status", asJson.output);
    EXPECT_TRUE(json::parse(asJson.output).at("signal").is_null());
}

TEST_F(Status, SaysThatFFmpegTakesNo24Bits) {
    const KeptKey formats(kFormatsKey);
    EXPECT_EQ(ctl("formats set audio=24").exitCode, 0u);
    EXPECT_THAT(ctl("status").output,
                HasSubstr("(without sound, as FFmpeg takes no 24 bits; kestra-ctl formats set audio=16 changes that)"));
}

TEST_F(Status, UnknownCardsAreNamed) {
    expectFailure(ctl("status --card 7"), 3, "there is no card 7, only 2 cards", "kestra-ctl list shows them");
    expectFailure(ctl("status --card tape"), 3, "no card has 'tape' in its slot text", "kestra-ctl list shows them");
    expectFailure(ctl("status --card SIMULATED"), 2, "'SIMULATED' fits 2 cards",
                  "give more of the slot text, or a number: kestra-ctl list shows both");
    simcard::CardControl(1).unplug();
    EXPECT_EQ(ctl("status --card SIMULATED").exitCode, 0u);
    simcard::CardControl(1).plug();
}

TEST_F(Status, ARefusalAPulledCardAndASilentDriverAreToldApart) {
    constexpr uint32_t kAccessDenied = 0xC0000022;
    m_card.failNext(wire::kGetConverter, kAccessDenied);
    expectFailure(ctl("status"), 1, "card 0 was asked for its converter, and its driver denied access",
                  "the driver's event log may say why; try as an administrator");
    m_card.refuseNext(wire::kGrabStatistics, 7, 100);
    expectFailure(ctl("converter load " + file("none.json")), 1,
                  file("none.json") + " cannot be read: File not found (2)", "check its name and that you may read it");
    m_card.clearFaults();
    m_card.addFault({simcard::FaultKind::Unplug, wire::kGetConverter, 0, 0, 1, {}});
    expectFailure(ctl("status"), 3, "card 0 has been pulled", "plug it in again");
    m_card.plug();
    m_card.addFault({simcard::FaultKind::NeverComplete, wire::kGetConverter, 0, 0, 1, {}});
    expectFailure(ctl("status"), 1,
                  "card 0 does not answer: its driver was asked for its converter and said nothing for 10 s",
                  "take the card out and in again, or restart the system");
}

} // namespace kestra::test
