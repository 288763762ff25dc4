// The console of a real process. One in a program.
#pragma once

#include "ctl/console.h"
#include "win32/handle.h"

#include <string>

namespace kestra::ctl {

class WindowsConsole final : public Console {
public:
    /// Takes Ctrl-C, Ctrl-Break and the closing of the window from here on, for the rest of the process's life.
    WindowsConsole();

    void write(std::string_view text) override;
    void writeError(std::string_view text) noexcept override;
    bool isTerminal() const noexcept override { return m_outIsTerminal; }
    bool showsEverySign() const noexcept override;
    void showScreen(std::string_view lines) override;
    void showProgress(std::string_view line) noexcept override;
    bool isInterrupted(uint32_t waitMs) noexcept override;

private:
    void put(HANDLE handle, bool isTerminal, std::string_view text);

    const HANDLE m_out, m_error; // the process's own: not closed
    const bool m_outIsTerminal, m_errorIsTerminal;
    short m_screenLines = 0;
    size_t m_progressLength = 0;
};

} // namespace kestra::ctl
