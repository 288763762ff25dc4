// check_recording FORMAT WIDTH HEIGHT INTERLACED FRAMES_PER_SECOND < raw video
// Compares every frame of a recording with the simulated card's picture: FORMAT is yuyv422, bgr24, uyvy422 or bgr0, top
// line first as FFmpeg writes it. Prints the number of frames, of frames dropped in between, and of frames that differ;
// exits with 0 if there are frames, none was dropped and none differs, with 3 if some were dropped and none differs.
#include "simcard/model/picture.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace kestra;
using namespace kestra::simcard;

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

bool numberOf(const Recording& recording, const std::vector<uint8_t>& frame, uint32_t& number) {
    const uint32_t channel = recording.format == "yuyv422" ? 0 : 1; // luma, or green
    return readFrameNumber(
        recording.width, recording.height,
        [&](uint32_t x, uint32_t y) {
            return frame[recording.lineOf(y) * recording.lineBytes() + size_t{x} * recording.bytesPerPixel() + channel];
        },
        number);
}

} // namespace

int main(int argc, char** argv) {
    Recording recording;
    if (argc == 6) {
        recording.format = argv[1];
        recording.width = static_cast<uint16_t>(std::atoi(argv[2]));
        recording.height = static_cast<uint16_t>(std::atoi(argv[3]));
        recording.interlaced = std::strcmp(argv[4], "1") == 0;
        recording.framesPerSecond = static_cast<uint8_t>(std::atoi(argv[5]));
    }
    const bool known = recording.rgb() || recording.format == "yuyv422" || recording.format == "uyvy422";
    if (!known || recording.width == 0 || recording.height == 0) {
        std::fprintf(stderr, "usage: check_recording yuyv422|bgr24|uyvy422|bgr0 WIDTH HEIGHT INTERLACED FPS < video\n");
        return 2;
    }
    Expected expected(recording);
    std::vector<uint8_t> frame(recording.lineBytes() * recording.height);
    uint32_t frames = 0, dropped = 0, differing = 0, last = 0;
    for (; std::fread(frame.data(), 1, frame.size(), stdin) == frame.size(); ++frames) {
        uint32_t number = 0;
        if (!numberOf(recording, frame, number) || frame != expected.frame(number)) {
            ++differing;
            continue;
        }
        if (last != 0 && number != last + 1) dropped += number > last ? number - last - 1 : 1;
        last = number;
    }
    std::printf("%u frames, %u dropped, %u unlike what the card sent\n", frames, dropped, differing);
    if (frames == 0 || differing != 0) return 1;
    return dropped == 0 ? 0 : 3;
}
