// The objects that several verbs share.
#include "ctl/json.h"

#include "ctl/signal_text.h"
#include "protocol/frame_rate.h"

namespace kestra::ctl {

Json jsonOf(const char* verb) {
    return {{"schema", "kestra-ctl/1"}, {"verb", verb}};
}

std::string jsonLine(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

Json signalJson(const TarnisCameraStatus& status) {
    if (!hasSignal(status)) return nullptr;
    const uint32_t rate = reportedRate(status);
    const bool interlaced = status.interlaced != 0;
    return {{"width", status.width},           {"height", status.height},
            {"interlaced", interlaced},        {"framesPerSecond", framesOfRate(rate, interlaced)},
            {"videoMode", status.videoMode},   {"settled", !isSettling(status.videoMode)},
            {"formatByte", status.formatByte}, {"sound", hasSound(status)}};
}

} // namespace kestra::ctl
