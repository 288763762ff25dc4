// Signals, faults and options by number.
#include "tests/walk/card_events.h"

#include "simcard/model/card.h"
#include "tests/walk/card_pictures.h"

namespace kestra::walk {

using namespace kestra::simcard;

Signal anySignal(uint32_t b) {
    if (b % 8 == 7) return {};
    Signal signal = kSignals[b % kSignals.size()];
    if (b / 64 % 8 == 0) signal.videoMode = kVideoModeSettlingFirst;
    if (b / 512 % 8 == 0) signal.audio ^= 1;
    return signal;
}

void addAnyFault(const CardControl& card, uint32_t a, uint32_t b) {
    static constexpr uint32_t kStatuses[] = {
        kStatusAccessDenied,       kStatusNotSupported,    0xC0000001,
        kStatusInvalidHandle,      kStatusCancelled,       kStatusInsufficientResources,
        kStatusDeviceNotConnected, kStatusInvalidParameter};
    static constexpr uint32_t kDmaStatuses[] = {DMA_STATUS_FRAME_DROPED, DMA_STATUS_FIFO_OVERRUN, DMA_STATUS_ABORTED,
                                                7};
    Fault fault{};
    fault.kind = static_cast<FaultKind>(a / 16 % 10);
    const wire::RequestShape& shape = wire::kRequests[b % std::size(wire::kRequests)];
    fault.code = b / 32 % 8 == 0 ? kAnyCode : shape.code + (b / 256 % 2) * shape.portStride;
    fault.skip = b / 512 % 4;
    fault.count = 1 + b / 2048 % 3;
    const uint32_t value = b / 8192;
    switch (fault.kind) {
    case FaultKind::NtStatus:
        fault.value = kStatuses[value % std::size(kStatuses)];
        break;
    case FaultKind::DriverResult:
        fault.value = value % 9 == 8 ? 0x1FF : value % 9;
        break;
    case FaultKind::ShortReply:
        fault.value = value % 70;
        break;
    case FaultKind::Delay:
        fault.value = 1 + value % 300;
        break;
    case FaultKind::SignalChange:
        fault.signal = anySignal(value);
        break;
    case FaultKind::SignalAtFrame:
        fault.signal = anySignal(value);
        fault.value = card.state().frameNumber + 1 + value / 4096 % 8;
        break;
    case FaultKind::DmaStatus:
        fault.code = value % 2;
        fault.value = kDmaStatuses[value / 2 % 4];
        break;
    default:
        break;
    }
    card.addFault(fault);
}

Options anyOptions(uint32_t b) {
    Options options = kDefaultOptions;
    options.pace = b % 3 == 0 ? Pace::AsTaken : Pace::RealTime;
    options.stopBehaviour = static_cast<StopBehaviour>(b / 8 % 3);
    options.picture = b / 32 % 3;
    return options;
}

const std::vector<Call>& cardCalls() {
    static const std::vector<Call> calls = {
        {"card: signal", 4, 0}, {"card: pulled", 3, 0},    {"card: plugged in", 5, 0},
        {"card: fault", 9, 0},  {"card: no faults", 4, 0}, {"card: options", 3, 3},
    };
    return calls;
}

std::vector<Call> withCardCalls(std::vector<Call> own) {
    own.insert(own.end(), cardCalls().begin(), cardCalls().end());
    return own;
}

uint32_t cardStep(size_t which, uint32_t a, uint32_t b) {
    const CardControl card(a % kCards);
    switch (which) {
    case 0:
        card.setSignal(anySignal(b));
        break;
    case 1:
        card.unplug();
        break;
    case 2:
        for (uint32_t i = 0; i < kCards; ++i)
            CardControl(i).plug();
        break;
    case 3:
        try {
            addAnyFault(card, a, b);
        } catch (const ControlError&) { // it has as many as it can have
            return kNotMade;
        }
        break;
    case 4:
        card.clearFaults();
        break;
    default:
        card.setOptions(anyOptions(b));
        break;
    }
    return 0;
}

bool mayHoldAnswers(size_t which) {
    return which == 1 || which == 3;
}

void letCardsAnswer() {
    for (uint32_t card = 0; card < kCards; ++card)
        CardControl(card).clearFaults();
}

} // namespace kestra::walk
