// The log's system calls.
#include "log/platform.h"

#include "log/pending_handles.h"
#include "win32/handle.h"
#include "win32/module.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <utility>

#include <sys/timeb.h>

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
    return reinterpret_cast<uint64_t>(ownModule());
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

constexpr size_t kPendingCapacity = 16; // to begin with
SRWLOCK g_pendingLock = SRWLOCK_INIT;
HANDLE* g_pending = nullptr; // plain memory: it must outlive every static object that may still close a log
size_t g_pendingCount = 0, g_pendingRoom = 0;

/// Dispatches what is in the calling thread's queue. A request to quit stays in it for the thread's own loop.
/// @return false once that request has been seen.
bool pumpMessages() noexcept {
    MSG message;
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
        if (message.message == WM_QUIT) {
            PostQuitMessage(static_cast<int>(message.wParam));
            return false;
        }
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
    return true;
}

} // namespace

void waitForPendingHandles() noexcept {
    AcquireSRWLockExclusive(&g_pendingLock);
    HANDLE* const handles = std::exchange(g_pending, nullptr);
    const size_t count = std::exchange(g_pendingCount, 0);
    g_pendingRoom = 0;
    ReleaseSRWLockExclusive(&g_pendingLock);
    // MWMO_WAITALL would also ask for input before it returns, and stops at 63 handles: the wait for all is made
    // of one wait after the other, which ends at the same moment.
    bool pumping = true;
    for (size_t i = 0; i < count;) {
        const DWORD result =
            pumping ? MsgWaitForMultipleObjectsEx(1, &handles[i], INFINITE, QS_ALLINPUT, MWMO_INPUTAVAILABLE)
                    : WaitForSingleObject(handles[i], INFINITE);
        if (pumping && result == WAIT_OBJECT_0 + 1)
            pumping = pumpMessages();
        else
            UniqueObject(handles[i++]).out(); // closes it
    }
    std::free(handles);
}

} // namespace kestra::platform

namespace kestra {

bool logAddPendingHandle(void* handle) noexcept {
    using namespace platform;
    AcquireSRWLockExclusive(&g_pendingLock);
    if (g_pendingCount == g_pendingRoom) {
        const size_t room = g_pendingRoom == 0 ? kPendingCapacity : 2 * g_pendingRoom;
        if (void* grown = std::realloc(g_pending, room * sizeof(HANDLE))) {
            g_pending = static_cast<HANDLE*>(grown);
            g_pendingRoom = room;
        }
    }
    const bool taken = g_pendingCount < g_pendingRoom;
    if (taken) g_pending[g_pendingCount++] = handle;
    ReleaseSRWLockExclusive(&g_pendingLock);
    return taken;
}

} // namespace kestra
