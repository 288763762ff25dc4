// State that all filters of the module share.
#pragma once

#include <algorithm>
#include <mutex>
#include <new>
#include <vector>

class CKestraStream;
class CKestraAudioStream;

namespace kestra {

/// All pins of one kind: the audio pins, which a video pin starts with itself, and the video pins, which an audio pin
/// tells to get ready. Any thread.
template <class Pin>
class PinList {
public:
    /// @return false without memory
    bool add(Pin* pin) noexcept {
        try {
            const std::lock_guard lock(m_mutex);
            m_pins.push_back(pin);
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }
    void remove(Pin* pin) noexcept {
        const std::lock_guard lock(m_mutex);
        m_pins.erase(std::remove(m_pins.begin(), m_pins.end(), pin), m_pins.end());
    }
    /// In the order in which they were added; no pin is removed meanwhile.
    template <class Action>
    void forEach(Action action) {
        const std::lock_guard lock(m_mutex);
        for (Pin* pin : m_pins)
            action(*pin);
    }

private:
    std::mutex m_mutex;
    std::vector<Pin*> m_pins;
};
inline PinList<CKestraAudioStream> audioPins;
inline PinList<CKestraStream> videoPins;

} // namespace kestra
