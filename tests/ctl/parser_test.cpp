// What each verb is told by its words, without a card.
#include "ctl/command_line.h"
#include "ctl/verbs.h"
#include "tests/ctl/verb_stubs.h"

#include <gmock/gmock.h>

#include <clocale>

namespace kestra::test {
namespace {

using namespace kestra::ctl;
using testing::HasSubstr;

ExitCode parse(const std::vector<std::string>& words, KeptConsole& console) {
    lastRun() = {};
    return runCommandLine(words, console);
}
ExitCode parse(const std::vector<std::string>& words) {
    KeptConsole console;
    return parse(words, console);
}

} // namespace

TEST(Parser, CaptureTakesItsOptions) {
    EXPECT_EQ(parse({"capture", "film.y4m", "--depth", "10", "--sound", "24", "--frames", "600", "--seconds", "1.5",
                     "--until-loss", "--buffer", "64", "--card", "2", "--wav", "s.wav"}),
              ExitCode::Done);
    EXPECT_EQ(lastRun().verb, "capture");
    const Options::Capture& what = lastRun().options.capture;
    EXPECT_EQ(what.file, "film.y4m");
    EXPECT_EQ(what.depth, 10u);
    EXPECT_EQ(what.sound, "24");
    EXPECT_EQ(what.frames, 600u);
    EXPECT_EQ(what.seconds, 1.5);
    EXPECT_TRUE(what.untilLoss);
    EXPECT_EQ(what.bufferMegabytes, 64u);
    EXPECT_EQ(what.wav, "s.wav");
    EXPECT_EQ(lastRun().options.card, "2");
}

TEST(Parser, StandardOutputIsAFileName) {
    EXPECT_EQ(parse({"capture", "-"}), ExitCode::Done);
    EXPECT_EQ(lastRun().options.capture.file, "-");
}

TEST(Parser, OptionsStandBeforeAndBehindAnAction) {
    EXPECT_EQ(parse({"converter", "--card", "1", "set", "RedGain=2", "BMin=3", "--json"}), ExitCode::Done);
    EXPECT_EQ(lastRun().options.card, "1");
    EXPECT_TRUE(lastRun().options.json);
    EXPECT_EQ(lastRun().options.converter.name, "set");
    EXPECT_EQ(lastRun().options.converter.values, (std::vector<std::string>{"RedGain=2", "BMin=3"}));
    EXPECT_EQ(parse({"log", "tail", "--lines", "5", "--follow"}), ExitCode::Done);
    EXPECT_EQ(lastRun().options.log.action, "tail");
    EXPECT_EQ(lastRun().options.log.lines, 5u);
    EXPECT_TRUE(lastRun().options.log.follow);
}

TEST(Parser, NumbersAreTheSameInEveryLocale) {
    const std::string before = std::setlocale(LC_ALL, nullptr);
    for (const char* locale : {"de_DE.UTF-8", "C.UTF-8"})
        std::setlocale(LC_ALL, locale);
    EXPECT_EQ(parse({"watch", "--seconds", "2.5"}), ExitCode::Done);
    EXPECT_EQ(lastRun().options.watch.seconds, 2.5);
    EXPECT_EQ(parse({"watch", "--seconds", "2,5"}), ExitCode::Usage);
    std::setlocale(LC_ALL, before.c_str());
}

TEST(Parser, NonsenseRunsNothing) {
    const std::vector<std::vector<std::string>> lines = {{},
                                                         {""},
                                                         {"--json"},
                                                         {"tape"},
                                                         {"list", "more"},
                                                         {"list", "--card", "0"},
                                                         {"snap"},
                                                         {"snap", "a", "b"},
                                                         {"snap", "a", "--depth"},
                                                         {"snap", "a", "--depth", "ten"},
                                                         {"capture", "a", "--frames", "-1"},
                                                         {"capture", "a", "--frames", "99999999999999999999999"},
                                                         {"capture", "a", "--seconds", "0"},
                                                         {"capture", "a", "--buffer", "0"},
                                                         {"converter"},
                                                         {"converter", "set"},
                                                         {"converter", "show", "default"},
                                                         {"log", "bundle"},
                                                         {"status", "--card"}};
    for (const std::vector<std::string>& words : lines) {
        KeptConsole console;
        EXPECT_EQ(parse(words, console), ExitCode::Usage) << testing::PrintToString(words);
        EXPECT_EQ(lastRun().verb, "") << testing::PrintToString(words);
        EXPECT_EQ(console.output, "") << testing::PrintToString(words);
        EXPECT_THAT(console.error, testing::MatchesRegex("kestra-ctl: .*\n            .*\n"))
            << testing::PrintToString(words);
    }
}

TEST(Parser, EveryVerbHasHelpWithAnExample) {
    for (const Verb& verb : kVerbs) {
        KeptConsole console;
        EXPECT_EQ(parse({verb.name, "--help"}, console), ExitCode::Done);
        EXPECT_THAT(console.output, HasSubstr(verb.help));
        EXPECT_THAT(console.output, HasSubstr("Example:\n  kestra-ctl " + std::string(verb.name)));
        EXPECT_THAT(console.output, HasSubstr("Exit codes: 0 done"));
        EXPECT_EQ(console.error, "");
        if (verb.takes & kTakesCard) {
            EXPECT_THAT(console.output, HasSubstr("--card CARD"));
        }
        EXPECT_THAT(console.output, HasSubstr("--json"));
    }
}

} // namespace kestra::test
