// A card's two channels while this program grabs from them.
#pragma once

#include "ctl/cards.h"
#include "ctl/frame_receiver.h"
#include "ctl/input_watch.h"

#include <cstdint>
#include <optional>

namespace kestra::ctl {

class Console;

/// Nanoseconds of a clock that only goes forward.
int64_t monotonicNs() noexcept;

/// Claims the channels for its lifetime. Declare the receiver before the open card: until the card is closed, a late
/// frame may still come.
class GrabSession {
public:
    /// First says on the error output what it takes from other programs. Throws Failure (in use).
    GrabSession(OpenCard& card, bool wantsSound, FrameReceiver& receiver, Console& console);
    ~GrabSession();
    GrabSession(const GrabSession&) = delete;
    GrabSession& operator=(const GrabSession&) = delete;

    /// Starts the sound, if it was wanted and arrives, then the picture, so that no picture lacks its sound.
    /// @param selector   TarnisOutputSelector
    /// @param soundBits  16 or 24
    /// @return what the picture was prepared for; nothing if it cannot start, for want of a signal or of the card.
    /// Throws Failure if the driver does not answer.
    std::optional<TarnisCameraStatus> start(uint32_t selector, uint32_t soundBits);
    void stop();
    /// True if start() also started the sound.
    bool grabsSound() const noexcept { return m_grabsSound; }

private:
    struct Port {
        FrameReceiver* receiver;
        int number;
    };
    static void onFrame(uint64_t context, const TarnisFrameInfo* frame);
    uint32_t startPort(Port& port, TarnisCameraData& camera);
    void claim(int8_t port);

    OpenCard& m_card;
    Port m_video, m_audio;
    bool m_hasVideo = false, m_hasAudio = false, m_grabsSound = false;
};

/// What arrives now, or why that is not known. Throws Failure if the driver does not answer.
InputState askInput(OpenCard& card);

} // namespace kestra::ctl
