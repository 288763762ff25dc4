// The simulated card's sound: a stereo tone at 48 kHz, every sample of which follows from its index. Portable and
// free of operating system, heap and run-time library. Pure functions.
#pragma once

#include "simcard/model/picture.h"

#include <cstdint>

namespace kestra::simcard {

constexpr uint32_t kSamplesPerSecond = 48000;

/// Sample frames (left and right) in the block that belongs to one video frame.
constexpr uint32_t samplesPerBlock(uint32_t framesPerSecond) noexcept {
    return framesPerSecond == 0 ? 0 : kSamplesPerSecond / framesPerSecond;
}

/// Bytes of one sample frame. Sample format as the card is told it: 1 is 16 bits, 0 is 24 bits.
constexpr uint32_t sampleFrameBytes(uint32_t sampleFormat) noexcept {
    return sampleFormat == 1 ? 4 : 6;
}

/// One sample as a signed 24-bit value. A quiet tone (1000 Hz left, 750 Hz right) with a pattern below it that
/// tells neighbouring samples and periods apart; half of full scale and 3000 Hz during a beep.
/// @param index    sample frames since frame 0
/// @param channel  0 left, 1 right
int32_t soundSample(uint64_t index, uint32_t channel, bool beep) noexcept;

/// Writes the block of one video frame: little-endian, left and right interleaved, 16-bit samples being the upper
/// 16 bits of the 24-bit ones. The block beeps in the frames in which the picture flashes.
/// @param out  samplesPerBlock(framesPerSecond) * sampleFrameBytes(sampleFormat) bytes
void soundBlock(uint32_t frameNumber, uint32_t framesPerSecond, uint32_t sampleFormat, uint8_t* out) noexcept;

} // namespace kestra::simcard
