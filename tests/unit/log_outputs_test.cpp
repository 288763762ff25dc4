// The log outputs, with real system calls where possible and failing ones where needed.
#include "tests/support/debug_output_capture.h"
#include "tests/support/process_counts.h"
#include "tests/support/scoped_import_hook.h"
#include "tests/support/wait_until.h"
#include "tests/unit/log_folder.h"

#include "log/engine.h"
#include "log/file_output.h"
#include "log/platform.h"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include <sys/timeb.h>

using namespace kestra;
using namespace kestra::test;
using testing::ElementsAre;

namespace {

uint32_t writeLine(FileOutput& output, const std::wstring& line, const LogRecord& record) {
    return output.write(line.c_str(), line.size(), record);
}

using LogFile = LogFolder;

constexpr FileOutput::Options kDaily{.dailyNames = true};

} // namespace

TEST(LogDebuggerChannel, SendsTheLineThenALineFeed) {
    DebugOutputCapture capture;
    IDEOutput output;
    EXPECT_STREQ(output.name(), L"IDE_Output");
    EXPECT_EQ(output.type(), LogOutput::kDebugger);
    EXPECT_EQ(output.threshold(), 4u);
    EXPECT_EQ(output.write(L"text", 4, {}), 0u);
    EXPECT_THAT(capture.lines(), ElementsAre(L"text\n")) << "in one call";
}

namespace {

IDEOutput* g_logging;
std::atomic<int> g_handled;

/// Logs once from within the exception that carries a text to a debugger.
LONG CALLBACK logFromTheHandler(EXCEPTION_POINTERS*) {
    if (g_handled++ == 0) g_logging->write(L"inner", 5, {});
    return EXCEPTION_CONTINUE_SEARCH;
}

} // namespace

TEST(LogDebuggerChannel, HandlerThatLogsWhileTheTextIsSentDoesNotHangTheThread) {
    static std::atomic<bool> written; // outlives a thread that hangs
    static IDEOutput output;
    written = false;
    g_handled = 0;
    g_logging = &output;
    const DebugOutputCapture capture;
    void* const handler = AddVectoredExceptionHandler(1, logFromTheHandler);
    std::thread writing([] {
        output.write(L"outer", 5, {});
        written = true;
    });
    const bool inTime = waitUntil([] { return written.load(); });
    RemoveVectoredExceptionHandler(handler);
    if (inTime)
        writing.join();
    else
        writing.detach();
    ASSERT_TRUE(inTime);
    std::wstring text;
    for (const std::wstring& part : capture.lines())
        text += part;
    EXPECT_EQ(text, L"inner\nouter\n");
}

TEST(LogSystemChannel, AcceptsTheLineAndWritesNothing) {
    DebugOutputCapture capture;
    EventOutput output;
    EXPECT_STREQ(output.name(), L"System_Output_Stub");
    EXPECT_EQ(output.type(), LogOutput::kSystem);
    EXPECT_EQ(output.threshold(), 0u);
    EXPECT_EQ(output.open(), 0u);
    EXPECT_EQ(output.write(L"text", 4, {}), 0u);
    EXPECT_TRUE(capture.lines().empty());
}

TEST_F(LogFile, IsNamedAfterTheModuleInTheCurrentDirectory) {
    FileOutput output(L"TARNIS", nullptr);
    EXPECT_STREQ(output.name(), L"File_Output");
    EXPECT_EQ(output.threshold(), 0u);
    ASSERT_EQ(output.open(), 0u);
    EXPECT_EQ(writeLine(output, L"first", today()), 0u);
    EXPECT_EQ(writeLine(output, L"", today()), 0u);
    EXPECT_EQ(writeLine(output, L"ünïcode \u65E5", today()), 0u);
    output.close();
    EXPECT_THAT(linesOf(m_folder / "TARNIS.txt"), ElementsAre(L"first", L"", L"ünïcode \u65E5"));
}

TEST_F(LogFile, WithoutAModuleTagIsCalledZeLog) {
    FileOutput output(nullptr, nullptr);
    ASSERT_EQ(output.open(), 0u);
    EXPECT_TRUE(std::filesystem::exists(m_folder / "ZeLog.txt"));
}

TEST_F(LogFile, CurrentDirectoryThatIsARootOrTooLongStillHasAFile) {
    static std::wstring current;
    const ScopedImportHook<decltype(&GetCurrentDirectoryW)> hook(kKernel, "GetCurrentDirectoryW",
                                                                 [](DWORD room, LPWSTR text) -> DWORD {
                                                                     if (current.size() >= room)
                                                                         return static_cast<DWORD>(current.size() + 1);
                                                                     std::wcscpy(text, current.c_str());
                                                                     return static_cast<DWORD>(current.size());
                                                                 });
    ASSERT_TRUE(hook.installed());
    for (const std::wstring& directory : {m_folder.wstring() + L"\\", std::wstring(300, L'x'), std::wstring()}) {
        current = directory;
        FileOutput output(L"", nullptr);
        EXPECT_EQ(output.open(), 0u) << "else the process's own current directory";
        output.close();
        EXPECT_TRUE(std::filesystem::remove(m_folder / "ZeLog.txt"));
    }
}

TEST_F(LogFile, DirectoryThatIsFoundButTooLongMeansTheCurrentOne) {
    const ScopedImportHook<decltype(&SearchPathW)> hook(
        kKernel, "SearchPathW", [](LPCWSTR, LPCWSTR, LPCWSTR, DWORD, LPWSTR, LPWSTR*) -> DWORD { return 400; });
    ASSERT_TRUE(hook.installed());
    FileOutput output(L"TARNIS", m_folder.c_str());
    ASSERT_EQ(output.open(), 0u);
    EXPECT_TRUE(std::filesystem::exists(m_folder / "TARNIS.txt"));
}

TEST_F(LogFile, DirectoryThatAnotherMakesMeanwhileIsThere) {
    std::filesystem::create_directories(m_folder / "a");
    const std::wstring directory = (m_folder / "a").wstring() + L"\\";
    FileOutput output(L"TARNIS", directory.c_str());
    std::filesystem::remove(m_folder / "a");
    static decltype(&CreateDirectoryW) create;
    const ScopedImportHook<decltype(&CreateDirectoryW)> hook(kKernel, "CreateDirectoryW",
                                                             [](LPCWSTR path, LPSECURITY_ATTRIBUTES rights) -> BOOL {
                                                                 create(path, rights);
                                                                 return create(path, rights);
                                                             });
    ASSERT_TRUE(hook.installed());
    create = hook.original();
    EXPECT_EQ(output.open(), 0u);
    EXPECT_TRUE(std::filesystem::exists(m_folder / "a" / "TARNIS.txt"));
}

TEST_F(LogFile, OpeningAgainKeepsTheMutexAndTheFile) {
    FileOutput output(L"TARNIS", nullptr);
    ASSERT_EQ(output.open(), 0u);
    EXPECT_EQ(output.open(), 0u);
    EXPECT_EQ(writeLine(output, L"one", today()), 0u);
    output.close();
    const auto lines = linesOf(m_folder / "TARNIS.txt");
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(lines.back().ends_with(L"one"));
}

TEST_F(LogFile, ConfiguredDirectoryMustEndInABackslash) {
    std::filesystem::create_directory(m_folder / "logs");
    const std::wstring with = (m_folder / "logs").wstring() + L"\\", without = (m_folder / "logs").wstring();
    FileOutput inside(L"TARNIS", with.c_str()), beside(L"TARNIS", without.c_str());
    ASSERT_EQ(inside.open(), 0u);
    ASSERT_EQ(beside.open(), 0u);
    EXPECT_TRUE(std::filesystem::exists(m_folder / "logs" / "TARNIS.txt"));
    EXPECT_TRUE(std::filesystem::exists(m_folder / "logsTARNIS.txt"));
}

TEST_F(LogFile, DirectoryThatIsNotFoundMeansTheCurrentOne) {
    FileOutput output(L"TARNIS", L"Z:\\no\\such\\place\\");
    ASSERT_EQ(output.open(), 0u);
    EXPECT_TRUE(std::filesystem::exists(m_folder / "TARNIS.txt"));
}

TEST_F(LogFile, DirectoryThatVanishedIsMadeAgainWithItsParents) {
    std::filesystem::create_directories(m_folder / "a" / "b");
    const std::wstring directory = (m_folder / "a" / "b").wstring() + L"\\";
    FileOutput output(L"TARNIS", directory.c_str());
    std::filesystem::remove_all(m_folder / "a");
    ASSERT_EQ(output.open(), 0u);
    EXPECT_TRUE(std::filesystem::exists(m_folder / "a" / "b" / "TARNIS.txt"));
}

TEST_F(LogFile, DirectoryThatCannotBeMadeGivesItsErrorText) {
    std::filesystem::create_directories(m_folder / "a" / "b");
    const std::wstring directory = (m_folder / "a" / "b").wstring() + L"\\";
    FileOutput output(L"TARNIS", directory.c_str());
    std::filesystem::remove_all(m_folder / "a");
    std::ofstream(m_folder / "a") << "a file in the way";
    EXPECT_NE(output.open(), 0u);
    EXPECT_THAT(std::wstring(output.errorText()),
                testing::StartsWith(L"Can't create directory: " + directory + L"; error: "));
    EXPECT_EQ(writeLine(output, L"lost", today()), 0xFFFFFFFF);
}

TEST_F(LogFile, DailyNameCarriesTheDate) {
    FileOutput output(L"TARNIS", nullptr, kDaily);
    ASSERT_EQ(output.open(), 0u);
    const LogRecord now = today();
    wchar_t name[64];
    std::swprintf(name, 64, L"TARNIS_%02d_%02d_%04d.txt", now.day, now.month, now.year);
    EXPECT_TRUE(std::filesystem::exists(m_folder / name));
}

TEST_F(LogFile, RecordOfAnotherDayReopensTheFileUnderItsName) {
    FileOutput output(L"TARNIS", nullptr, kDaily);
    ASSERT_EQ(output.open(), 0u);
    LogRecord r = today();
    r.day = 2;
    r.month = 1;
    r.year = 2031;
    EXPECT_EQ(writeLine(output, L"new year", r), 0u);
    EXPECT_EQ(writeLine(output, L"same day", r), 0u);
    output.close();
    EXPECT_THAT(linesOf(m_folder / "TARNIS_02_01_2031.txt"), ElementsAre(L"new year", L"same day"));
}

TEST_F(LogFile, AnotherDayWithoutDailyNamesGoesOnInTheSameFile) {
    FileOutput output(L"TARNIS", nullptr);
    ASSERT_EQ(output.open(), 0u);
    writeLine(output, L"today", today());
    LogRecord r = today();
    r.year += 1;
    writeLine(output, L"next year", r);
    output.close();
    EXPECT_THAT(linesOf(m_folder / "TARNIS.txt"), ElementsAre(L"today", L"next year"));
}

TEST_F(LogFile, IsAppendedToUnlessItIsToBeMadeAnew) {
    for (const wchar_t* line : {L"one", L"two"}) {
        FileOutput output(L"TARNIS", nullptr);
        ASSERT_EQ(output.open(), 0u);
        writeLine(output, line, today());
    }
    EXPECT_THAT(linesOf(m_folder / "TARNIS.txt"), ElementsAre(L"one", L"two"));
    FileOutput anew(L"TARNIS", nullptr, {.createAnew = true});
    ASSERT_EQ(anew.open(), 0u);
    writeLine(anew, L"three", today());
    anew.close();
    EXPECT_THAT(linesOf(m_folder / "TARNIS.txt"), ElementsAre(L"three"));
}

namespace {
int g_flushes;
} // namespace

TEST_F(LogFile, IsFlushedAfterErrorsOnlyUnlessAlwaysWanted) {
    FileOutput output(L"TARNIS", nullptr);
    ASSERT_EQ(output.open(), 0u);
    g_flushes = 0;
    const ScopedImportHook<decltype(&FlushFileBuffers)> hook(kKernel, "FlushFileBuffers", [](HANDLE) -> BOOL {
        ++g_flushes;
        return TRUE;
    });
    ASSERT_TRUE(hook.installed());
    for (const uint32_t severity : {0u, 3u, 5u, 6u})
        writeLine(output, L"x", today(severity));
    EXPECT_EQ(g_flushes, 0) << "mandatory records are not flushed";
    writeLine(output, L"x", today(4));
    EXPECT_EQ(g_flushes, 1);
    output.close();
    EXPECT_EQ(g_flushes, 2) << "closing flushes";
    FileOutput always(L"TARNIS", nullptr, {.flushOnlyOnErrors = false});
    ASSERT_EQ(always.open(), 0u);
    writeLine(always, L"x", today(1));
    EXPECT_EQ(g_flushes, 3);
}

namespace {
DWORD g_longestWaitMs;

/// WaitForSingleObject while another process holds the mutex.
DWORD WINAPI waitInVain(HANDLE, DWORD ms) {
    g_longestWaitMs = std::max(g_longestWaitMs, ms);
    return WAIT_TIMEOUT;
}
} // namespace

TEST_F(LogFile, LineIsDroppedWhenTheMutexIsNotHadInTime) {
    FileOutput output(L"TARNIS", nullptr);
    ASSERT_EQ(output.open(), 0u);
    g_longestWaitMs = 0;
    {
        const ScopedImportHook<decltype(&WaitForSingleObject)> hook(kKernel, "WaitForSingleObject", waitInVain);
        ASSERT_TRUE(hook.installed());
        EXPECT_EQ(writeLine(output, L"dropped", today()), 0u);
    }
    EXPECT_EQ(g_longestWaitMs, 25000u);
    EXPECT_EQ(writeLine(output, L"kept", today()), 0u);
    output.close();
    EXPECT_THAT(linesOf(m_folder / "TARNIS.txt"), ElementsAre(L"kept"));
}

TEST_F(LogFile, MutexThatIsNeverGivenBackCostsOneLongWaitOnly) {
    FileOutput output(L"TARNIS", nullptr);
    ASSERT_EQ(output.open(), 0u);
    // The longest wait of a line, or of closing, while somebody keeps the mutex.
    const auto waitOf = [&](const wchar_t* line) {
        g_longestWaitMs = 0;
        const ScopedImportHook<decltype(&WaitForSingleObject)> hook(kKernel, "WaitForSingleObject", waitInVain);
        line ? (void)writeLine(output, line, today()) : output.close();
        return g_longestWaitMs;
    };
    EXPECT_EQ(waitOf(L"dropped"), 25000u);
    EXPECT_EQ(waitOf(L"dropped, too"), 10u) << "a grabbing thread may log a failure for every frame";
    EXPECT_EQ(writeLine(output, L"kept", today()), 0u) << "it is free again";
    EXPECT_EQ(waitOf(L"dropped again"), 25000u) << "and then it is waited for as before";
    EXPECT_EQ(waitOf(nullptr), 10u) << "closing happens while the module is unloaded";
    EXPECT_THAT(linesOf(m_folder / "TARNIS.txt"), ElementsAre(L"kept"));
}

TEST_F(LogFile, NameThatBelongsToAnotherObjectMeansNoFile) {
    const UniqueObject squatter(CreateEventW(nullptr, FALSE, FALSE, L"ZELIB_WRITING_MUTEX"));
    ASSERT_TRUE(squatter);
    FileOutput output(L"TARNIS", nullptr);
    EXPECT_EQ(output.open(), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_STREQ(output.errorText(), L"Can't open mutex: ZELIB_WRITING_MUTEX; error: 6");
    EXPECT_EQ(writeLine(output, L"lost", today()), 0xFFFFFFFF);
    EXPECT_FALSE(std::filesystem::exists(m_folder / "TARNIS.txt"));
}

TEST_F(LogFile, WithoutAFileRefusesALineWithoutAWait) {
    std::filesystem::create_directory(m_folder / "TARNIS.txt");
    FileOutput output(L"TARNIS", nullptr);
    ASSERT_NE(output.open(), 0u);
    g_longestWaitMs = 0;
    const ScopedImportHook<decltype(&WaitForSingleObject)> hook(kKernel, "WaitForSingleObject", waitInVain);
    ASSERT_TRUE(hook.installed());
    EXPECT_EQ(writeLine(output, L"lost", today()), 0xFFFFFFFF);
    EXPECT_EQ(g_longestWaitMs, 0u);
}

TEST_F(LogFile, MutexThatCannotBeOpenedOrMadeGivesItsErrorText) {
    {
        FileOutput output(L"TARNIS", nullptr);
        const ScopedImportHook<decltype(&OpenMutexW)> hook(kKernel, "OpenMutexW", [](DWORD, BOOL, LPCWSTR) -> HANDLE {
            SetLastError(ERROR_ACCESS_DENIED);
            return nullptr;
        });
        ASSERT_TRUE(hook.installed());
        EXPECT_EQ(output.open(), DWORD{ERROR_ACCESS_DENIED});
        EXPECT_STREQ(output.errorText(), L"Can't open mutex: ZELIB_WRITING_MUTEX; error: 5");
    }
    FileOutput output(L"TARNIS", nullptr);
    const ScopedImportHook<decltype(&OpenMutexW)> none(kKernel, "OpenMutexW", [](DWORD, BOOL, LPCWSTR) -> HANDLE {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return nullptr;
    });
    const ScopedImportHook<decltype(&CreateMutexW)> hook(kKernel, "CreateMutexW",
                                                         [](LPSECURITY_ATTRIBUTES, BOOL, LPCWSTR) -> HANDLE {
                                                             SetLastError(ERROR_NO_SYSTEM_RESOURCES);
                                                             return nullptr;
                                                         });
    ASSERT_TRUE(hook.installed());
    EXPECT_EQ(output.open(), DWORD{ERROR_NO_SYSTEM_RESOURCES});
    EXPECT_STREQ(output.errorText(), L"Can't create mutex: ZELIB_WRITING_MUTEX; error: 1450");
    EXPECT_FALSE(std::filesystem::exists(m_folder / "TARNIS.txt"));
}

TEST_F(LogFile, FileThatCannotBeMadeGivesItsErrorText) {
    std::filesystem::create_directory(m_folder / "TARNIS.txt");
    FileOutput output(L"TARNIS", nullptr);
    EXPECT_NE(output.open(), 0u);
    EXPECT_THAT(std::wstring(output.errorText()),
                testing::StartsWith(L"Can't create log file: " + m_folder.wstring() + L"\\TARNIS.txt; error: "));
    EXPECT_EQ(writeLine(output, L"lost", today()), 0xFFFFFFFF);
}

TEST_F(LogFile, PipeInThePlaceOfTheFileIsNotWrittenTo) {
    const UniqueFile pipe(CreateNamedPipeW(L"\\\\.\\pipe\\TARNIS.txt", PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE | PIPE_NOWAIT,
                                           1, 4096, 4096, 0, nullptr));
    ASSERT_TRUE(pipe);
    static DWORD flags; // of the last opening
    static decltype(&CreateFileW) original;
    const ScopedImportHook<decltype(&CreateFileW)> hook(
        kKernel, "CreateFileW",
        [](LPCWSTR, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES rights, DWORD how, DWORD with, HANDLE) -> HANDLE {
            flags = with;
            return original(L"\\\\.\\pipe\\TARNIS.txt", access, share, rights, how, with, nullptr);
        });
    ASSERT_TRUE(hook.installed());
    original = hook.original();
    FileOutput output(L"TARNIS", nullptr);
    EXPECT_EQ(output.open(), DWORD{ERROR_BAD_PATHNAME});
    EXPECT_EQ(flags & (SECURITY_SQOS_PRESENT | SECURITY_IMPERSONATION), DWORD{SECURITY_SQOS_PRESENT});
    EXPECT_EQ(writeLine(output, L"secret", today()), 0xFFFFFFFF);
    char bytes[4096]; // all of it, as closing would wait for the reader
    DWORD got = 0;
    ReadFile(pipe.get(), bytes, sizeof bytes, &got, nullptr);
    EXPECT_EQ(got, 0u) << "not even the mark";
}

TEST_F(LogFile, ClockThatFailsGivesItsErrorText) {
    FileOutput output(L"TARNIS", nullptr);
    const ScopedImportHook<decltype(&_ftime64_s)> hook("msvcrt.dll", "_ftime64_s",
                                                       [](struct __timeb64*) -> errno_t { return EINVAL; });
    ASSERT_TRUE(hook.installed());
    EXPECT_EQ(output.open(), uint32_t{EINVAL});
    EXPECT_STREQ(output.errorText(), L"Failed _ftime64_s, error: 22");
    LogRecord r;
    const char* text = LogMakeTimeStamp(r);
    EXPECT_STREQ(text, "error_data error_time");
    EXPECT_EQ(r.day, -1);
    LogFreeText(text); // a constant: releasing it does nothing
    EXPECT_STREQ(text, "error_data error_time");
}

TEST_F(LogFile, FullDiskLosesTheLineOnly) {
    FileOutput output(L"TARNIS", nullptr);
    ASSERT_EQ(output.open(), 0u);
    {
        const ScopedImportHook<decltype(&WriteFile)> hook(
            kKernel, "WriteFile", [](HANDLE, LPCVOID, DWORD, LPDWORD written, LPOVERLAPPED) -> BOOL {
                *written = 0;
                SetLastError(ERROR_DISK_FULL);
                return FALSE;
            });
        ASSERT_TRUE(hook.installed());
        EXPECT_EQ(writeLine(output, L"lost", today()), 0u);
    }
    EXPECT_EQ(writeLine(output, L"kept", today()), 0u);
    output.close();
    EXPECT_THAT(linesOf(m_folder / "TARNIS.txt"), ElementsAre(L"kept"));
}

TEST_F(LogFile, FileThatCannotBeReopenedOnANewDayLosesLinesNotTheProcess) {
    FileOutput output(L"TARNIS", nullptr, kDaily);
    ASSERT_EQ(output.open(), 0u);
    LogRecord r = today();
    r.year += 1;
    wchar_t name[64];
    std::swprintf(name, 64, L"TARNIS_%02d_%02d_%04d.txt", r.day, r.month, r.year);
    std::filesystem::create_directory(m_folder / name);
    EXPECT_EQ(writeLine(output, L"lost", r), 0xFFFFFFFF);
    EXPECT_EQ(writeLine(output, L"lost too", r), 0xFFFFFFFF);
    std::filesystem::remove(m_folder / name);
    EXPECT_EQ(writeLine(output, L"finds no file", r), 0xFFFFFFFF);
    EXPECT_EQ(writeLine(output, L"kept", r), 0u);
    output.close();
    EXPECT_THAT(linesOf(m_folder / name), ElementsAre(L"kept"));
}

TEST_F(LogFile, DirectoryThatVanishedOverNightIsMadeAgain) {
    const auto folder = m_folder / "vanishing";
    std::filesystem::create_directory(folder);
    FileOutput output(L"TARNIS", (folder.wstring() + L"\\").c_str(), kDaily);
    ASSERT_EQ(output.open(), 0u);
    LogRecord r = today();
    r.year += 1;
    wchar_t name[64];
    std::swprintf(name, 64, L"TARNIS_%02d_%02d_%04d.txt", r.day, r.month, r.year);
    std::filesystem::create_directory(folder / name);
    EXPECT_EQ(writeLine(output, L"lost", r), 0xFFFFFFFF);
    std::filesystem::remove_all(folder);
    EXPECT_EQ(writeLine(output, L"finds no file", r), 0xFFFFFFFF);
    EXPECT_EQ(writeLine(output, L"kept", r), 0u);
    output.close();
    EXPECT_THAT(linesOf(folder / name), ElementsAre(L"kept"));
}

TEST_F(LogFile, FileThatVanishedLosesTheLineOnly) {
    FileOutput output(L"TARNIS", nullptr);
    ASSERT_EQ(output.open(), 0u);
    const ScopedImportHook<decltype(&SetFilePointer)> pointer(kKernel, "SetFilePointer",
                                                              [](HANDLE, LONG, PLONG, DWORD) -> DWORD {
                                                                  SetLastError(ERROR_FILE_INVALID);
                                                                  return INVALID_SET_FILE_POINTER;
                                                              });
    const ScopedImportHook<decltype(&WriteFile)> write(
        kKernel, "WriteFile", [](HANDLE, LPCVOID, DWORD, LPDWORD written, LPOVERLAPPED) -> BOOL {
            *written = 0;
            SetLastError(ERROR_FILE_INVALID);
            return FALSE;
        });
    ASSERT_TRUE(pointer.installed());
    ASSERT_TRUE(write.installed());
    EXPECT_EQ(writeLine(output, L"lost", today(4)), 0u);
    EXPECT_EQ(writeLine(output, L"lost too", today(4)), 0u);
}

TEST_F(LogFile, ClosingWithoutTheMutexClosesWithoutAFlush) {
    const int before = processCounts().handles;
    FileOutput output(L"TARNIS", nullptr);
    ASSERT_EQ(output.open(), 0u);
    g_flushes = 0;
    const ScopedImportHook<decltype(&FlushFileBuffers)> flush(kKernel, "FlushFileBuffers", [](HANDLE) -> BOOL {
        ++g_flushes;
        return TRUE;
    });
    const ScopedImportHook<decltype(&WaitForSingleObject)> wait(kKernel, "WaitForSingleObject", waitInVain);
    ASSERT_TRUE(flush.installed());
    ASSERT_TRUE(wait.installed());
    output.close();
    EXPECT_EQ(g_flushes, 0);
    EXPECT_EQ(processCounts().handles, before);
    EXPECT_EQ(writeLine(output, L"x", today()), 0xFFFFFFFF);
}

TEST_F(LogFile, NameIsCutAt259Characters) {
    const std::wstring tag(240, L't');
    FileOutput output(tag.c_str(), nullptr);
    static std::wstring asked;
    const ScopedImportHook<decltype(&CreateFileW)> hook(
        kKernel, "CreateFileW", [](LPCWSTR name, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) -> HANDLE {
            asked = name;
            return INVALID_HANDLE_VALUE;
        });
    ASSERT_TRUE(hook.installed());
    EXPECT_NE(output.open(), 0u);
    const std::wstring whole = m_folder.wstring() + L"\\" + tag + L".txt";
    ASSERT_GT(whole.size(), 259u);
    EXPECT_EQ(asked, whole.substr(0, 259));
}

TEST_F(LogFile, LocalTimeThatCannotBeHadLeavesTheConstantText) {
    // The clock answers with a time that cannot be converted to local time.
    const ScopedImportHook<decltype(&_ftime64_s)> hook("msvcrt.dll", "_ftime64_s",
                                                       [](struct __timeb64* now) -> errno_t {
                                                           *now = {};
                                                           now->time = -1000000;
                                                           return 0;
                                                       });
    ASSERT_TRUE(hook.installed());
    LogRecord r;
    EXPECT_STREQ(LogMakeTimeStamp(r), "error_data error_time");
    EXPECT_EQ(r.day, -1);
    EXPECT_EQ(r.month, -1);
}

namespace {
size_t g_refusedBytes;
void* (*g_malloc)(size_t);
} // namespace

TEST_F(LogFile, MemoryShortageLeavesTheConstantTexts) {
    g_refusedBytes = 0;
    const ScopedImportHook<void* (*)(size_t)> hook(
        "msvcrt.dll", "malloc", [](size_t bytes) { return bytes == g_refusedBytes ? nullptr : g_malloc(bytes); });
    ASSERT_TRUE(hook.installed());
    g_malloc = hook.original();
    LogRecord r;
    g_refusedBytes = 32;
    const char* time = LogMakeTimeStamp(r);
    g_refusedBytes = 1024;
    const wchar_t* message = LogFormatMessage(L"text");
    g_refusedBytes = 0;
    EXPECT_STREQ(time, "error_data error_time");
    EXPECT_EQ(r.month, -1);
    EXPECT_STREQ(message, L"Can't prepare error message");
    LogFreeText(time);
    LogFreeText(message);
    EXPECT_STREQ(message, L"Can't prepare error message");
}

namespace {

constexpr uint32_t kShortHandle = 0x53484F52;
int g_refusals;

/// Keeps whole lines.
class KeepingOutput final : public LogOutput {
public:
    KeepingOutput(std::vector<std::wstring>& lines, const wchar_t* name) : LogOutput(name, kFile, 0), m_lines(lines) {
        setDetail(4);
    }
    uint32_t write(const wchar_t* line, size_t length, const LogRecord&) noexcept override {
        m_lines.emplace_back(line, length);
        return 0;
    }
    uint32_t open() noexcept override { return 0; }
    void close() noexcept override {}

private:
    std::vector<std::wstring>& m_lines;
};

LogRecord plainRecord() {
    LogRecord r;
    r.threadId = 1;
    r.message = L"text";
    return r;
}

} // namespace

TEST(LogMemoryShortage, ChannelWithoutALineBufferMissesTheRecordAndTheOthersGetIt) {
    std::vector<std::wstring> first, second;
    LogEngine* engine = logFindOrCreateEngine(kShortHandle);
    engine->append(std::make_unique<KeepingOutput>(first, L"first"));
    engine->append(std::make_unique<KeepingOutput>(second, L"second"));
    {
        g_refusals = 1;
        const ScopedImportHook<void* (*)(size_t)> hook("msvcrt.dll", "malloc", [](size_t bytes) {
            return bytes == 8192 && g_refusals-- > 0 ? nullptr : g_malloc(bytes);
        });
        ASSERT_TRUE(hook.installed());
        g_malloc = hook.original();
        EXPECT_EQ(LogSend(kShortHandle, plainRecord()), 0u);
    }
    EXPECT_EQ(first.size(), 0u);
    EXPECT_EQ(second.size(), 1u);
    LogClose(kShortHandle);
}

TEST(LogMemoryShortage, ThreadWithoutAContextHasAnIdentifierOfAllOnes) {
    std::vector<std::wstring> lines;
    LogEngine* engine = logFindOrCreateEngine(kShortHandle);
    engine->append(std::make_unique<KeepingOutput>(lines, L"only"));
    {
        const ScopedImportHook<void* (*)(size_t)> hook(
            "msvcrt.dll", "malloc", [](size_t bytes) { return bytes == sizeof(uint32_t) ? nullptr : g_malloc(bytes); });
        ASSERT_TRUE(hook.installed());
        g_malloc = hook.original();
        EXPECT_EQ(LogSend(kShortHandle, plainRecord()), 0u);
    }
    EXPECT_THAT(lines, ElementsAre(L"{FFFFFFFFFFFFFFFF}; ML=4; PT=0:1; TM=undefined; F=undefined,undefined,0; "
                                   L"SV=MANDATORY; CD=-1; MSG=text"));
    LogClose(kShortHandle);
}

TEST(LogChannelNames, AreCutAt256CharactersInTheAnnouncement) {
    std::vector<std::wstring> lines;
    const std::wstring name(200, L'n');
    LogEngine* engine = logFindOrCreateEngine(kShortHandle);
    for (int i = 0; i < 2; ++i)
        engine->append(std::make_unique<KeepingOutput>(lines, name.c_str()));
    engine->slot(0)->setDetail(2);
    engine->slot(1)->setDetail(0);
    LogClose(kShortHandle);
    std::wstring message = L"   <<<<<<<<<<<<<<<<< Close the log channels: " + name + L", " + std::wstring(54, L'n') +
                           L" for: " + GetCommandLineW();
    if (message.size() > 511) message.resize(511);
    EXPECT_THAT(lines, ElementsAre(L"SV=MANDATORY; CD=0; MSG=" + message));
}

TEST(LogPendingHandles, ClosingWaitsForThemWithMessagesPumped) {
    const HANDLE done = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ASSERT_TRUE(platform::addPendingHandle(done));
    // Only dispatching the timer's message, which the wait does, sets the event.
    static HANDLE toSet;
    toSet = done;
    const UINT_PTR timer = SetTimer(nullptr, 0, 10, [](HWND, UINT, UINT_PTR, DWORD) { SetEvent(toSet); });
    EXPECT_EQ(LogClose(0x12345678), 0);
    KillTimer(nullptr, timer);
    DWORD flags = 0;
    EXPECT_FALSE(GetHandleInformation(done, &flags)) << "the waited-for handle is closed";
}

TEST(LogPendingHandles, OpeningAnUnknownHandleWaitsForNone) {
    const HANDLE never = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ASSERT_TRUE(platform::addPendingHandle(never));
    std::atomic<bool> returned{false};
    std::thread opener([&] {
        EXPECT_EQ(LogOpen(0x12345678, L"TARNIS", nullptr, 0, 0, 0, 0, 1), -1);
        returned = true;
    });
    EXPECT_TRUE(waitUntil([&] { return returned.load(); }, std::chrono::seconds(30)));
    SetEvent(never);
    opener.join();
    LogClose(0x12345678); // waits for the event, which is set, and closes it
}

TEST(LogPendingHandles, MoreThanSixteenAreWaitedForAndClosed) {
    const int before = processCounts().handles;
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(platform::addPendingHandle(CreateEventW(nullptr, TRUE, TRUE, nullptr)));
    EXPECT_EQ(processCounts().handles, before + 100);
    LogClose(0x12345678);
    EXPECT_EQ(processCounts().handles, before);
}

TEST(LogPendingHandles, RequestToQuitStaysForTheThreadsOwnLoop) {
    const HANDLE done = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ASSERT_TRUE(platform::addPendingHandle(done));
    PostQuitMessage(7);
    // Set once the wait has seen WM_QUIT: from then on it waits for the event alone.
    static HANDLE toSet;
    toSet = done;
    const ScopedImportHook<decltype(&WaitForSingleObject)> hook(kKernel, "WaitForSingleObject",
                                                                [](HANDLE, DWORD) -> DWORD {
                                                                    SetEvent(toSet);
                                                                    return WAIT_OBJECT_0;
                                                                });
    ASSERT_TRUE(hook.installed());
    LogClose(0x12345678);
    MSG message{};
    ASSERT_TRUE(PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE));
    EXPECT_EQ(message.message, UINT{WM_QUIT});
    EXPECT_EQ(message.wParam, WPARAM{7});
}
