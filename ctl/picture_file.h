// Still pictures as files. Portable; pure functions.
#pragma once

#include "protocol/records.h"

#include <cstdint>
#include <span>
#include <vector>

namespace kestra::ctl {

/// A PNG file of 8 bits a component.
/// @param bgr  the decoder's output, top line first, rgbLineBytes(width) bytes a line; its components are swapped in
/// place
std::vector<uint8_t> pngOfBgr(std::span<uint8_t> bgr, uint32_t width, uint32_t height);

/// 16 bits a component, red, green, blue, from a raw 10-bit frame: fields woven, ITU-R BT.601 studio to full range with
/// the converter's default parameters, as the decoder has them, without its cut to eight bits.
std::vector<uint16_t> rgb16OfRaw10(const TarnisCameraStatus& status, std::span<const uint8_t> raw);

/// A PNG file of 16 bits a component.
/// @param rgb  3 * width values a line, top line first
std::vector<uint8_t> pngOfRgb16(std::span<const uint16_t> rgb, uint32_t width, uint32_t height);

} // namespace kestra::ctl
