// Owners of Win32 resources. Private to device/.
#pragma once

#include <windows.h>

#include <utility>

namespace kestra {

/// Owns a Win32 handle. Traits::none() is what "no handle" looks like: CreateFileW fails with
/// INVALID_HANDLE_VALUE, CreateEventW with null, and mixing the two leaks or closes a stranger's.
template <class Traits>
class UniqueHandle {
public:
    explicit UniqueHandle(HANDLE handle = Traits::none()) noexcept : m_handle(handle) {}
    UniqueHandle(UniqueHandle&& other) noexcept : m_handle(std::exchange(other.m_handle, Traits::none())) {}
    UniqueHandle& operator=(UniqueHandle other) noexcept {
        std::swap(m_handle, other.m_handle);
        return *this;
    }
    ~UniqueHandle() {
        if (!*this) return;
        const DWORD error = GetLastError(); // cleanup must not hide the error that led here
        CloseHandle(m_handle);
        SetLastError(error);
    }
    explicit operator bool() const noexcept { return m_handle != Traits::none(); }
    HANDLE get() const noexcept { return m_handle; }

private:
    HANDLE m_handle;
};

struct NullHandleTraits {
    static HANDLE none() noexcept { return nullptr; }
};
struct FileHandleTraits {
    static HANDLE none() noexcept { return INVALID_HANDLE_VALUE; }
};
using UniqueObject = UniqueHandle<NullHandleTraits>; ///< event, mutex, thread
using UniqueFile = UniqueHandle<FileHandleTraits>;

/// Holds a mutex object for a scope.
class MutexLock {
public:
    explicit MutexLock(HANDLE mutex) noexcept : m_mutex(mutex) { WaitForSingleObject(mutex, INFINITE); }
    ~MutexLock() { ReleaseMutex(m_mutex); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    HANDLE m_mutex;
};

} // namespace kestra
