// The plain kernels: what every other set's results are compared with. Colours are read from the tables.
#include "decode/plain_lines.h"

#include <cstring>

namespace kestra {

void convertLine8BitPlain(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                          const uint8_t* /*nextLine*/) {
    for (uint32_t n = 0; n < pairs; ++n)
        convertPair8(conversion.tables, conversion.params, raw + size_t{4} * n, rgb + size_t{6} * n);
}

void convertLine10BitPlain(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                           const uint8_t* /*nextLine*/) {
    uint16_t samples[4] = {};
    const uint32_t count = 4 * pairs;
    for (uint32_t sample = 0; sample < count;) {
        uint64_t word = 0;
        std::memcpy(&word, raw + size_t{8} * (sample / 6), sizeof word);
        for (int j = 0; j < 6 && sample < count; ++j, ++sample, word >>= 10) {
            samples[sample % 4] = word & 1023;
            if (sample % 4 == 3)
                convertPair10(conversion.tables, conversion.params, samples, rgb + size_t{6} * (sample / 4));
        }
    }
}

void copyLinePlain(const uint8_t* src, uint8_t* dst, size_t bytes, bool /*streamed*/) {
    std::memcpy(dst, src, bytes);
}

void swapLinePlain(const uint8_t* src, uint8_t* dst, size_t bytes, bool /*streamed*/) {
    for (size_t i = 0; i + 2 <= bytes; i += 2) {
        dst[i] = src[i + 1];
        dst[i + 1] = src[i];
    }
}

void expandLinePlain(const uint8_t* src, uint8_t* dst, size_t bytes, bool /*streamed*/) {
    for (; bytes >= 3; bytes -= 3, src += 3, dst += 4) {
        dst[0] = src[0];
        dst[1] = src[1];
        dst[2] = src[2];
        dst[3] = 0;
    }
}

constinit const KernelSet kPlainKernels{.name = "plain",
                                        .runsHere = []() noexcept { return true; },
                                        .convertLine8Bit = convertLine8BitPlain,
                                        .convertLine10Bit = convertLine10BitPlain,
                                        .picosecondsPerPixel8Bit = 2300,
                                        .picosecondsPerPixel10Bit = 3800,
                                        .copyLine = copyLinePlain,
                                        .swapLine = swapLinePlain,
                                        .expandLine = expandLinePlain};

} // namespace kestra
