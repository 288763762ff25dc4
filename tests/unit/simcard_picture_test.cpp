// The simulated card's picture: other tests rely on every byte of it, so its rules are pinned here.
#include "simcard/model/picture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <vector>

using namespace kestra;
using namespace kestra::simcard;

namespace {

PictureFormat bars(uint16_t width, uint16_t height, uint8_t selector, bool interlaced = false) {
    return {width, height, interlaced, selector, 30, PictureKind::Bars, wire::toWire(wire::kDefaultConverter)};
}

std::vector<uint8_t> whole(const PictureFormat& format, uint32_t frameNumber) {
    std::vector<uint8_t> frame(frameSizeBytes(format), 0xAA);
    PictureSource source;
    EXPECT_TRUE(source.prepare(format, frame.data(), frame.size(), frameNumber));
    return frame;
}

} // namespace

TEST(PictureSize, FollowsTheRawLayouts) {
    EXPECT_EQ(rawLineBytes(TARNIS_OUTPUT_YUV422_10, 1920), 5120u);
    EXPECT_EQ(rawLineBytes(TARNIS_OUTPUT_YUV422_10, 1921), 5128u);
    EXPECT_EQ(rawLineBytes(TARNIS_OUTPUT_YUV422_8, 1921), 3844u);
    EXPECT_EQ(rawLineBytes(TARNIS_OUTPUT_RGB24, 1921), 5764u);
    EXPECT_EQ(rawLineBytes(3, 1920), 0u);
}

TEST(PictureSource, AdvancedFrameEqualsTheFrameDrawnWhole) {
    for (const uint8_t selector : {0, 1, 2})
        for (const bool interlaced : {false, true})
            for (const auto& [width, height] : {std::pair{320, 240}, std::pair{161, 131}, std::pair{7, 5}}) {
                SCOPED_TRACE(testing::Message() << int(selector) << ' ' << interlaced << ' ' << width << 'x' << height);
                const PictureFormat format = bars(uint16_t(width), uint16_t(height), selector, interlaced);
                std::vector<uint8_t> memory(frameSizeBytes(format));
                PictureSource source;
                ASSERT_TRUE(source.prepare(format, memory.data(), memory.size(), 0));
                for (const uint32_t number : {1u, 2u, 29u, 30u, 31u, 1000u, 0u, 0xFFFFFFFFu}) {
                    source.advance(number);
                    ASSERT_EQ(memory, whole(format, number)) << "frame " << number;
                }
            }
}

TEST(PictureSource, RefusesAnUnknownSelectorAndTooLittleMemory) {
    std::vector<uint8_t> memory(1000);
    PictureSource source;
    EXPECT_FALSE(source.prepare(bars(10, 10, 3), memory.data(), memory.size(), 0));
    EXPECT_FALSE(source.prepare(bars(100, 100, 1), memory.data(), memory.size(), 0));
    EXPECT_FALSE(source.prepare(bars(10, 10, 1), nullptr, 0, 0));
}

TEST(PictureSource, EightBitLineHoldsTheUpperEightBitsOfEachSample) {
    const PictureFormat format = bars(13, 3, TARNIS_OUTPUT_YUV422_8);
    const std::vector<uint8_t> frame = whole(format, 5);
    for (uint32_t y = 0; y < 3; ++y)
        for (uint32_t x = 0; x < 13; ++x) {
            const Pixel10 pixel = pixelAt(format, 5, x, y);
            EXPECT_EQ(frame[y * 28 + x * 2], pixel.y >> 2);
            EXPECT_EQ(frame[y * 28 + x * 2 + 1], (x % 2 ? pixel.cr : pixel.cb) >> 2);
        }
    EXPECT_EQ(frame[26], 0) << "the padding of a line is zero";
    EXPECT_EQ(frame[27], 0);
}

TEST(PictureSource, TenBitLineHoldsSixSamplesAWordAndZeroSurplus) {
    const PictureFormat format = bars(4, 1, TARNIS_OUTPUT_YUV422_10);
    const std::vector<uint8_t> frame = whole(format, 0);
    ASSERT_EQ(frame.size(), 16u);
    uint64_t words[2];
    std::memcpy(words, frame.data(), sizeof words);
    uint32_t sample = 0;
    for (uint32_t x = 0; x < 4; ++x) {
        const Pixel10 pixel = pixelAt(format, 0, x, 0);
        for (const uint16_t value : {pixel.y, x % 2 ? pixel.cr : pixel.cb}) {
            EXPECT_EQ(words[sample / 6] >> (sample % 6 * 10) & 1023, value);
            ++sample;
        }
    }
    EXPECT_EQ(words[0] >> 60, 0u);
    EXPECT_EQ(words[1] >> 20, 0u);
}

TEST(PictureSource, InterlacedFrameHoldsTheFirstFieldFirst) {
    for (const uint16_t height : {uint16_t(8), uint16_t(9)}) {
        const std::vector<uint8_t> woven = whole(bars(16, height, 1), 3);
        const std::vector<uint8_t> fields = whole(bars(16, height, 1, true), 3);
        const uint32_t first = (height + 1u) / 2;
        for (uint32_t line = 0; line < height; ++line) {
            const uint32_t raw = line % 2 == 0 ? line / 2 : first + line / 2;
            EXPECT_EQ(std::memcmp(&woven[line * 32], &fields[raw * 32], 32), 0) << "line " << line;
        }
    }
}

TEST(PictureSource, NumberIsReadBackFromAllLayouts) {
    for (const uint32_t number : {0u, 1u, 2u, 3u, 77777u, 0x80000000u, 0xFFFFFFFFu}) {
        const auto yuv = whole(bars(1920, 1080, TARNIS_OUTPUT_YUV422_8), number);
        uint32_t read = ~number;
        ASSERT_TRUE(readFrameNumber(
            1920, 1080, [&](uint32_t x, uint32_t y) { return yuv[y * 3840 + x * 2]; }, read));
        EXPECT_EQ(read, number);
        const auto rgb = whole(bars(1280, 720, TARNIS_OUTPUT_RGB24), number);
        ASSERT_TRUE(readFrameNumber(
            1280, 720, [&](uint32_t x, uint32_t y) { return rgb[y * 3840 + x * 3 + 1]; }, read));
        EXPECT_EQ(read, number);
    }
}

TEST(PictureSource, DamagedNumberIsRefused) {
    auto yuv = whole(bars(720, 576, TARNIS_OUTPUT_YUV422_8), 6);
    const NumberArea area = numberArea(720, 576);
    for (uint32_t line = area.firstLine; line < area.endLine; ++line)
        for (uint32_t x = 0; x < area.cellWidth; ++x)
            yuv[line * 1440 + (10 * area.cellWidth + x) * 2] = 235;
    uint32_t read = 0;
    EXPECT_FALSE(readFrameNumber(
        720, 576, [&](uint32_t x, uint32_t y) { return yuv[y * 1440 + x * 2]; }, read));
    EXPECT_FALSE(readFrameNumber(
        64, 48, [](uint32_t, uint32_t) { return uint8_t{0}; }, read));
}

TEST(PictureSource, FlashesInEveryFrameThatTheRateDivides) {
    const PictureFormat format = bars(320, 240, TARNIS_OUTPUT_YUV422_8);
    const uint32_t line = (flashArea(240).firstLine + flashArea(240).endLine) / 2;
    for (uint32_t number = 0; number <= 60; ++number)
        EXPECT_EQ(whole(format, number)[line * 640], number % 30 == 0 ? 235 : 16) << "frame " << number;
}

TEST(PictureSource, ElementMovesWithEveryFrame) {
    const PictureFormat format = bars(320, 240, TARNIS_OUTPUT_YUV422_8);
    std::set<std::vector<uint8_t>> lines;
    for (uint32_t number = 0; number < 40; ++number) {
        const auto frame = whole(format, number);
        lines.emplace(frame.begin() + 125 * 640, frame.begin() + 126 * 640);
    }
    EXPECT_EQ(lines.size(), 40u);
}

TEST(PictureSource, SamplesStayInStudioRange) {
    const PictureFormat format = bars(1920, 1080, TARNIS_OUTPUT_YUV422_10);
    for (uint32_t y = 0; y < 1080; y += 7)
        for (uint32_t x = 0; x < 1920; ++x) {
            const Pixel10 pixel = pixelAt(format, 12, x, y);
            ASSERT_TRUE(pixel.y >= 64 && pixel.y <= 940 && pixel.cb >= 64 && pixel.cb <= 960 && pixel.cr >= 64 &&
                        pixel.cr <= 960)
                << x << ',' << y;
        }
}

TEST(ConverterTables, DefaultsGiveStudioBlackAndWhite) {
    ConverterTables tables;
    tables.build(wire::toWire(wire::kDefaultConverter));
    uint8_t bgr[3];
    tables.convert(16, 128, 128, bgr);
    EXPECT_EQ(bgr[0] | bgr[1] | bgr[2], 0);
    tables.convert(235, 128, 128, bgr);
    EXPECT_EQ(bgr[0], 254); // 219 * 297 / 256 = 254.07
    EXPECT_EQ(bgr[1], 254);
    EXPECT_EQ(bgr[2], 254);
}

TEST(ConverterTables, GainOffsetAndLimitsActOnTheirColour) {
    wire::Converter converter = wire::toWire(wire::kDefaultConverter);
    converter.redGain = 512;
    converter.greenOffset = wire::offsetToWire(-10);
    converter.bMin = 200;
    converter.bMax = 100;
    ConverterTables tables;
    tables.build(converter);
    uint8_t bgr[3];
    tables.convert(66, 128, 128, bgr); // 50 * 297 / 256 = 58.0
    EXPECT_EQ(bgr[2], 116);
    EXPECT_EQ(bgr[1], 48);
    EXPECT_EQ(bgr[0], 200) << "the lower limit wins";
}

TEST(ConverterTables, ExtremeParametersAreAbsorbed) {
    wire::Converter converter;
    std::memset(&converter, 0x7F, sizeof converter);
    ConverterTables tables;
    tables.build(converter);
    std::memset(&converter, 0x80, sizeof converter);
    tables.build(converter);
    uint8_t bgr[3] = {1, 2, 3};
    tables.convert(255, 0, 255, bgr);
    EXPECT_EQ(bgr[0], 0x80) << "both limits are 128";
}

TEST(PictureKinds, TintedPictureHasUnequalMeansAndGreyEqualOnes) {
    PictureFormat format = bars(16, 8, TARNIS_OUTPUT_RGB24);
    format.kind = PictureKind::Tinted;
    const auto tinted = whole(format, 0);
    EXPECT_GT(tinted[2], tinted[1]);
    EXPECT_GT(tinted[1], tinted[0]);
    EXPECT_LT(tinted[2], 255);
    format.kind = PictureKind::Grey;
    const auto grey = whole(format, 0);
    EXPECT_EQ(grey[0], grey[1]);
    EXPECT_EQ(grey[1], grey[2]);
}

TEST(PictureKinds, ConverterMattersToRgbOnly) {
    PictureFormat a = bars(16, 8, TARNIS_OUTPUT_RGB24), b = a;
    b.converter.redGain = 300;
    EXPECT_FALSE(sameContent(a, b));
    EXPECT_NE(whole(a, 0), whole(b, 0));
    a.selector = b.selector = TARNIS_OUTPUT_YUV422_8;
    EXPECT_TRUE(sameContent(a, b));
    EXPECT_EQ(whole(a, 0), whole(b, 0));
}
