// A raw frame into a sample: copies, swaps and expansions, line by line.
#include "capture/frame_writer.h"

#include "decode/decode.h"
#include "decode/kernel_set.h"
#include "protocol/raw_frame.h"

#include <xmmintrin.h>

#include <algorithm>
#include <cstring>

namespace kestra {
namespace {

constexpr uint32_t kSizeTolerance = 4097; // bytes by which raw frame and RGB24 sample may differ

void clear(uint8_t* first, size_t bytes) noexcept {
    std::memset(first, 0, bytes);
}

/// One frame and one sample, line by line.
class Lines {
public:
    Lines(const TarnisCameraData& camera, const uint8_t* raw, uint32_t rawBytes, uint8_t* sample, uint32_t sampleBytes,
          uint32_t sampleLine)
        : m_raw(raw),
          m_sample(sample),
          m_sampleBytes(sampleBytes),
          m_height(camera.status.height),
          m_rawLine(rawLineBytes(camera.outputSelector, camera.status.width)),
          m_sampleLine(sampleLine),
          m_rawLines(m_rawLine == 0 ? 0 : rawBytes / m_rawLine),
          m_streamed(sampleBytes >= kStreamedBytes) {}
    ~Lines() {
        const size_t filled = size_t{m_height} * m_sampleLine;
        clear(m_sample + filled, m_sampleBytes - filled);
        if (m_streamed) _mm_sfence();
    }
    Lines(const Lines&) = delete;
    Lines& operator=(const Lines&) = delete;

    /// Bytes that fit both a raw line and a line of the sample.
    uint32_t common() const noexcept { return std::min(m_rawLine, m_sampleLine); }
    uint32_t woven(uint32_t y) const noexcept { return rawLineOf(y, equalFieldLines(m_height)); }
    /// Line `from` of the frame becomes line `to` of the sample: `in` bytes of it fill `out`, the rest is cleared.
    /// @return that line, null if the frame has none
    uint8_t* put(uint32_t from, uint32_t to, SampleLine kernel, uint32_t in, uint32_t out) noexcept {
        uint8_t* line = m_sample + size_t{to} * m_sampleLine;
        const bool there = from < m_rawLines;
        if (there) kernel(rawLine(from), line, in, m_streamed);
        clear(line + (there ? out : 0), m_sampleLine - (there ? out : 0));
        return there ? line : nullptr;
    }
    const uint8_t* rawLine(uint32_t from) const noexcept { return m_raw + size_t{from} * m_rawLine; }
    uint32_t rawLineSize() const noexcept { return m_rawLine; }

private:
    const uint8_t* m_raw;
    uint8_t* m_sample;
    const uint32_t m_sampleBytes, m_height, m_rawLine, m_sampleLine, m_rawLines;
    const bool m_streamed;
};

} // namespace

bool writeYuy2(const TarnisCameraData& camera, const uint8_t* raw, uint32_t rawBytes, uint8_t* sample,
               uint32_t sampleBytes) noexcept {
    const uint32_t height = camera.status.height;
    Lines lines(camera, raw, rawBytes, sample, sampleBytes, sampleLineBytes(sampleBytes, height));
    const SampleLine copy = kernels().copyLine;
    for (uint32_t y = 0; y < height; ++y)
        lines.put(camera.status.interlaced == 1 ? lines.woven(y) : y, y, copy, lines.common(), lines.common());
    return lines.common() != 0;
}

bool writeRgb24(const TarnisCameraData& camera, const uint8_t* raw, uint32_t rawBytes, uint8_t* sample,
                uint32_t sampleBytes) noexcept {
    const uint32_t difference = rawBytes > sampleBytes ? rawBytes - sampleBytes : sampleBytes - rawBytes;
    const uint32_t height = camera.status.height, width = camera.status.width;
    const uint32_t line = rawLineBytes(camera.outputSelector, width);
    const uint64_t image = uint64_t{line} * height;
    if (camera.outputSelector != TARNIS_OUTPUT_RGB24 || difference >= kSizeTolerance || image == 0 ||
        image > sampleBytes) {
        clear(sample, sampleBytes);
        return false;
    }
    const bool interlaced = camera.status.interlaced == 1;
    const uint32_t unpaired = interlaced && height % 2 != 0 ? height - 1 : height; // lines of two equal fields
    if (rawBytes < image) { // too short for the decoder: copies the lines that are there
        Lines lines(camera, raw, rawBytes, sample, sampleBytes, line);
        const SampleLine copy = kernels().copyLine;
        for (uint32_t y = 0; y < height; ++y)
            lines.put(y == unpaired ? height
                      : interlaced  ? lines.woven(y)
                                    : y,
                      height - 1 - y, copy, width * 3, width * 3);
        return true;
    }
    if (line != width * 3)
        for (uint32_t y = 0; y < height; ++y)
            clear(sample + size_t{y} * line + size_t{width} * 3, line - width * 3);
    if (unpaired < height) clear(sample, line); // the decoder does not write that line
    clear(sample + image, sampleBytes - image);
    TarnisCameraData whole = camera;
    whole.outputParameter = 0;
    int32_t stride = -static_cast<int32_t>(line);
    return TARNIS_Decode(&whole, raw, sample + size_t{height - 1} * line, &stride, 2, nullptr, nullptr) ==
           TARNIS_SUCCESS;
}

bool writeUyvy(const TarnisCameraData& camera, const uint8_t* raw, uint32_t rawBytes, uint8_t* sample,
               uint32_t sampleBytes) noexcept {
    const uint32_t height = camera.status.height;
    Lines lines(camera, raw, rawBytes, sample, sampleBytes, sampleLineBytes(sampleBytes, height));
    const SampleLine swap = kernels().swapLine;
    const uint32_t bytes = lines.common() & ~1u;
    for (uint32_t y = 0; y < height; ++y)
        lines.put(y, y, swap, bytes, bytes);
    return bytes != 0;
}

bool writeRgb32(const TarnisCameraData& camera, const uint8_t* raw, uint32_t rawBytes, uint8_t* sample,
                uint32_t sampleBytes) noexcept {
    const uint32_t height = camera.status.height, line = sampleLineBytes(sampleBytes, height);
    Lines lines(camera, raw, rawBytes, sample, sampleBytes, line);
    const SampleLine expand = kernels().expandLine;
    const uint32_t width = std::min<uint32_t>(camera.status.width, lines.rawLineSize() / 3);
    const uint32_t pixels = std::min(width, line / 4);
    const uint32_t cut = pixels < width ? std::min(line % 4, 3u) : 0; // bytes of a last, incomplete pixel
    for (uint32_t k = 0; k < height; ++k) {
        uint8_t* last = lines.put(k, height - 1 - k, expand, 3 * pixels, 4 * pixels);
        for (uint32_t i = 0; last && i < cut; ++i)
            last[4 * pixels + i] = lines.rawLine(k)[3 * pixels + i];
    }
    return width != 0;
}

} // namespace kestra
