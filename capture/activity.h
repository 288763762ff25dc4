// Whether the filter is paused or running, as its frame callback asks. The callback must not wait for the filter's
// lock: stopping holds that lock while it waits for the callback. So the pin and the filter note each change here.
#pragma once

#include <condition_variable>
#include <mutex>

namespace kestra {

class Activity {
public:
    enum class State { Stopped, Starting, Active };

    void set(State state) {
        {
            const std::lock_guard lock(m_mutex);
            m_state = state;
        }
        m_changed.notify_all();
    }
    /// Waits while the filter is starting: a frame that comes early is not lost. @return true: paused or running
    bool isActive() {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_state != State::Starting; });
        return m_state == State::Active;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    State m_state = State::Stopped;
};

} // namespace kestra
