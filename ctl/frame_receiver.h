// Who gets the frames of a card's two channels. Portable.
#pragma once

#include "protocol/records.h"

#include <cstdint>

namespace kestra::ctl {

/// Receives what a session grabs. Each port's calls come on one thread of the device library's, which must not be held
/// up.
class FrameReceiver {
public:
    virtual ~FrameReceiver() = default;
    /// @param port    0 picture, 1 sound
    /// @param timeNs  when it came, by a clock that only goes forward
    virtual void receive(int port, const TarnisFrameInfo& frame, int64_t timeNs) noexcept = 0;
};

} // namespace kestra::ctl
