// Raw 4:2:2 lines as separate samples of luma and chroma. Portable; pure functions.
#pragma once

#include <cstdint>

namespace kestra::ctl {

/// Splits a raw 10-bit line: six samples in each little-endian 64-bit word, in the order Y0 Cb Y1 Cr.
/// @param width  pixels; of an odd width the last pixel's red difference is the one before (or 512)
/// @param y      width samples; cb, cr: (width + 1) / 2
void splitLine10(const uint8_t* raw, uint32_t width, uint16_t* y, uint16_t* cb, uint16_t* cr) noexcept;

/// The same for 8-bit lines.
void splitLine8(const uint8_t* raw, uint32_t width, uint8_t* y, uint8_t* cb, uint8_t* cr) noexcept;

} // namespace kestra::ctl
