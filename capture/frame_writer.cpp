#include "capture/frame_writer.h"

#include "decode/decode.h"
#include "decode/kernel_set.h"
#include "protocol/raw_frame.h"

#include <xmmintrin.h>

#include <algorithm>
#include <cstring>

namespace kestra {
namespace {

constexpr uint32_t kSizeTolerance = 4097; // bytes between raw frame and RGB24 sample

void clear(uint8_t* first, size_t bytes) noexcept {
    std::memset(first, 0, bytes);
}

/// One frame and one sample, line by line.
class Writer {
public:
    Writer(const TarnisCameraData& camera, const uint8_t* raw, uint32_t rawBytes, uint8_t* sample, uint32_t sampleBytes)
        : m_raw(raw),
          m_sample(sample),
          m_sampleBytes(sampleBytes),
          m_height(camera.status.height),
          m_width(camera.status.width),
          m_rawLine(rawLineBytes(camera.outputSelector, m_width)),
          m_sampleLine(sampleLineBytes(sampleBytes, m_height)),
          m_rawLines(m_rawLine == 0 ? 0 : rawBytes / m_rawLine),
          m_streamed(sampleBytes >= kStreamedBytes) {}

    void copyWoven(bool interlaced) noexcept {
        const SampleLine copy = kernels().copyLine;
        for (uint32_t y = 0; y < m_height; ++y)
            put(interlaced ? rawLineOf(y, equalFieldLines(m_height)) : y, y, copy, m_rawLine, m_rawLine);
        finish();
    }
    void swapLines() noexcept {
        const SampleLine swap = kernels().swapLine;
        for (uint32_t y = 0; y < m_height; ++y)
            put(y, y, swap, m_rawLine, m_rawLine);
        finish();
    }
    void expandBottomUp() noexcept {
        const SampleLine expand = kernels().expandLine;
        const uint32_t pixels = std::min(m_width, m_sampleLine / 4);
        for (uint32_t k = 0; k < m_height; ++k)
            put(k, m_height - 1 - k, expand, 3 * pixels, 4 * pixels);
        finish();
    }

private:
    /// Raw line `from` becomes line `to` of the sample, of which it fills `out` bytes; the rest of the line is cleared.
    void put(uint32_t from, uint32_t to, SampleLine kernel, uint32_t in, uint32_t out) noexcept {
        uint8_t* line = m_sample + size_t{to} * m_sampleLine;
        if (from >= m_rawLines) return clear(line, m_sampleLine);
        kernel(m_raw + size_t{from} * m_rawLine, line, in, m_streamed);
        clear(line + out, m_sampleLine - out);
    }
    void finish() noexcept {
        const size_t filled = size_t{m_height} * m_sampleLine;
        clear(m_sample + filled, m_sampleBytes - filled);
        if (m_streamed) _mm_sfence();
    }

    const uint8_t* m_raw;
    uint8_t* m_sample;
    const uint32_t m_sampleBytes, m_height, m_width, m_rawLine, m_sampleLine, m_rawLines;
    const bool m_streamed;
};

void decodeBottomUp(const TarnisCameraData& camera, const uint8_t* raw, uint32_t rawBytes, uint8_t* sample,
                    uint32_t sampleBytes) noexcept {
    const uint32_t difference = rawBytes > sampleBytes ? rawBytes - sampleBytes : sampleBytes - rawBytes;
    const uint32_t height = camera.status.height, line = rawLineBytes(camera.outputSelector, camera.status.width);
    const uint64_t image = uint64_t{line} * height;
    // Whatever the sizes say of each other, no more is read or written than there is.
    if (difference >= kSizeTolerance || height == 0 || image > sampleBytes || image > rawBytes)
        return clear(sample, sampleBytes);
    const uint32_t pixelBytes = camera.status.width * 3u;
    if (line != pixelBytes)
        for (uint32_t y = 0; y < height; ++y)
            clear(sample + size_t{y} * line + pixelBytes, line - pixelBytes);
    if (camera.status.interlaced == 1 && height % 2 != 0) clear(sample, line); // the decoder leaves that line alone
    clear(sample + image, sampleBytes - image);
    int32_t stride = -static_cast<int32_t>(line);
    if (TARNIS_Decode(&camera, raw, sample + size_t{height - 1} * line, &stride, 2, nullptr, nullptr) != TARNIS_SUCCESS)
        clear(sample, sampleBytes);
}

} // namespace

void writeSample(VideoFormat format, const TarnisCameraData& camera, const uint8_t* raw, uint32_t rawBytes,
                 uint8_t* sample, uint32_t sampleBytes) noexcept {
    Writer writer(camera, raw, rawBytes, sample, sampleBytes);
    switch (format) {
    case kYuy2:
        return writer.copyWoven(camera.status.interlaced == 1);
    case kRgb24:
        return decodeBottomUp(camera, raw, rawBytes, sample, sampleBytes);
    case kUyvy:
        return writer.swapLines();
    case kRgb32:
        return writer.expandBottomUp();
    default:
        return clear(sample, sampleBytes);
    }
}

} // namespace kestra
