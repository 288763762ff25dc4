// list, as a person and as a script see it.
#include "tests/ctl/ctl_test.h"

#include <nlohmann/json.hpp>

namespace kestra::test {
namespace {

using nlohmann::json;
using testing::HasSubstr;

class List : public CtlTest {};

constexpr char kPath[] = R"(\\?\root#kestrasim#0000#{edde25e4-9980-4876-9217-ad8aa1b92a03})";

} // namespace

TEST_F(List, ShowsEachCardAndWhatArrives) {
    m_card.setSignal({1, 1, 0, 5, 0, 0, 1920, 1080, 0, 25, 1, 0});
    const ProgramResult result = ctl("list");
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    EXPECT_THAT(result.output, HasSubstr("card 0  Kestra HD-SDI (simulated)\n"
                                         "  slot        0\n"
                                         "  path        " +
                                         std::string(kPath) +
                                         "\n"
                                         "  opens       yes\n"
                                         "  signal      1920x1080i50, no sound\n"
                                         "card 1  "));
}

TEST_F(List, JsonHoldsTheSame) {
    const ProgramResult result = ctl("list --json");
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    const json list = json::parse(result.output);
    EXPECT_EQ(list.at("verb"), "list");
    const json card = list.at("cards").at(0);
    EXPECT_EQ(card.at("path"), kPath);
    EXPECT_EQ(card.at("opens"), true);
    EXPECT_EQ(card.at("signal").at("width"), 1920);
    EXPECT_EQ(card.at("signal").at("framesPerSecond"), 60);
}

TEST_F(List, ShowsACardThatDoesNotOpen) {
    m_card.addFault({simcard::FaultKind::RefuseOpen, 0, 0, 0, simcard::kForever, {}});
    const ProgramResult result = ctl("list");
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_THAT(result.output, HasSubstr("card 0  (its driver gives no slot text)\n"));
    EXPECT_THAT(result.output, HasSubstr("  opens       no: "));
    EXPECT_THAT(result.output, HasSubstr("card 1  Kestra HD-SDI (simulated)\n"));
}

TEST_F(List, WithoutACardSaysWhatToDo) {
    m_card.unplug();
    simcard::CardControl(1).unplug();
    const ProgramResult result = ctl("list");
    simcard::CardControl(1).plug();
    expectFailure(result, 3, "there is no card",
                  "plug one in and install its driver; the system's device manager shows whether it is found");
}

} // namespace kestra::test
