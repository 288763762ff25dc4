// A thread that issues requests for others. When a thread ends, the system cancels what it issued; so whatever must
// outlive its caller is issued here. Portable.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

namespace kestra {

class RequestThread {
public:
    RequestThread() : m_thread([this] { run(); }) {}
    ~RequestThread() {
        {
            const std::lock_guard lock(m_mutex);
            m_ending = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }
    RequestThread(const RequestThread&) = delete;
    RequestThread& operator=(const RequestThread&) = delete;

    /// Calls work() on the thread and waits for it. Any thread; work must not throw or call this again.
    template <class Work>
    void call(Work& work) {
        const std::lock_guard oneAtATime(m_callers);
        std::unique_lock lock(m_mutex);
        m_context = &work;
        m_work = [](void* context) { (*static_cast<Work*>(context))(); };
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return !m_work; });
    }

private:
    void run() {
        std::unique_lock lock(m_mutex);
        for (;;) {
            m_changed.wait(lock, [this] { return m_ending || m_work; });
            if (!m_work) return;
            lock.unlock();
            m_work(m_context);
            lock.lock();
            m_work = nullptr;
            m_changed.notify_all();
        }
    }

    std::mutex m_callers, m_mutex;
    std::condition_variable m_changed;
    void (*m_work)(void*) = nullptr;
    void* m_context = nullptr;
    bool m_ending = false;
    std::thread m_thread; // last: it uses all of the above
};

} // namespace kestra
