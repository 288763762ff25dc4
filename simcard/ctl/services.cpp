// Finds the service managers among the processes.
#include "simcard/ctl/services.h"

#include "simcard/ctl/control.h"
#include "win32/handle.h"

#include <windows.h>

#include <tlhelp32.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <utility>
#include <vector>

namespace kestra::simcard {
namespace {

constexpr ULONGLONG kLongestMs = 60000;
constexpr ULONGLONG kOwnEndMs = 3000; ///< how long an old one may take to go by itself
constexpr DWORD kAgainMs = 100;

struct Manager {
    UniqueObject process;
    uint64_t begun100ns;
};

/// Those that run, the oldest first.
std::vector<Manager> managers() {
    std::vector<Manager> found;
    const UniqueFile snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = snapshot && Process32FirstW(snapshot.get(), &entry); more;
         more = Process32NextW(snapshot.get(), &entry)) {
        if (_wcsicmp(entry.szExeFile, L"services.exe") != 0) continue;
        UniqueObject process(OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_TERMINATE, FALSE,
                                         entry.th32ProcessID));
        FILETIME begun{}, ended{}, kernel{}, user{};
        if (process && GetProcessTimes(process.get(), &begun, &ended, &kernel, &user) &&
            WaitForSingleObject(process.get(), 0) == WAIT_TIMEOUT)
            found.push_back({std::move(process), uint64_t{begun.dwHighDateTime} << 32 | begun.dwLowDateTime});
    }
    std::sort(found.begin(), found.end(),
              [](const Manager& a, const Manager& b) { return a.begun100ns < b.begun100ns; });
    return found;
}

} // namespace

void awaitOneServiceManager() {
    const ULONGLONG begin = GetTickCount64();
    bool said = false;
    for (auto found = managers(); found.size() > 1; Sleep(kAgainMs), found = managers()) {
        if (!std::exchange(said, true))
            std::fprintf(stderr, "kestrasimctl: waiting for the older of two service managers to end\n");
        const ULONGLONG waitedMs = GetTickCount64() - begin;
        if (waitedMs > kOwnEndMs) TerminateProcess(found.front().process.get(), 0);
        if (waitedMs > kLongestMs) throw ControlError("There are still two service managers after 60 s", WAIT_TIMEOUT);
    }
}

} // namespace kestra::simcard
