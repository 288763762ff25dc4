// A recording of the simulated card's picture: what it looks like, and what each frame of it must be. Portable.
#pragma once

#include "simcard/model/picture.h"

#include <cstring>
#include <string>
#include <vector>

namespace kestra::test {

using namespace kestra::simcard;

/// Raw frames of one format, top line first as FFmpeg writes them.
struct Recording {
    std::string format;
    uint16_t width = 0, height = 0;
    bool interlaced = false;
    uint8_t framesPerSecond = 0;

    bool rgb() const { return format == "bgr24" || format == "bgr0"; }
    bool woven() const { return format == "yuyv422" || format == "bgr24"; }
    uint32_t bytesPerPixel() const { return format == "bgr0" ? 4 : format == "bgr24" ? 3 : 2; }
    size_t lineBytes() const { return size_t{width} * bytesPerPixel(); }
    uint32_t rawLine(uint32_t line) const { return !interlaced ? line : line / 2 + (line % 2) * ((height + 1u) / 2); }
    /// Where a line of the picture stands.
    uint32_t lineOf(uint32_t line) const { return woven() ? line : rawLine(line); }
};

/// What a frame must look like, made from the card's raw frame.
class Expected {
public:
    explicit Expected(const Recording& recording) : m_recording(recording) {
        PictureFormat format{};
        format.width = recording.width;
        format.height = recording.height;
        format.interlaced = recording.interlaced;
        format.selector = recording.rgb() ? TARNIS_OUTPUT_RGB24 : TARNIS_OUTPUT_YUV422_8;
        format.framesPerSecond = recording.framesPerSecond;
        format.converter = wire::toWire(wire::kDefaultConverter);
        m_rawLine = rawLineBytes(format.selector, recording.width);
        m_raw.resize(frameSizeBytes(format));
        m_frame.resize(recording.lineBytes() * recording.height);
        m_source.prepare(format, m_raw.data(), m_raw.size(), 0);
    }
    const std::vector<uint8_t>& frame(uint32_t number) {
        m_source.advance(number);
        for (uint32_t line = 0; line < m_recording.height; ++line) {
            const uint8_t* in = &m_raw[size_t{m_recording.rawLine(line)} * m_rawLine];
            uint8_t* out = &m_frame[m_recording.lineOf(line) * m_recording.lineBytes()];
            if (m_recording.format == "bgr0") {
                for (uint32_t x = 0; x < m_recording.width; ++x) {
                    std::memcpy(out + size_t{4} * x, in + size_t{3} * x, 3);
                    out[4 * x + 3] = 0;
                }
            } else if (m_recording.format == "uyvy422") {
                for (size_t i = 0; i < m_recording.lineBytes(); ++i)
                    out[i] = in[i ^ 1];
            } else {
                std::memcpy(out, in, m_recording.lineBytes());
            }
        }
        return m_frame;
    }

private:
    const Recording& m_recording;
    PictureSource m_source;
    std::vector<uint8_t> m_raw, m_frame;
    uint32_t m_rawLine = 0;
};

inline bool numberOf(const Recording& recording, const std::vector<uint8_t>& frame, uint32_t& number) {
    const uint32_t channel = recording.format == "yuyv422" ? 0 : 1; // luma, or green
    return readFrameNumber(
        recording.width, recording.height,
        [&](uint32_t x, uint32_t y) {
            return frame[recording.lineOf(y) * recording.lineBytes() + size_t{x} * recording.bytesPerPixel() + channel];
        },
        number);
}

} // namespace kestra::test
