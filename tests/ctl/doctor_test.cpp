// doctor: each problem that it can name, provoked; what it leaves as it was; and that it ends whatever a filter does.
#include "simcard/client/raw_client.h"
#include "tests/com/com_module.h"
#include "tests/ctl/ctl_test.h"
#include "tests/support/wait_until.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <map>

namespace kestra::test {
namespace {

using namespace simcard;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

constexpr uint32_t kStatusUnsuccessful = 0xC0000001;
constexpr CLSID kAudioFilter = {0x47BAFEE0, 0x4F9B, 0x4115, {0xAA, 0x9F, 0x89, 0x64, 0xA2, 0x3B, 0x53, 0xE9}};
constexpr wchar_t kFormats[] = L"Software\\Quorvane\\HD-SDI Kestra\\DirectShow";
constexpr wchar_t kLog[] = L"Software\\Quorvane\\TARNIS\\SDK\\Log";
constexpr wchar_t kVideoServer[] = L"CLSID\\{53F0624A-8497-4A4C-9451-011C49B274FA}\\InprocServer32";
constexpr wchar_t kAudioServer[] = L"CLSID\\{47BAFEE0-4F9B-4115-AA9F-8964A23B53E9}\\InprocServer32";

/// What the doctor said, by the names of its checks.
struct Report {
    struct Check {
        std::string mark, found, remedy;
    };
    DWORD exitCode;
    std::map<std::string, Check> checks;

    std::vector<std::string> bad() const {
        std::vector<std::string> names;
        for (const auto& [name, check] : checks)
            if (check.mark == "bad") names.push_back(name);
        return names;
    }
    Check operator[](const std::string& name) const {
        const auto found = checks.find(name);
        return found == checks.end() ? Check{"(none)", "", ""} : found->second;
    }
};

Report examine(const std::string& options = "") {
    const ProgramResult result = ctl("doctor --json " + options);
    Report report{result.exitCode, {}};
    const auto json = nlohmann::json::parse(result.output, nullptr, false);
    if (!json.is_object()) {
        ADD_FAILURE() << result.output << result.error;
        return report;
    }
    expectSchema("doctor", result.output);
    for (const auto& check : json["checks"])
        report.checks[check["check"]] = {check["mark"], check["found"], check["remedy"]};
    EXPECT_EQ(json["problems"], report.bad().size());
    EXPECT_EQ(report.exitCode, report.bad().size()) << "the exit code is the number of problems";
    for (const auto& [name, check] : report.checks)
        EXPECT_EQ(check.mark == "bad" && check.remedy.empty(), false) << name << " has no remedy";
    return report;
}

using Names = std::vector<std::string>;

/// A module that is registered, and two cards.
class Doctor : public CtlTest {
protected:
    void SetUp() override {
        CtlTest::SetUp();
        m_second.reset();
        RegDeleteTreeW(HKEY_CURRENT_USER, kFormats); // of whoever opened a filter before
        ASSERT_EQ(m_module.registerServer(), S_OK);
    }
    void TearDown() override {
        m_module.registerServer(); // what a test has damaged cannot be taken back otherwise
        m_module.unregisterServer();
        RegDeleteTreeW(HKEY_CURRENT_USER, kFormats);
        m_second.reset();
        CtlTest::TearDown();
    }
    static void store(const wchar_t* key, const wchar_t* name, DWORD value) {
        ASSERT_EQ(RegSetKeyValueW(HKEY_CURRENT_USER, key, name, REG_DWORD, &value, sizeof value), ERROR_SUCCESS);
    }
    static DWORD stored(const wchar_t* name) {
        DWORD value = ~0u, bytes = sizeof value;
        RegGetValueW(HKEY_CURRENT_USER, kFormats, name, RRF_RT_REG_DWORD, nullptr, &value, &bytes);
        return value;
    }
    /// Has COM look for a class in another file.
    static void setServer(const wchar_t* server, const std::wstring& path) {
        ASSERT_EQ(RegSetKeyValueW(HKEY_CLASSES_ROOT, server, nullptr, REG_SZ, path.c_str(),
                                  DWORD((path.size() + 1) * sizeof(wchar_t))),
                  ERROR_SUCCESS);
    }
    void useOneCard() { m_second.unplug(); }

    CardControl m_second{1};
    ComModule m_module{KESTRA_MODULE};
};

} // namespace

TEST_F(Doctor, AHealthyMachineHasNoProblem) {
    const Report report = examine();
    EXPECT_EQ(report.bad(), Names{});
    EXPECT_THAT(report["windows"].found, HasSubstr(", 64 bit"));
    EXPECT_EQ(report["module.video.list"].found, "in the system's list of video capture devices");
    EXPECT_EQ(report["module.audio.list"].found, "in the system's list of audio capture devices");
    EXPECT_EQ(report["module.loads"].found, "64 bit, can be loaded");
    EXPECT_THAT(report["module.version"].found, HasSubstr("version 1."));
    EXPECT_EQ(report["module.images"].mark, "good");
    EXPECT_EQ(report["driver"].found, "2 cards");
    EXPECT_EQ(report["card.1.signal"].found, "1920x1080p60, sound");
    EXPECT_THAT(report["run.video"].found, HasSubstr("runs: "));
    EXPECT_THAT(report["run.audio"].found, HasSubstr("runs: "));
    EXPECT_EQ(report["formats.video"].found, "YUY2, as nothing else was chosen");
    EXPECT_EQ(report["log"].found, "off");
    EXPECT_EQ(report["clients"].mark, "note");
    EXPECT_EQ(stored(L"VideoFormat"), ~0u) << "a filter's choice was left behind";
}

TEST_F(Doctor, TheTextHasALineForEachCheckAndItsRemedy) {
    useOneCard();
    m_card.setSignal({});
    const ProgramResult result = ctl("doctor");
    EXPECT_EQ(result.exitCode, 1u);
    EXPECT_EQ(result.error, "");
    EXPECT_THAT(result.output, HasSubstr("✔ Video filter    in the system's list of video capture devices\n"));
    EXPECT_THAT(result.output, HasSubstr("✘ Card 0          no signal\n"
                                         "                  check cable and source: SDI, switched on\n"));
    EXPECT_THAT(result.output, HasSubstr("! Video filter    not run, for a reason that is named above\n"));
    EXPECT_THAT(result.output, HasSubstr("\n\n1 problem found\n"));
    const ProgramResult ascii = ctl("doctor --ascii --installed");
    EXPECT_EQ(ascii.exitCode, 0u);
    const size_t at = ascii.output.find("+ Video filter"); // what stands before is the system's own
    ASSERT_NE(at, std::string::npos) << ascii.output;
    expectGolden("doctor-installed.txt", ascii.output.substr(at));
    for (const char c : ascii.output)
        ASSERT_LT(static_cast<unsigned char>(c), 128) << ascii.output;
}

TEST_F(Doctor, AnUnregisteredModuleIsNamedForBothFilters) {
    m_module.unregisterServer();
    const Report report = examine();
    EXPECT_EQ(report.bad(),
              (Names{"module.audio.class", "module.audio.list", "module.video.class", "module.video.list"}));
    EXPECT_THAT(report["module.video.class"].remedy, ContainsRegex("as administrator: regsvr32 .*KestraCapture.dll"));
    EXPECT_EQ(report["run.video"].mark, "note") << "cannot be run, and that has been said";
}

TEST_F(Doctor, AFilterThatLacksInItsCategoryIsNamed) {
    ComRef<IFilterMapper2> mapper;
    ASSERT_EQ(CoCreateInstance(CLSID_FilterMapper2, nullptr, CLSCTX_INPROC_SERVER, IID_IFilterMapper2,
                               reinterpret_cast<void**>(mapper.out())),
              S_OK);
    const CLSID category = CLSID_AudioInputDeviceCategory;
    ASSERT_EQ(mapper->UnregisterFilter(&category, nullptr, kAudioFilter), S_OK);
    const Report report = examine("--installed");
    EXPECT_EQ(report.bad(), Names{"module.audio.list"});
}

TEST_F(Doctor, ARegisteredFileThatIsMissingIsNamed) {
    for (const wchar_t* server : {kVideoServer, kAudioServer})
        setServer(server, L"C:\\nowhere\\KestraCapture.dll");
    const Report report = examine();
    EXPECT_EQ(report.bad(), Names{"module.file"});
    EXPECT_EQ(report["module.file"].found, "registered as C:\\nowhere\\KestraCapture.dll, which is not there");
}

TEST_F(Doctor, FiltersOfTwoFilesAreNamed) {
    setServer(kAudioServer, L"C:\\nowhere\\KestraCapture.dll");
    const Report report = examine("--installed");
    EXPECT_EQ(report.bad(), Names{"module.file"});
    EXPECT_THAT(report["module.file"].found, HasSubstr("from two files"));
}

TEST_F(Doctor, AFileThatIsNoModuleIsNamed) {
    wchar_t folder[MAX_PATH];
    GetTempPathW(MAX_PATH, folder);
    const std::filesystem::path path = std::filesystem::path(folder) / L"KestraCapture.dll";
    std::ofstream(path) << "no program";
    for (const wchar_t* server : {kVideoServer, kAudioServer})
        setServer(server, path.wstring());
    const Report report = examine("--installed");
    EXPECT_EQ(report.bad(), Names{"module.loads"});
    EXPECT_THAT(report["module.loads"].found, HasSubstr("cannot be loaded: "));
    std::filesystem::remove(path);
}

TEST_F(Doctor, ADllThatIsNoServerIsNamed) {
    for (const wchar_t* server : {kVideoServer, kAudioServer})
        setServer(server, L"C:\\windows\\system32\\version.dll");
    const Report report = examine("--installed");
    EXPECT_EQ(report.bad(), Names{"module.loads"});
    EXPECT_EQ(report["module.loads"].mark, "bad");
}

TEST_F(Doctor, PagesThatAreNotRegisteredAreNamed) {
    RegDeleteTreeW(HKEY_CLASSES_ROOT, L"CLSID\\{775AF2A3-0280-40F2-BA54-7EB3AECC5BBD}");
    EXPECT_EQ(examine("--installed").bad(), Names{"module.pages"});
}

TEST_F(Doctor, AnInstallerNeedsNoCard) {
    m_card.unplug();
    m_second.unplug();
    EXPECT_EQ(examine("--installed").bad(), Names{});
    m_module.unregisterServer();
    EXPECT_EQ(examine("--installed").bad().size(), 4u);
}

TEST_F(Doctor, ACardThatIsNotThereIsNamed) {
    m_card.unplug();
    m_second.unplug();
    const Report report = examine();
    EXPECT_EQ(report.bad(), Names{"driver"});
    EXPECT_EQ(report["driver"].found, "has been installed, but no card is there");
}

TEST_F(Doctor, ACardThatRefusesToOpenIsNamed) {
    useOneCard();
    Fault refusal{};
    refusal.kind = FaultKind::RefuseOpen;
    refusal.count = kForever;
    m_card.addFault(refusal);
    const Report report = examine();
    EXPECT_EQ(report.bad(), Names{"card.0.opens"});
    EXPECT_THAT(report["card.0.opens"].found, HasSubstr("cannot be opened: "));
}

TEST_F(Doctor, ACardWhoseDriverFailsIsNamed) {
    useOneCard();
    m_card.failNext(wire::kVideoStatus, kStatusUnsuccessful, kForever);
    const Report report = examine();
    EXPECT_EQ(report.bad(), Names{"card.0.opens"});
    EXPECT_THAT(report["card.0.opens"].found, HasSubstr("its driver failed"));
}

TEST_F(Doctor, ASignalThatIsMissingIsNamed) {
    useOneCard();
    m_card.setSignal({});
    EXPECT_EQ(examine().bad(), Names{"card.0.signal"});
    m_second.plug(); // with a signal: what the other one lacks is no problem then
    const Report both = examine();
    EXPECT_EQ(both.bad(), Names{});
    EXPECT_EQ(both["card.0.signal"].mark, "note");
    EXPECT_THAT(both["run.video"].found, HasSubstr("runs: "));
}

TEST_F(Doctor, ASignalThatHasNotSettledIsNamed) {
    useOneCard();
    Signal signal = kDefaultSignal;
    signal.videoMode = 254;
    m_card.setSignal(signal);
    EXPECT_EQ(examine().bad(), Names{"card.0.signal"});
}

TEST_F(Doctor, SoundThatIsMissingIsNamed) {
    useOneCard();
    Signal signal = kDefaultSignal;
    signal.audio = 0;
    m_card.setSignal(signal);
    const Report report = examine();
    EXPECT_EQ(report.bad(), Names{"card.0.audio"});
    EXPECT_EQ(report["run.audio"].mark, "note");
    EXPECT_THAT(report["run.video"].found, HasSubstr("runs: "));
}

TEST_F(Doctor, AChannelThatAnotherProgramGrabsIsNamedAndGoesOn) {
    useOneCard();
    RawClient client(m_card.devicePath());
    ASSERT_EQ(client.openError(), 0u);
    ASSERT_EQ(client.openSession(), 0u);
    RawStream stream(client, 0, TARNIS_OUTPUT_YUV422_8);
    ASSERT_EQ(stream.start(), 0u);
    int frames = 0, notGood = 0;
    const auto take = [&] {
        wire::LockBufferReply reply{};
        ASSERT_EQ(stream.lock(reply), 0u);
        ++frames;
        notGood += reply.dmaStatus != DMA_STATUS_GOOD;
        ASSERT_EQ(stream.unlock(reply.bufferId), 0u);
    };
    take();
    std::atomic<bool> examined = false;
    Report report{};
    std::thread doctor([&] {
        report = examine();
        examined = true;
    });
    while (!examined && !HasFatalFailure())
        take();
    doctor.join();
    EXPECT_EQ(report.bad(), Names{"card.0.picture"});
    EXPECT_EQ(report["card.0.picture"].found, "another program grabs its picture");
    EXPECT_EQ(report["run.video"].mark, "note");
    take();
    EXPECT_EQ(notGood, 0) << "of " << frames << " frames";
    EXPECT_EQ(m_card.state().channels[0].grabbing, 1u);
    EXPECT_EQ(stream.stop(), 0u);
}

TEST_F(Doctor, ADriverThatCannotGiveTheChannelIsNamed) {
    useOneCard();
    m_card.failNext(wire::kChannelAccess, kStatusUnsuccessful, kForever);
    EXPECT_EQ(examine().bad(), (Names{"card.0.picture", "card.0.sound"}));
}

TEST_F(Doctor, AFilterThatCannotStartIsNamed) {
    m_card.failNext(wire::kStartGrabbing, kStatusUnsuccessful, kForever);
    const Report report = examine();
    EXPECT_EQ(report.bad(), (Names{"run.audio", "run.video"}));
    EXPECT_EQ(report["run.video"].found, "cannot be started (0x8000FFFF), though the card is free");
}

TEST_F(Doctor, AFilterThatStartsAndBringsNothingIsNamed) {
    Fault silence{};
    silence.kind = FaultKind::NeverComplete;
    silence.code = wire::kLockBuffer;
    silence.count = kForever;
    m_card.addFault(silence);
    const Report report = examine();
    EXPECT_EQ(report.bad(), (Names{"run.audio", "run.video"}));
    EXPECT_EQ(report["run.audio"].found, "starts, and not one sample comes");
}

TEST_F(Doctor, AFilterThatHangsIsEnded) {
    Fault hang{};
    hang.kind = FaultKind::NeverComplete;
    hang.code = wire::kStartGrabbing;
    hang.count = 1;
    m_card.addFault(hang);
    const Report report = examine();
    EXPECT_EQ(report.bad(), Names{"run.video"});
    EXPECT_THAT(report["run.video"].found, HasSubstr("it did not come to an end within"));
    EXPECT_TRUE(waitUntil([&] { return m_card.state().clients == 0; }, std::chrono::seconds(30)));
}

TEST_F(Doctor, AChoiceThatStandsForNoFormatIsNamedAndLeftAsItIs) {
    store(kFormats, L"VideoFormat", 7);
    ASSERT_EQ(RegSetKeyValueW(HKEY_CURRENT_USER, kFormats, L"AudioFormat", REG_SZ, L"1", 4), ERROR_SUCCESS);
    const Report report = examine();
    EXPECT_EQ(report.bad(), (Names{"formats.audio", "formats.video"}));
    EXPECT_EQ(report["formats.video"].found, "VideoFormat holds 7, which stands for no format");
    EXPECT_EQ(report["formats.audio"].found, "AudioFormat holds no number, which stands for no format");
    EXPECT_EQ(stored(L"VideoFormat"), 7u);
    DWORD type = 0;
    RegGetValueW(HKEY_CURRENT_USER, kFormats, L"AudioFormat", RRF_RT_ANY, &type, nullptr, nullptr);
    EXPECT_EQ(type, DWORD{REG_SZ});
}

TEST_F(Doctor, SoundOf24BitsIsMentioned) {
    store(kFormats, L"AudioFormat", 1);
    const Report report = examine();
    EXPECT_EQ(report.bad(), Names{});
    EXPECT_EQ(report["formats.audio"].mark, "note");
    EXPECT_THAT(report["formats.audio"].found, HasSubstr("FFmpeg"));
    EXPECT_THAT(report["run.audio"].found, HasSubstr("runs: ")) << "the filter runs in 24 bits";
}

TEST_F(Doctor, ALogWithoutItsFolderIsMentioned) {
    store(kLog, L"FileOutDetail", 2);
    const std::wstring folder = L"C:\\nowhere\\";
    RegSetKeyValueW(HKEY_CURRENT_USER, kLog, L"LogDir", REG_SZ, folder.c_str(), DWORD((folder.size() + 1) * 2));
    const Report report = examine();
    RegDeleteTreeW(HKEY_CURRENT_USER, kLog);
    EXPECT_EQ(report["log"].mark, "note");
    EXPECT_EQ(report["log"].found, "on, but its folder is not there: C:\\nowhere\\");
    std::filesystem::remove("TARNIS.txt"); // where it is written then
}

TEST_F(Doctor, OneCardAloneIsExaminedIfAsked) {
    m_card.setSignal({});
    const Report report = examine("--card 1");
    EXPECT_EQ(report.bad(), Names{});
    EXPECT_EQ(report["card.0.opens"].mark, "(none)");
    EXPECT_EQ(report["card.1.opens"].mark, "good");
}

} // namespace kestra::test
