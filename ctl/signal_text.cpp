// Sizes, scans and rates as the trade writes them.
#include "ctl/signal_text.h"

#include "ctl/text.h"
#include "protocol/frame_rate.h"

namespace kestra::ctl {

std::string signalName(const TarnisCameraStatus& status) {
    const uint32_t rate = reportedRate(status);
    return format("%ux%u%c%s", status.width, status.height, status.interlaced ? 'i' : 'p',
                  rate != 0 ? std::to_string(rate).c_str() : ", rate not measured");
}

std::string signalLine(const TarnisCameraStatus& status) {
    if (!hasSignal(status)) return "no signal";
    if (isSettling(status.videoMode)) return "a signal that the receiver has not settled on yet";
    return signalName(status) + (hasSound(status) ? ", sound" : ", no sound");
}

const char* videoModeMeaning(uint32_t videoMode) noexcept {
    if (isSettling(videoMode)) return "the receiver has not settled on the signal yet";
    if (videoMode == kVideoMode24) return "24 frames per second";
    return "the receiver's number for this standard";
}

} // namespace kestra::ctl
