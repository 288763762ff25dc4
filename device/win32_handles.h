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

/// Keeps the module that this code is in from being unloaded.
class ModuleReference {
public:
    ModuleReference() noexcept {
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&anchor), &m_module);
    }
    ModuleReference(ModuleReference&& other) noexcept : m_module(std::exchange(other.m_module, nullptr)) {}
    ModuleReference& operator=(ModuleReference&&) = delete;
    ~ModuleReference() {
        if (m_module) FreeLibrary(m_module);
    }
    /// Ends the calling thread, which may be the last that runs the module's code. Objects on its stack stay as they
    /// are.
    [[noreturn]] void releaseAndExitThread(DWORD code) noexcept {
        FreeLibraryAndExitThread(std::exchange(m_module, nullptr), code);
    }

private:
    static inline const char anchor = 0;
    HMODULE m_module = nullptr;
};

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
