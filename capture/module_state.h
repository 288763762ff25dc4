// What the filters of one module share.
#pragma once

#include <streams.h>

#include <atomic>
#include <mutex>
#include <vector>

class CKestraStream;

namespace kestra {

/// How many filters there are, for their trace lines.
extern std::atomic<LONG> filterInstances;

/// False from the end of a successful activation of the video pin to its deactivation.
extern std::atomic<bool> videoStopped;

/// The audio pins of this module, which the video pin starts along with itself. Any thread.
class AudioPins {
public:
    void add(CBasePin* pin);
    void remove(CBasePin* pin) noexcept;
    /// Calls Active on every pin, in the order in which they were added; results are ignored.
    void activateAll() noexcept;

private:
    std::mutex m_mutex;
    std::vector<CBasePin*> m_pins;
};
extern AudioPins audioPins;

/// The video pins of this module. Any thread.
class VideoPins {
public:
    void add(CKestraStream* pin);
    void remove(CKestraStream* pin) noexcept;
    /// Lets the pins of a graph get their buffers ready for a start that is near, so that sound which starts now is not
    /// ahead of the picture by the time that takes.
    void prepare(IFilterGraph* graph) noexcept;

private:
    std::mutex m_mutex;
    std::vector<CKestraStream*> m_pins;
};
extern VideoPins videoPins;

} // namespace kestra
