// Geometry of the raw frames that the card writes: lines one after the other, fields one after the other. Portable;
// pure functions.
#pragma once

#include "protocol/records.h"

#include <stdint.h>

namespace kestra {

/// Bytes of one line of 24-bit RGB, of the card's as of the decoder's: three a pixel, rounded up to four bytes.
constexpr uint32_t rgbLineBytes(uint32_t width) noexcept {
    return (width * 3 + 3) & ~3u;
}

/// Bytes of one raw line. 10-bit: words of 64 bits, six samples each. 8-bit: two bytes a pixel, and RGB24: three,
/// rounded up to four bytes.
/// @param outputSelector  TarnisOutputSelector
/// @return 0 for another selector
constexpr uint32_t rawLineBytes(uint32_t outputSelector, uint32_t width) noexcept {
    switch (outputSelector) {
    case TARNIS_OUTPUT_YUV422_10:
        return (width * 2 + 5) / 6 * 8;
    case TARNIS_OUTPUT_YUV422_8:
        return (width * 2 + 3) & ~3u;
    case TARNIS_OUTPUT_RGB24:
        return rgbLineBytes(width);
    default:
        return 0;
    }
}

/// Bytes of one raw frame; 0 for another selector. 64 bits: the largest size that a driver can report has 13 GB.
constexpr uint64_t rawFrameBytes(uint32_t outputSelector, uint32_t width, uint32_t height) noexcept {
    return uint64_t{rawLineBytes(outputSelector, width)} * height;
}

/// Lines of an interlaced frame's first field, which is also the first raw line of the second. With an odd height the
/// first field has one line more: it begins and ends the picture.
constexpr uint32_t firstFieldLines(uint32_t height) noexcept {
    return (height + 1) / 2;
}

/// The same for code that treats both fields as equally high, which all do that copy lines without decoding. The odd
/// line then ends up after the second field.
constexpr uint32_t equalFieldLines(uint32_t height) noexcept {
    return height / 2;
}

/// The line of the woven picture that a raw line of an interlaced frame belongs to.
/// @param secondField  first raw line of the second field
constexpr uint32_t wovenLine(uint32_t rawLine, uint32_t secondField) noexcept {
    return rawLine < secondField ? rawLine * 2 : (rawLine - secondField) * 2 + 1;
}

/// The raw line of an interlaced frame that a line of the woven picture comes from.
constexpr uint32_t rawLineOf(uint32_t pictureLine, uint32_t secondField) noexcept {
    return pictureLine / 2 + pictureLine % 2 * secondField;
}

static_assert(rawLineBytes(TARNIS_OUTPUT_YUV422_10, 1921) == 5128 &&
              rawLineBytes(TARNIS_OUTPUT_YUV422_8, 1921) == 3844 && rawLineBytes(TARNIS_OUTPUT_RGB24, 1921) == 5764);
static_assert(rawFrameBytes(TARNIS_OUTPUT_RGB24, 0xFFFF, 0xFFFF) == 196608ull * 65535);
static_assert(firstFieldLines(5) == 3 && equalFieldLines(5) == 2 && wovenLine(3, 3) == 1 && rawLineOf(1, 3) == 3);

} // namespace kestra
