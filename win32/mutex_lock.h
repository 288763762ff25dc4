// Holds a system mutex, which processes can share.
#pragma once

#include <windows.h>

namespace kestra {

/// Holds a mutex object for a scope if it could be had in time. A mutex abandoned by an ended thread counts as
/// acquired.
class MutexLock {
public:
    explicit MutexLock(HANDLE mutex, DWORD timeoutMs = INFINITE) noexcept : m_mutex(mutex) {
        const DWORD result = WaitForSingleObject(mutex, timeoutMs);
        m_held = result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
    }
    ~MutexLock() {
        if (m_held) ReleaseMutex(m_mutex);
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    bool isHeld() const noexcept { return m_held; }

private:
    HANDLE m_mutex;
    bool m_held;
};

} // namespace kestra
