// A process that ends closes its log; a thread caught while logging cannot keep it from ending.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

/// Runs the host in a folder of its own. @return its exit code, or STILL_ACTIVE if it hung and was ended.
DWORD runHost(const std::filesystem::path& folder, int threads) {
    std::wstring command = L"\"" + std::filesystem::path(LOG_EXIT_HOST).wstring() + L"\" \"" +
                           std::filesystem::path(LOG_EXIT_MODULE).wstring() + L"\" " + std::to_wstring(threads);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION information{};
    if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, folder.c_str(), &startup,
                        &information))
        return GetLastError();
    CloseHandle(information.hThread);
    DWORD code = STILL_ACTIVE;
    if (WaitForSingleObject(information.hProcess, 10000) == WAIT_OBJECT_0)
        GetExitCodeProcess(information.hProcess, &code);
    else if (TerminateProcess(information.hProcess, 1))
        WaitForSingleObject(information.hProcess, 10000);
    CloseHandle(information.hProcess);
    return code;
}

std::wstring textOf(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), {});
    std::wstring text(bytes.size() / 2, L'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * 2);
    return text;
}

/// The parameter is the channel that is open: "file", or "both" with the debugger's.
class LogAtProcessEnd : public testing::TestWithParam<const wchar_t*> {
protected:
    LogAtProcessEnd() {
        SetEnvironmentVariableW(L"KESTRA_EXIT_CHANNEL", GetParam());
        m_folder = std::filesystem::temp_directory_path() / ("kestra-exit-" + std::to_string(GetCurrentProcessId()));
        std::filesystem::create_directories(m_folder);
    }
    ~LogAtProcessEnd() override {
        SetEnvironmentVariableW(L"KESTRA_EXIT_CHANNEL", nullptr);
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
    std::filesystem::path m_folder;
};

} // namespace

TEST_P(LogAtProcessEnd, TakesLeaveWhenNobodyIsLogging) {
    ASSERT_EQ(runHost(m_folder, 0), 0u);
    const std::wstring text = textOf(m_folder / "TARNIS.txt");
    const size_t leave = text.rfind(L"<<<<<<<<<<<<<<<<< Close the log channels: File_Output");
    ASSERT_NE(leave, std::wstring::npos);
    EXPECT_EQ(text.find(L"\r\n", leave), text.size() - 2) << "it is the last line, and whole";
}

TEST_P(LogAtProcessEnd, DoesNotHoldUpAProcessWhoseThreadsAreLogging) {
    for (int run = 0; run < 8; ++run) {
        SCOPED_TRACE(run);
        std::filesystem::remove(m_folder / "TARNIS.txt");
        ASSERT_EQ(runHost(m_folder, 4), 0u);
        const std::wstring text = textOf(m_folder / "TARNIS.txt");
        EXPECT_NE(text.find(L"MSG=record 20\r\n"), std::wstring::npos);
        EXPECT_EQ(text.substr(text.size() - 2), L"\r\n") << "the last line is whole";
    }
}

INSTANTIATE_TEST_SUITE_P(Channels, LogAtProcessEnd, testing::Values(L"file", L"both"), [](const auto& channel) {
    return std::wstring_view(channel.param) == L"file" ? "File" : "FileAndDebugger";
});
