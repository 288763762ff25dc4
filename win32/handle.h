// Owners of handles. Use each owner from one thread at a time.
#pragma once

#include <windows.h>

#include <utility>

namespace kestra {

/// Owns a handle. Traits::none() is what "no handle" looks like: CreateFileW fails with INVALID_HANDLE_VALUE,
/// CreateEventW with null, and mixing the two leaks a handle or closes somebody else's. Traits::close() closes it.
template <class Traits>
class UniqueHandle {
public:
    using Type = decltype(Traits::none());

    explicit UniqueHandle(Type handle = Traits::none()) noexcept : m_handle(handle) {}
    UniqueHandle(UniqueHandle&& other) noexcept : m_handle(std::exchange(other.m_handle, Traits::none())) {}
    UniqueHandle& operator=(UniqueHandle other) noexcept {
        std::swap(m_handle, other.m_handle);
        return *this;
    }
    ~UniqueHandle() {
        if (!*this) return;
        const DWORD error = GetLastError(); // cleanup must not overwrite the error that led here
        Traits::close(m_handle);
        SetLastError(error);
    }
    explicit operator bool() const noexcept { return m_handle != Traits::none(); }
    Type get() const noexcept { return m_handle; }
    /// Passes the handle to the caller.
    Type release() noexcept { return std::exchange(m_handle, Traits::none()); }
    /// Output argument for a function; closes the current handle first.
    Type* out() noexcept {
        *this = UniqueHandle();
        return &m_handle;
    }

private:
    Type m_handle;
};

struct NullHandleTraits {
    static HANDLE none() noexcept { return nullptr; }
    static void close(HANDLE handle) noexcept { CloseHandle(handle); }
};
struct FileHandleTraits {
    static HANDLE none() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(HANDLE handle) noexcept { CloseHandle(handle); }
};
using UniqueObject = UniqueHandle<NullHandleTraits>; ///< event, mutex, thread, process
using UniqueFile = UniqueHandle<FileHandleTraits>;   ///< file, device, snapshot

} // namespace kestra
