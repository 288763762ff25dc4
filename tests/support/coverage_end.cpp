// Writes the counters of a coverage build when a module of it ends: one process after the other, since all add to the
// same files. Linked into each program and DLL of that build; enters on the thread that ends the process or unloads the
// DLL.
#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>

extern "C" {
void __gcov_dump();
extern decltype(&TerminateProcess) __real___imp_TerminateProcess;
extern decltype(&TerminateProcess) __wrap___imp_TerminateProcess;
void kestra_coverage_end();
}

namespace {

/// The modules of this process that count, each with the end that writes its counters.
struct Modules {
    void (*ends[32])(); ///< null: a free place
};

HANDLE section;
Modules* modules; ///< the process's own record of them, shared by its modules, which do not know each other

BOOL WINAPI endOfProcess(HANDLE process, UINT code) {
    if (GetProcessId(process) == GetCurrentProcessId() && modules) {
        const Modules all = *modules; // this module's view of it goes with its own end
        for (const auto end : all.ends)
            if (end) end();
    }
    return __real___imp_TerminateProcess(process, code);
}

/// First of all, so that at the end it comes after what static objects do.
__attribute__((constructor(101))) void begin() {
    std::atexit(kestra_coverage_end);
    wchar_t name[64];
    wsprintfW(name, L"Local\\KestraCoverage.%lu", GetCurrentProcessId());
    section = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(Modules), name);
    modules = static_cast<Modules*>(MapViewOfFile(section, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(Modules)));
    if (modules)
        if (const auto free = std::find(std::begin(modules->ends), std::end(modules->ends), nullptr);
            free != std::end(modules->ends))
            *free = kestra_coverage_end;
}

} // namespace

decltype(&TerminateProcess) __wrap___imp_TerminateProcess = &endOfProcess;

void kestra_coverage_end() {
    if (modules) {
        for (auto& end : modules->ends)
            if (end == kestra_coverage_end) end = nullptr;
        UnmapViewOfFile(modules);
        CloseHandle(section);
        modules = nullptr;
    }
    const HANDLE oneAtATime = CreateMutexW(nullptr, FALSE, L"Local\\KestraCoverage");
    WaitForSingleObject(oneAtATime, 30'000);
    __gcov_dump();
    ReleaseMutex(oneAtATime);
    CloseHandle(oneAtATime);
}
