// The dialogs that this process has at the top level.
#pragma once

#include <windows.h>

#include <cwchar>
#include <functional>

namespace kestra::test {

/// The first of this process's top-level dialogs, visible or not, that `matches` accepts; null: none. Any thread.
///
/// From a list, and not with FindWindowEx from one to the next: if the last one has gone meanwhile, Wine 10's server
/// searches for ever, and every program with it.
inline HWND findOwnDialog(const std::function<bool(HWND)>& matches) {
    struct Search {
        const std::function<bool(HWND)>& matches;
        HWND found;
    } search{matches, nullptr};
    EnumWindows(
        [](HWND window, LPARAM parameter) -> BOOL {
            auto& current = *reinterpret_cast<Search*>(parameter);
            wchar_t kind[16] = L"";
            DWORD process = 0;
            GetWindowThreadProcessId(window, &process);
            GetClassNameW(window, kind, 16);
            if (process == GetCurrentProcessId() && std::wcscmp(kind, L"#32770") == 0 && current.matches(window))
                current.found = window;
            return !current.found;
        },
        reinterpret_cast<LPARAM>(&search));
    return search.found;
}

} // namespace kestra::test
