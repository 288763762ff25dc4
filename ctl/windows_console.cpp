// Standard handles and the console's own functions: they also work where a terminal knows no escape sequences.
#include "ctl/windows_console.h"

#include "ctl/exit_code.h"
#include "ctl/system_error.h"
#include "ctl/text.h"

#include <windows.h>

#include <algorithm>

namespace kestra::ctl {

namespace {

HANDLE interruptEvent() noexcept {
    static const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr); // for the life of the process
    return event;
}

/// Called by the system on a thread of its own.
BOOL WINAPI onControl(DWORD event) {
    SetEvent(interruptEvent());
    if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT) return TRUE;
    Sleep(INFINITE); // a window that closes ends the process when this returns: the verb finishes first
    return TRUE;
}

bool isConsole(HANDLE handle) noexcept {
    DWORD mode = 0;
    return GetConsoleMode(handle, &mode) != 0;
}

} // namespace

WindowsConsole::WindowsConsole()
    : m_out(GetStdHandle(STD_OUTPUT_HANDLE)),
      m_error(GetStdHandle(STD_ERROR_HANDLE)),
      m_outIsTerminal(isConsole(m_out)),
      m_errorIsTerminal(isConsole(m_error)) {
    interruptEvent();
    SetConsoleCtrlHandler(nullptr, FALSE); // a parent may have switched Ctrl-C off for its children
    SetConsoleCtrlHandler(onControl, TRUE);
}

void WindowsConsole::put(HANDLE handle, bool isTerminal, std::string_view text) {
    if (isTerminal) {
        const std::u16string wide = utf16ForTerminal(text);
        DWORD written = 0;
        WriteConsoleW(handle, wide.data(), static_cast<DWORD>(wide.size()), &written, nullptr);
        return;
    }
    while (!text.empty()) {
        DWORD written = 0;
        constexpr size_t kMost = 1u << 20;
        if (!WriteFile(handle, text.data(), static_cast<DWORD>(std::min(text.size(), kMost)), &written, nullptr)) {
            const DWORD error = GetLastError();
            throw Failure(ExitCode::Failure, "the standard output cannot be written: " + systemErrorText(error),
                          "whoever reads it has ended, or its disk is full");
        }
        text.remove_prefix(written);
    }
}

void WindowsConsole::write(std::string_view text) {
    put(m_out, m_outIsTerminal, text);
}

void WindowsConsole::writeError(std::string_view text) noexcept {
    try {
        showProgress("");
        put(m_error, m_errorIsTerminal, text);
    } catch (const std::exception&) { // nobody is left to tell
    }
}

void WindowsConsole::showScreen(std::string_view lines) {
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (!m_outIsTerminal || !GetConsoleScreenBufferInfo(m_out, &info)) return write(lines);
    if (m_screenLines != 0) {
        info.dwCursorPosition = {0, static_cast<SHORT>(std::max(0, info.dwCursorPosition.Y - m_screenLines))};
        SetConsoleCursorPosition(m_out, info.dwCursorPosition);
    }
    // Each line is cut to the width and filled with blanks, so that none wraps and nothing old stays.
    const auto width = static_cast<size_t>(std::max<int>(info.dwSize.X - 1, 20));
    const std::u16string wide = utf16ForTerminal(lines);
    std::u16string screen;
    m_screenLines = 0;
    for (size_t at = 0; at < wide.size(); ++m_screenLines) {
        const size_t end = std::min(wide.find(u'\n', at), wide.size());
        std::u16string line = wide.substr(at, end - at);
        line.resize(width, u' ');
        screen += line + u'\n';
        at = end + 1;
    }
    DWORD written = 0;
    WriteConsoleW(m_out, screen.data(), static_cast<DWORD>(screen.size()), &written, nullptr);
}

void WindowsConsole::showProgress(std::string_view line) noexcept {
    if (!m_errorIsTerminal || (line.empty() && m_progressLength == 0)) return;
    try {
        std::u16string wide = utf16ForTerminal(line);
        const size_t length = wide.size();
        wide.resize(std::max(length, m_progressLength), u' ');
        wide = u'\r' + wide + u'\r';
        m_progressLength = length;
        DWORD written = 0;
        WriteConsoleW(m_error, wide.data(), static_cast<DWORD>(wide.size()), &written, nullptr);
    } catch (const std::exception&) { // no memory for a line that is only for show
    }
}

bool WindowsConsole::showsEverySign() const noexcept {
    CONSOLE_FONT_INFOEX font{};
    font.cbSize = sizeof font;
    // A raster font has the signs of one code page.
    return !m_outIsTerminal || !GetCurrentConsoleFontEx(m_out, FALSE, &font) || (font.FontFamily & TMPF_TRUETYPE) != 0;
}

bool WindowsConsole::isInterrupted(uint32_t waitMs) noexcept {
    return WaitForSingleObject(interruptEvent(), waitMs) == WAIT_OBJECT_0;
}

} // namespace kestra::ctl
