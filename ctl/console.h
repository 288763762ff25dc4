// What the program says and hears: standard output, error output, Ctrl-C. Portable; the real one is
// windows_console.h's. Any thread may write errors and ask for the interrupt; one thread writes the output.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kestra::ctl {

class Console {
public:
    virtual ~Console() = default;

    /// Writes UTF-8 to the standard output at once. Throws Failure if it cannot be written.
    virtual void write(std::string_view text) = 0;
    /// Writes UTF-8 to the error output; what cannot be written is lost.
    virtual void writeError(std::string_view text) noexcept = 0;

    /// True if the standard output goes to a person, not to a program.
    virtual bool isTerminal() const noexcept = 0;
    /// False if the standard output is a terminal whose font lacks most of Unicode.
    virtual bool showsEverySign() const noexcept { return true; }
    /// Shows these lines in place of those that the last call showed. For terminals.
    virtual void showScreen(std::string_view lines) = 0;
    /// Shows one line on the error output in place of the last one; an empty one takes it away. For terminals.
    virtual void showProgress(std::string_view line) noexcept = 0;

    /// Waits so long, or until the user has pressed Ctrl-C. @return true: has pressed it, now or earlier
    virtual bool isInterrupted(uint32_t waitMs = 0) noexcept = 0;
};

} // namespace kestra::ctl
