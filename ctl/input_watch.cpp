// Two moments are compared by everything that a person would call another signal.
#include "ctl/input_watch.h"

#include "ctl/signal_text.h"
#include "protocol/frame_rate.h"

#include <utility>

namespace kestra::ctl {

InputState InputState::of(const TarnisCameraStatus& status) noexcept {
    if (!hasSignal(status)) return {Kind::NoSignal, {}};
    return {isSettling(status.videoMode) ? Kind::Settling : Kind::Signal, status};
}

std::string InputState::text() const {
    switch (kind) {
    case Kind::Pulled:
        return "the card is not there";
    case Kind::Refused:
        return "the card's driver refuses to say";
    case Kind::Unknown:
        return "not asked yet";
    default:
        return signalLine(status);
    }
}

const char* InputState::name() const noexcept {
    constexpr const char* kNames[] = {"unknown", "pulled", "refused", "none", "settling", "signal"};
    return kNames[static_cast<size_t>(kind)];
}

std::optional<std::string> InputWatch::take(const InputState& now) {
    const InputState before = std::exchange(m_state, now);
    using Kind = InputState::Kind;
    if (before.kind == Kind::Unknown ||
        (before.kind == now.kind && before.text() == now.text() && before.status.videoMode == now.status.videoMode))
        return {};
    ++m_changes;
    switch (now.kind) {
    case Kind::Pulled:
        return "the card was pulled";
    case Kind::NoSignal:
        return before.kind == Kind::Pulled ? "the card is back, without a signal" : "the signal has gone";
    case Kind::Signal:
        if (before.kind == Kind::Pulled) return "the card is back: " + now.text();
        return (before.kind == Kind::Signal ? "the signal has changed to " : "a signal has come: ") + now.text();
    default:
        return now.text();
    }
}

} // namespace kestra::ctl
