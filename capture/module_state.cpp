#include "capture/module_state.h"

#include <algorithm>

namespace kestra {

std::atomic<LONG> filterInstances{0};
std::atomic<bool> videoStopped{false};
AudioPins audioPins;

void AudioPins::add(CBasePin* pin) {
    const std::lock_guard lock(m_mutex);
    m_pins.push_back(pin);
}

void AudioPins::remove(CBasePin* pin) noexcept {
    const std::lock_guard lock(m_mutex);
    m_pins.erase(std::remove(m_pins.begin(), m_pins.end(), pin), m_pins.end());
}

void AudioPins::activateAll() noexcept {
    const std::lock_guard lock(m_mutex);
    for (CBasePin* pin : m_pins)
        pin->Active();
}

} // namespace kestra
