// Line kernels: one raw 4:2:2 line becomes one line of 24-bit RGB. Five builds of each, bit-identical. Portable.
#pragma once

#include "decode/color_tables.h"
#include "decode/cpu_variants.h"

#include <cstdint>

namespace kestra {

/// What a line kernel needs besides the line.
struct LineConversion {
    const ColorTables& tables;
    const TarnisConverterParams& params; ///< its limits; the tables were built from the rest
};

/// Converts `pairs` pairs of pixels.
/// @param raw       8-bit: bytes Y0, Cb, Y1, Cr; 10-bit: little-endian words of six samples. No byte beyond the last
///                  sample's group is read (8-bit: 4 bytes a pair; 10-bit: whole words).
/// @param rgb       6 bytes a pair are written
/// @param nextLine  where the next call will write: fetched into the cache on the way; only a hint, may be any address.
///                  Null: this image is larger than what its reader finds in the cache; stores go past the caches where
///                  the alignment allows it, and a fence after the last line is the caller's.
using ConvertLine = void (*)(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs,
                             const uint8_t* nextLine);

/// By table look-up, for any parameters.
void convertLine8Plain(const LineConversion&, const uint8_t*, uint8_t*, uint32_t, const uint8_t*);
void convertLine10Plain(const LineConversion&, const uint8_t*, uint8_t*, uint32_t, const uint8_t*);

// By 16-bit arithmetic: for tables whose arithmeticIsExact, and limits 0..255, only.
void convertLine8Sse2(const LineConversion&, const uint8_t*, uint8_t*, uint32_t, const uint8_t*);
void convertLine10Sse2(const LineConversion&, const uint8_t*, uint8_t*, uint32_t, const uint8_t*);
void convertLine8Sse41(const LineConversion&, const uint8_t*, uint8_t*, uint32_t, const uint8_t*);
void convertLine10Sse41(const LineConversion&, const uint8_t*, uint8_t*, uint32_t, const uint8_t*);
void convertLine8Avx2(const LineConversion&, const uint8_t*, uint8_t*, uint32_t, const uint8_t*);
void convertLine10Avx2(const LineConversion&, const uint8_t*, uint8_t*, uint32_t, const uint8_t*);
void convertLine8Avx512(const LineConversion&, const uint8_t*, uint8_t*, uint32_t, const uint8_t*);
void convertLine10Avx512(const LineConversion&, const uint8_t*, uint8_t*, uint32_t, const uint8_t*);

constexpr VariantTable<ConvertLine> kConvertLine8 = {convertLine8Plain, convertLine8Sse2, convertLine8Sse41,
                                                     convertLine8Avx2, convertLine8Avx512};
constexpr VariantTable<ConvertLine> kConvertLine10 = {convertLine10Plain, convertLine10Sse2, convertLine10Sse41,
                                                      convertLine10Avx2, convertLine10Avx512};

/// The last pair of a 10-bit line of `pairs` pairs alone.
void convertLastPair10(const LineConversion& conversion, const uint8_t* raw, uint8_t* rgb, uint32_t pairs) noexcept;

/// The kernel to be used for these tables and limits: the process's variant, or the plain one if only that is exact.
ConvertLine convertLineFor(const LineConversion& conversion) noexcept;

} // namespace kestra
