// Twelve samples, two words, are six pixels: the pattern repeats from there.
#include "ctl/raw_samples.h"

#include <algorithm>
#include <cstring>

namespace kestra::ctl {

namespace {

/// Samples of a line whose order is Y0 Cb Y1 Cr, one at a time: for what no whole group holds.
template <class Sample, class Get>
void splitRest(uint32_t pixel, uint32_t width, Sample* y, Sample* cb, Sample* cr, Sample grey, Get sampleAt) noexcept {
    for (; pixel < width; ++pixel) {
        y[pixel] = sampleAt(2 * pixel);
        if (pixel % 2 == 0) cb[pixel / 2] = sampleAt(2 * pixel + 1);
        if (pixel % 2 == 1) cr[pixel / 2] = sampleAt(2 * pixel + 1);
    }
    if (width % 2 == 1) cr[width / 2] = width > 1 ? cr[width / 2 - 1] : grey;
}

} // namespace

void splitLine10(const uint8_t* raw, uint32_t width, uint16_t* y, uint16_t* cb, uint16_t* cr) noexcept {
    const auto wordAt = [raw](uint32_t index) {
        uint64_t word;
        std::memcpy(&word, raw + size_t{index} * 8, sizeof word);
        return word;
    };
    const auto sample = [](uint64_t word, unsigned at) { return static_cast<uint16_t>(word >> (10 * at) & 1023); };
    uint32_t pixel = 0;
    for (; pixel + 6 <= width; pixel += 6) {
        const uint64_t a = wordAt(pixel / 3), b = wordAt(pixel / 3 + 1);
        y[pixel] = sample(a, 0), cb[pixel / 2] = sample(a, 1), y[pixel + 1] = sample(a, 2),
        cr[pixel / 2] = sample(a, 3);
        y[pixel + 2] = sample(a, 4), cb[pixel / 2 + 1] = sample(a, 5);
        y[pixel + 3] = sample(b, 0), cr[pixel / 2 + 1] = sample(b, 1);
        y[pixel + 4] = sample(b, 2), cb[pixel / 2 + 2] = sample(b, 3);
        y[pixel + 5] = sample(b, 4), cr[pixel / 2 + 2] = sample(b, 5);
    }
    splitRest(pixel, width, y, cb, cr, uint16_t{512},
              [&](uint32_t index) { return sample(wordAt(index / 6), index % 6); });
}

void splitLine8(const uint8_t* raw, uint32_t width, uint8_t* y, uint8_t* cb, uint8_t* cr) noexcept {
    size_t pair = 0;
    for (; pair < width / 2; ++pair) {
        y[2 * pair] = raw[4 * pair];
        cb[pair] = raw[4 * pair + 1];
        y[2 * pair + 1] = raw[4 * pair + 2];
        cr[pair] = raw[4 * pair + 3];
    }
    splitRest(width & ~1u, width, y, cb, cr, uint8_t{128}, [raw](uint32_t index) { return raw[index]; });
}

} // namespace kestra::ctl
