// The simulated card's picture: every raw frame that it can make, recomputable byte for byte. Portable and free
// of operating system, heap, exceptions and run-time library, because the driver links it. Pure functions, and
// one object that must not be shared between threads.
#pragma once

#include "protocol/converter.h"
#include "protocol/raw_frame.h"

#include <cstddef>
#include <cstdint>

namespace kestra::simcard {

/// What the picture shows.
enum class PictureKind : uint32_t {
    Bars = 0,   ///< textured colour bars, machine-readable frame number, moving element, flash once a second
    Tinted = 1, ///< a flat reddish picture: its red, green and blue means differ
    Grey = 2    ///< a flat neutral grey
};

/// Everything that decides a frame's bytes, except its number.
struct PictureFormat {
    uint16_t width;          ///< pixels a line, any value from 1
    uint16_t height;         ///< lines a frame, both fields together, any value from 1
    bool interlaced;         ///< the second field follows the first: see firstFieldLines
    uint8_t selector;        ///< TarnisOutputSelector
    uint8_t framesPerSecond; ///< nominal; the picture flashes in every frame whose number it divides
    PictureKind kind;
    wire::Converter converter; ///< used by TARNIS_OUTPUT_RGB24 only
};

/// 10-bit studio-range samples (ITU-R BT.601) of one pixel; the chroma is that of its pixel pair.
struct Pixel10 {
    uint16_t y, cb, cr;
};

constexpr uint64_t frameSizeBytes(const PictureFormat& format) noexcept {
    return rawFrameBytes(format.selector, format.width, format.height);
}

/// The frame in which the picture flashes and the sound beeps.
constexpr bool isFlashFrame(uint32_t frameNumber, uint32_t framesPerSecond) noexcept {
    return framesPerSecond != 0 && frameNumber % framesPerSecond == 0;
}

/// Line of the picture that raw line `rawLine` shows.
constexpr uint32_t pictureLine(const PictureFormat& format, uint32_t rawLine) noexcept {
    return format.interlaced ? wovenLine(rawLine, firstFieldLines(format.height)) : rawLine;
}

/// The content itself: what all raw layouts are made from. x < width, y < height (lines of the picture).
Pixel10 pixelAt(const PictureFormat& format, uint32_t frameNumber, uint32_t x, uint32_t y) noexcept;

/// The card's converter: tables over 8-bit samples, made from its fixed-point parameters.
class ConverterTables {
public:
    void build(const wire::Converter& converter) noexcept;
    /// Writes B, G, R. 8-bit samples.
    void convert(uint8_t y, uint8_t cb, uint8_t cr, uint8_t* bgr) const noexcept;

private:
    wire::Converter m_converter;
    int32_t m_luma[3][256]; // blue, green, red
    int32_t m_cbToBlue[256], m_cbToGreen[256], m_crToGreen[256], m_crToRed[256];
};

/// Draws one frame after another into the caller's memory, and only what changed.
class PictureSource {
public:
    /// Draws the first frame whole.
    /// @param memory at least frameSizeBytes(format) bytes; written until the next prepare.
    /// @return false if the selector is unknown or the memory too small.
    bool prepare(const PictureFormat& format, uint8_t* memory, size_t bytes, uint32_t frameNumber) noexcept;
    /// Turns the memory's content into that of another frame number.
    const uint8_t* advance(uint32_t frameNumber) noexcept;
    const PictureFormat& format() const noexcept { return m_format; }

private:
    void drawLine(uint32_t rawLine) noexcept;
    void drawBand(uint32_t firstLine, uint32_t endLine) noexcept;

    PictureFormat m_format{};
    ConverterTables m_tables{};
    uint8_t* m_memory = nullptr;
    uint32_t m_frameNumber = 0;
};

/// True if both give the same bytes for every frame number.
bool sameContent(const PictureFormat& a, const PictureFormat& b) noexcept;

/// Where the machine-readable frame number stands: kNumberCells cells side by side, black 0 and white 1: a white
/// and a black one to begin with, 32 bits, most significant first, and their number of ones modulo 4 in two bits.
constexpr uint32_t kNumberCells = 36;
struct NumberArea {
    uint32_t cellWidth; ///< pixels; 0: the picture is too small for a number
    uint32_t firstLine, endLine;
};
constexpr NumberArea numberArea(uint32_t width, uint32_t height) noexcept {
    const uint32_t cell = width / kNumberCells & ~1u;
    if (cell < 4 || height < 64) return {0, 0, 0};
    return {cell, height / 16, height / 16 * 2};
}

/// Reads the number back from a picture that went through conversion and mild compression.
/// @param luma  luma(x, y) gives a brightness of 0 .. 255 at a pixel of the woven, top-down picture.
/// @param number receives the frame number.
/// @return false if there is no number or it is damaged.
template <class Luma>
bool readFrameNumber(uint32_t width, uint32_t height, Luma luma, uint32_t& number) {
    const NumberArea area = numberArea(width, height);
    if (area.cellWidth == 0) return false;
    const uint32_t line = (area.firstLine + area.endLine) / 2;
    uint32_t bits[kNumberCells];
    for (uint32_t cell = 0; cell < kNumberCells; ++cell) {
        const uint32_t x = cell * area.cellWidth + area.cellWidth / 2;
        uint32_t sum = 0;
        for (uint32_t dy = 0; dy < 3; ++dy)
            for (uint32_t dx = 0; dx < 3; ++dx)
                sum += luma(x + dx - 1, line + dy - 1);
        bits[cell] = sum > 9 * 128 ? 1 : 0;
    }
    uint32_t value = 0, ones = 0;
    for (uint32_t bit = 0; bit < 32; ++bit) {
        value = value << 1 | bits[2 + bit];
        ones += bits[2 + bit];
    }
    if (bits[0] != 1 || bits[1] != 0 || (bits[34] << 1 | bits[35]) != ones % 4) return false;
    number = value;
    return true;
}

/// Lines of the band that is white in flash frames and dark in all others.
struct FlashArea {
    uint32_t firstLine, endLine;
};
constexpr FlashArea flashArea(uint32_t height) noexcept {
    return {height * 3 / 4, height * 7 / 8};
}

} // namespace kestra::simcard
