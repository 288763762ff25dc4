// The log as configured in the registry: its lifetime, its outputs and what they write.
#include "tests/support/debug_output_capture.h"
#include "tests/support/process_counts.h"
#include "tests/support/registry_sandbox.h"
#include "tests/support/scoped_import_hook.h"
#include "tests/unit/log_folder.h"

#include "log/engine.h"

#include <gmock/gmock.h>

#include <ctime>

using namespace kestra;
using namespace kestra::test;
using testing::ElementsAre;

namespace {

constexpr wchar_t kLogKey[] = L"Software\\Quorvane\\TARNIS\\SDK\\Log";

/// The outputs as configured in the registry, in a folder of their own.
class LogConfigurationTest : public LogFolder {
protected:
    LogConfigurationTest()
        : m_userHook("advapi32.dll", "RegOpenCurrentUser", [](REGSAM access, PHKEY key) -> LSTATUS {
              return RegOpenKeyExW(HKEY_CURRENT_USER, nullptr, 0, access, key);
          }) {
        EXPECT_TRUE(m_userHook.installed());
    }
    ~LogConfigurationTest() override {
        while (logFindEngine(kTarnisLogHandle))
            LogClose(kTarnisLogHandle);
    }
    void set(const wchar_t* name, DWORD value) { m_registry.setDword(kLogKey, name, value); }
    static void log(uint32_t severity, const wchar_t* message) {
        static constexpr LogUnit unit{"group", L".\\unit.cpp"};
        KESTRA_LOG(unit, "function", severity, 1, L"%ls", message);
    }
    /// A line of level 3 with its source line number, which changes with every edit, replaced by "#".
    static std::wstring maskSourceLine(const std::wstring& line) {
        const size_t end = line.find(L';'), begin = line.rfind(L',', end);
        return line.substr(0, begin + 1) + L"#" + line.substr(end);
    }
    std::vector<std::wstring> fileLines() { return linesOf(m_folder / "TARNIS.txt"); }

    RegistrySandbox m_registry;
    ScopedImportHook<decltype(&RegOpenCurrentUser)> m_userHook;
    DebugOutputCapture m_debug;
};

} // namespace

TEST_F(LogConfigurationTest, AbsentKeyMeansThatNothingIsEverWritten) {
    EXPECT_FALSE(logLoadConfiguration());
    EXPECT_EQ(logFindEngine(kTarnisLogHandle), nullptr);
    EXPECT_FALSE(logAccepts(6));
    log(6, L"lost");
    EXPECT_THAT(m_debug.lines(), ElementsAre(L"Open registry key\n",
                                             L"RegOpenKeyEx(\"\\Software\\Quorvane\\TARNIS\\SDK\\Log\") failed (2)\n"));
    EXPECT_TRUE(std::filesystem::is_empty(m_folder));
}

TEST_F(LogConfigurationTest, UserRootThatCannotBeOpenedIsReported) {
    const ScopedImportHook<decltype(&RegOpenCurrentUser)> hook(
        "advapi32.dll", "RegOpenCurrentUser", [](REGSAM, PHKEY) -> LSTATUS { return ERROR_ACCESS_DENIED; });
    EXPECT_FALSE(logLoadConfiguration());
    EXPECT_THAT(m_debug.lines(), ElementsAre(L"Open registry key\n", L"RegOpenCurrentUser failed (5)\n"));
}

TEST_F(LogConfigurationTest, FileDetailThreeWritesTheOpeningLineAndOneLineARecord) {
    set(L"FileOutDetail", 3);
    ASSERT_TRUE(logLoadConfiguration());
    log(LOG_ERROR, L"hGrabber is NULL");
    log(LOG_WARNING, L"below the default threshold");
    LogClose(kTarnisLogHandle);
    const auto lines = fileLines();
    ASSERT_EQ(lines.size(), 3u);
    const std::wstring host = std::wstring(L" for: ") + GetCommandLineW();
    EXPECT_EQ(maskSourceLine(lines[0]), L"F=.\\LogEngine.cpp,LogEngine::Initialize,#; SV=MANDATORY; CD=0; MSG=   "
                                        L">>>>>>>>>>>>>>>>> Open the log channels: File_Output" +
                                            host);
    EXPECT_EQ(maskSourceLine(lines[1]), L"F=.\\unit.cpp,function,#; SV=ERROR; CD=1; MSG=hGrabber is NULL");
    EXPECT_EQ(maskSourceLine(lines[2]), L"F=.\\LogEngine.cpp,LogEngine::Close,#; SV=MANDATORY; CD=0; MSG=   "
                                        L"<<<<<<<<<<<<<<<<< Close the log channels: File_Output" +
                                            host);
    EXPECT_EQ(m_debug.lines().size(), 1u) << "nothing but the first line of the configuration load";
}

TEST_F(LogConfigurationTest, ThresholdNineBehavesAsFourAndTwoLetsNoticeThrough) {
    set(L"FileOutDetail", 1);
    for (const auto& [threshold, expected] : {std::pair{9u, 2}, std::pair{2u, 4}, std::pair{0u, 6}}) {
        std::filesystem::remove(m_folder / "TARNIS.txt");
        set(L"FileSeverityThrsh", threshold);
        ASSERT_TRUE(logLoadConfiguration());
        for (uint32_t severity = 0; severity <= 5; ++severity)
            log(severity, L"x");
        LogClose(kTarnisLogHandle);
        EXPECT_EQ(fileLines().size(), size_t(expected) + 2) << "threshold " << threshold;
    }
}

TEST_F(LogConfigurationTest, AllThreeChannelsOpenInOrder) {
    set(L"SysOutDetail", 1);
    set(L"FileOutDetail", 1);
    set(L"IdeOutDetail", 2);
    set(L"IdeSeverityThrsh", 3);
    ASSERT_TRUE(logLoadConfiguration());
    log(LOG_WARNING, L"seen by the debugger");
    const std::wstring host = std::wstring(L" for: ") + GetCommandLineW();
    // The debugger's channel opens with the threshold ERROR, so it gets the announcement as well.
    EXPECT_THAT(m_debug.lines(), ElementsAre(L"Open registry key\n",
                                             L"SV=MANDATORY; CD=0; MSG=   >>>>>>>>>>>>>>>>> Open the log channels: "
                                             L"System_Output_Stub, File_Output, IDE_Output" +
                                                 host + L"\n",
                                             L"SV=WARNING; CD=1; MSG=seen by the debugger\n"));
    EXPECT_EQ(logFindEngine(kTarnisLogHandle)->minimumSeverity(), 3u);
    LogClose(kTarnisLogHandle);
    EXPECT_EQ(fileLines().at(0), L"MANDATORY: 0;    >>>>>>>>>>>>>>>>> Open the log channels: System_Output_Stub, "
                                 L"File_Output, IDE_Output" +
                                     host);
}

TEST_F(LogConfigurationTest, ConfiguredDirectoryIsUsed) {
    std::filesystem::create_directory(m_folder / "logs");
    m_registry.setText(kLogKey, L"LogDir", (m_folder / "logs").wstring() + L"\\");
    set(L"FileOutDetail", 2);
    ASSERT_TRUE(logLoadConfiguration());
    EXPECT_TRUE(std::filesystem::exists(m_folder / "logs" / "TARNIS.txt"));
}

TEST_F(LogConfigurationTest, DirectoryWithoutATerminatorIsReadAsFarAsItGoes) {
    set(L"FileOutDetail", 1);
    const std::wstring directory = (m_folder / L"d").wstring() + L"\\";
    std::filesystem::create_directory(directory);
    // No null follows it in the registry either: the system would append it.
    m_registry.setRaw(kLogKey, L"LogDir", REG_SZ, (directory + L"x").c_str(),
                      static_cast<DWORD>(directory.size() * sizeof(wchar_t)));
    ASSERT_TRUE(logLoadConfiguration());
    EXPECT_TRUE(std::filesystem::exists(directory + L"TARNIS.txt"));
    EXPECT_FALSE(std::filesystem::exists(m_folder / "TARNIS.txt"));
}

TEST_F(LogConfigurationTest, LineBreaksInAMessageForgeNoRecord) {
    set(L"FileOutDetail", 1);
    set(L"IdeOutDetail", 1);
    ASSERT_TRUE(logLoadConfiguration());
    log(LOG_ERROR, L"cannot open C:\\x\r\nERROR: 2; forged\n\u2028");
    LogClose(kTarnisLogHandle);
    const auto lines = fileLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], L"ERROR: 1; cannot open C:\\x  ERROR: 2; forged  ");
    EXPECT_TRUE(m_debug.contains(lines[1] + L"\n"));
}

TEST_F(LogConfigurationTest, LineBreaksInTheCommandLineForgeNoRecord) {
    set(L"FileOutDetail", 1);
    static wchar_t commandLine[] = L"player.exe \r\nERROR: 2; forged";
    const ScopedImportHook<decltype(&GetCommandLineW)> hook(kKernel, "GetCommandLineW",
                                                            []() -> LPWSTR { return commandLine; });
    ASSERT_TRUE(hook.installed());
    ASSERT_TRUE(logLoadConfiguration());
    LogClose(kTarnisLogHandle);
    EXPECT_THAT(fileLines(),
                ElementsAre(L"MANDATORY: 0;    >>>>>>>>>>>>>>>>> Open the log channels: File_Output for: player.exe   "
                            L"ERROR: 2; forged",
                            L"MANDATORY: 0;    <<<<<<<<<<<<<<<<< Close the log channels: File_Output for: player.exe   "
                            L"ERROR: 2; forged"));
}

TEST_F(LogConfigurationTest, GarbageValuesFallBackToTheDefaults) {
    const wchar_t five[] = L"5";
    const uint8_t two[] = {1, 0};
    const uint64_t big = 3;
    m_registry.setRaw(kLogKey, L"SysOutDetail", REG_SZ, five, sizeof five);
    m_registry.setRaw(kLogKey, L"IdeOutDetail", REG_DWORD, two, sizeof two);
    m_registry.setRaw(kLogKey, L"IdeSeverityThrsh", REG_QWORD, &big, sizeof big);
    EXPECT_FALSE(logLoadConfiguration()) << "no channel is configured";

    set(L"FileOutDetail", 1);
    m_registry.setRaw(kLogKey, L"FileSeverityThrsh", REG_BINARY, &big, 4);
    const std::wstring elsewhere = (m_folder / "elsewhere").wstring() + L"\\", tooLong(300, L'x');
    std::filesystem::create_directory(m_folder / "elsewhere");
    const auto bytes = static_cast<DWORD>((elsewhere.size() + 1) * sizeof(wchar_t));
    for (int kind = 0; kind < 3; ++kind) {
        if (kind == 0) m_registry.setRaw(kLogKey, L"LogDir", REG_EXPAND_SZ, elsewhere.c_str(), bytes);
        if (kind == 1) m_registry.setText(kLogKey, L"LogDir", tooLong);
        if (kind == 2) set(L"LogDir", 7);
        std::filesystem::remove(m_folder / "TARNIS.txt");
        ASSERT_TRUE(logLoadConfiguration());
        EXPECT_EQ(logFindEngine(kTarnisLogHandle)->minimumSeverity(), 4u);
        LogClose(kTarnisLogHandle);
        EXPECT_TRUE(std::filesystem::exists(m_folder / "TARNIS.txt")) << kind;
    }
    EXPECT_TRUE(std::filesystem::is_empty(m_folder / "elsewhere"));
}

TEST_F(LogConfigurationTest, FileChannelThatFailsLeavesTheOthersWorking) {
    std::filesystem::create_directory(m_folder / "TARNIS.txt");
    set(L"SysOutDetail", 1);
    set(L"FileOutDetail", 1);
    set(L"IdeOutDetail", 1);
    ASSERT_TRUE(logLoadConfiguration());
    log(LOG_ERROR, L"still here");
    EXPECT_EQ(logFindEngine(kTarnisLogHandle)->find(LogOutput::kFile), nullptr);
    EXPECT_EQ(LogClose(kTarnisLogHandle), 0);
    const std::wstring channels = std::wstring(L"System_Output_Stub, IDE_Output for: ") + GetCommandLineW();
    EXPECT_THAT(m_debug.lines(),
                ElementsAre(L"Open registry key\n",
                            L"MANDATORY: 0;    >>>>>>>>>>>>>>>>> Open the log channels: " + channels + L"\n",
                            L"ERROR: 1; still here\n",
                            L"MANDATORY: 0;    <<<<<<<<<<<<<<<<< Close the log channels: " + channels + L"\n"));
    EXPECT_TRUE(std::filesystem::is_empty(m_folder / "TARNIS.txt"));
}

TEST_F(LogConfigurationTest, FileChannelThatLosesItsLineLeavesItToTheDebugger) {
    set(L"FileOutDetail", 1);
    set(L"IdeOutDetail", 1);
    ASSERT_TRUE(logLoadConfiguration());
    m_debug.clear();
    {
        const ScopedImportHook<decltype(&WaitForSingleObject)> hook(
            kKernel, "WaitForSingleObject", [](HANDLE, DWORD) -> DWORD { return WAIT_TIMEOUT; });
        ASSERT_TRUE(hook.installed());
        log(LOG_ERROR, L"not in the file");
    }
    log(LOG_ERROR, L"in both");
    EXPECT_THAT(m_debug.lines(), ElementsAre(L"ERROR: 1; not in the file\n", L"ERROR: 1; in both\n"));
    LogClose(kTarnisLogHandle);
    const std::wstring channels = std::wstring(L"File_Output, IDE_Output for: ") + GetCommandLineW();
    EXPECT_THAT(fileLines(), ElementsAre(L"MANDATORY: 0;    >>>>>>>>>>>>>>>>> Open the log channels: " + channels,
                                         L"ERROR: 1; in both",
                                         L"MANDATORY: 0;    <<<<<<<<<<<<<<<<< Close the log channels: " + channels));
}

TEST_F(LogConfigurationTest, NoChannelThatOpensMeansThatOpeningFails) {
    std::filesystem::create_directory(m_folder / "TARNIS.txt");
    set(L"FileOutDetail", 5);
    EXPECT_FALSE(logLoadConfiguration());
    EXPECT_EQ(logFindEngine(kTarnisLogHandle), nullptr);
    EXPECT_FALSE(logAccepts(6));
    EXPECT_THAT(m_debug.lines(), ElementsAre(L"Open registry key\n"));
}

TEST_F(LogConfigurationTest, LevelFiveWritesEveryFieldOfALogPoint) {
    set(L"FileOutDetail", 5);
    set(L"FileSeverityThrsh", 0);
    ASSERT_TRUE(logLoadConfiguration());
    const auto from = static_cast<uint32_t>(_time64(nullptr)) - 5;
    log(LOG_WARNING, L"grün");
    static constexpr LogUnit unit{"\"Grabbing Functions\"", L".\\TARNIS_grab.cpp"};
    KESTRA_LOG_AT(77, unit, "TARNIS_GetDMAAccess", LOG_TRACE, 0x444D412B, L"Channel %d already opened", 1);
    LogClose(kTarnisLogHandle);
    const std::vector<std::wstring> lines = fileLines();
    ASSERT_EQ(lines.size(), 4u);
    const std::wstring who = std::to_wstring(GetCurrentProcessId()) + L":" + std::to_wstring(GetCurrentThreadId());
    const std::wstring opening = L"   >>>>>>>>>>>>>>>>> Open the log channels: File_Output for: ";
    const std::wstring closing = L"   <<<<<<<<<<<<<<<<< Close the log channels: File_Output for: ";
    // Message length, nesting and what stands between the time and the source line; then the rest.
    const struct {
        std::wstring message, nesting, source, rest;
    } expected[] = {
        {opening + GetCommandLineW(), L"0", L"LogEngine,TARNIS; F=.\\LogEngine.cpp,LogEngine::Initialize",
         L"SV=MANDATORY; CD=0"},
        {L"grün", L"-1", L"group,TARNIS; F=.\\unit.cpp,function", L"SV=WARNING; CD=1"},
        {L"Channel 1 already opened", L"-1", L"\"Grabbing Functions\",TARNIS; F=.\\TARNIS_grab.cpp,TARNIS_GetDMAAccess",
         L"SV=TRACE; CD=1145913643"},
        {closing + GetCommandLineW(), L"-1", L"LogEngine,TARNIS; F=.\\LogEngine.cpp,LogEngine::Close",
         L"SV=MANDATORY; CD=0"},
    };
    for (size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        unsigned long long identifier = 0;
        int day = 0, month = 0, year = 0, hour = 0, minute = 0, second = 0, millisecond = 0, line = 0;
        const std::wstring message = expected[i].message.substr(0, 511);
        const std::wstring before = L"; ML=" + std::to_wstring(message.size()) + L"; PT=" + who + L"; NL=" +
                                    expected[i].nesting + L"; TM=",
                           between = L"; MN=" + expected[i].source + L",";
        const std::wstring& text = lines[i];
        ASSERT_EQ(std::swscanf(text.c_str(), L"{%llX}", &identifier), 1) << text;
        const size_t time = text.find(before), source = text.find(between);
        ASSERT_NE(time, std::wstring::npos) << text;
        ASSERT_NE(source, std::wstring::npos) << text;
        ASSERT_EQ(std::swscanf(text.c_str() + time + before.size(), L"%2d.%2d.%4d %2d:%2d:%2d.%d", &day, &month, &year,
                               &hour, &minute, &second, &millisecond),
                  7);
        ASSERT_EQ(std::swscanf(text.c_str() + source + between.size(), L"%d", &line), 1);
        wchar_t mark[32], when[64];
        std::swprintf(mark, 32, L"{%llX}", identifier);
        std::swprintf(when, 64, L"%02d.%02d.%d %02d:%02d:%02d.%d", day, month, year, hour, minute, second, millisecond);
        EXPECT_EQ(text, mark + before + when + between + std::to_wstring(line) + L"; " + expected[i].rest + L"; MSG=" +
                            message);
        EXPECT_EQ(identifier >> 44, GetCurrentThreadId());
        const auto first = static_cast<uint32_t>(identifier & 0x3FFFF);
        EXPECT_LE((first - from) & 0x3FFFF, 30u) << "seconds since shortly before the log was opened";
        if (i == 2) {
            EXPECT_EQ(line, 77);
        }
    }
}

TEST_F(LogConfigurationTest, HandleZeroMakesItsOwnEngineNamedAfterTheLibrary) {
    ASSERT_EQ(LogOpen(0, L"Other", nullptr, 0, 0, 0, 2, 0), 0);
    LogRecord r = today(3);
    r.message = L"text";
    r.threadId = 1;
    EXPECT_EQ(LogSend(0xFFFFFFFF, r), 0u);
    EXPECT_EQ(LogOpen(0, L"Other", nullptr, 0, 0, 0, 0, 0), 0) << "one more user";
    EXPECT_EQ(LogClose(0xFFFFFFFF), 0);
    EXPECT_EQ(LogSend(0, r), 0u) << "one is left";
    EXPECT_EQ(LogClose(0), 0);
    EXPECT_EQ(LogSend(0, r), 0xFFFFFFFF);
    const std::wstring channels = std::wstring(L"File_Output for: ") + GetCommandLineW();
    EXPECT_THAT(fileLines(),
                ElementsAre(L"SV=MANDATORY; CD=0; MSG=   >>>>>>>>>>>>>>>>> Open the log channels: " + channels,
                            L"SV=WARNING; CD=-1; MSG=text", L"SV=WARNING; CD=-1; MSG=text",
                            L"SV=MANDATORY; CD=0; MSG=   <<<<<<<<<<<<<<<<< Close the log channels: " + channels));
}

TEST_F(LogConfigurationTest, EngineWithoutASlotIsInitialisedByTheNextOpen) {
    LogEngine* engine = logFindOrCreateEngine(kTarnisLogHandle);
    ASSERT_EQ(LogOpen(kTarnisLogHandle, L"TARNIS", nullptr, 0, 0, 1, 0, 0), 0);
    EXPECT_EQ(logFindEngine(kTarnisLogHandle), engine);
    EXPECT_EQ(engine->openCount, 0u);
    ASSERT_EQ(engine->slotCount(), 1u);
    EXPECT_EQ(engine->slot(0)->type(), LogOutput::kSystem);
}

TEST_F(LogConfigurationTest, ConfigurationKeyIsOpenedForReadingOnly) {
    static REGSAM rootAccess, keyAccess;
    rootAccess = keyAccess = 0;
    const ScopedImportHook<decltype(&RegOpenCurrentUser)> root("advapi32.dll", "RegOpenCurrentUser",
                                                               [](REGSAM access, PHKEY key) -> LSTATUS {
                                                                   rootAccess = access;
                                                                   *key = nullptr;
                                                                   return ERROR_SUCCESS;
                                                               });
    const ScopedImportHook<decltype(&RegOpenKeyExW)> hook("advapi32.dll", "RegOpenKeyExW",
                                                          [](HKEY, LPCWSTR, DWORD, REGSAM access, PHKEY) -> LSTATUS {
                                                              keyAccess = access;
                                                              return ERROR_ACCESS_DENIED;
                                                          });
    ASSERT_TRUE(root.installed());
    ASSERT_TRUE(hook.installed());
    EXPECT_FALSE(logLoadConfiguration());
    EXPECT_EQ(rootAccess, REGSAM{KEY_READ});
    EXPECT_EQ(keyAccess, REGSAM{KEY_READ});
    EXPECT_THAT(m_debug.lines(), ElementsAre(L"Open registry key\n",
                                             L"RegOpenKeyEx(\"\\Software\\Quorvane\\TARNIS\\SDK\\Log\") failed (5)\n"));
}

TEST_F(LogConfigurationTest, LifetimeOpensAndClosesAndLeavesNoHandle) {
    set(L"FileOutDetail", 1);
    { const LogLifetime first; } // things made once per process are made here
    const int handles = processCounts().handles;
    for (int i = 0; i < 20; ++i) {
        const LogLifetime life;
        EXPECT_TRUE(logAccepts(LOG_ERROR));
        log(LOG_ERROR, L"x");
    }
    EXPECT_FALSE(logAccepts(6));
    EXPECT_EQ(processCounts().handles, handles);
}

TEST_F(LogConfigurationTest, LifetimeWithoutConfigurationClosesNothing) {
    ASSERT_EQ(LogOpen(0, L"TARNIS", nullptr, 0, 0, 1, 0, 0), 0);
    { const LogLifetime life; }
    EXPECT_NE(logFindEngine(0), nullptr) << "another's";
    EXPECT_EQ(LogClose(0), 0);
}

TEST_F(LogConfigurationTest, LoggingKeepsTheCallersLastError) {
    set(L"FileOutDetail", 5);
    ASSERT_TRUE(logLoadConfiguration());
    SetLastError(1234);
    log(LOG_ERROR, L"x");
    EXPECT_EQ(GetLastError(), 1234u);
}
