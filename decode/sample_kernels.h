// Line kernels that bring raw lines into a media sample: copy, byte swap, 24 to 32 bits. Five builds of each,
// bit-identical. Portable.
#pragma once

#include "decode/cpu_variants.h"

#include <cstddef>
#include <cstdint>

namespace kestra {

/// @param bytes     bytes of the raw line that are brought over
/// @param streamed  the image is larger than what its reader finds in a cache: stores go past the caches where `dst` is
///                  aligned for it, and a fence after the last line is the caller's
/// Source and destination must not overlap; nothing beyond `bytes` is read, nothing beyond its image is written.
using SampleLine = void (*)(const uint8_t* src, uint8_t* dst, size_t bytes, bool streamed);

void copyLinePlain(const uint8_t*, uint8_t*, size_t, bool);
void copyLineSse2(const uint8_t*, uint8_t*, size_t, bool);
void copyLineSse41(const uint8_t*, uint8_t*, size_t, bool);
void copyLineAvx2(const uint8_t*, uint8_t*, size_t, bool);
void copyLineAvx512(const uint8_t*, uint8_t*, size_t, bool);
constexpr VariantTable<SampleLine> kCopyLine = {copyLinePlain, copyLineSse2, copyLineSse41, copyLineAvx2,
                                                copyLineAvx512};

/// Swaps the two bytes of every 16-bit word (Y Cb Y Cr becomes Cb Y Cr Y); an odd last byte is left out.
void swapLinePlain(const uint8_t*, uint8_t*, size_t, bool);
void swapLineSse2(const uint8_t*, uint8_t*, size_t, bool);
void swapLineSse41(const uint8_t*, uint8_t*, size_t, bool);
void swapLineAvx2(const uint8_t*, uint8_t*, size_t, bool);
void swapLineAvx512(const uint8_t*, uint8_t*, size_t, bool);
constexpr VariantTable<SampleLine> kSwapLine = {swapLinePlain, swapLineSse2, swapLineSse41, swapLineAvx2,
                                                swapLineAvx512};

/// Three bytes a pixel become four, the fourth 0; `bytes` is that of whole pixels of the source.
void expandLinePlain(const uint8_t*, uint8_t*, size_t, bool);
void expandLineSse41(const uint8_t*, uint8_t*, size_t, bool);
void expandLineAvx2(const uint8_t*, uint8_t*, size_t, bool);
void expandLineAvx512(const uint8_t*, uint8_t*, size_t, bool);
/// SSE2 has no byte shuffle, and gains nothing here.
constexpr VariantTable<SampleLine> kExpandLine = {expandLinePlain, expandLinePlain, expandLineSse41, expandLineAvx2,
                                                  expandLineAvx512};

} // namespace kestra
