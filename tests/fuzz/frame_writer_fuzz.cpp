// Any format, layout, geometry and sizes: a frame writer reads only the raw frame, writes the whole sample and nothing
// beyond. Both lie in blocks of exactly their size, so that the address sanitizer sees every access beyond. The
// expected sample is computed here again, byte by byte.
#include "capture/frame_writer.h"
#include "decode/kernel_set.h"
#include "protocol/raw_frame.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using namespace kestra;

struct Input {
    uint8_t format, selector, interlaced, outputParameter;
    uint16_t width, height;
    int16_t rawExcess, sampleExcess; ///< bytes more or less than a frame and its picture have
    uint8_t flags; ///< 1 the layout that belongs to the format, 2 the excess in lines; 4.. the variant
};

constexpr uint32_t kMostBytes = 1u << 17;

struct Format {
    SampleWriter write;
    uint32_t selector, bytesPerPixel;
    bool bottomUp, woven;
};
constexpr Format kFormats[] = {{writeYuy2, TARNIS_OUTPUT_YUV422_8, 2, false, true},
                               {writeRgb24, TARNIS_OUTPUT_RGB24, 3, true, true},
                               {writeUyvy, TARNIS_OUTPUT_YUV422_8, 2, false, false},
                               {writeRgb32, TARNIS_OUTPUT_RGB24, 4, true, false}};

/// The expected sample for a frame of the format's own layout.
std::vector<uint8_t> expected(const Format& format, const TarnisCameraData& camera, const uint8_t* raw, size_t rawBytes,
                              size_t sampleBytes) {
    std::vector<uint8_t> sample(sampleBytes);
    const uint32_t height = camera.status.height, width = camera.status.width;
    const uint32_t rawLine = rawLineBytes(format.selector, width);
    const bool decoded = format.write == writeRgb24;
    if (height == 0 || rawLine == 0) return sample;
    const size_t line = decoded ? rawLine : sampleBytes / height;
    if (decoded && (rawBytes >= sampleBytes + 4097 || sampleBytes >= rawBytes + 4097 || line * height > sampleBytes))
        return sample;
    const bool woven = format.woven && camera.status.interlaced == 1;
    for (uint32_t y = 0; y < height; ++y) {
        if (decoded && woven && height % 2 != 0 && y == height - 1) continue;
        const uint32_t from = woven ? y / 2 + y % 2 * (height / 2) : y;
        if ((size_t{from} + 1) * rawLine > rawBytes) continue;
        const uint8_t* in = raw + size_t{from} * rawLine;
        uint8_t* out = sample.data() + (format.bottomUp ? height - 1 - y : y) * line;
        if (format.bytesPerPixel == 2) {
            const size_t bytes = std::min<size_t>(rawLine, line);
            const bool swapped = !format.woven;
            for (size_t i = 0; i < (swapped ? bytes & ~size_t{1} : bytes); ++i)
                out[i] = in[swapped ? i ^ 1 : i];
        } else {
            for (size_t x = 0; x < width; ++x)
                for (size_t i = 0; i < 3 && x * format.bytesPerPixel + i < line; ++i)
                    out[x * format.bytesPerPixel + i] = in[3 * x + i];
        }
    }
    return sample;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    Input in{};
    if (size < sizeof in) return 0;
    std::memcpy(&in, bytes, sizeof in);
    bytes += sizeof in;
    size -= sizeof in;
    const Format& format = kFormats[in.format % 4];
    TarnisCameraData camera{};
    camera.outputSelector = in.flags & 1 ? format.selector : in.selector % 5;
    camera.outputParameter = in.outputParameter % 3;
    camera.status.interlaced = in.interlaced % 3;
    camera.status.width = in.width % 200;
    camera.status.height = in.height % 40;
    const int64_t rawLine = rawLineBytes(camera.outputSelector, camera.status.width);
    const int64_t picture = rawLineBytes(TARNIS_OUTPUT_YUV422_8, camera.status.width) / 2 * format.bytesPerPixel;
    const auto excess = [&](int16_t more, int64_t line) { return in.flags & 2 ? more % 40 * line : int64_t{more}; };
    const auto bytesOf = [](int64_t wanted) {
        return static_cast<uint32_t>(std::clamp<int64_t>(wanted, 0, kMostBytes));
    };
    const uint32_t rawBytes = bytesOf(rawLine * camera.status.height + excess(in.rawExcess, rawLine));
    const uint32_t sampleBytes = bytesOf(picture * camera.status.height + excess(in.sampleExcess, picture));

    const std::unique_ptr<uint8_t[]> raw(new uint8_t[rawBytes]), sample(new uint8_t[sampleBytes]);
    for (uint32_t i = 0; i < rawBytes; ++i)
        raw[i] = size != 0 ? bytes[i % size] : static_cast<uint8_t>(i % 255 + 1);
    std::memset(sample.get(), 0xCD, sampleBytes);
    useKernels(*kKernelSets[(in.flags >> 2) % kKernelSets.size()]);
    const bool shown = format.write(camera, raw.get(), rawBytes, sample.get(), sampleBytes);
    if (camera.outputSelector == format.selector) {
        const std::vector<uint8_t> wanted = expected(format, camera, raw.get(), rawBytes, sampleBytes);
        if (!std::equal(wanted.begin(), wanted.end(), sample.get())) std::abort();
    }
    // Black means all black; shown or not, the sample is filled to its last byte.
    if (!shown && std::any_of(sample.get(), sample.get() + sampleBytes, [](uint8_t byte) { return byte != 0; }))
        std::abort();
    return 0;
}
