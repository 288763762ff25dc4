// What changes at a card's input over time, in words. Portable; one thread's.
#pragma once

#include "protocol/records.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kestra::ctl {

/// What is known of a card's input at one moment.
struct InputState {
    enum class Kind { Unknown, Pulled, Refused, NoSignal, Settling, Signal };
    Kind kind = Kind::Unknown;
    TarnisCameraStatus status{}; ///< if Settling or Signal

    static InputState of(const TarnisCameraStatus& status) noexcept;
    /// "1920x1080p60, sound", "no signal", "the card is not there", ...
    std::string text() const;
    /// One word, for programs.
    const char* name() const noexcept;
};

/// Tells what has changed since it was last asked.
class InputWatch {
public:
    /// @return what happened, if anything did: for example "the signal has gone". The first state is no change.
    std::optional<std::string> take(const InputState& now);
    const InputState& state() const noexcept { return m_state; }
    uint64_t changes() const noexcept { return m_changes; }

private:
    InputState m_state;
    uint64_t m_changes = 0;
};

} // namespace kestra::ctl
