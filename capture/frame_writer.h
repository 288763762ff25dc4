// Writes one raw frame into a media sample's buffer, in one pass. Portable.
#pragma once

#include "protocol/records.h"

#include <cstdint>

namespace kestra {

/// Bytes from one line of the sample to the next; 0 if height is 0.
inline uint32_t sampleLineBytes(uint32_t sampleBytes, uint32_t height) noexcept {
    return height == 0 ? 0 : sampleBytes / height;
}

/// Fills the whole sample: bytes that no pixel reaches are 0, lines beyond the raw bytes are black, and whatever does
/// not fit into a line of the sample is left out. Even with inconsistent sizes nothing beyond rawBytes is read and
/// nothing beyond sampleBytes is written.
/// @param camera  geometry and layout of the frame
/// @return false if the frame does not belong to such a sample, which is then all black
using SampleWriter = bool (*)(const TarnisCameraData& camera, const uint8_t* raw, uint32_t rawBytes, uint8_t* sample,
                              uint32_t sampleBytes) noexcept;

/// Copies the lines; fields woven.
bool writeYuy2(const TarnisCameraData&, const uint8_t*, uint32_t, uint8_t*, uint32_t) noexcept;
/// Bottom-up, fields woven, by the frame decoder. False unless raw and sample differ by less than 4097 bytes.
bool writeRgb24(const TarnisCameraData&, const uint8_t*, uint32_t, uint8_t*, uint32_t) noexcept;
/// The bytes of every 16-bit word swapped; lines in their raw order.
bool writeUyvy(const TarnisCameraData&, const uint8_t*, uint32_t, uint8_t*, uint32_t) noexcept;
/// Bottom-up; lines in their raw order.
bool writeRgb32(const TarnisCameraData&, const uint8_t*, uint32_t, uint8_t*, uint32_t) noexcept;

} // namespace kestra
