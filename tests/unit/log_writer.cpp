// One of many processes that log into the same file: log_writer DIRECTORY PROCESS THREADS RECORDS
// Without arguments it dies while holding the mutex.
#include "log/engine.h"

#include <windows.h>

#include <cstdlib>
#include <thread>
#include <vector>

int wmain(int argc, wchar_t** argv) {
    if (argc == 1) {
        const HANDLE mutex = CreateMutexW(nullptr, FALSE, L"ZELIB_WRITING_MUTEX");
        const bool held = WaitForSingleObject(mutex, 10000) == WAIT_OBJECT_0;
        TerminateProcess(GetCurrentProcess(), held ? 77 : 1);
    }
    if (argc != 5) return 2;
    const int process = _wtoi(argv[2]), threads = _wtoi(argv[3]), records = _wtoi(argv[4]);
    if (!kestra::logFindOrCreateEngine(kTarnisLogHandle)) return 1;
    if (LogOpen(kTarnisLogHandle, L"TARNIS", argv[1], 0, 0, 0, 2, 0) != 0) return 1;
    std::vector<std::thread> team;
    for (int t = 0; t < threads; ++t)
        team.emplace_back([=] {
            static constexpr kestra::LogUnit unit{"writer", L".\\log_writer.cpp"};
            for (int i = 0; i < records; ++i)
                kestra::logPoint(unit, "wmain", __LINE__, LOG_MANDATORY, i, L"process %d thread %d record %d", process,
                                 t, i);
        });
    for (std::thread& thread : team)
        thread.join();
    LogClose(kTarnisLogHandle);
    return 0;
}
