// hold_file load|open FILE: holds a file until the standard input ends, as an application that has loaded the module
// does, or as one that lets nobody else at the file.
#include <windows.h>

#include <cstdio>
#include <cwchar>

int wmain(int count, wchar_t** arguments) {
    if (count != 3) return 2;
    const bool held =
        std::wcscmp(arguments[1], L"load") == 0
            ? LoadLibraryW(arguments[2]) != nullptr
            : CreateFileW(arguments[2], GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr) != INVALID_HANDLE_VALUE;
    std::puts(held ? "held" : "refused");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return held ? 0 : 1;
}
