// What the program makes of its arguments before it does anything.
#include "tests/ctl/ctl_test.h"

namespace kestra::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

} // namespace

TEST(CommandLine, NothingAndAnUnknownVerbAreRefused) {
    expectFailure(ctl(""), 2, "which verb?", "kestra-ctl --help shows them all");
    expectFailure(ctl("lst"), 2, "there is no verb 'lst'", "kestra-ctl --help shows them all");
}

TEST(CommandLine, HelpNamesEveryVerbAndTheExitCodes) {
    const ProgramResult result = ctl("--help");
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_EQ(result.error, "");
    EXPECT_THAT(result.output, HasSubstr("list"));
    EXPECT_THAT(result.output,
                HasSubstr("Exit codes: 0 done, 1 failure, 2 wrong usage, 3 no card, 4 no signal, 5 in use."));
}

TEST(CommandLine, UnknownOptionsAndValuesAreNamed) {
    const ProgramResult result = ctl("list --bogus");
    EXPECT_EQ(result.exitCode, 2u);
    EXPECT_THAT(result.error, HasSubstr("--bogus"));
    EXPECT_THAT(result.error, HasSubstr("see: kestra-ctl list --help"));
}

} // namespace kestra::test
