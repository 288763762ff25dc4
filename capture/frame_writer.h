// Brings one raw frame of the card into a media sample's buffer, in one pass. Portable.
#pragma once

#include "protocol/records.h"

#include <cstdint>

namespace kestra {

/// The video formats of the pin, as "VideoFormat" stores them.
enum VideoFormat : uint32_t { kYuy2 = 0, kRgb24 = 1, kUyvy = 2, kRgb32 = 3, kVideoFormats = 4 };

/// Bytes from one line of the sample to the next; 0 without lines.
inline uint32_t sampleLineBytes(uint32_t sampleBytes, uint32_t height) noexcept {
    return height == 0 ? 0 : sampleBytes / height;
}

/// Fills a sample as if it had been cleared before: bytes that no pixel reaches are 0. The caller has made sure that a
/// line of the sample holds a raw line.
/// @param format    of the sample
/// @param camera    geometry and layout of the frame
/// @param raw       the frame; rawBytes of it may be read, lines that lie beyond stay black
/// @param sample    sampleBytes long
/// YUY2: lines as they are, fields woven. RGB24: bottom-up, fields woven, by the frame decoder, and black unless raw
/// and sample differ by less than 4097 bytes. UYVY: the bytes of every 16-bit word swapped, lines in the order in which
/// they come. RGB32: bottom-up, lines in the order in which they come.
void writeSample(VideoFormat format, const TarnisCameraData& camera, const uint8_t* raw, uint32_t rawBytes,
                 uint8_t* sample, uint32_t sampleBytes) noexcept;

} // namespace kestra
