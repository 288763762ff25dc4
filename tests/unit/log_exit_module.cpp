// A module with the library's log, closed when the module is detached: for a process that ends while its threads log.
#include "log/engine.h"

#include <windows.h>

namespace {

/// Keeps the log open while the module is loaded.
struct ModuleLog {
    ModuleLog() noexcept {
        const bool file = GetEnvironmentVariableW(L"KESTRA_EXIT_CHANNEL", m_channel, 16) == 4;
        if (!kestra::logFindOrCreateEngine(kTarnisLogHandle)) return;
        LogOpen(kTarnisLogHandle, L"TARNIS", nullptr, 0, 0, 0, 2, file ? 0 : 2);
    }
    ~ModuleLog() { LogClose(kTarnisLogHandle); }
    wchar_t m_channel[16]{};
};

ModuleLog moduleLog;

DWORD WINAPI logForever(void* started) {
    static constexpr kestra::LogUnit unit{"group", L".\\log_exit_module.cpp"};
    for (int i = 0;; ++i) {
        kestra::logPoint(unit, "logForever", __LINE__, LOG_MANDATORY, i, L"record %d", i);
        if (i == 20) SetEvent(started);
    }
}

} // namespace

/// Starts threads that log until the process ends; returns when each has logged.
extern "C" __declspec(dllexport) int startLogging(int threads) {
    if (!kestra::logAccepts(LOG_MANDATORY)) return 1;
    for (int t = 0; t < threads; ++t) {
        const HANDLE started = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        const HANDLE thread = CreateThread(nullptr, 0, logForever, started, 0, nullptr);
        if (!thread || WaitForSingleObject(started, 10000) != WAIT_OBJECT_0) return 1;
        CloseHandle(thread);
    }
    return 0;
}
