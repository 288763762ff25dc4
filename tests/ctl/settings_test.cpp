// converter, formats and log: what is stored on the card and for the user.
#include "tests/ctl/ctl_test.h"

#include "protocol/converter.h"
#include "tests/ctl/live_program.h"

#include <cstring>

namespace kestra::test {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

class Converter : public CtlTest {};
class Formats : public CtlTest {
    const KeptKey m_formats{kFormatsKey};
};
class Log : public CtlTest {
    const KeptKey m_log{kLogKey};
};

void writeUtf16(const std::string& path, const std::u16string& text) {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(text.data()), std::streamsize(text.size() * 2));
}

} // namespace

TEST_F(Converter, PresetAndValuesReachTheCard) {
    const ProgramResult preset = ctl("converter preset bt709");
    EXPECT_EQ(preset.exitCode, 0u) << preset.error;
    EXPECT_EQ(preset.error, "kestra-ctl: this changes the colours of every program that takes RGB from this card\n");
    const ProgramResult set = ctl("converter set RedGain=1.25 blueoffset=-3");
    EXPECT_EQ(set.exitCode, 0u) << set.error;
    expectGolden("converter.txt", set.output);
    EXPECT_EQ(m_card.state().converter.redGain, 320);
    EXPECT_EQ(m_card.state().converter.blueOffset, 0x83);
    const ProgramResult shown = ctl("converter show --json");
    expectSchema("converter", shown.output);
    EXPECT_EQ(json::parse(shown.output).at("converter").at("preset"), "bt709");
    EXPECT_EQ(ctl("converter default").exitCode, 0u);
    const wire::Converter now = m_card.state().converter, fresh = wire::toWire(wire::kDefaultConverter);
    EXPECT_EQ(std::memcmp(&now, &fresh, sizeof now), 0);
}

TEST_F(Converter, SavedFileBringsItBack) {
    ctl("converter set RedGain=2 GMin=16 Y1=-0.5");
    const ProgramResult saved = ctl("converter save " + file("c.json"));
    EXPECT_EQ(saved.exitCode, 0u) << saved.error;
    expectSchema("converter", readWholeFile(file("c.json")));
    const wire::Converter before = m_card.state().converter;
    ctl("converter default");
    EXPECT_EQ(ctl("converter load " + file("c.json")).exitCode, 0u);
    const wire::Converter after = m_card.state().converter;
    EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
}

TEST_F(Converter, NonsenseChangesNothing) {
    const wire::Converter before = m_card.state().converter;
    for (const char* arguments : {"set", "set RedGain", "set RedGain=", "set RedGain=1,5", "set RedGain=nan",
                                  "set RedGain=1e9", "set RMin=256", "set RMin=1.5", "set RedOffset=-128", "set Gain=1",
                                  "set RedGain=1 RMin=-1", "preset bt2020", "preset", "", "turn"}) {
        const ProgramResult result = ctl(std::string("converter ") + arguments);
        EXPECT_EQ(result.exitCode, 2u) << arguments << ": " << result.error;
        EXPECT_THAT(result.error, StartsWith("kestra-ctl: ")) << arguments;
        EXPECT_EQ(result.output, "") << arguments;
    }
    for (const char* text : {"", "{", "[]", "{}", R"({"converter": {}})", R"({"converter": {"Gain": 1}})"}) {
        std::ofstream(file("bad.json")) << text;
        const ProgramResult result = ctl("converter load " + file("bad.json"));
        EXPECT_EQ(result.exitCode, 1u) << text;
        EXPECT_THAT(result.error, HasSubstr("kestra-ctl converter save FILE makes such a file")) << text;
    }
    const wire::Converter after = m_card.state().converter;
    EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
}

TEST_F(Formats, AreShownStoredAndForgotten) {
    EXPECT_EQ(ctl("formats show").output,
              "  video         YUY2, 4:2:2 in 8 bits (the default; nothing was chosen yet)\n"
              "  audio         16 bits (the default; nothing was chosen yet)\n");
    const ProgramResult set = ctl("formats set video=rgb32 audio=24");
    EXPECT_EQ(set.exitCode, 0u) << set.error;
    EXPECT_EQ(set.output,
              "  video         RGB32\n  audio         24 bits\n"
              "FFmpeg takes no 24-bit sound: kestra-ctl formats set audio=16 lets it record sound again.\n");
    const ProgramResult shown = ctl("formats show --json");
    expectSchema("formats", shown.output);
    EXPECT_EQ(json::parse(shown.output).at("video").at("stored"), 3);
    EXPECT_EQ(ctl("formats restore").exitCode, 0u);
    EXPECT_TRUE(json::parse(ctl("formats show --json").output).at("video").at("stored").is_null());
}

TEST_F(Formats, ABrokenValueIsShownAsWhatItCountsAs) {
    ctl("formats set video=uyvy");
    const DWORD broken = 7;
    RegSetKeyValueW(HKEY_CURRENT_USER, kFormatsKey, kVideoFormatValue, REG_DWORD, &broken, sizeof broken);
    EXPECT_THAT(ctl("formats show").output, HasSubstr("YUY2, 4:2:2 in 8 bits (in place of 7, which no format has)\n"));
}

TEST_F(Formats, NonsenseChangesNothing) {
    expectFailure(ctl("formats set video=uyvy audio=20"), 2, "'20' is no format for audio", "it takes: 16, 24");
    expectFailure(ctl("formats set tape=vhs"), 2, "there is no format 'tape'", "for example: video=uyvy audio=16");
    EXPECT_TRUE(json::parse(ctl("formats show --json").output).at("video").at("stored").is_null());
}

TEST_F(Log, IsSetAndShown) {
    EXPECT_EQ(
        ctl("log show").output,
        "  file detail   0: off\n  file from     error\n  debug detail  0: off\n  debug from    error\n"
        "  folder        none: each program logs into its current folder\n"
        "The log is off: kestra-ctl log set detail=3 folder=FOLDER switches it on for programs that start then.\n");
    const ProgramResult set = ctl("log set detail=3 severity=notice folder=" + m_folder.string());
    EXPECT_EQ(set.exitCode, 0u) << set.error;
    EXPECT_EQ(set.output,
              "  file detail   3 of 5\n  file from     notice\n  debug detail  0: off\n  debug from    error\n"
              "  folder        " +
                  m_folder.string() + "\\\n");
    expectSchema("log", ctl("log show --json").output);
    expectFailure(ctl("log set detail=9 severity=debug"), 2, "'9' is no detail",
                  "it takes a number from 0 (off) to 5 (all)");
    EXPECT_EQ(ctl("log set severity=loud").exitCode, 2u);
    EXPECT_EQ(ctl("log set folder=" + file("nowhere")).exitCode, 2u);
    EXPECT_EQ(ctl("log set tape=1").exitCode, 2u);
    EXPECT_EQ(json::parse(ctl("log show --json").output).at("severity"), "notice");
}

TEST_F(Log, WhatTheLibraryLogsIsShownAndExplained) {
    EXPECT_EQ(ctl("log set detail=3 folder=" + m_folder.string()).exitCode, 0u);
    m_card.failNext(wire::kGetConverter, 0xC0000022);
    EXPECT_EQ(ctl("status").exitCode, 1u);
    const ProgramResult tail = ctl("log tail --lines 30");
    EXPECT_EQ(tail.exitCode, 0u) << tail.error;
    EXPECT_THAT(tail.output, HasSubstr("MSG=DeviceIOCtl(0xCE322110) failed. ErrorCode=5(0x00000005)."));
    const ProgramResult decoded = ctl("log decode");
    EXPECT_THAT(decoded.output, HasSubstr("    = request \"get converter\"; the system says: Access denied (5)\n"));
    std::istringstream lines(ctl("log decode --json").output);
    for (std::string line; std::getline(lines, line);)
        expectSchema("log", line);
}

TEST_F(Log, AMissingFileIsNamed) {
    const ProgramResult off = ctl("log tail");
    EXPECT_EQ(off.exitCode, 1u);
    EXPECT_THAT(
        off.error,
        HasSubstr("TARNIS.txt cannot be read: File not found (2)\n            the log is off: kestra-ctl log set "));
    expectFailure(ctl("log tail --file " + file("none.txt")), 1,
                  file("none.txt") + " cannot be read: File not found (2)", "check its name and that you may read it");
}

TEST_F(Log, FollowsWhatIsAddedUntilItIsInterrupted) {
    writeUtf16(file("log.txt"), u"\xFEFF"
                                u"one\r\ntwo\r\n");
    LiveProgram program("log tail --follow --lines 1 --file " + file("log.txt"));
    EXPECT_TRUE(program.waitFor("two\n"));
    writeUtf16(file("log.txt"), u"\xFEFF"
                                u"one\r\ntwo\r\nthree \u00FC\r\nhal");
    EXPECT_TRUE(program.waitFor("three \xC3\xBC\n"));
    EXPECT_FALSE(program.has("one"));
    EXPECT_FALSE(program.has("hal"));
    EXPECT_EQ(program.interrupt().exitCode, 0u);
}

TEST_F(Log, BundleHoldsWhatHelps) {
    EXPECT_EQ(ctl("log set detail=3 folder=" + m_folder.string()).exitCode, 0u);
    ctl("status");
    const ProgramResult result = ctl("log bundle " + file("report"));
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    for (const char* name : {"versions.txt", "list.txt", "status-0.txt", "status-1.txt", "formats.txt", "log.txt",
                             "doctor.txt", "TARNIS.txt"}) {
        EXPECT_THAT(result.output, HasSubstr(std::string("  ") + name + "\n"));
        EXPECT_GT(std::filesystem::file_size(m_folder / "report" / name), 10u) << name;
    }
    expectFailure(ctl("log bundle " + file("no/such/folder")), 1,
                  file("no/such/folder") + " cannot be made: Path not found (3)", "choose another folder");
}

} // namespace kestra::test
