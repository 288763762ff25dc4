// What the tests of kestra-ctl share: the built program, run as a user runs it, a card, and files to write into.
#pragma once

#include "protocol/user_settings.h"
#include "tests/support/card_fixture.h"
#include "tests/support/child_program.h"
#include "win32/registry_key.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace kestra::test {

inline std::string ctlCommand(const std::string& arguments) {
    return "\"" KESTRA_CTL "\" " + arguments;
}

inline ProgramResult ctl(const std::string& arguments) {
    return runProgram(ctlCommand(arguments));
}

/// What a failure says: the cause and the remedy, on the error output, and nothing else anywhere.
inline void expectFailure(const ProgramResult& result, DWORD exitCode, const std::string& cause,
                          const std::string& remedy) {
    EXPECT_EQ(result.exitCode, exitCode);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.error, "kestra-ctl: " + cause + "\n            " + remedy + "\n");
}

inline std::string readWholeFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// True if the text is the pattern; each '*' of that stands for any characters of its line.
inline bool matchesPattern(const char* text, const char* pattern) {
    for (; *pattern != '*'; ++text, ++pattern) {
        if (*text != *pattern) return false;
        if (*text == '\0') return true;
    }
    for (;; ++text) {
        if (matchesPattern(text, pattern + 1)) return true;
        if (*text == '\0' || *text == '\n') return false;
    }
}

/// Compares line by line with a file of tests/ctl/golden.
inline void expectGolden(const std::string& name, const std::string& text) {
    std::istringstream expected(readWholeFile(std::filesystem::path(KESTRA_GOLDEN) / name)), actual(text);
    ASSERT_FALSE(expected.str().empty()) << name;
    std::string wanted, line;
    for (int number = 1; std::getline(expected, wanted); ++number) {
        ASSERT_TRUE(std::getline(actual, line)) << name << " has a line " << number << ": " << wanted;
        EXPECT_TRUE(matchesPattern(line.c_str(), wanted.c_str()))
            << name << ", line " << number << "\n  is     " << line << "\n  wanted " << wanted;
    }
    EXPECT_FALSE(std::getline(actual, line)) << name << " has no line such as: " << line;
}

/// Checks an object against docs/kestra-ctl.schema.json, and that it is of this verb.
void expectSchema(const std::string& verb, const std::string& line);

class CtlTest : public CardTest {
protected:
    void SetUp() override {
        CardTest::SetUp();
        m_folder = std::filesystem::temp_directory_path() / ("kestra-ctl-" + std::to_string(GetCurrentProcessId()));
        std::filesystem::remove_all(m_folder);
        std::filesystem::create_directories(m_folder);
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
        CardTest::TearDown();
    }
    std::string file(const std::string& name) const { return (m_folder / name).string(); }

    std::filesystem::path m_folder;
};

/// Keeps the user's values of a key out of a test, and what the test writes out of the user's.
class KeptKey {
public:
    explicit KeptKey(const wchar_t* key) : m_key(key), m_kept(std::wstring(key) + L" kept") { move(m_key, m_kept); }
    ~KeptKey() {
        RegDeleteTreeW(HKEY_CURRENT_USER, m_key.c_str());
        move(m_kept, m_key);
    }
    KeptKey(const KeptKey&) = delete;
    KeptKey& operator=(const KeptKey&) = delete;

private:
    static void move(const std::wstring& from, const std::wstring& to) {
        UniqueKey source, target;
        if (RegOpenKeyW(HKEY_CURRENT_USER, from.c_str(), source.out()) != ERROR_SUCCESS) return;
        RegCreateKeyW(HKEY_CURRENT_USER, to.c_str(), target.out());
        RegCopyTreeW(source.get(), nullptr, target.get());
        RegDeleteTreeW(HKEY_CURRENT_USER, from.c_str());
    }
    const std::wstring m_key, m_kept;
};

} // namespace kestra::test
