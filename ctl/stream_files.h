// Moving pictures and sound as files: YUV4MPEG2 and WAV. Portable; pure functions.
#pragma once

#include "protocol/records.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kestra::ctl {

/// Opens a YUV4MPEG2 stream of 4:2:2 pictures of 8 or 10 bits, studio range.
/// @param status  gives size, scan and rate; a rate that was not measured counts as 25
std::string y4mHeader(const TarnisCameraStatus& status, uint32_t depth);

inline constexpr char kY4mFrame[] = "FRAME\n";

/// Bytes of one picture: planes of luma, blue and red difference; 10-bit samples take two bytes.
size_t y4mPictureBytes(const TarnisCameraStatus& status, uint32_t depth) noexcept;

/// Makes the picture of a raw frame, fields woven.
/// @param raw      rawFrameBytes bytes of 10-bit or 8-bit 4:2:2
/// @param picture  y4mPictureBytes bytes, aligned for 16-bit samples
void y4mPicture(const TarnisCameraStatus& status, uint32_t depth, const uint8_t* raw, uint8_t* picture) noexcept;

using WavHeader = std::array<uint8_t, 80>;
/// Opens a WAV file of 48 kHz stereo sound.
/// @param bits   16 or 24
/// @param bytes  of all samples; from 4 GB on the file is an RF64 file, whose header is as long
WavHeader wavHeader(uint32_t bits, uint64_t bytes) noexcept;

inline constexpr uint32_t kSoundSamplesPerSecond = 48000;
constexpr uint32_t soundFrameBytes(uint32_t bits) noexcept {
    return bits / 8 * 2;
}

} // namespace kestra::ctl
