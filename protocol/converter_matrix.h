// The converter matrices of the television standards, for the property page and tools. Portable; pure functions.
#pragma once

#include "protocol/converter.h"

#include <array>
#include <cstddef>
#include <iterator>
#include <span>

namespace kestra {

/// YOff, CrOff, CbOff, Y1, R1, G1, G2, B1: the first fields of TarnisConverterParams. The offsets are in 10-bit units.
inline constexpr size_t kMatrixValues = 8, kMatrixOffsets = 3;
using ConverterMatrix = std::array<double, kMatrixValues>;

/// Largest coefficient or gain whose multiple of 1/256 fits the card's 32-bit number.
inline constexpr double kMostCoefficient = 8388607.5;

/// A coefficient or gain as the card keeps it: a multiple of 1/256, truncated toward zero.
constexpr double coefficientOnCard(double value) noexcept {
    const double held = value > kMostCoefficient    ? kMostCoefficient
                        : value < -kMostCoefficient ? -kMostCoefficient
                                                    : value;
    return wire::fixedFromWire(wire::fixedToWire(static_cast<float>(held)));
}

/// A red, green or blue offset as the card keeps it: -128 becomes 0.
constexpr double offsetOnCard(double value) noexcept {
    return wire::offsetFromWire(wire::offsetToWire(static_cast<int8_t>(value)));
}

/// Weights of red and blue in luma; green gets the rest.
struct LumaWeights {
    double kr, kb;
};
inline constexpr LumaWeights kBt601 = {0.299, 0.114};   ///< Recommendation ITU-R BT.601-7, 2.5.1
inline constexpr LumaWeights kBt709 = {0.2126, 0.0722}; ///< Recommendation ITU-R BT.709-6, 3.2

enum class SampleRange {
    Studio, ///< 8-bit levels 16 to 235 of Y, 16 to 240 of Cb and Cr
    Full    ///< 0 to 255
};

/// The matrix from Y, Cb, Cr of a range to red, green and blue of 0 to 255: with Kg = 1 - Kr - Kb,
///     red   = Y + 2 (1 - Kr) Cr
///     green = Y - 2 Kr (1 - Kr) / Kg Cr - 2 Kb (1 - Kb) / Kg Cb
///     blue  = Y + 2 (1 - Kb) Cb
/// where the range stretches Y to 1 and Cb, Cr to -1/2..1/2 (BT.601-7, 2.5.1 to 2.5.3; BT.709-6, 3.2 to 3.4). Rounded
/// to three decimals, as the card's own defaults are, which are just BT.601 of the studio range.
constexpr ConverterMatrix converterMatrix(LumaWeights weights, SampleRange range) noexcept {
    const bool studio = range == SampleRange::Studio;
    const double luma = studio ? 255.0 / 219 : 1, chroma = studio ? 255.0 / 224 : 1;
    const double kr = weights.kr, kb = weights.kb, kg = 1 - kr - kb;
    const auto rounded = [](double v) {
        const int thousandths =
            static_cast<int>(v * 1000 + 0.5); // NOLINT(bugprone-incorrect-roundings): none is negative
        return static_cast<double>(static_cast<float>(thousandths / 1000.0)); // as the record holds it
    };
    return {studio ? 64.0 : 0.0,
            512,
            512,
            rounded(luma),
            rounded(2 * (1 - kr) * chroma),
            rounded(2 * kr * (1 - kr) / kg * chroma),
            rounded(2 * kb * (1 - kb) / kg * chroma),
            rounded(2 * (1 - kb) * chroma)};
}

struct MatrixPreset {
    const wchar_t* name;
    const char* shortName; ///< for command lines
    bool isHighDefinition; ///< of the signals that the standard is for
    ConverterMatrix matrix;
};
inline constexpr MatrixPreset kMatrixPresets[] = {
    {L"ITU-R BT.601, studio to full", "bt601", false, converterMatrix(kBt601, SampleRange::Studio)},
    {L"ITU-R BT.709, studio to full", "bt709", true, converterMatrix(kBt709, SampleRange::Studio)},
    {L"ITU-R BT.601, full to full", "bt601-full", false, converterMatrix(kBt601, SampleRange::Full)},
    {L"ITU-R BT.709, full to full", "bt709-full", true, converterMatrix(kBt709, SampleRange::Full)}};

/// The preset that equals a matrix as the card keeps it; std::size(kMatrixPresets) if none does.
constexpr size_t presetOf(const ConverterMatrix& matrix) noexcept {
    const auto isSame = [&](const ConverterMatrix& preset) {
        for (size_t i = 0; i < kMatrixValues; ++i) {
            const bool same = i < kMatrixOffsets ? matrix[i] == preset[i]
                                                 : coefficientOnCard(matrix[i]) == coefficientOnCard(preset[i]);
            if (!same) return false;
        }
        return true;
    };
    size_t preset = 0;
    while (preset < std::size(kMatrixPresets) && !isSame(kMatrixPresets[preset].matrix))
        ++preset;
    return preset;
}

/// True for the sizes whose standard is BT.709: 720 lines or more, or wider than standard definition.
constexpr bool isHighDefinition(long width, long height) noexcept {
    return height >= 720 || width > 1024;
}

} // namespace kestra
