// What to tell FFmpeg and OBS so that they take what arrives, ready to be copied. Portable; pure functions.
#pragma once

#include "protocol/records.h"

#include <string>
#include <vector>

namespace kestra::ctl {

/// FFmpeg for Windows through DirectShow; with sound if it arrives and FFmpeg takes its format (16 bits).
std::string ffmpegCommand(const TarnisCameraStatus& status, uint32_t audioFormat);
/// All ten bits, without loss.
std::string ffmpegTenBitCommand();

struct Setting {
    std::string name, value;
};
/// The fields of OBS's "Video Capture Device", in its order.
std::vector<Setting> obsSettings(const TarnisCameraStatus& status);

} // namespace kestra::ctl
