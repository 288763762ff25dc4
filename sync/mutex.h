// Locks that know what they guard: with clang, touching a field without its lock is an error. Portable.
#pragma once

#include "sync/thread_annotations.h"

#include <condition_variable>
#include <mutex>

namespace kestra {

/// A std::mutex. Fields name it: `int m_count GUARDED_BY(m_mutex);`
class CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    void lock() ACQUIRE() { m_mutex.lock(); }
    void unlock() RELEASE() { m_mutex.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

private:
    friend class Condition;
    std::mutex m_mutex;
};

/// Holds a lock for a scope. Works for every type with lock() and unlock() that is annotated as a capability.
template <class Lockable = Mutex>
class SCOPED_CAPABILITY LockGuard {
public:
    explicit LockGuard(Lockable& lock) ACQUIRE(lock) : m_lock(lock) { m_lock.lock(); }
    ~LockGuard() RELEASE() { m_lock.unlock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

private:
    Lockable& m_lock;
};

/// A condition variable for a Mutex. Wait in a loop that tests the state: the analysis does not look into predicates.
class Condition {
public:
    Condition() = default;
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;
    /// Releases the mutex while waiting. May wake spuriously.
    void wait(Mutex& mutex) REQUIRES(mutex) {
        std::unique_lock lock(mutex.m_mutex, std::adopt_lock);
        m_condition.wait(lock);
        (void)lock.release(); // still held, by the caller
    }
    /// @return false on timeout.
    template <class Clock, class Duration>
    bool waitUntil(Mutex& mutex, const std::chrono::time_point<Clock, Duration>& time) REQUIRES(mutex) {
        std::unique_lock lock(mutex.m_mutex, std::adopt_lock);
        const bool inTime = m_condition.wait_until(lock, time) == std::cv_status::no_timeout;
        (void)lock.release();
        return inTime;
    }
    void notifyOne() noexcept { m_condition.notify_one(); }
    void notifyAll() noexcept { m_condition.notify_all(); }

private:
    std::condition_variable m_condition;
};

} // namespace kestra
