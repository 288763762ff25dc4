// kestrasimctl's words.
#include "simcard/ctl/command_words.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestra::simcard;
using testing::HasSubstr;

namespace {

/// What is said about words that make no sense; empty if they do.
template <class Parse>
std::string complaint(const Parse& parse) {
    try {
        parse();
        return "";
    } catch (const UsageError& error) {
        return error.text;
    }
}

TEST(SimcardWords, NumbersThatDoNotFitAreRefusedInsteadOfCut) {
    EXPECT_EQ(parseNumber("4294967295"), 0xFFFFFFFFu);
    EXPECT_EQ(parseNumber("0xC0000022"), 0xC0000022u);
    EXPECT_EQ(parseNumber("CE322068", 16), 0xCE322068u);
    EXPECT_EQ(complaint([] { parseNumber("4294967296"); }), "'4294967296' is too large: 4294967295 at most");
    EXPECT_THAT(complaint([] { parseNumber("99999999999999999999"); }), HasSubstr("too large"));
    EXPECT_THAT(complaint([] { parseSignal({"65537x1080", "60"}); }), HasSubstr("too large: 65535"));
    EXPECT_THAT(complaint([] { parseSignal({"1920x65536", "60"}); }), HasSubstr("too large: 65535"));
    EXPECT_THAT(complaint([] { parseSignal({"1920x1080", "60", "mode=256"}); }), HasSubstr("too large: 255"));
}

TEST(SimcardWords, BlanksSignsAndRestsAreNoNumbers) {
    for (const char* text : {"", " 5", "-1", "+1", "5 ", "5x", "0x", "x"})
        EXPECT_EQ(complaint([&] { parseNumber(text); }), std::string("'") + text + "' is not a number");
    EXPECT_NE(complaint([] { parseNumber(std::string("5\0", 2)); }), "") << "a NUL is no end of a word";
}

TEST(SimcardWords, SignalHasSizeRateAndWordsInAnyOrder) {
    EXPECT_EQ(parseSignal({"none"}), Signal{});
    const Signal hd = parseSignal({"1920x1080", "30000/1001", "noaudio", "i", "mode=7"});
    EXPECT_EQ(hd.width, 1920);
    EXPECT_EQ(hd.height, 1080);
    EXPECT_EQ(hd.rateNumerator, 30000u);
    EXPECT_EQ(hd.rateDenominator, 1001u);
    EXPECT_EQ(hd.interlaced, 1);
    EXPECT_EQ(hd.audio, 0);
    EXPECT_EQ(hd.videoMode, 7);
    EXPECT_EQ(parseSignal({"1280x720", "24"}).videoMode, kestra::kVideoMode24);
    EXPECT_EQ(parseSignal({"1280x720", "25"}).videoMode, kDefaultSignal.videoMode);
    EXPECT_THAT(complaint([] { parseSignal({}); }), HasSubstr("needs a size"));
    EXPECT_THAT(complaint([] { parseSignal({"1920", "60"}); }), HasSubstr("not a size"));
    EXPECT_THAT(complaint([] { parseSignal({"1920x1080", "60", "p"}); }), HasSubstr("unknown word 'p'"));
}

TEST(SimcardWords, FaultHasKindCodeValueCountAndSkip) {
    const Fault once = parseFault({"status", "CE322068", "0xC0000022"});
    EXPECT_EQ(once.kind, FaultKind::NtStatus);
    EXPECT_EQ(once.code, 0xCE322068u);
    EXPECT_EQ(once.value, 0xC0000022u);
    EXPECT_EQ(once.count, 1u);
    EXPECT_EQ(once.skip, 0u);
    const Fault later = parseFault({"never", "0", "0", "0", "3"});
    EXPECT_EQ(later.kind, FaultKind::NeverComplete);
    EXPECT_EQ(later.count, kForever);
    EXPECT_EQ(later.skip, 3u);
    const Fault change = parseFault({"signal", "CE322068", "2", "none"});
    EXPECT_EQ(change.kind, FaultKind::SignalChange);
    EXPECT_EQ(change.skip, 2u);
    EXPECT_EQ(change.signal, Signal{});
    const Fault atFrame = parseFault({"signal-at-frame", "0", "9", "720x576", "25", "i"});
    EXPECT_EQ(atFrame.kind, FaultKind::SignalAtFrame);
    EXPECT_EQ(atFrame.value, 9u);
    EXPECT_EQ(atFrame.signal.height, 576);
    EXPECT_THAT(complaint([] { parseFault({"status", "0"}); }), HasSubstr("needs a kind"));
    EXPECT_THAT(complaint([] { parseFault({"smoke", "0", "0"}); }), HasSubstr("unknown kind of fault 'smoke'"));
}

TEST(SimcardWords, OptionsStandAnywhereAndHelpEndsTheLine) {
    const CommandLine line = parseCommandLine({"--json", "signal", "--card", "1", "none"});
    EXPECT_TRUE(line.json);
    EXPECT_FALSE(line.help);
    EXPECT_EQ(line.card, 1u);
    EXPECT_EQ(line.command, "signal");
    EXPECT_THAT(line.arguments, testing::ElementsAre("none"));
    const CommandLine help = parseCommandLine({"fault", "--help", "--card"});
    EXPECT_TRUE(help.help);
    EXPECT_EQ(help.command, "fault");
    EXPECT_TRUE(parseCommandLine({}).command.empty());
    EXPECT_NE(complaint([] { parseCommandLine({"--card", "one"}); }), "");
}

} // namespace
