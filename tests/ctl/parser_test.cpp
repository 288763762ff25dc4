// What each verb is told by its words, without a card.
#include "ctl/command_line.h"
#include "ctl/verbs.h"
#include "tests/ctl/verb_stubs.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <clocale>
#include <filesystem>
#include <fstream>
#include <sstream>

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

/// The words of a command that stands in a text, up to where it certainly ends; as a rule the sentence goes on.
std::vector<std::string> wordsOfCommand(const std::string& text) {
    std::vector<std::string> words;
    std::istringstream stream(text.substr(0, text.find_first_of("|`\"\n;)")));
    for (std::string word; stream >> word;) {
        const size_t end = word.find_last_not_of(".,:") + 1;
        words.push_back(word.substr(0, end));
        if (end != word.size()) break;
    }
    return words;
}

/// True if the words begin with a command that is understood, and no option stands behind that.
bool beginsWithCommand(const std::vector<std::string>& words) {
    for (size_t count = words.size(); count != 0; --count)
        if (parse({words.begin(), words.begin() + ptrdiff_t(count)}) == ExitCode::Done)
            return count == words.size() || !words[count].starts_with("--");
    return false;
}

} // namespace

TEST(Parser, EveryCommandThatATextNamesIsUnderstood) {
    EXPECT_FALSE(beginsWithCommand({"log", "set", "--detail", "3"}));
    EXPECT_FALSE(beginsWithCommand({"list", "--bogus"}));
    std::vector<std::filesystem::path> texts = {KESTRA_ROOT "/README.md"};
    for (const char* folder : {KESTRA_ROOT "/ctl", KESTRA_ROOT "/docs"})
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            if (const auto kind = entry.path().extension(); kind == ".cpp" || kind == ".h" || kind == ".md")
                texts.push_back(entry.path());
    int found = 0;
    for (const std::filesystem::path& path : texts) {
        std::ifstream file(path);
        std::string text{std::istreambuf_iterator<char>(file), {}};
        for (size_t at; (at = text.find("\\n")) != std::string::npos;) // a line's end in source text
            text.replace(at, 2, 1, '\n');
        constexpr std::string_view kProgram = "kestra-ctl ";
        for (size_t at = 0; (at = text.find(kProgram, at)) != std::string::npos;) {
            at += kProgram.size();
            const std::vector<std::string> words = wordsOfCommand(text.substr(at, 200));
            if (words.empty() || words[0] == "VERB") continue;
            EXPECT_TRUE(beginsWithCommand(words)) << path << ": kestra-ctl " << text.substr(at, 60);
            ++found;
        }
    }
    EXPECT_GT(found, 40);
}

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
        EXPECT_THAT(console.output, HasSubstr(verb.takes & kCountsProblems ? "Exit code: the number of problems"
                                                                           : "Exit codes: 0 done"));
        EXPECT_EQ(console.error, "");
        if (verb.takes & kTakesCard) {
            EXPECT_THAT(console.output, HasSubstr("--card CARD"));
        }
        EXPECT_THAT(console.output, HasSubstr("--json"));
    }
}

} // namespace kestra::test
