// The log's system calls.
#include "log/platform.h"

#include "log/pending_handles.h"

#include <windows.h>

#include <cstdio>
#include <ctime>

#include <sys/timeb.h>

extern "C" IMAGE_DOS_HEADER __ImageBase; // the linker's name for the module's first byte: its instance handle

namespace kestra::platform {

bool localTime(LocalTime& time, int& error) noexcept {
    struct __timeb64 now {};
    error = _ftime64_s(&now);
    if (error != 0) return false;
    tm broken{};
    error = _localtime64_s(&broken, &now.time);
    if (error != 0) return false;
    time = {broken.tm_year + 1900, broken.tm_mon + 1, broken.tm_mday, broken.tm_hour,
            broken.tm_min,         broken.tm_sec,     now.millitm};
    return true;
}

uint32_t secondsNow() noexcept {
    return static_cast<uint32_t>(_time64(nullptr));
}

uint32_t processId() noexcept {
    return GetCurrentProcessId();
}

uint32_t threadId() noexcept {
    return GetCurrentThreadId();
}

uint64_t moduleKey() noexcept {
    return reinterpret_cast<uint64_t>(&__ImageBase);
}

const wchar_t* commandLine() noexcept {
    return GetCommandLineW();
}

void executablePath(wchar_t* path, size_t capacity) noexcept {
    path[0] = L'\0';
    GetModuleFileNameW(nullptr, path, static_cast<DWORD>(capacity));
    path[capacity - 1] = L'\0';
}

void format(wchar_t* buffer, size_t capacity, const wchar_t* text, va_list arguments) noexcept {
    buffer[0] = L'\0';
    _vsnwprintf(buffer, capacity, text, arguments);
    buffer[capacity - 1] = L'\0';
}

void debugOutput(const wchar_t* text) noexcept {
    OutputDebugStringW(text);
}

bool processIsEnding() noexcept {
    // Looked up: the import libraries at hand do not all name it.
    using ShutdownInProgress = BOOLEAN(NTAPI*)();
    const FARPROC found = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress");
    return found && reinterpret_cast<ShutdownInProgress>(reinterpret_cast<void*>(found))();
}

KeepLastError::KeepLastError() noexcept : m_error(GetLastError()) {}
KeepLastError::~KeepLastError() {
    SetLastError(m_error);
}

namespace {

constexpr size_t kPendingCapacity = 16;
SRWLOCK g_pendingLock = SRWLOCK_INIT;
HANDLE g_pending[kPendingCapacity];
DWORD g_pendingCount = 0;

} // namespace

void waitForPendingHandles() noexcept {
    AcquireSRWLockExclusive(&g_pendingLock);
    HANDLE handles[kPendingCapacity];
    const DWORD count = g_pendingCount;
    for (DWORD i = 0; i < count; ++i)
        handles[i] = g_pending[i];
    g_pendingCount = 0;
    ReleaseSRWLockExclusive(&g_pendingLock);
    if (count == 0) return;
    // MWMO_WAITALL would also ask for input before it returns, so each handle is waited for in its turn.
    for (DWORD i = 0; i < count;) {
        const DWORD result = MsgWaitForMultipleObjectsEx(1, &handles[i], INFINITE, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
        if (result != WAIT_OBJECT_0 + 1) {
            CloseHandle(handles[i++]);
            continue;
        }
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
            TranslateMessage(&message);
            DispatchMessageW(&message);
        }
    }
}

} // namespace kestra::platform

namespace kestra {

bool logAddPendingHandle(void* handle) noexcept {
    using namespace platform;
    AcquireSRWLockExclusive(&g_pendingLock);
    const bool room = g_pendingCount < kPendingCapacity;
    if (room) g_pending[g_pendingCount++] = handle;
    ReleaseSRWLockExclusive(&g_pendingLock);
    return room;
}

} // namespace kestra
