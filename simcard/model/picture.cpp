// Draws the simulated card's picture.
#include "simcard/model/picture.h"

#include <cstring>

namespace kestra::simcard {
namespace {

constexpr uint16_t kBlack = 64, kWhite = 940, kNeutral = 512;

// 75 % colour bars, left to right: white, yellow, cyan, green, magenta, red, blue, black (10-bit ITU-R BT.601).
constexpr Pixel10 kBars[8] = {{721, 512, 512}, {646, 176, 567}, {525, 625, 176}, {450, 289, 231},
                              {335, 735, 793}, {260, 399, 848}, {139, 848, 457}, {64, 512, 512}};
constexpr Pixel10 kTint = {520, 448, 600};
constexpr Pixel10 kGrey = {502, 512, 512};

struct Band {
    uint32_t first, end;
    bool holds(uint32_t line) const noexcept { return line >= first && line < end; }
};

Band movingBand(uint32_t height) noexcept {
    return {height / 2, height * 5 / 8};
}

uint32_t numberCell(uint32_t frameNumber, uint32_t cell) noexcept {
    if (cell < 2) return cell == 0 ? 1 : 0;
    if (cell < 34) return frameNumber >> (33 - cell) & 1;
    uint32_t ones = 0;
    for (uint32_t bits = frameNumber; bits; bits &= bits - 1)
        ++ones;
    return ones % 4 >> (35 - cell) & 1;
}

/// Left edge of the moving element: eight pixels a frame, always on a pixel pair.
uint32_t movingEdge(const PictureFormat& format, uint32_t frameNumber) noexcept {
    const uint32_t steps = (format.width + 7u) / 8;
    return frameNumber % steps * 8;
}

uint32_t movingWidth(const PictureFormat& format) noexcept {
    return format.width >= 64 ? format.width / 32u & ~1u : 2;
}

/// Luma changes from pixel to pixel, chroma from pair to pair and line to line: a misplaced byte shows.
Pixel10 texturedBar(const PictureFormat& format, uint32_t x, uint32_t y) noexcept {
    const uint32_t pair = x / 2;
    Pixel10 pixel = kBars[(x & ~1u) * 8 / (format.width + 1u)];
    pixel.y = uint16_t(pixel.y + (x * 7 + y * 13 + (x * y >> 3)) % 160);
    pixel.cb = uint16_t(pixel.cb + (pair * 5 + y * 3) % 96);
    pixel.cr = uint16_t(pixel.cr + (pair * 3 + y * 11) % 96);
    return pixel;
}

Pixel10 barsPixel(const PictureFormat& format, uint32_t frameNumber, uint32_t x, uint32_t y) noexcept {
    const NumberArea number = numberArea(format.width, format.height);
    if (number.cellWidth != 0 && y >= number.firstLine && y < number.endLine) {
        const uint32_t cell = x / number.cellWidth;
        const bool white = cell < kNumberCells && numberCell(frameNumber, cell) != 0;
        return {white ? kWhite : kBlack, kNeutral, kNeutral};
    }
    const FlashArea flash = flashArea(format.height);
    if (y >= flash.firstLine && y < flash.endLine)
        return {isFlashFrame(frameNumber, format.framesPerSecond) ? kWhite : kBlack, kNeutral, kNeutral};
    if (movingBand(format.height).holds(y)) {
        const uint32_t edge = movingEdge(format, frameNumber);
        if (x >= edge && x - edge < movingWidth(format)) return {kWhite, kNeutral, kNeutral};
        return texturedBar(format, x, format.height / 2u);
    }
    return texturedBar(format, x, y);
}

/// One of the six terms of the conversion: a product in single precision, truncated toward zero.
int32_t term(float a, float b) noexcept {
    const float product = a * b;
    if (product >= 2147483648.0f) return INT32_MAX;
    if (!(product >= -2147483648.0f)) return INT32_MIN;
    return static_cast<int32_t>(product);
}

uint8_t clampTo(int64_t value, uint8_t low, uint8_t high) noexcept {
    if (value > high) value = high;
    if (value < low) value = low; // the lower limit wins
    return static_cast<uint8_t>(value);
}

/// Puts 10-bit samples into 64-bit words, six to a word.
class WordPacker {
public:
    explicit WordPacker(uint8_t* out) noexcept : m_out(out) {}
    void put(uint16_t sample) noexcept {
        m_word |= uint64_t{sample} << m_shift;
        m_shift += 10;
        if (m_shift == 60) flush();
    }
    void finish() noexcept {
        if (m_shift != 0) flush();
    }

private:
    void flush() noexcept {
        std::memcpy(m_out, &m_word, sizeof m_word);
        m_out += sizeof m_word;
        m_word = 0;
        m_shift = 0;
    }

    uint8_t* m_out;
    uint64_t m_word = 0;
    uint32_t m_shift = 0;
};

} // namespace

Pixel10 pixelAt(const PictureFormat& format, uint32_t frameNumber, uint32_t x, uint32_t y) noexcept {
    switch (format.kind) {
    case PictureKind::Tinted:
        return kTint;
    case PictureKind::Grey:
        return kGrey;
    case PictureKind::Bars:
        break;
    }
    return barsPixel(format, frameNumber, x, y);
}

void ConverterTables::build(const wire::Converter& c) noexcept {
    m_converter = c;
    const float gains[3] = {wire::fixedFromWire(c.blueGain), wire::fixedFromWire(c.greenGain),
                            wire::fixedFromWire(c.redGain)};
    const int32_t offsets[3] = {wire::offsetFromWire(c.blueOffset), wire::offsetFromWire(c.greenOffset),
                                wire::offsetFromWire(c.redOffset)};
    for (int32_t i = 0; i < 256; ++i) {
        const float y = static_cast<float>(int64_t{i} - (c.yOff >> 2)) * wire::fixedFromWire(c.y1);
        const auto cr = static_cast<float>(int64_t{i} - (c.crOff >> 2));
        const auto cb = static_cast<float>(int64_t{i} - (c.cbOff >> 2));
        for (int channel = 0; channel < 3; ++channel) {
            const int64_t sum = int64_t{term(gains[channel], y)} + offsets[channel];
            m_luma[channel][i] = sum > INT32_MAX ? INT32_MAX : sum < INT32_MIN ? INT32_MIN : int32_t(sum);
        }
        m_crToRed[i] = term(wire::fixedFromWire(c.r1) * cr, gains[2]);
        m_crToGreen[i] = term(wire::fixedFromWire(c.g1) * cr, gains[1]);
        m_cbToGreen[i] = term(wire::fixedFromWire(c.g2) * cb, gains[1]);
        m_cbToBlue[i] = term(wire::fixedFromWire(c.b1) * cb, gains[0]);
    }
}

void ConverterTables::convert(uint8_t y, uint8_t cb, uint8_t cr, uint8_t* bgr) const noexcept {
    const int64_t blue = int64_t{m_luma[0][y]} + m_cbToBlue[cb];
    const int64_t green = int64_t{m_luma[1][y]} - m_crToGreen[cr] - m_cbToGreen[cb];
    const int64_t red = int64_t{m_luma[2][y]} + m_crToRed[cr];
    bgr[0] = clampTo(blue, m_converter.bMin, m_converter.bMax);
    bgr[1] = clampTo(green, m_converter.gMin, m_converter.gMax);
    bgr[2] = clampTo(red, m_converter.rMin, m_converter.rMax);
}

void PictureSource::drawLine(uint32_t rawLine) noexcept {
    const uint32_t lineBytes = rawLineBytes(m_format.selector, m_format.width);
    const uint32_t y = pictureLine(m_format, rawLine);
    uint8_t* out = m_memory + size_t{rawLine} * lineBytes;
    std::memset(out, 0, lineBytes);
    WordPacker packer(out);
    for (uint32_t x = 0; x < m_format.width; ++x) {
        const Pixel10 pixel = pixelAt(m_format, m_frameNumber, x, y);
        const uint16_t chroma = x % 2 == 0 ? pixel.cb : pixel.cr;
        switch (m_format.selector) {
        case TARNIS_OUTPUT_YUV422_10:
            packer.put(pixel.y);
            packer.put(chroma);
            break;
        case TARNIS_OUTPUT_YUV422_8:
            out[size_t{x} * 2] = uint8_t(pixel.y >> 2);
            out[size_t{x} * 2 + 1] = uint8_t(chroma >> 2);
            break;
        default:
            m_tables.convert(uint8_t(pixel.y >> 2), uint8_t(pixel.cb >> 2), uint8_t(pixel.cr >> 2),
                             out + size_t{x} * 3);
        }
    }
    if (m_format.selector == TARNIS_OUTPUT_YUV422_10) packer.finish();
}

/// The lines of a changing band are all alike: one is drawn, the others are copies of it.
void PictureSource::drawBand(uint32_t firstLine, uint32_t endLine) noexcept {
    const uint32_t lineBytes = rawLineBytes(m_format.selector, m_format.width);
    const uint8_t* drawn = nullptr;
    for (uint32_t raw = 0; raw < m_format.height; ++raw) {
        const uint32_t line = pictureLine(m_format, raw);
        if (line < firstLine || line >= endLine) continue;
        uint8_t* out = m_memory + size_t{raw} * lineBytes;
        if (drawn)
            std::memcpy(out, drawn, lineBytes);
        else
            drawLine(raw);
        drawn = out;
    }
}

bool PictureSource::prepare(const PictureFormat& format, uint8_t* memory, size_t bytes, uint32_t frameNumber) noexcept {
    if (!memory || frameSizeBytes(format) == 0 || bytes < frameSizeBytes(format)) return false;
    m_format = format;
    m_memory = memory;
    m_frameNumber = frameNumber;
    m_tables.build(format.converter);
    for (uint32_t raw = 0; raw < format.height; ++raw)
        drawLine(raw);
    return true;
}

const uint8_t* PictureSource::advance(uint32_t frameNumber) noexcept {
    if (!m_memory || frameNumber == m_frameNumber) return m_memory;
    const uint32_t before = m_frameNumber;
    m_frameNumber = frameNumber;
    if (m_format.kind != PictureKind::Bars) return m_memory;
    const NumberArea number = numberArea(m_format.width, m_format.height);
    if (number.cellWidth != 0) drawBand(number.firstLine, number.endLine);
    const Band moving = movingBand(m_format.height);
    drawBand(moving.first, moving.end);
    if (isFlashFrame(before, m_format.framesPerSecond) != isFlashFrame(frameNumber, m_format.framesPerSecond)) {
        const FlashArea flash = flashArea(m_format.height);
        drawBand(flash.firstLine, flash.endLine);
    }
    return m_memory;
}

bool sameContent(const PictureFormat& a, const PictureFormat& b) noexcept {
    return a.width == b.width && a.height == b.height && a.interlaced == b.interlaced && a.selector == b.selector &&
           a.framesPerSecond == b.framesPerSecond && a.kind == b.kind &&
           (a.selector != TARNIS_OUTPUT_RGB24 || std::memcmp(&a.converter, &b.converter, sizeof a.converter) == 0);
}

} // namespace kestra::simcard
