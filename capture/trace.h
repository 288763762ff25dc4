// Trace lines of the COM methods, for the debugger. Any thread.
#pragma once

#include <windows.h>

#include <cwchar>

namespace kestra {

/// Writes one line. Callers pass whole literals, so that a search finds what a debugger shows.
inline void trace(const wchar_t* text) noexcept {
    wchar_t line[256];
    const size_t length = wcsnlen(text, 253);
    std::wmemcpy(line, text, length);
    std::wmemcpy(line + length, L"\r\n", 3);
    OutputDebugStringW(line);
}

/// Writes one line and passes the result on.
inline HRESULT traced(const wchar_t* text, HRESULT hr) noexcept {
    trace(text);
    return hr;
}

} // namespace kestra
