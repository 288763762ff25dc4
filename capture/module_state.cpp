#include "capture/module_state.h"

#include "capture/video_stream.h"

#include <algorithm>

namespace kestra {

std::atomic<LONG> filterInstances{0};
std::atomic<bool> videoStopped{false};
AudioPins audioPins;
VideoPins videoPins;

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

void VideoPins::add(CKestraStream* pin) {
    const std::lock_guard lock(m_mutex);
    m_pins.push_back(pin);
}

void VideoPins::remove(CKestraStream* pin) noexcept {
    const std::lock_guard lock(m_mutex);
    m_pins.erase(std::remove(m_pins.begin(), m_pins.end(), pin), m_pins.end());
}

void VideoPins::prepare(IFilterGraph* graph) noexcept {
    if (!graph) return;
    const std::lock_guard lock(m_mutex);
    for (CKestraStream* pin : m_pins)
        pin->prepareFor(graph);
}

} // namespace kestra
