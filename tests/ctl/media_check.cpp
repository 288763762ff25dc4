// Written from the formats' own descriptions, not with the product's writers.
#include "tests/ctl/media_check.h"

#include "simcard/model/sound.h"

#include <cstring>
#include <map>

namespace kestra::test {
namespace {

using namespace simcard;

PictureFormat formatOf(const Signal& signal, uint32_t depth) {
    return {signal.width,
            signal.height,
            signal.interlaced != 0,
            uint8_t(depth == 10 ? TARNIS_OUTPUT_YUV422_10 : TARNIS_OUTPUT_YUV422_8),
            uint8_t(signal.nominalFrameRate()),
            PictureKind::Bars,
            wire::toWire(wire::kDefaultConverter)};
}

/// Planes of one picture.
class Planes {
public:
    Planes(const char* bytes, uint32_t width, uint32_t height, uint32_t depth)
        : m_bytes(reinterpret_cast<const uint8_t*>(bytes)), m_width(width), m_height(height), m_wide(depth == 10) {}
    uint32_t luma(uint32_t x, uint32_t y) const { return at(size_t{y} * m_width + x); }
    uint32_t chroma(int plane, uint32_t x, uint32_t y) const {
        const size_t width = (m_width + 1) / 2;
        return at(size_t{m_width} * m_height + plane * width * m_height + y * width + x / 2);
    }

private:
    uint32_t at(size_t index) const {
        return m_wide ? m_bytes[2 * index] | uint32_t(m_bytes[2 * index + 1]) << 8 : m_bytes[index];
    }
    const uint8_t* m_bytes;
    uint32_t m_width, m_height;
    bool m_wide;
};

std::string checkPicture(const Planes& planes, const PictureFormat& format, uint32_t number, uint32_t depth) {
    const int shift = depth == 10 ? 0 : 2;
    for (uint32_t y = 0; y < format.height; ++y)
        for (uint32_t x = 0; x < format.width; ++x) {
            const Pixel10 wanted = pixelAt(format, number, x, y);
            const bool right = planes.luma(x, y) == uint32_t(wanted.y >> shift) &&
                               planes.chroma(0, x, y) == uint32_t(wanted.cb >> shift) &&
                               planes.chroma(1, x, y) == uint32_t(wanted.cr >> shift);
            if (!right)
                return "frame " + std::to_string(number) + " differs at " + std::to_string(x) + ", " +
                       std::to_string(y);
        }
    return "";
}

} // namespace

MediaFindings checkY4m(std::string_view file, const Signal& signal, uint32_t depth) {
    MediaFindings findings;
    const std::string header = "YUV4MPEG2 W" + std::to_string(signal.width) + " H" + std::to_string(signal.height) +
                               " F" + std::to_string(signal.nominalFrameRate()) + ":1 I" +
                               (signal.interlaced ? "t" : "p") + " A1:1 C422" +
                               (depth == 10 ? "p10 XYSCSS=422P10" : "") + " XCOLORRANGE=LIMITED\n";
    if (file.substr(0, header.size()) != header) {
        findings.wrong = "the header is " + std::string(file.substr(0, file.find('\n')));
        return findings;
    }
    file.remove_prefix(header.size());
    const PictureFormat format = formatOf(signal, depth);
    const size_t samples = size_t{signal.height} * (signal.width + 2u * ((signal.width + 1u) / 2));
    const size_t bytes = samples * (depth == 10 ? 2 : 1);
    while (!file.empty()) {
        if (file.size() < 6 + bytes || file.substr(0, 6) != "FRAME\n") {
            findings.wrong = std::to_string(file.size()) + " bytes at the end are no frame";
            return findings;
        }
        const Planes planes(file.data() + 6, signal.width, signal.height, depth);
        uint32_t number = 0;
        const auto luma = [&](uint32_t x, uint32_t y) { return planes.luma(x, y) >> (depth == 10 ? 2 : 0); };
        if (!readFrameNumber(signal.width, signal.height, luma, number)) {
            findings.wrong = "picture " + std::to_string(findings.numbers.size()) + " has no number";
            return findings;
        }
        findings.numbers.push_back(number);
        findings.wrong = checkPicture(planes, format, number, depth);
        if (!findings.wrong.empty()) return findings;
        file.remove_prefix(6 + bytes);
    }
    return findings;
}

MediaFindings checkRaw(std::string_view file, const Signal& signal, uint32_t depth) {
    MediaFindings findings;
    const PictureFormat format = formatOf(signal, depth);
    std::vector<uint8_t> expected(frameSizeBytes(format));
    PictureSource source;
    source.prepare(format, expected.data(), expected.size(), 0);
    if (file.size() % expected.size() != 0) findings.wrong = "no whole number of frames";
    // Which frame it is: that whose bytes it has, looked for from the one before.
    for (; file.size() >= expected.size() && findings.wrong.empty(); file.remove_prefix(expected.size())) {
        uint32_t number = findings.numbers.empty() ? 0 : findings.numbers.back() + 1;
        const uint32_t end = number + 100000;
        while (number < end && std::memcmp(file.data(), source.advance(number), expected.size()) != 0)
            ++number;
        if (number == end)
            findings.wrong = "a frame that the card never made";
        else
            findings.numbers.push_back(number);
    }
    return findings;
}

MediaFindings checkWav(std::string_view file, const Signal& signal, uint32_t bits, uint32_t first) {
    MediaFindings findings;
    const auto number = [&](size_t at, int size) {
        uint64_t value = 0;
        for (int i = size; i-- > 0;)
            value = value << 8 | static_cast<uint8_t>(file[at + size_t(i)]);
        return value;
    };
    if (file.size() < 12 || file.substr(0, 4) != "RIFF" || file.substr(8, 4) != "WAVE" ||
        number(4, 4) != file.size() - 8) {
        findings.wrong = "no RIFF file of this length";
        return findings;
    }
    std::map<std::string, std::string_view> chunks;
    for (size_t at = 12; at + 8 <= file.size(); at += 8 + number(at + 4, 4))
        chunks[std::string(file.substr(at, 4))] = file.substr(at + 8, number(at + 4, 4));
    const uint32_t frame = bits / 8 * 2;
    const uint8_t wanted[16] = {1,
                                0,
                                2,
                                0,
                                0x80,
                                0xBB,
                                0,
                                0,
                                uint8_t(48000 * frame),
                                uint8_t(48000 * frame >> 8),
                                uint8_t(48000 * frame >> 16),
                                0,
                                uint8_t(frame),
                                0,
                                uint8_t(bits),
                                0};
    if (chunks["fmt "] != std::string_view(reinterpret_cast<const char*>(wanted), sizeof wanted)) {
        findings.wrong = "another format than 48 kHz stereo";
        return findings;
    }
    std::string_view data = chunks["data"];
    const uint32_t rate = signal.nominalFrameRate(), format = bits == 24 ? 0 : 1;
    std::vector<uint8_t> block(size_t{samplesPerBlock(rate)} * sampleFrameBytes(format));
    for (uint32_t n = first; data.size() >= block.size(); ++n, data.remove_prefix(block.size())) {
        soundBlock(n, rate, format, block.data());
        if (std::memcmp(block.data(), data.data(), block.size()) != 0) {
            findings.wrong = "the sound of frame " + std::to_string(n) + " differs";
            return findings;
        }
        findings.numbers.push_back(n);
    }
    if (!data.empty()) findings.wrong = "a part of a block at the end";
    return findings;
}

} // namespace kestra::test
