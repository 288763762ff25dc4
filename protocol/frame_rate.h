// The input's rate as the card reports it, and what follows from it. Portable; pure functions.
#pragma once

#include "protocol/records.h"
#include "protocol/registers.h"

#include <stdint.h>

namespace kestra {

/// The video mode with 24 frames per second, whatever the measured rate says.
constexpr uint32_t kVideoMode24 = 16;

/// Video modes of a receiver that has not yet locked onto its input.
constexpr uint32_t kVideoModeSettlingFirst = 254, kVideoModeSettlingLast = 255;
constexpr bool isSettling(uint32_t videoMode) noexcept {
    return videoMode >= kVideoModeSettlingFirst && videoMode <= kVideoModeSettlingLast;
}

/// The rate of a camera status record, from what the driver measured: rounded to a multiple of five, 24 told from 25 by
/// the input register, fields if interlaced.
/// @param measured  frames per second; below 24: not measured
constexpr uint8_t rateOfMeasured(uint32_t measured, uint16_t inputRegister) noexcept {
    uint32_t rate = measured < 24 ? 0 : measured;
    rate = (rate + 2) / 5 * 5;
    if (rate == 25 && (inputRegister & kInputRateIs24) != 0) rate = 24;
    if ((inputRegister & kInputInterlaced) != 0) rate *= 2;
    return static_cast<uint8_t>(rate);
}
static_assert(rateOfMeasured(23, 0) == 0 && rateOfMeasured(24, 0) == 25 && rateOfMeasured(24, kInputRateIs24) == 24 &&
              rateOfMeasured(29, 0) == 30 && rateOfMeasured(25, kInputInterlaced) == 50);

/// Frames, or fields if interlaced, per second, as in the record; 0 if not measured.
constexpr uint32_t reportedRate(const TarnisCameraStatus& status) noexcept {
    return status.videoMode == kVideoMode24 ? 24u : status.frameRate;
}

/// Frames per second of a rate that counts fields if interlaced.
constexpr uint32_t framesOfRate(uint32_t rate, bool interlaced) noexcept {
    return interlaced ? rate / 2 : rate;
}

} // namespace kestra
