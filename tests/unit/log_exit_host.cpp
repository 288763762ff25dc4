// Loads a module that logs, and ends in the middle of it: log_exit_host MODULE THREADS
#include <windows.h>

#include <cstdlib>

int wmain(int argc, wchar_t** argv) {
    if (argc != 3) return 2;
    const HMODULE module = LoadLibraryW(argv[1]);
    if (!module) return 3;
    using StartLogging = int (*)(int);
    const auto start = reinterpret_cast<StartLogging>(reinterpret_cast<void*>(GetProcAddress(module, "startLogging")));
    if (!start || start(_wtoi(argv[2])) != 0) return 4;
    ExitProcess(0); // ends the other threads first, then detaches the module
}
