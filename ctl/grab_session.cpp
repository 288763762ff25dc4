// Claims are counted by the library and refused by the card while another program holds the channel.
#include "ctl/grab_session.h"

#include "ctl/console.h"
#include "ctl/exit_code.h"
#include "ctl/signal_text.h"

#include <chrono>

namespace kestra::ctl {

int64_t monotonicNs() noexcept {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

InputState askInput(OpenCard& card) {
    TarnisCameraStatus status{};
    const uint32_t code = card.ask("what arrives", status, [](TARNIS_HANDLE handle, TarnisCameraStatus& result) {
        return TARNIS_GetCameraStatus(handle, 0, &result);
    });
    // A card that is pulled between two of these questions leaves a signal without a size.
    const bool isWhole = !hasSignal(status) || (status.width != 0 && status.height != 0);
    if (code == TARNIS_SUCCESS && isWhole) return InputState::of(status);
    return {isPluggedIn(card.entry().path) ? InputState::Kind::Refused : InputState::Kind::Pulled, {}};
}

GrabSession::GrabSession(OpenCard& card, bool wantsSound, FrameReceiver& receiver, Console& console)
    : m_card(card), m_video{&receiver, 0}, m_audio{&receiver, 1} {
    console.writeError("kestra-ctl: taking card " + std::to_string(card.entry().number) +
                       (wantsSound ? "'s picture and sound" : "'s picture") +
                       "; no other program can capture from it meanwhile\n");
    claim(0);
    m_hasVideo = true;
    if (!wantsSound) return;
    try {
        claim(1);
        m_hasAudio = true;
    } catch (const Failure&) {
        m_card.run("a release", [](TARNIS_HANDLE handle) { return TARNIS_ReleaseDMAAccess(handle, 0); });
        throw;
    }
}

void GrabSession::claim(int8_t port) {
    const uint32_t code =
        m_card.run("a channel", [port](TARNIS_HANDLE handle) { return TARNIS_GetDMAAccess(handle, port); });
    if (code == TARNIS_ACCESS_DENIED)
        throw Failure(ExitCode::InUse,
                      std::string("another program captures the ") + (port == 0 ? "picture" : "sound") + " of card " +
                          std::to_string(m_card.entry().number),
                      "end that capture first; kestra-ctl status and watch --passive look without taking anything");
    if (code != TARNIS_SUCCESS) m_card.fail("a channel", code);
}

GrabSession::~GrabSession() {
    try {
        for (const int8_t port : {int8_t{0}, int8_t{1}})
            if (port == 0 ? m_hasVideo : m_hasAudio)
                m_card.run("a release", [port](TARNIS_HANDLE handle) { return TARNIS_ReleaseDMAAccess(handle, port); });
    } catch (const Failure&) { // closing the card releases it, too
    }
}

void GrabSession::onFrame(uint64_t context, const TarnisFrameInfo* frame) {
    const Port& port = *reinterpret_cast<const Port*>(context);
    port.receiver->receive(port.number, *frame, monotonicNs());
}

uint32_t GrabSession::startPort(Port& port, TarnisCameraData& camera) {
    const auto number = static_cast<int8_t>(port.number);
    const auto context = reinterpret_cast<uint64_t>(&port);
    return m_card.ask("frames", camera, [number, context](TARNIS_HANDLE handle, TarnisCameraData& data) {
        return TARNIS_StartGrab(handle, number, 0, &data, onFrame, context);
    });
}

std::optional<TarnisCameraStatus> GrabSession::start(uint32_t selector, uint32_t soundBits) {
    const InputState input = askInput(m_card);
    if (input.kind != InputState::Kind::Signal) return {};
    m_grabsSound = false;
    if (m_hasAudio && hasSound(input.status)) {
        TarnisCameraData sound{};
        sound.extra = soundBits == 24 ? 0 : 1;
        m_grabsSound = startPort(m_audio, sound) == TARNIS_SUCCESS;
    }
    TarnisCameraData picture{};
    picture.outputSelector = selector;
    if (startPort(m_video, picture) == TARNIS_SUCCESS) return picture.status;
    stop();
    return {};
}

void GrabSession::stop() {
    m_card.run("an end", [](TARNIS_HANDLE handle) { return TARNIS_StopGrab(handle, 0); });
    if (m_hasAudio) m_card.run("an end", [](TARNIS_HANDLE handle) { return TARNIS_StopGrab(handle, 1); });
}

} // namespace kestra::ctl
