// A separate folder for a test that writes log files, and a reader for them. Windows only.
#pragma once

#include "log/log.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace kestra::test {

inline constexpr char kKernel[] = "kernel32.dll";

/// Lines of a UTF-16 file: its mark first, every line ended by a carriage return and a line feed.
inline std::vector<std::wstring> linesOf(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), {});
    EXPECT_EQ(bytes.substr(0, 2), "\xFF\xFE") << "byte-order mark";
    EXPECT_EQ(bytes.size() % 2, 0u);
    std::wstring text(bytes.size() / 2, L'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * 2);
    std::vector<std::wstring> lines;
    size_t start = 1;
    for (size_t end; (end = text.find(L"\r\n", start)) != std::wstring::npos; start = end + 2)
        lines.push_back(text.substr(start, end - start));
    EXPECT_EQ(start, std::max<size_t>(text.size(), 1)) << "the last line is complete";
    return lines;
}

/// A record stamped with the present date.
inline LogRecord today(uint32_t severity = 5) {
    LogRecord r;
    LogFreeText(LogMakeTimeStamp(r));
    r.severity = severity;
    return r;
}

/// A folder for one test, which is also the current directory.
class LogFolder : public testing::Test {
protected:
    LogFolder() {
        m_folder = std::filesystem::temp_directory_path() /
                   ("kestra-log-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++s_number));
        std::filesystem::create_directories(m_folder);
        m_before = std::filesystem::current_path();
        std::filesystem::current_path(m_folder);
    }
    ~LogFolder() override {
        std::filesystem::current_path(m_before);
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }

    static inline int s_number = 0;
    std::filesystem::path m_folder, m_before;
};

} // namespace kestra::test
