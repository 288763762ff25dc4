// check_film WIDTH HEIGHT RATE SECONDS < YUV4MPEG2 of ten bits: compares every sample with the simulated card's
// picture. Fast enough for 1080p60: only lines that differ from the picture before are made anew. Exit codes: 0 every
// frame of so many seconds is there and right, 1 not, 3 the only fault is that frames are missing.
#include "protocol/raw_frame.h"
#include "simcard/model/picture.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace kestra;
using namespace kestra::simcard;

namespace {

/// The planes that frame after frame must have.
class ExpectedFilm {
public:
    explicit ExpectedFilm(const PictureFormat& format)
        : m_format(format),
          m_line(rawLineBytes(TARNIS_OUTPUT_YUV422_10, format.width)),
          m_raw(frameSizeBytes(format)),
          m_before(m_raw.size(), 0xFF),
          planes(size_t{format.width} * format.height * 2) {
        m_source.prepare(format, m_raw.data(), m_raw.size(), 0);
    }

    void advance(uint32_t number) {
        m_source.advance(number);
        for (uint32_t y = 0; y < m_format.height; ++y) {
            const size_t at = size_t{y} * m_line;
            if (std::memcmp(&m_raw[at], &m_before[at], m_line) == 0) continue;
            std::memcpy(&m_before[at], &m_raw[at], m_line);
            splitLine(y);
        }
    }

private:
    void splitLine(uint32_t y) {
        const size_t width = m_format.width, luma = width * m_format.height, chroma = luma / 2;
        for (uint32_t i = 0; i < width * 2; ++i) {
            uint64_t word;
            std::memcpy(&word, &m_raw[size_t{y} * m_line + i / 6 * 8], sizeof word);
            const auto sample = static_cast<uint16_t>(word >> (i % 6 * 10) & 1023);
            if (i % 2 == 0)
                planes[y * width + i / 2] = sample;
            else
                planes[luma + (i % 4 == 3 ? chroma : 0) + y * (width / 2) + i / 4] = sample;
        }
    }

    const PictureFormat m_format;
    const uint32_t m_line;
    std::vector<uint8_t> m_raw, m_before;
    PictureSource m_source;

public:
    std::vector<uint16_t> planes;
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    const auto width = static_cast<uint16_t>(std::atoi(argv[1])), height = static_cast<uint16_t>(std::atoi(argv[2]));
    const int rate = std::atoi(argv[3]), wanted = std::atoi(argv[4]) * rate;
    ExpectedFilm film({width, height, false, TARNIS_OUTPUT_YUV422_10, static_cast<uint8_t>(rate), PictureKind::Bars,
                       wire::toWire(wire::kDefaultConverter)});
    std::vector<uint16_t> picture(film.planes.size());
    std::string header;
    for (int c; (c = std::getchar()) != EOF && c != '\n';)
        header += static_cast<char>(c);
    const std::string head = "YUV4MPEG2 W" + std::to_string(width) + " H" + std::to_string(height) + " F" +
                             std::to_string(rate) + ":1 Ip A1:1 C422p10 XYSCSS=422P10 XCOLORRANGE=LIMITED";
    if (header != head) return std::printf("the header is: %s\n", header.c_str()), 1;
    int frames = 0;
    uint32_t last = 0, missing = 0;
    for (char word[6]; std::fread(word, 1, sizeof word, stdin) == sizeof word; ++frames) {
        if (std::memcmp(word, "FRAME\n", sizeof word) != 0) return std::printf("no frame begins after %d\n", frames), 1;
        if (std::fread(picture.data(), 2, picture.size(), stdin) != picture.size())
            return std::printf("frame %d is cut\n", frames), 1;
        uint32_t number = 0;
        const auto luma = [&](uint32_t x, uint32_t y) { return picture[size_t{y} * width + x] >> 2; };
        if (!readFrameNumber(width, height, luma, number)) return std::printf("frame %d has no number\n", frames), 1;
        if (frames != 0) missing += number - last - 1;
        last = number;
        film.advance(number);
        if (picture != film.planes) return std::printf("frame %d, the card's %u, differs\n", frames, number), 1;
    }
    std::printf("%d frames, every sample as the card made it, %u missing\n", frames, missing);
    if (frames < wanted) return 1;
    return missing == 0 ? 0 : 3;
}
