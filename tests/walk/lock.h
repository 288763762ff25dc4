// A lock that holds no handle of the system. std::mutex opens one when two threads first meet at it,
// std::condition_variable two: in an object that outlives the act, that would count as what the act has left behind.
#pragma once

#include <windows.h>

namespace kestra::walk {

/// For std::lock_guard. Any thread.
class Lock {
public:
    Lock() = default;
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    void lock() noexcept { AcquireSRWLockExclusive(&m_lock); }
    void unlock() noexcept { ReleaseSRWLockExclusive(&m_lock); }
    /// Wakes the threads in await(). The lock is held.
    void notify() noexcept { WakeAllConditionVariable(&m_changed); }
    /// Lets others in until the condition holds. The lock is held.
    template <class Condition>
    void await(const Condition& condition) {
        while (!condition())
            SleepConditionVariableSRW(&m_changed, &m_lock, INFINITE, 0);
    }

private:
    SRWLOCK m_lock = SRWLOCK_INIT;
    CONDITION_VARIABLE m_changed = CONDITION_VARIABLE_INIT;
};

} // namespace kestra::walk
