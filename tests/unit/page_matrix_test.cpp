// The converter's matrices: as the standards define them, and as the card keeps them.
#include "protocol/converter_matrix.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace kestra::test {
namespace {

const ConverterMatrix& matrixOf(const wchar_t* name) {
    for (const MatrixPreset& preset : kMatrixPresets)
        if (std::wstring(preset.name) == name) return preset.matrix;
    throw std::invalid_argument("no such matrix");
}

} // namespace

TEST(ConverterMatrix, StudioRangeOfBt601IsTheCardsDefault) {
    const TarnisConverterParams& d = wire::kDefaultConverter;
    const ConverterMatrix expected = {double(d.YOff), double(d.CrOff), double(d.CbOff), d.Y1, d.R1, d.G1, d.G2, d.B1};
    EXPECT_EQ(matrixOf(L"ITU-R BT.601, studio to full"), expected) << "to the last bit";
}

TEST(ConverterMatrix, CoefficientsAreThoseOfTheStandards) {
    const auto expect = [](const wchar_t* name, const ConverterMatrix& expected) {
        const ConverterMatrix& matrix = matrixOf(name);
        for (size_t i = 0; i < kMatrixValues; ++i)
            EXPECT_EQ(float(matrix[i]), float(expected[i])) << i;
    };
    expect(L"ITU-R BT.709, studio to full", {64, 512, 512, 1.164, 1.793, 0.533, 0.213, 2.112});
    expect(L"ITU-R BT.601, full to full", {0, 512, 512, 1, 1.402, 0.714, 0.344, 1.772});
    expect(L"ITU-R BT.709, full to full", {0, 512, 512, 1, 1.575, 0.468, 0.187, 1.856});
}

TEST(ConverterMatrix, IsComputedFromTheStandardsWeights) {
    EXPECT_EQ(converterMatrix(kBt601, SampleRange::Studio), kMatrixPresets[0].matrix);
    EXPECT_EQ(converterMatrix(kBt709, SampleRange::Full), kMatrixPresets[3].matrix);
}

TEST(ConverterMatrix, BringsEveryColorBackFromTheStandardsOwnLumaAndChroma) {
    const LumaWeights weights[] = {kBt601, kBt709, kBt601, kBt709};
    for (size_t preset = 0; preset < std::size(kMatrixPresets); ++preset) {
        const auto [kr, kb] = weights[preset];
        const bool studio = preset < 2;
        const ConverterMatrix& m = kMatrixPresets[preset].matrix;
        for (int color = 0; color < 27; ++color) {
            const double r = color % 3 * 127.5, g = color / 3 % 3 * 127.5, b = color / 9 * 127.5;
            const double luma = kr * r + (1 - kr - kb) * g + kb * b; // the definition, 0 to 255
            const double y = studio ? 64 + luma * 219 / 255 * 4 : luma * 4;
            const double chroma = (studio ? 224.0 / 255 : 1) * 4; // 10-bit units
            const double cr = 512 + (r - luma) / (2 * (1 - kr)) * chroma,
                         cb = 512 + (b - luma) / (2 * (1 - kb)) * chroma;
            EXPECT_NEAR(((y - m[0]) * m[3] + (cr - m[1]) * m[4]) / 4, r, 0.2);
            EXPECT_NEAR(((y - m[0]) * m[3] - (cr - m[1]) * m[5] - (cb - m[2]) * m[6]) / 4, g, 0.2);
            EXPECT_NEAR(((y - m[0]) * m[3] + (cb - m[2]) * m[7]) / 4, b, 0.2);
        }
    }
}

TEST(ConverterMatrix, IsRecognizedAsTypedAndAsTheCardKeepsIt) {
    for (size_t preset = 0; preset < std::size(kMatrixPresets); ++preset) {
        ConverterMatrix matrix = kMatrixPresets[preset].matrix;
        EXPECT_EQ(presetOf(matrix), preset);
        for (size_t i = kMatrixOffsets; i < kMatrixValues; ++i)
            matrix[i] = coefficientOnCard(matrix[i]);
        EXPECT_EQ(presetOf(matrix), preset) << "read back";
        for (size_t i = 0; i < kMatrixValues; ++i) {
            ConverterMatrix other = kMatrixPresets[preset].matrix;
            other[i] += i < kMatrixOffsets ? 1 : 1.0 / 256;
            EXPECT_EQ(presetOf(other), std::size(kMatrixPresets)) << i;
        }
    }
}

TEST(ConverterMatrix, CardKeepsMultiplesOf256thTowardZero) {
    EXPECT_EQ(coefficientOnCard(1.164f), 1.16015625);
    EXPECT_EQ(coefficientOnCard(-1.164f), -1.16015625);
    EXPECT_EQ(coefficientOnCard(1.16), 1.15625);
    EXPECT_EQ(coefficientOnCard(8388607.5), 8388607.5);
    EXPECT_EQ(coefficientOnCard(std::numeric_limits<double>::infinity()), 8388607.5);
    EXPECT_EQ(coefficientOnCard(-std::numeric_limits<double>::infinity()), -8388607.5);
    EXPECT_EQ(offsetOnCard(-127), -127);
    EXPECT_EQ(offsetOnCard(-128), 0);
    EXPECT_EQ(offsetOnCard(127), 127);
}

TEST(ConverterMatrix, HighDefinitionStartsAt720Lines) {
    EXPECT_TRUE(isHighDefinition(1920, 1080));
    EXPECT_TRUE(isHighDefinition(1280, 720));
    EXPECT_FALSE(isHighDefinition(720, 576));
    EXPECT_FALSE(isHighDefinition(720, 487));
    EXPECT_FALSE(isHighDefinition(1024, 576));
    EXPECT_FALSE(isHighDefinition(1024, 719));
    EXPECT_TRUE(isHighDefinition(960, 720));
    EXPECT_TRUE(isHighDefinition(1025, 576));
}

} // namespace kestra::test
