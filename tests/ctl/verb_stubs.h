// The table of verbs without what they do: each only keeps what it was told. For the command line's tests and fuzzer.
#pragma once

#include "ctl/console.h"
#include "ctl/options.h"

#include <string>

namespace kestra::test {

/// What the last verb that ran was told; empty name: none ran.
struct LastRun {
    std::string verb;
    ctl::Options options;
};
LastRun& lastRun();

/// Keeps what is said.
class KeptConsole : public ctl::Console {
public:
    void write(std::string_view text) override { output += text; }
    void writeError(std::string_view text) noexcept override { error += text; }
    bool isTerminal() const noexcept override { return false; }
    void showScreen(std::string_view lines) override { output += lines; }
    void showProgress(std::string_view) noexcept override {}
    bool isInterrupted(uint32_t) noexcept override { return true; }

    std::string output, error;
};

} // namespace kestra::test
