// The log's system calls.
#include "log/platform.h"

#include "sync/mutex.h"
#include "win32/handle.h"
#include "win32/module.h"

#include <windows.h>

#include <cstddef>
#include <cstdio>
#include <ctime>
#include <new>
#include <vector>

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

void format(wchar_t* buffer, size_t capacity, const wchar_t* text, va_list arguments) noexcept {
    buffer[0] = L'\0';
    _vsnwprintf(buffer, capacity, text, arguments);
    buffer[capacity - 1] = L'\0';
}

void debugOutput(const wchar_t* text) noexcept {
    OutputDebugStringW(text);
}

bool processIsEnding() noexcept {
    // Looked up at run time: not every import library has it.
    using ShutdownInProgress = BOOLEAN(NTAPI*)();
    const FARPROC found = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress");
    return found && reinterpret_cast<ShutdownInProgress>(reinterpret_cast<void*>(found))();
}

KeepLastError::KeepLastError() noexcept : m_error(GetLastError()) {}
KeepLastError::~KeepLastError() {
    SetLastError(m_error);
}

namespace {

struct PendingHandles {
    Mutex mutex;
    std::vector<UniqueObject> handles GUARDED_BY(mutex);
};

/// Never destroyed: the static object that closes a log may be destroyed last.
PendingHandles& pending() noexcept {
    alignas(PendingHandles) static std::byte room[sizeof(PendingHandles)];
    static PendingHandles& instance = *new (room) PendingHandles;
    return instance;
}

/// Dispatches the calling thread's messages. WM_QUIT is left for the thread's own loop.
/// @return false once WM_QUIT has been seen.
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

bool addPendingHandle(void* handle) noexcept {
    const LockGuard lock(pending().mutex);
    try {
        pending().handles.emplace_back();
    } catch (const std::bad_alloc&) {
        return false;
    }
    pending().handles.back() = UniqueObject(handle);
    return true;
}

void waitForPendingHandles() noexcept {
    std::vector<UniqueObject> handles;
    {
        const LockGuard lock(pending().mutex);
        handles.swap(pending().handles);
    }
    // MWMO_WAITALL would also need input to return and is limited to 63 handles. Waiting for one after the other ends
    // at the same moment.
    bool pumping = true;
    for (const UniqueObject& object : handles) {
        const HANDLE handle = object.get();
        while (pumping &&
               MsgWaitForMultipleObjectsEx(1, &handle, INFINITE, QS_ALLINPUT, MWMO_INPUTAVAILABLE) == WAIT_OBJECT_0 + 1)
            pumping = pumpMessages();
        if (!pumping) WaitForSingleObject(handle, INFINITE);
    }
}

} // namespace kestra::platform
