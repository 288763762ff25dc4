// Many processes with many threads into one file: no line lost, doubled or torn. KESTRA_LONG=1: the long form.
#include "tests/support/long_run.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

/// Runs the writer to its end. @return its exit code.
DWORD runWriter(const std::wstring& arguments) {
    std::wstring command = L"\"" + std::filesystem::path(LOG_WRITER).wstring() + L"\"" + arguments;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION information{};
    if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &information))
        return 0xFFFFFFFF;
    CloseHandle(information.hThread);
    EXPECT_EQ(WaitForSingleObject(information.hProcess, 60000), WAIT_OBJECT_0);
    DWORD code = 0xFFFFFFFF;
    GetExitCodeProcess(information.hProcess, &code);
    CloseHandle(information.hProcess);
    return code;
}

} // namespace

TEST(LogFileOfManyProcesses, IsWrittenOnWhenAProcessDiedWithTheMutex) {
    const auto folder =
        std::filesystem::temp_directory_path() / ("kestra-abandoned-" + std::to_string(GetCurrentProcessId()));
    std::filesystem::create_directories(folder);
    // Kept open here, or the mutex would go with the process that abandons it.
    const HANDLE mutex = CreateMutexW(nullptr, FALSE, L"ZELIB_WRITING_MUTEX");
    ASSERT_EQ(runWriter(L""), 77u);
    EXPECT_EQ(runWriter(L" \"" + folder.wstring() + L"\\\\\" 0 1 3"), 0u);
    CloseHandle(mutex);
    // Byte-order mark, opening line, three records, closing line: the records show that none was dropped.
    std::ifstream in(folder / "TARNIS.txt", std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), {});
    in.close();
    std::wstring text(bytes.size() / 2, L'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * 2);
    const size_t first = text.find(L"\r\n") + 2;
    const std::wstring records = L"SV=MANDATORY; CD=0; MSG=process 0 thread 0 record 0\r\n"
                                 L"SV=MANDATORY; CD=1; MSG=process 0 thread 0 record 1\r\n"
                                 L"SV=MANDATORY; CD=2; MSG=process 0 thread 0 record 2\r\n";
    EXPECT_EQ(text.substr(first, records.size()), records);
    std::filesystem::remove_all(folder);
}

TEST(LogFileOfManyProcesses, HoldsEveryLineOnceAndWhole) {
    const int processes = 8, threads = 4, records = kestra::test::repetitions(250, 10000);
    const auto folder =
        std::filesystem::temp_directory_path() / ("kestra-processes-" + std::to_string(GetCurrentProcessId()));
    std::filesystem::create_directories(folder);
    const auto begin = std::chrono::steady_clock::now();
    std::vector<HANDLE> running;
    for (int p = 0; p < processes; ++p) {
        std::wstring command = L"\"" + std::filesystem::path(LOG_WRITER).wstring() + L"\" \"" + folder.wstring() +
                               L"\\\\\" " + std::to_wstring(p) + L" " + std::to_wstring(threads) + L" " +
                               std::to_wstring(records);
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION information{};
        ASSERT_TRUE(CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                                   &information))
            << GetLastError();
        CloseHandle(information.hThread);
        running.push_back(information.hProcess);
    }
    for (const HANDLE process : running) {
        ASSERT_EQ(WaitForSingleObject(process, kestra::test::isLongRun() ? 1200000 : 60000), WAIT_OBJECT_0);
        DWORD code = 1;
        GetExitCodeProcess(process, &code);
        EXPECT_EQ(code, 0u);
        CloseHandle(process);
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;

    std::ifstream in(folder / "TARNIS.txt", std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), {});
    in.close();
    ASSERT_EQ(bytes.substr(0, 2), "\xFF\xFE");
    ASSERT_EQ(bytes.size() % 2, 0u);
    std::wstring text(bytes.size() / 2, L'\0');
    std::memcpy(text.data(), bytes.data(), bytes.size());
    std::vector<int> seen(size_t(processes) * threads * records);
    int announcements = 0;
    size_t start = 1;
    for (size_t end; (end = text.find(L"\r\n", start)) != std::wstring::npos; start = end + 2) {
        const std::wstring line = text.substr(start, end - start);
        int code = -1, p = -1, t = -1, r = -1, length = 0;
        if (line.find(L"log channels: File_Output for: ") != std::wstring::npos) {
            ++announcements;
            continue;
        }
        ASSERT_EQ(std::swscanf(line.c_str(), L"SV=MANDATORY; CD=%d; MSG=process %d thread %d record %d%n", &code, &p,
                               &t, &r, &length),
                  4);
        ASSERT_EQ(size_t(length), line.size());
        ASSERT_EQ(code, r);
        ++seen.at((size_t(p) * threads + t) * records + r);
    }
    EXPECT_EQ(start, text.size()) << "the last line is complete";
    EXPECT_EQ(announcements, 2 * processes);
    for (const int count : seen)
        ASSERT_EQ(count, 1);
    std::printf("%zu lines of %d processes x %d threads in %.1f s\n", seen.size(), processes, threads, elapsed.count());
    std::filesystem::remove_all(folder);
}
