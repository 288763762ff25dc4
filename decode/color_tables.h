// The tables from Y, Cb, Cr to R, G, B that define the decoder's results. Portable. Any thread may read tables that
// nobody is building; the decoder's own are built once.
#pragma once

#include "protocol/records.h"

#include <cstdint>

namespace kestra {

enum class SampleDepth : uint8_t { Bits8 = 0, Bits10 = 1 };

/// One term of the conversion per sample value. 8-bit samples use the first 256 entries.
struct ColorTables {
    int32_t YR[1024], YG[1024], YB[1024]; ///< luma, with the channel's gain and offset
    int32_t CrR[1024], CrG[1024];
    int32_t CbB[1024], CbG[1024];
    TarnisConverterParams builtFrom;
    SampleDepth depth;
    /// The kernels' 16-bit arithmetic gives exactly the entries that `depth` uses.
    bool arithmeticIsExact;
};

/// Rebuilds the tables for 8- or 10-bit samples, unless they were built for that depth from the same offsets,
/// coefficients and gains (the six limits do not enter them). Value-initialised ones are zeroes, for 8-bit samples.
/// Formulas: y = (i - YOff) * Y1, entry = trunc(gain * y) + offset; chroma entry = trunc(coefficient * (i - off) *
/// gain); single precision, left to right; 8-bit samples take YOff, CrOff and CbOff shifted right by 2.
void buildTables(ColorTables& tables, SampleDepth depth, const TarnisConverterParams& params) noexcept;

/// The tables of the default parameters, which TARNIS_Decode always uses. Built by the first call for that depth (other
/// callers wait) and never written again.
const ColorTables& defaultTables(SampleDepth depth) noexcept;

/// Converts one pair of pixels that share Cb and Cr. The limits are those of `params`: the minimum with the upper
/// limit first, then the maximum with the lower.
/// @param yCbYCr four samples Y0, Cb, Y1, Cr, below 256
/// @param bgr    six bytes B0, G0, R0, B1, G1, R1
void convertPair8(const ColorTables& tables, const TarnisConverterParams& params, const uint8_t* yCbYCr,
                  uint8_t* bgr) noexcept;
/// The same for samples below 1024: each sum is shifted right by 2 before it is limited, so that RGB offsets act in
/// 10-bit units here and in 8-bit units there.
void convertPair10(const ColorTables& tables, const TarnisConverterParams& params, const uint16_t* yCbYCr,
                   uint8_t* bgr) noexcept;

} // namespace kestra
