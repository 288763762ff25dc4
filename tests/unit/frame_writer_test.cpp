// Edge cases of the sample writers: frames too short or too long, odd field heights, lines with a partial pixel,
// samples larger than the picture.
#include "capture/frame_writer.h"
#include "protocol/raw_frame.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace kestra::test {
namespace {

constexpr uint8_t kGuard = 0xCD;
constexpr size_t kGuardBytes = 64;

struct Written {
    bool shown;
    std::vector<uint8_t> sample;
};

class FrameWriter : public testing::Test {
protected:
    TarnisCameraData camera(uint32_t selector, uint16_t width, uint16_t height, bool interlaced = false) {
        TarnisCameraData data{};
        data.outputSelector = selector;
        data.status.width = width;
        data.status.height = height;
        data.status.interlaced = interlaced;
        return data;
    }
    /// Every byte of a raw frame names its line, counted from 1; those within three bytes of each other differ.
    std::vector<uint8_t> numberedLines(const TarnisCameraData& data) {
        const uint32_t line = rawLineBytes(data.outputSelector, data.status.width);
        std::vector<uint8_t> raw(size_t{line} * data.status.height);
        for (size_t i = 0; i < raw.size(); ++i)
            raw[i] = static_cast<uint8_t>((i / line + 1) * 4 + i % line % 3);
        return raw;
    }
    Written write(SampleWriter writer, const TarnisCameraData& data, const std::vector<uint8_t>& raw,
                  size_t sampleBytes) {
        std::vector<uint8_t> memory(sampleBytes + 2 * kGuardBytes, kGuard);
        const bool shown = writer(data, raw.data(), static_cast<uint32_t>(raw.size()), memory.data() + kGuardBytes,
                                  static_cast<uint32_t>(sampleBytes));
        const auto isGuard = [](uint8_t byte) { return byte == kGuard; };
        EXPECT_TRUE(std::all_of(memory.begin(), memory.begin() + kGuardBytes, isGuard)) << "before the sample";
        EXPECT_TRUE(std::all_of(memory.end() - kGuardBytes, memory.end(), isGuard)) << "behind the sample";
        return {shown, {memory.begin() + kGuardBytes, memory.end() - kGuardBytes}};
    }
    /// Numbers of the frame's lines in the order in which the sample shows them; 0 for black.
    std::vector<int> linesOf(const Written& written, uint16_t height) {
        std::vector<int> lines;
        const size_t line = written.sample.size() / height;
        for (uint32_t y = 0; y < height; ++y)
            lines.push_back(written.sample[y * line] / 4);
        return lines;
    }
};

constexpr uint32_t kYuv = TARNIS_OUTPUT_YUV422_8, kRgb = TARNIS_OUTPUT_RGB24;

} // namespace

TEST_F(FrameWriter, ShortRgb24FrameShowsTheLinesThatAreThere) {
    const TarnisCameraData data = camera(kRgb, 64, 6);
    std::vector<uint8_t> raw = numberedLines(data);
    const size_t whole = raw.size();
    EXPECT_EQ(linesOf(write(writeRgb24, data, raw, whole), 6), (std::vector<int>{6, 5, 4, 3, 2, 1})) << "bottom-up";
    raw.resize(whole - 1);
    Written written = write(writeRgb24, data, raw, whole);
    EXPECT_TRUE(written.shown);
    EXPECT_EQ(linesOf(written, 6), (std::vector<int>{0, 5, 4, 3, 2, 1})) << "the line that is cut is black";
    raw.resize(whole / 6 * 2);
    EXPECT_EQ(linesOf(write(writeRgb24, data, raw, whole), 6), (std::vector<int>{0, 0, 0, 0, 2, 1}));
    const TarnisCameraData fields = camera(kRgb, 64, 6, true);
    raw = numberedLines(fields);
    EXPECT_EQ(linesOf(write(writeRgb24, fields, raw, whole), 6), (std::vector<int>{6, 3, 5, 2, 4, 1}));
    raw.resize(whole / 6 * 5);
    EXPECT_EQ(linesOf(write(writeRgb24, fields, raw, whole), 6), (std::vector<int>{0, 3, 5, 2, 4, 1}));
}

TEST_F(FrameWriter, FrameOfAnUnlikelySizeIsBlackInRgb24AndCutInTheOthers) {
    struct Format {
        SampleWriter writer;
        uint32_t selector, bytesPerPixel;
    };
    constexpr uint16_t kWidth = 256, kHeight = 32; // a frame of more than the tolerance
    for (const Format& format :
         {Format{writeYuy2, kYuv, 2}, {writeRgb24, kRgb, 3}, {writeUyvy, kYuv, 2}, {writeRgb32, kRgb, 4}}) {
        SCOPED_TRACE(testing::Message() << format.selector << ' ' << format.bytesPerPixel);
        const TarnisCameraData data = camera(format.selector, kWidth, kHeight);
        const size_t whole = numberedLines(data).size(), sample = size_t{kWidth} * kHeight * format.bytesPerPixel;
        for (const int difference : {-4097, -4096, -1, 0, 1, 4096, 4097}) {
            SCOPED_TRACE(difference);
            std::vector<uint8_t> raw = numberedLines(data);
            raw.resize(whole + static_cast<size_t>(difference), 0x7F);
            const Written written = write(format.writer, data, raw, sample);
            const bool tolerated = format.writer != writeRgb24 || std::abs(difference) < 4097;
            EXPECT_EQ(written.shown, tolerated);
            const auto lines = linesOf(written, kHeight);
            const auto missing = static_cast<size_t>(std::count(lines.begin(), lines.end(), 0));
            const size_t line = whole / kHeight;
            const size_t cut = difference < 0 ? (static_cast<size_t>(-difference) + line - 1) / line : 0;
            EXPECT_EQ(missing, tolerated ? cut : kHeight);
        }
    }
}

TEST_F(FrameWriter, OddHeightOfFieldsIsWovenWithinTheSample) {
    const TarnisCameraData yuv = camera(kYuv, 30, 5, true), rgb = camera(kRgb, 30, 5, true);
    const auto yuvRaw = numberedLines(yuv), rgbRaw = numberedLines(rgb);
    EXPECT_EQ(linesOf(write(writeYuy2, yuv, yuvRaw, yuvRaw.size()), 5), (std::vector<int>{1, 3, 2, 4, 3}));
    EXPECT_EQ(linesOf(write(writeRgb24, rgb, rgbRaw, rgbRaw.size()), 5), (std::vector<int>{0, 4, 2, 3, 1}))
        << "the decoder leaves the last line out";
    EXPECT_EQ(linesOf(write(writeUyvy, yuv, yuvRaw, yuvRaw.size()), 5), (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(linesOf(write(writeRgb32, rgb, rgbRaw, 30 * 4 * 5), 5), (std::vector<int>{5, 4, 3, 2, 1}));
}

TEST_F(FrameWriter, WhatIsNoPixelOfRgb24IsBlack) {
    constexpr uint32_t kWidth = 30, kHeight = 4, kLine = 92, kMore = 100;
    for (const bool interlaced : {false, true}) {
        const TarnisCameraData data = camera(kRgb, kWidth, kHeight, interlaced);
        const Written written = write(writeRgb24, data, numberedLines(data), kLine * kHeight + kMore);
        ASSERT_TRUE(written.shown);
        for (uint32_t y = 0; y < kHeight; ++y) {
            EXPECT_NE(written.sample[y * kLine + kWidth * 3 - 1], 0) << "its last pixel";
            EXPECT_EQ(written.sample[y * kLine + kWidth * 3], 0);
            EXPECT_EQ(written.sample[y * kLine + kWidth * 3 + 1], 0);
        }
        EXPECT_TRUE(std::all_of(written.sample.end() - kMore, written.sample.end(), [](uint8_t b) { return b == 0; }));
    }
}

TEST_F(FrameWriter, Rgb32TakesThePixelsThatALineHoldsAndNoMore) {
    const TarnisCameraData data = camera(kRgb, 4, 1);
    const std::vector<uint8_t> raw = {1, 2, 3, 11, 12, 13, 21, 22, 23, 31, 32, 33};
    const std::vector<uint8_t> whole = {1, 2, 3, 0, 11, 12, 13, 0, 21, 22, 23, 0, 31, 32, 33, 0};
    for (size_t size = 0; size <= 24; ++size) {
        SCOPED_TRACE(size);
        std::vector<uint8_t> expected = whole;
        expected.resize(size);
        EXPECT_EQ(write(writeRgb32, data, raw, size).sample, expected);
    }
    const TarnisCameraData other = camera(kYuv, 6, 1); // lines of twelve bytes: four pixels
    std::vector<uint8_t> expected = whole;
    expected.resize(24);
    EXPECT_EQ(write(writeRgb32, other, raw, 24).sample, expected);
    const TarnisCameraData one = camera(kRgb, 1, 1);
    EXPECT_TRUE(write(writeRgb32, one, {1, 2, 3, 0}, 4).shown);
}

TEST_F(FrameWriter, LineOfRgb32EndsWithinAPixel) {
    const TarnisCameraData data = camera(kRgb, 4, 2);
    const auto raw = numberedLines(data);                                               // lines of twelve bytes
    const std::vector<uint8_t> expected = {8, 9, 10, 0, 8, 9, 10, 0, 8, 9, 10, 0, 8, 9, // fourteen bytes a line
                                           4, 5, 6,  0, 4, 5, 6,  0, 4, 5, 6,  0, 4, 5};
    EXPECT_EQ(write(writeRgb32, data, raw, 28).sample, expected);
    std::vector<uint8_t> wide(40); // nothing to show in the fifth pixel
    for (const size_t line : {0, 1})
        for (size_t i = 0; i < 16; ++i)
            wide[line * 20 + i] = static_cast<uint8_t>(i % 4 == 3 ? 0 : 8 - 4 * line + i % 4);
    EXPECT_EQ(write(writeRgb32, data, raw, 40).sample, wide);
}

TEST_F(FrameWriter, LayoutOfAnotherFormatIsNoPicture) {
    for (const uint32_t selector : {uint32_t{TARNIS_OUTPUT_YUV422_10}, kYuv}) {
        const TarnisCameraData data = camera(selector, 64, 8);
        const std::vector<uint8_t> raw(size_t{64} * 8 * 3, 0x7F);
        const Written written = write(writeRgb24, data, raw, raw.size());
        EXPECT_FALSE(written.shown);
        EXPECT_EQ(written.sample, std::vector<uint8_t>(raw.size())) << "and nothing beyond it is touched";
    }
}

} // namespace kestra::test
