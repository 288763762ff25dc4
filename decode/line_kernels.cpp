// The plain line kernels, and the choice.
#include "decode/line_kernels.h"

#include <cstring>

namespace kestra {

void convertLine8Plain(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                       const uint8_t* /*nextLine*/) {
    for (uint32_t n = 0; n < pairs; ++n)
        convertPair8(conversion.tables, conversion.params, raw + size_t{4} * n, rgb + size_t{6} * n);
}

void convertLine10Plain(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
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

void convertLastPair10(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs) noexcept {
    uint16_t samples[4];
    for (uint32_t i = 0; i < 4; ++i) {
        const uint32_t sample = 4 * (pairs - 1) + i;
        uint64_t word = 0;
        std::memcpy(&word, raw + size_t{8} * (sample / 6), sizeof word);
        samples[i] = static_cast<uint16_t>(word >> 10 * (sample % 6) & 1023);
    }
    convertPair10(conversion.tables, conversion.params, samples, rgb + size_t{6} * (pairs - 1));
}

ConvertLine convertLineFor(const LineConversion& conversion) noexcept {
    const TarnisConverterParams& p = conversion.params;
    const bool fullRange = p.RMin == 0 && p.GMin == 0 && p.BMin == 0 && p.RMax == 255 && p.GMax == 255 && p.BMax == 255;
    const int variant = conversion.tables.arithmeticIsExact && fullRange ? cpuVariant() : int{kPlain};
    const auto row = static_cast<size_t>(variant);
    return conversion.tables.depth == SampleDepth::Ten ? kConvertLine10[row] : kConvertLine8[row];
}

} // namespace kestra
