// kestrasimctl and kestraprobe as a person or a script uses them: what they print and how they exit.
#include "tests/support/card_fixture.h"
#include "win32/handle.h"

#include <windows.h>

#include <gmock/gmock.h>

#include <array>
#include <filesystem>
#include <string>

namespace kestra::test {
namespace {

using namespace kestra::simcard;
using testing::HasSubstr;
using testing::StartsWith;

struct Result {
    DWORD exitCode = ~0u;
    std::string output; ///< standard output and error output together
};

Result run(const char* program, const std::string& arguments) {
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    HANDLE read = nullptr, write = nullptr;
    CreatePipe(&read, &write, &inherit, 1 << 20);
    SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = startup.hStdError = write;
    PROCESS_INFORMATION child = {};
    std::string command = "\"" + std::string(program) + "\" " + arguments;
    Result result;
    if (CreateProcessA(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &child)) {
        CloseHandle(write);
        std::array<char, 4096> buffer;
        for (DWORD bytes = 0; ReadFile(read, buffer.data(), DWORD(buffer.size()), &bytes, nullptr) && bytes != 0;)
            result.output.append(buffer.data(), bytes);
        WaitForSingleObject(child.hProcess, 20000);
        GetExitCodeProcess(child.hProcess, &result.exitCode);
        CloseHandle(child.hThread);
        CloseHandle(child.hProcess);
    } else {
        CloseHandle(write);
    }
    CloseHandle(read);
    return result;
}

Result control(const std::string& arguments) {
    return run(KESTRASIMCTL, arguments);
}

class SimcardTools : public CardTest {};

} // namespace

TEST_F(SimcardTools, SignalIsSetAndShown) {
    EXPECT_EQ(control("signal 1920x1080 30000/1001 i").exitCode, 0u);
    const Signal signal = m_card.state().signal;
    EXPECT_EQ(signal.width, 1920);
    EXPECT_EQ(signal.height, 1080);
    EXPECT_EQ(signal.interlaced, 1);
    EXPECT_EQ(signal.rateNumerator, 30000u);
    EXPECT_EQ(signal.rateDenominator, 1001u);
    EXPECT_THAT(control("status").output, HasSubstr("signal 1920x1080i at 30000/1001"));
    EXPECT_THAT(control("--json status").output, HasSubstr("\"interlaced\":true"));
    EXPECT_EQ(control("signal 1280x720 24 noaudio").exitCode, 0u);
    EXPECT_EQ(m_card.state().signal.videoMode, kVideoMode24);
    EXPECT_EQ(m_card.state().signal.audio, 0);
    EXPECT_EQ(control("signal none").exitCode, 0u);
    EXPECT_THAT(control("status").output, HasSubstr("no signal"));
}

TEST_F(SimcardTools, PlugPicturePaceAndStopAreSet) {
    EXPECT_EQ(control("unplug").exitCode, 0u);
    EXPECT_EQ(m_card.state().plugged, 0u);
    EXPECT_EQ(control("plug").exitCode, 0u);
    EXPECT_EQ(m_card.state().plugged, 1u);
    EXPECT_EQ(control("picture tinted").exitCode, 0u);
    EXPECT_EQ(control("pace taken").exitCode, 0u);
    EXPECT_EQ(control("stop cancel").exitCode, 0u);
    const Options options = m_card.state().options;
    EXPECT_EQ(options.picture, 1u);
    EXPECT_EQ(options.pace, Pace::AsTaken);
    EXPECT_EQ(options.stopBehaviour, StopBehaviour::Cancel);
}

TEST_F(SimcardTools, FaultsAreAddedAndCleared) {
    EXPECT_EQ(control("fault status CE322068 0xC0000022").exitCode, 0u);
    EXPECT_EQ(control("fault signal-at-frame 0 5 none").exitCode, 0u);
    EXPECT_EQ(control("fault signal CE322058 0 1280x720 50").exitCode, 0u);
    EXPECT_EQ(m_card.state().faults, 3u);
    EXPECT_EQ(control("clear-faults").exitCode, 0u);
    EXPECT_EQ(m_card.state().faults, 0u);
}

TEST_F(SimcardTools, OtherCardIsAddressedByNumber) {
    EXPECT_EQ(control("--card 1 signal none").exitCode, 0u);
    EXPECT_EQ(CardControl(1).state().signal.present, 0);
    EXPECT_EQ(m_card.state().signal.present, 1);
    CardControl(1).reset();
    const Result missing = control("--card 7 status");
    EXPECT_EQ(missing.exitCode, 1u);
    EXPECT_THAT(missing.output, StartsWith("kestrasimctl: "));
}

TEST_F(SimcardTools, CardThatAProgramUsesIsNotTakenAway) {
    const UniqueFile program(CreateFileW(m_card.devicePath().c_str(), GENERIC_READ | GENERIC_WRITE,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS, 0, nullptr));
    ASSERT_TRUE(program);
    const Result result = control("remove");
    EXPECT_EQ(result.exitCode, 1u);
    EXPECT_THAT(result.output, HasSubstr("Card 0 is in use by 1 program; close it first"));
    EXPECT_EQ(m_card.state().clients, 1u) << "it is still there";
}

TEST_F(SimcardTools, WrongWordsAreNamedAndChangeNothing) {
    for (const char* arguments :
         {"", "nonsense", "signal", "signal 1920 60", "signal 1920x1080 60 upside-down", "fault", "fault explosion 0 0",
          "pace leisurely", "picture cubist", "install", "status extra"}) {
        const Result result = control(arguments);
        EXPECT_EQ(result.exitCode, 2u) << arguments;
        EXPECT_THAT(result.output, StartsWith("kestrasimctl: ")) << arguments;
    }
    const CardState state = m_card.state();
    EXPECT_EQ(state.signal, kDefaultSignal);
    EXPECT_EQ(state.faults, 0u);
}

TEST_F(SimcardTools, SignalThatNoCardReceivesIsRefused) {
    const Result result = control("signal 9000x1080 60");
    EXPECT_EQ(result.exitCode, 1u);
    EXPECT_EQ(m_card.state().signal, kDefaultSignal);
}

TEST_F(SimcardTools, EveryCommandExplainsItself) {
    EXPECT_THAT(control("--help").output, HasSubstr("signal"));
    for (const char* command : {"install", "remove", "hold", "release", "status", "plug", "unplug", "signal", "picture",
                                "pace", "stop", "fault", "clear-faults", "clear-log", "reset", "log"}) {
        const Result result = control(std::string(command) + " --help");
        EXPECT_EQ(result.exitCode, 0u) << command;
        EXPECT_THAT(result.output, StartsWith("usage: kestrasimctl [--card N] [--json] " + std::string(command)));
    }
}

TEST_F(SimcardTools, ProbeReceivesEverythingAndShowsTheRequests) {
    std::filesystem::create_directories(std::filesystem::temp_directory_path()); // a fresh prefix may have none yet
    const auto bitmap = std::filesystem::temp_directory_path() / "kestraprobe-test.bmp";
    const Result result = run(KESTRAPROBE, "--bitmap " + bitmap.string());
    EXPECT_EQ(result.exitCode, 0u) << result.output;
    EXPECT_THAT(result.output, HasSubstr("2 Kestra cards"));
    EXPECT_THAT(result.output, HasSubstr("1920x1080 progressive, 60 frames/s, video mode 9, embedded audio"));
    EXPECT_THAT(result.output, HasSubstr("every byte as the card made it"));
    EXPECT_THAT(result.output, HasSubstr("unlock buffer"));
    EXPECT_THAT(result.output, HasSubstr("Everything came through."));
    EXPECT_EQ(std::filesystem::file_size(bitmap), 54u + 1920 * 3 * 1080);
    std::filesystem::remove(bitmap);
}

TEST_F(SimcardTools, ProbeReportsWhatDoesNotComeThrough) {
    m_card.dmaStatusNext(0, DMA_STATUS_FIFO_OVERRUN, 3);
    const Result result = run(KESTRAPROBE, "");
    EXPECT_EQ(result.exitCode, 1u);
    EXPECT_THAT(result.output, HasSubstr("3 failed"));
    EXPECT_THAT(result.output, HasSubstr("Something is wrong: see above."));
}

} // namespace kestra::test
