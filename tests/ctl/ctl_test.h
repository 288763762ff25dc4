// What the tests of kestra-ctl share: the built program, run as a user runs it, and a card.
#pragma once

#include "tests/support/card_fixture.h"
#include "tests/support/child_program.h"

#include <gmock/gmock.h>

#include <string>

namespace kestra::test {

inline ProgramResult ctl(const std::string& arguments) {
    return runProgram("\"" KESTRA_CTL "\" " + arguments);
}

/// What a failure says: the cause and the remedy, on the error output, and nothing else anywhere.
inline void expectFailure(const ProgramResult& result, DWORD exitCode, const std::string& cause,
                          const std::string& remedy) {
    EXPECT_EQ(result.exitCode, exitCode);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.error, "kestra-ctl: " + cause + "\n            " + remedy + "\n");
}

class CtlTest : public CardTest {};

} // namespace kestra::test
