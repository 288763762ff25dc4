// Where there is no filter to test, kestra-compliance says why, once, and ends with the code for it.
#include "tests/support/child_program.h"

#include <gtest/gtest.h>

#include <string>

namespace kestra::test {
namespace {

constexpr char kClass[] = " --clsid {6B1A7F02-53CD-4D0E-9A31-207E4C5B8810}";

class NothingToTest : public testing::Test {
protected:
    void TearDown() override { SetEnvironmentVariableA("KESTRA_FAULT", nullptr); }
    static ProgramResult run(const std::string& options) { return runProgram(KESTRA_COMPLIANCE + options); }
    /// Runs, and expects nothing but this line on the error output.
    static void expectReason(const std::string& options, const std::string& reason) {
        SCOPED_TRACE(options);
        const ProgramResult result = run(options);
        EXPECT_EQ(result.exitCode, 126u);
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(result.error.find("kestra-compliance: nothing was tested: " + reason), 0u) << result.error;
        EXPECT_EQ(result.error.find('\n'), result.error.size() - 1) << result.error;
    }
};

TEST_F(NothingToTest, ADeviceThatDoesNotExist) {
    expectReason(" --name \"No such device\"", "there is no capture device named \"No such device\"");
}

TEST_F(NothingToTest, AClassThatIsNotRegistered) {
    expectReason(kClass, "there is no class {6B1A7F02-53CD-4D0E-9A31-207E4C5B8810}: REGDB_E_CLASSNOTREG (0x80040154)");
}

TEST_F(NothingToTest, ADllThatCannotBeLoaded) {
    expectReason(std::string(" --dll nowhere.dll") + kClass, "nowhere.dll cannot be loaded: error 126");
}

TEST_F(NothingToTest, ADllThatMakesNoObjects) {
    expectReason(std::string(" --dll version.dll") + kClass, "there is no class");
    expectReason(" --dll version.dll", "version.dll names no filter in a type library; name its class with --clsid");
}

TEST_F(NothingToTest, AClassThatTheDllDoesNotHave) {
    expectReason(" --dll " KESTRA_FAULTY_SOURCE " --clsid {00000000-53CD-4D0E-9A31-207E4C5B8810}",
                 "there is no class {00000000-53CD-4D0E-9A31-207E4C5B8810}: CLASS_E_CLASSNOTAVAILABLE (0x80040111)");
}

TEST_F(NothingToTest, ADeviceThatCannotBeOpened) {
    SetEnvironmentVariableA("KESTRA_FAULT", "never-created");
    expectReason(std::string(" --dll " KESTRA_FAULTY_SOURCE) + kClass,
                 "the device cannot be opened: E_FAIL (0x80004005)");
}

/// That is a finding, and its tests say it.
TEST_F(NothingToTest, IsNotSaidOfAFilterThatCrashesWhenItIsMade) {
    SetEnvironmentVariableA("KESTRA_FAULT", "crash-created");
    const ProgramResult result =
        run(std::string(" --dll " KESTRA_FAULTY_SOURCE) + kClass + " --only filter.create,filter.info");
    EXPECT_EQ(result.exitCode, 2u) << result.output << result.error;
    EXPECT_NE(result.output.find("crash in creating the filter"), std::string::npos) << result.output;
}

} // namespace
} // namespace kestra::test
