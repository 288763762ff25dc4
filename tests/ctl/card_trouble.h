// What the tests of pulled cards and silent drivers share: commands, and how they end.
#pragma once

#include "tests/ctl/ctl_test.h"

#include <memory>
#include <string>
#include <vector>

namespace kestra::test {

/// The exit code of doctor: as many as it shows.
inline constexpr DWORD kProblems = ~1u;

/// A command, and how it ends when a request of its has trouble.
struct TroubleCase {
    std::string arguments; ///< FILE: a file of the test's that is not there; SAVED: a saved converter
    DWORD exitCode;
    std::string said; ///< on either output
};

/// Both cards are there and receive a small signal.
class CardTrouble : public CtlTest {
protected:
    void SetUp() override {
        CtlTest::SetUp();
        for (const simcard::CardControl* card : {&m_card, &m_second}) {
            card->reset();
            card->setSignal({1, 0, 1, 9, 0, 0, 320, 180, 0, 30, 1, 0});
        }
        ASSERT_EQ(ctl("converter save " + file("converter.json")).exitCode, 0u);
    }
    void TearDown() override {
        m_second.reset();
        CtlTest::TearDown();
    }
    std::string command(const TroubleCase& one, int number = 0) const {
        std::string text = one.arguments;
        for (const auto& [word, path] : {std::pair<std::string, std::string>{"SAVED", file("converter.json")},
                                         {"FILE", file("file" + std::to_string(number))}})
            if (const size_t at = text.find(word); at != std::string::npos) text.replace(at, word.size(), path);
        return text;
    }
    static void expectEnd(const TroubleCase& expected, const ProgramResult& result) {
        DWORD exitCode = expected.exitCode;
        if (exitCode == kProblems) {
            exitCode = 0;
            for (size_t at = 0; (at = result.output.find("\n✘ ", at)) != std::string::npos; ++at)
                ++exitCode;
        }
        EXPECT_EQ(result.exitCode, exitCode) << expected.arguments << "\n" << result.output << result.error;
        EXPECT_THAT(result.output + result.error, testing::HasSubstr(expected.said)) << expected.arguments;
    }

    simcard::CardControl m_second{1};
};

} // namespace kestra::test
