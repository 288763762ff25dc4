// capture and watch against the simulated card: every byte that is written, every loss that is told.
#include "tests/ctl/ctl_test.h"

#include "ctl/command_line.h"
#include "tests/ctl/live_program.h"
#include "tests/ctl/media_check.h"
#include "tests/ctl/verb_stubs.h"
#include "tests/device/device_test.h"
#include "tests/support/scoped_import_hook.h"

#include <algorithm>
#include <atomic>

namespace kestra::test {
namespace {

using namespace kestra::simcard;
using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

constexpr Signal kSmall = {1, 0, 1, 9, 0, 0, 320, 180, 0, 30, 1, 0};
constexpr Signal kInterlaced = {1, 1, 1, 9, 0, 0, 322, 182, 0, 25, 1, 0};

bool areConsecutive(const std::vector<uint32_t>& numbers) {
    for (size_t i = 1; i < numbers.size(); ++i)
        if (numbers[i] != numbers[i - 1] + 1) return false;
    return true;
}

/// Of a user who never presses Ctrl-C.
class PatientConsole final : public KeptConsole {
    bool isInterrupted(uint32_t waitMs) noexcept override {
        Sleep(waitMs);
        return false;
    }
};

class Capture : public CtlTest {
protected:
    static constexpr uint32_t kLateSound = 16; ///< frames
    void SetUp() override {
        CtlTest::SetUp();
        m_card.setSignal(kSmall);
    }
    /// The card makes a frame when there is room for it: however busy the machine is, none is dropped.
    void makeFramesAsTaken() { m_card.setOptions({Pace::AsTaken, StopBehaviour::Abort, 0, 0}); }
    /// A card in real time may drop frames on a busy machine, and then the capture says so.
    void expectDone(const ProgramResult& result) {
        const CardState state = m_card.state();
        if (result.exitCode == 1 && state.channels[0].dropped + state.channels[1].dropped != 0)
            EXPECT_THAT(result.error, HasSubstr("frames were lost"));
        else
            EXPECT_EQ(result.exitCode, 0u) << result.error;
    }
    /// Waits until some frames are in the file.
    bool waitForFile(const std::string& name) {
        return waitUntil(
            [&] {
                std::error_code missing;
                const auto bytes = std::filesystem::file_size(m_folder / name, missing);
                return !missing && bytes > 400000;
            },
            std::chrono::seconds(30));
    }
    bool waitForFrames(uint32_t count) {
        return waitUntil([&] { return m_card.state().channels[0].delivered >= count; }, std::chrono::seconds(30));
    }
    /// A sound file that begins with the picture, or up to kLateSound frames after: a card that makes frames as they
    /// are taken may be that far when the sound starts.
    MediaFindings checkSound(const std::string& name, const Signal& signal, uint32_t bits, uint32_t firstPicture) {
        const auto recorded = readWholeFile(file(name + ".wav"));
        MediaFindings sound;
        for (uint32_t late = 0; late <= kLateSound; ++late) {
            sound = checkWav(recorded, signal, bits, firstPicture + late);
            if (sound.wrong.empty()) break;
        }
        return sound;
    }
    /// Both files of a capture hold just what the card made.
    void expectFilm(const std::string& name, const Signal& signal, uint32_t depth, uint32_t soundBits) {
        const MediaFindings picture = checkY4m(readWholeFile(file(name + ".y4m")), signal, depth);
        EXPECT_EQ(picture.wrong, "") << name;
        ASSERT_FALSE(picture.numbers.empty()) << name;
        const MediaFindings sound = checkSound(name, signal, soundBits, picture.numbers.front());
        EXPECT_EQ(sound.wrong, "") << name;
        ASSERT_FALSE(sound.numbers.empty()) << name;
        EXPECT_EQ(sound.numbers.back(), picture.numbers.back()) << name << ": sound and picture end together";
    }
};
class Watch : public Capture {};

} // namespace

TEST_F(Capture, TenBitFilmAndSoundAreTheCardsByteForByte) {
    makeFramesAsTaken();
    const ProgramResult result = ctl("capture --depth 10 --frames 20 " + file("film.y4m"));
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    EXPECT_EQ(result.error,
              "kestra-ctl: taking card 0's picture and sound; no other program can capture from it meanwhile\n");
    expectGolden("capture.txt", result.output);
    expectFilm("film", kSmall, 10, 16);
}

TEST_F(Capture, EightBitInterlacedFilmIsWovenAndSoundHas24Bits) {
    makeFramesAsTaken();
    m_card.setSignal(kInterlaced);
    const ProgramResult result = ctl("capture --sound 24 --frames 12 --json " + file("film.y4m"));
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    std::istringstream lines(result.output);
    std::string line;
    while (std::getline(lines, line))
        expectSchema("capture", line);
    const json summary = json::parse(result.output.substr(result.output.rfind("{\"schema\"")));
    EXPECT_EQ(summary.at("type"), "summary");
    EXPECT_EQ(summary.at("files").at(0).at("frames"), 12);
    EXPECT_EQ(summary.at("picture").at("lost").at("total"), 0);
    expectFilm("film", kInterlaced, 8, 24);
}

TEST_F(Capture, RawFramesAreKeptAsTheyAre) {
    makeFramesAsTaken();
    const ProgramResult result = ctl("capture --raw --depth 10 --sound none --frames 8 " + file("film.raw"));
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    const MediaFindings found = checkRaw(readWholeFile(file("film.raw")), kSmall, 10);
    EXPECT_EQ(found.wrong, "");
    EXPECT_EQ(found.numbers.size(), 8u);
    EXPECT_FALSE(std::filesystem::exists(file("film.wav")));
}

TEST_F(Capture, StandardOutputHoldsNothingButTheFilm) {
    makeFramesAsTaken();
    const ProgramResult result = ctl("capture - --depth 10 --frames 10 --wav " + file("film.wav"));
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    const MediaFindings found = checkY4m(result.output, kSmall, 10);
    EXPECT_EQ(found.wrong, "");
    EXPECT_EQ(found.numbers.size(), 10u);
    EXPECT_TRUE(areConsecutive(found.numbers));
    EXPECT_THAT(result.error, HasSubstr("standard output: 10 frames of 320x180p30 in 10 bits"));
    EXPECT_EQ(checkSound("film", kSmall, 16, found.numbers[0]).wrong, "");
}

TEST_F(Capture, CtrlCEndsItWithWholeFilesAndTheAccount) {
    LiveProgram capture("capture " + file("film.y4m"));
    EXPECT_TRUE(waitForFile("film.y4m"));
    const ProgramResult result = capture.interrupt();
    expectDone(result);
    EXPECT_THAT(result.output, HasSubstr("  lost          "));
    const MediaFindings found = checkY4m(readWholeFile(file("film.y4m")), kSmall, 8);
    EXPECT_EQ(found.wrong, "");
    EXPECT_GE(found.numbers.size(), 3u);
}

TEST_F(Capture, EndsAfterTheSecondsThatWereAsked) {
    const ProgramResult result = ctl("capture --sound none --seconds 1.5 " + file("film.y4m"));
    expectDone(result);
    const MediaFindings found = checkY4m(readWholeFile(file("film.y4m")), kSmall, 8);
    EXPECT_EQ(found.wrong, "");
    EXPECT_GE(found.numbers.size(), 10u);
}

TEST_F(Capture, LossesAreToldByCause) {
    LiveProgram capture("capture --sound none --json " + file("film.y4m"));
    EXPECT_TRUE(waitForFile("film.y4m"));
    m_card.dmaStatusNext(0, DMA_STATUS_FRAME_DROPED, 2);
    m_card.dmaStatusNext(0, DMA_STATUS_FIFO_OVERRUN, 3, 4);
    EXPECT_TRUE(waitUntil([&] { return m_card.state().faults == 0; }, std::chrono::seconds(30)));
    const uint32_t delivered = m_card.state().channels[0].delivered;
    EXPECT_TRUE(waitForFrames(delivered + 3));
    const ProgramResult result = capture.interrupt();
    EXPECT_EQ(result.exitCode, 1u);
    EXPECT_THAT(result.error, HasSubstr("kestra-ctl: frames were lost: see the account\n"));
    const json lost = json::parse(result.output.substr(result.output.rfind("{\"schema\""))).at("picture").at("lost");
    EXPECT_EQ(lost.at("overrun"), 3);
    EXPECT_GE(lost.at("cardDropped"), 2);
    EXPECT_EQ(checkY4m(readWholeFile(file("film.y4m")), kSmall, 8).wrong, "");
}

TEST_F(Capture, UntilLossEndsWithTheFirst) {
    LiveProgram capture("capture --sound none --until-loss " + file("film.y4m"));
    EXPECT_TRUE(waitForFile("film.y4m"));
    m_card.dmaStatusNext(0, DMA_STATUS_FIFO_OVERRUN, 1);
    const ProgramResult result = capture.finish();
    EXPECT_EQ(result.exitCode, 1u);
    EXPECT_THAT(result.error, HasSubstr("kestra-ctl: frames were lost: see the account\n"));
    EXPECT_EQ(checkY4m(readWholeFile(file("film.y4m")), kSmall, 8).wrong, "");
}

TEST_F(Capture, AnotherFormatGetsAFileOfItsOwn) {
    LiveProgram capture("capture " + file("film.y4m"));
    EXPECT_TRUE(waitForFrames(5));
    m_card.setSignal(kInterlaced);
    EXPECT_TRUE(waitForFile("film-2.y4m"));
    const ProgramResult result = capture.interrupt();
    expectDone(result);
    EXPECT_THAT(result.output, HasSubstr("film-2.y4m: "));
    EXPECT_THAT(result.output, HasSubstr("1 change, "));
    EXPECT_EQ(checkY4m(readWholeFile(file("film.y4m")), kSmall, 8).wrong, "");
    const MediaFindings second = checkY4m(readWholeFile(file("film-2.y4m")), kInterlaced, 8);
    EXPECT_EQ(second.wrong, "");
    EXPECT_FALSE(second.numbers.empty());
}

TEST_F(Capture, AStreamCannotChangeItsFormat) {
    std::string stream;
    ChildProgram program(ctlCommand("capture -"), [&](const char* bytes, size_t size) {
        stream.append(bytes, size);
        return true;
    });
    EXPECT_TRUE(waitForFrames(5));
    m_card.setSignal(kInterlaced);
    const ProgramResult result = program.finish();
    EXPECT_EQ(result.exitCode, 1u);
    EXPECT_THAT(result.error,
                HasSubstr("the signal has changed to 322x182i50, and a stream of pictures cannot change with it"));
    EXPECT_EQ(checkY4m(stream, kSmall, 8).wrong, "");
}

TEST_F(Capture, GoesOnAfterThePlugWasPulled) {
    LiveProgram capture("capture --sound none " + file("film.y4m"));
    EXPECT_TRUE(waitForFrames(5));
    m_card.unplug();
    EXPECT_TRUE(capture.waitForError("kestra-ctl: the card was pulled\n"));
    m_card.plug();
    EXPECT_TRUE(capture.waitForError("kestra-ctl: the card is back: 320x180p30, sound\n"));
    EXPECT_TRUE(waitForFrames(5));
    const ProgramResult result = capture.interrupt();
    expectDone(result);
    EXPECT_THAT(result.output, HasSubstr("2 changes, "));
    EXPECT_EQ(checkY4m(readWholeFile(file("film.y4m")), kSmall, 8).wrong, "");
    EXPECT_FALSE(std::filesystem::exists(file("film-2.y4m")));
}

TEST_F(Capture, GoesOnAfterTheSignalWasAway) {
    LiveProgram capture("capture --sound none " + file("film.y4m"));
    EXPECT_TRUE(waitForFrames(5));
    m_card.setSignal({});
    EXPECT_TRUE(capture.waitForError("kestra-ctl: the signal has gone\n"));
    const uint32_t before = m_card.state().channels[0].delivered;
    m_card.setSignal(kSmall);
    EXPECT_TRUE(waitUntil([&] { return m_card.state().channels[0].delivered != before; }, std::chrono::seconds(30)));
    const ProgramResult result = capture.interrupt();
    expectDone(result);
    EXPECT_EQ(checkY4m(readWholeFile(file("film.y4m")), kSmall, 8).wrong, "");
}

TEST_F(Capture, APipeThatClosesEndsItAtOnce) {
    size_t taken = 0;
    ChildProgram program(ctlCommand("capture -"), [&](const char*, size_t size) { return (taken += size) < 300000; });
    const ProgramResult result = program.finish();
    EXPECT_EQ(result.exitCode, 1u);
    EXPECT_THAT(result.error, HasSubstr("kestra-ctl: the standard output cannot be written: "));
    EXPECT_THAT(result.error, HasSubstr("whoever reads it has ended: look at its own messages\n"));
}

TEST_F(Capture, AFullDiskKeepsWhatWasWritten) {
    makeFramesAsTaken();
    using Write = decltype(&WriteFile);
    static ScopedImportHook<Write>* hook;
    static std::atomic<DWORD> room; // of frames, in bytes; headers are small and lie in room that they have
    room = 8 * (320 * 180 * 4 + 6) + 1000;
    ScopedImportHook<Write> full(
        "kernel32.dll", "WriteFile",
        [](HANDLE file, LPCVOID bytes, DWORD size, LPDWORD written, LPOVERLAPPED overlapped) -> BOOL {
            if (size < 100000) return hook->original()(file, bytes, size, written, overlapped);
            const DWORD fitting = std::min<DWORD>(size, room);
            room -= fitting;
            if (fitting != 0) return hook->original()(file, bytes, fitting, written, overlapped);
            SetLastError(ERROR_DISK_FULL);
            return FALSE;
        });
    hook = &full;
    ASSERT_TRUE(full.installed());
    PatientConsole console;
    EXPECT_EQ(ctl::runCommandLine({"capture", "--depth", "10", file("film.y4m")}, console), ctl::ExitCode::Failure);
    EXPECT_THAT(console.error, HasSubstr(file("film.y4m") + " cannot be written: "));
    EXPECT_THAT(console.error,
                HasSubstr("the disk is full: make room or take another; what was written before is whole\n"));
    EXPECT_THAT(console.output, HasSubstr("film.y4m: 8 frames of 320x180p30 in 10 bits"));
    unsigned received = 0, lost = 0, unwritten = 0;
    std::sscanf(console.output.c_str() + console.output.find("  picture "), "  picture %u", &received);
    std::sscanf(console.output.c_str() + console.output.find("  lost "), "  lost %u: %u not written", &lost,
                &unwritten);
    EXPECT_EQ(unwritten, received - 8) << console.output;
    EXPECT_EQ(lost, unwritten);
    const MediaFindings found = checkY4m(readWholeFile(file("film.y4m")), kSmall, 10);
    EXPECT_EQ(found.wrong, "");
    ASSERT_EQ(found.numbers.size(), 8u);
    const MediaFindings sound = checkSound("film", kSmall, 16, found.numbers[0]);
    EXPECT_EQ(sound.wrong, "");
    ASSERT_FALSE(sound.numbers.empty());
    EXPECT_EQ(sound.numbers.back(), found.numbers.back()) << "the sound of what was written is there, and no more";
}

TEST_F(Capture, WhatCannotBeginSaysWhy) {
    expectFailure(ctl("capture film.wav"), 2, "picture and sound would have the same file, film.wav",
                  "give the picture's file another ending, or name the sound's: --wav FILE");
    EXPECT_EQ(ctl("capture film.y4m --frames 0").exitCode, 2u);
    EXPECT_EQ(ctl("capture film.y4m --seconds -1").exitCode, 2u);
    EXPECT_EQ(ctl("capture film.y4m --sound 20").exitCode, 2u);
    EXPECT_THAT(ctl("capture " + file("no/film.y4m")).error, HasSubstr(" cannot be written: Path not found (3)"));
    m_card.refuseNext(wire::kPrepare, 3, simcard::kForever);
    const ProgramResult refused = ctl("capture " + file("film.y4m"));
    EXPECT_EQ(refused.exitCode, 1u);
    EXPECT_THAT(refused.error, HasSubstr("card 0 was asked for frames, and its driver failed"));
    EXPECT_FALSE(std::filesystem::exists(file("film.y4m")));
    m_card.clearFaults();
    m_card.setSignal({});
    EXPECT_EQ(ctl("capture " + file("film.y4m")).exitCode, 4u);
    EXPECT_EQ(ctl("capture --card 5 " + file("film.y4m")).exitCode, 3u);
    const TARNIS_HANDLE other = openCard();
    ASSERT_EQ(TARNIS_GetDMAAccess(other, 1), 0u);
    m_card.setSignal(kSmall);
    EXPECT_EQ(ctl("capture " + file("film.y4m")).exitCode, 5u);
    EXPECT_EQ(m_card.state().clients, 1u);
    TARNIS_Done(other);
}

TEST_F(Watch, LinesTellWhatArrives) {
    const ProgramResult result = ctl("watch --seconds 2");
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    std::istringstream lines(result.output);
    std::string second, text;
    while (std::getline(lines, second) && !second.starts_with("watched ")) {
        expectGolden("watch.txt", second + '\n' + result.output.substr(result.output.find("watched ")));
        text += second;
    }
    EXPECT_FALSE(text.empty());
    EXPECT_THAT(result.output, Not(HasSubstr("  0 frames  lost 0\nwatched"))) << "none was counted";
}

TEST_F(Watch, ChangesAreToldWithTheirTimes) {
    LiveProgram watch("watch");
    EXPECT_TRUE(watch.waitFor("  320x180p30, sound  "));
    m_card.setSignal({});
    EXPECT_TRUE(watch.waitFor("  ! the signal has gone\n"));
    m_card.setSignal(kInterlaced);
    EXPECT_TRUE(watch.waitFor("  ! a signal has come: 322x182i50, sound\n"));
    EXPECT_TRUE(waitForFrames(5));
    m_card.unplug();
    EXPECT_TRUE(watch.waitFor("  ! the card was pulled\n"));
    m_card.plug();
    EXPECT_TRUE(watch.waitFor("  ! the card is back: 322x182i50, sound\n"));
    const ProgramResult result = watch.interrupt();
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    EXPECT_THAT(result.output, HasSubstr(", 4 changes, "));
}

TEST_F(Watch, LossesAreTold) {
    m_card.dmaStatusNext(0, DMA_STATUS_FIFO_OVERRUN, 2, 3);
    LiveProgram watch("watch");
    EXPECT_TRUE(watch.waitFor("2 overrun"));
    const ProgramResult result = watch.interrupt();
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_THAT(result.output, HasSubstr(" lost; in all "));
}

TEST_F(Watch, JsonIsOneObjectALine) {
    const ProgramResult result = ctl("watch --json --seconds 1");
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    std::istringstream lines(result.output);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        expectSchema("watch", line);
    EXPECT_GE(count, 3);
}

TEST_F(Watch, PassiveOneTakesNothing) {
    const ProgramResult result = ctl("watch --passive --seconds 1");
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    EXPECT_EQ(result.error, "");
    for (const LogEntry& entry : m_card.log())
        EXPECT_NE(entry.code, uint32_t(wire::kChannelAccess));
    EXPECT_THAT(result.output, Not(HasSubstr("frames")));
}

TEST_F(Watch, BesideAnotherCaptureItOnlyLooks) {
    const TARNIS_HANDLE other = openCard();
    ASSERT_EQ(TARNIS_GetDMAAccess(other, 0), 0u);
    const ProgramResult result = ctl("watch --seconds 1");
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_THAT(result.error, HasSubstr("another program captures the picture of card 0: frames are not counted\n"));
    EXPECT_THAT(result.output, HasSubstr("  320x180p30, sound\n"));
    TARNIS_Done(other);
}

} // namespace kestra::test
