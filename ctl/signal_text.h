// What arrives at a card, in words. Portable; pure functions.
#pragma once

#include "protocol/records.h"

#include <string>

namespace kestra::ctl {

inline bool hasSignal(const TarnisCameraStatus& status) noexcept {
    return (status.signalFlags & TARNIS_SIGNAL_PRESENT) != 0;
}
inline bool hasSound(const TarnisCameraStatus& status) noexcept {
    return (status.signalFlags & TARNIS_SIGNAL_AUDIO) != 0;
}

/// "1920x1080p60, sound", "1920x1080i50 (fields), no sound", "no signal".
std::string signalLine(const TarnisCameraStatus& status);

/// "1920x1080p60" alone.
std::string signalName(const TarnisCameraStatus& status);

/// What the card's code of a video standard means, as far as that is known.
const char* videoModeMeaning(uint32_t videoMode) noexcept;

} // namespace kestra::ctl
