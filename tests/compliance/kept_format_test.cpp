// A filter keeps the format that its user chose last; after kestra-compliance it is the same again, however that ended.
#include "tests/support/child_program.h"
#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace kestra::test {
namespace {

constexpr char kFilter[] =
    KESTRA_COMPLIANCE " --dll " KESTRA_FAULTY_SOURCE
                      " --clsid {6B1A7F02-53CD-4D0E-9A31-207E4C5B8810} --quick --only config.set-and-get --limit ";

/// The user's choice is the second format; every test here sets the first one, too.
class KeptFormat : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        char folder[MAX_PATH];
        GetTempPathA(MAX_PATH, folder);
        m_path = folder + ("kept-format-" + std::to_string(GetCurrentProcessId()));
        SetEnvironmentVariableA("KESTRA_KEPT_FORMAT", m_path.c_str());
        FILE* const file = std::fopen(m_path.c_str(), "wb");
        ASSERT_TRUE(file);
        std::fputc('1', file);
        std::fclose(file);
    }
    void TearDown() override {
        SetEnvironmentVariableA("KESTRA_FAULT", nullptr);
        SetEnvironmentVariableA("KESTRA_KEPT_FORMAT", nullptr);
        DeleteFileA(m_path.c_str());
    }
    int kept() const {
        FILE* const file = std::fopen(m_path.c_str(), "rb");
        if (!file) return -1;
        const int digit = std::fgetc(file);
        std::fclose(file);
        return digit - '0';
    }

private:
    std::string m_path;
};

TEST_P(KeptFormat, IsAsBeforeWhateverTheTestDid) {
    SetEnvironmentVariableA("KESTRA_FAULT", GetParam());
    const ProgramResult result = runProgram(std::string(kFilter) + "3");
    const std::string wanted = std::string(GetParam()) == "crash-once-set"  ? "crash in"
                               : std::string(GetParam()) == "hang-once-set" ? "hang in"
                                                                            : "1 tests OK";
    EXPECT_NE(result.output.find(wanted), std::string::npos) << result.output << result.error;
    EXPECT_EQ(kept(), 1) << result.output << result.error;
}
INSTANTIATE_TEST_SUITE_P(Ends, KeptFormat, testing::Values("none", "crash-once-set", "hang-once-set"));

TEST_F(KeptFormat, IsAsBeforeAfterTheRunItselfWasEnded) {
    SetEnvironmentVariableA("KESTRA_FAULT", "hang-once-set");
    {
        const ChildProgram program(std::string(kFilter) + "60");
        ASSERT_TRUE(waitUntil([&] { return kept() == 0; }, std::chrono::seconds(30)))
            << "the test sets the other format";
    } // ended here
    SetEnvironmentVariableA("KESTRA_FAULT", nullptr);
    EXPECT_TRUE(waitUntil([&] { return kept() == 1; }, std::chrono::seconds(30)));
}

TEST_F(KeptFormat, ThatCannotBeSetAgainIsSaid) {
    SetEnvironmentVariableA("KESTRA_FAULT", "refuses-to-go-back");
    const ProgramResult result = runProgram(std::string(kFilter) + "3");
    EXPECT_NE(result.error.find("the format that the filter keeps for its user is not as it was"), std::string::npos)
        << result.output << result.error;
}

} // namespace
} // namespace kestra::test
