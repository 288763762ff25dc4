// The tables that define the conversion, and whether arithmetic may stand in for them.
#include "decode/color_tables.h"

#include "decode/yuv_constants.h"
#include "protocol/converter.h"

#include <algorithm>
#include <limits>

namespace kestra {

namespace {

/// Toward zero. Values outside 32 bits, and NaN, become INT32_MIN, as in the processor's conversion.
int32_t truncated(float value) noexcept {
    if (!(value >= -2147483648.0f && value < 2147483648.0f)) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(value);
}

/// Wrapping sum and difference, as the processor's.
int32_t plus(int32_t a, int32_t b) noexcept {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
int32_t minus(int32_t a, int32_t b) noexcept {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

/// Everything that the tables depend on: all but the limits.
bool sameTables(const TarnisConverterParams& a, const TarnisConverterParams& b) noexcept {
    return a.YOff == b.YOff && a.CrOff == b.CrOff && a.CbOff == b.CbOff && a.Y1 == b.Y1 && a.R1 == b.R1 &&
           a.G1 == b.G1 && a.G2 == b.G2 && a.B1 == b.B1 && a.RedOffset == b.RedOffset &&
           a.GreenOffset == b.GreenOffset && a.BlueOffset == b.BlueOffset && a.RedGain == b.RedGain &&
           a.GreenGain == b.GreenGain && a.BlueGain == b.BlueGain;
}

bool matchesArithmetic8(const ColorTables& t) noexcept {
    for (int i = 0; i < 256; ++i) {
        const int y = yuv8::term(i, yuv8::kYOff, yuv8::kY);
        if (t.YR[i] != y || t.YG[i] != y || t.YB[i] != y || t.CrR[i] != yuv8::term(i, yuv8::kCOff, yuv8::kCrR) ||
            t.CrG[i] != yuv8::term(i, yuv8::kCOff, yuv8::kCrG) || t.CbB[i] != yuv8::term(i, yuv8::kCOff, yuv8::kCbB) ||
            t.CbG[i] != yuv8::term(i, yuv8::kCOff, yuv8::kCbG))
            return false;
    }
    return true;
}

bool matchesArithmetic10(const ColorTables& t) noexcept {
    for (int i = 0; i < 1024; ++i) {
        const int y = yuv10::term(i, yuv10::kYOff, 1, yuv10::kY);
        if (t.YR[i] != y || t.YG[i] != y || t.YB[i] != y || t.CrR[i] != yuv10::term(i, yuv10::kCOff, 2, yuv10::kCrR) ||
            t.CrG[i] != yuv10::term(i, yuv10::kCOff, 1, yuv10::kCrG) ||
            t.CbB[i] != yuv10::term(i, yuv10::kCOff, 2, yuv10::kCbB) ||
            t.CbG[i] != yuv10::term(i, yuv10::kCOff, 0, yuv10::kCbG))
            return false;
    }
    return true;
}

uint8_t limited(int32_t value, uint8_t least, uint8_t most) noexcept {
    return static_cast<uint8_t>(std::max<int32_t>(std::min<int32_t>(value, most), least));
}

template <int kShift, class Sample>
inline void convertPair(const ColorTables& t, const TarnisConverterParams& p, const Sample* s, uint8_t* bgr) noexcept {
    const uint32_t cb = s[1], cr = s[3];
    for (size_t pixel = 0; pixel < 2; ++pixel) {
        const uint32_t y = s[2 * pixel];
        bgr[3 * pixel] = limited(plus(t.YB[y], t.CbB[cb]) >> kShift, p.BMin, p.BMax);
        bgr[3 * pixel + 1] = limited(minus(minus(t.YG[y], t.CrG[cr]), t.CbG[cb]) >> kShift, p.GMin, p.GMax);
        bgr[3 * pixel + 2] = limited(plus(t.YR[y], t.CrR[cr]) >> kShift, p.RMin, p.RMax);
    }
}

} // namespace

void buildTables(ColorTables& tables, SampleDepth depth, const TarnisConverterParams& params) noexcept {
    if (tables.depth == depth && sameTables(tables.builtFrom, params)) return;
    tables.depth = depth;
    tables.builtFrom = params;
    const bool ten = depth == SampleDepth::Bits10;
    const int32_t yOff = ten ? params.YOff : params.YOff >> 2;
    const int32_t crOff = ten ? params.CrOff : params.CrOff >> 2;
    const int32_t cbOff = ten ? params.CbOff : params.CbOff >> 2;
    for (int32_t i = 0; i < (ten ? 1024 : 256); ++i) {
        const float y = static_cast<float>(minus(i, yOff)) * params.Y1;
        const auto cr = static_cast<float>(minus(i, crOff));
        const auto cb = static_cast<float>(minus(i, cbOff));
        tables.YR[i] = plus(truncated(params.RedGain * y), params.RedOffset);
        tables.YG[i] = plus(truncated(params.GreenGain * y), params.GreenOffset);
        tables.YB[i] = plus(truncated(params.BlueGain * y), params.BlueOffset);
        tables.CrR[i] = truncated(params.R1 * cr * params.RedGain);
        tables.CrG[i] = truncated(params.G1 * cr * params.GreenGain);
        tables.CbB[i] = truncated(params.B1 * cb * params.BlueGain);
        tables.CbG[i] = truncated(params.G2 * cb * params.GreenGain);
    }
    tables.arithmeticIsExact = ten ? matchesArithmetic10(tables) : matchesArithmetic8(tables);
}

const ColorTables& defaultTables(SampleDepth depth) noexcept {
    struct Defaults : ColorTables {
        explicit Defaults(SampleDepth wanted) noexcept : ColorTables{} {
            buildTables(*this, wanted, wire::kDefaultConverter);
        }
    };
    static const Defaults bits8(SampleDepth::Bits8), bits10(SampleDepth::Bits10);
    return depth == SampleDepth::Bits10 ? bits10 : bits8;
}

void convertPair8(const ColorTables& tables, const TarnisConverterParams& params, const uint8_t* yCbYCr,
                  uint8_t* bgr) noexcept {
    convertPair<0>(tables, params, yCbYCr, bgr);
}

void convertPair10(const ColorTables& tables, const TarnisConverterParams& params, const uint16_t* yCbYCr,
                   uint8_t* bgr) noexcept {
    convertPair<2>(tables, params, yCbYCr, bgr);
}

} // namespace kestra
