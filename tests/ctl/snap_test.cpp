// snap: the picture is what the card made, by the product's decoder; and everything that can go wrong.
#include "tests/ctl/ctl_test.h"

#include "ctl/picture_file.h"
#include "decode/decode.h"
#include "device/tarnis.h"
#include "simcard/model/picture.h"
#include "tests/device/device_test.h"

#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#define STBI_ONLY_PNG
#include <stb/stb_image.h>

#include <memory>

namespace kestra::test {
namespace {

using namespace kestra::simcard;
using nlohmann::json;
using testing::HasSubstr;

constexpr char kTaking[] = "kestra-ctl: taking card 0's picture; no other program can capture from it meanwhile\n";

class Snap : public CtlTest {
protected:
    /// The raw frame of that number.
    std::vector<uint8_t> rawFrame(uint8_t selector, uint32_t number) {
        const PictureFormat format = {kSmall.width,
                                      kSmall.height,
                                      kSmall.interlaced != 0,
                                      selector,
                                      30,
                                      PictureKind::Bars,
                                      wire::toWire(wire::kDefaultConverter)};
        std::vector<uint8_t> raw(frameSizeBytes(format));
        PictureSource source;
        source.prepare(format, raw.data(), raw.size(), number);
        return raw;
    }
    static TarnisCameraData camera(uint32_t selector) {
        TarnisCameraData data{};
        data.outputSelector = selector;
        data.status.width = kSmall.width;
        data.status.height = kSmall.height;
        data.status.interlaced = kSmall.interlaced;
        return data;
    }
    static constexpr Signal kSmall = {1, 1, 1, 9, 0, 0, 320, 180, 0, 30, 1, 0};
};

} // namespace

TEST_F(Snap, PictureIsWhatTheDecoderMakesOfTheCardsFrame) {
    m_card.setSignal(kSmall);
    const ProgramResult result = ctl("snap " + file("a.png"));
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    EXPECT_EQ(result.error, kTaking);
    EXPECT_TRUE(matchesPattern(result.output.c_str(), "*a.png: 320x180i60 in 8 bits, * kB\n")) << result.output;
    int width = 0, height = 0, components = 0;
    const std::unique_ptr<uint8_t, void (*)(void*)> rgb(
        stbi_load(file("a.png").c_str(), &width, &height, &components, 3), stbi_image_free);
    ASSERT_TRUE(rgb);
    ASSERT_EQ(width, 320);
    ASSERT_EQ(height, 180);
    uint32_t number = 0;
    ASSERT_TRUE(readFrameNumber(
        320, 180, [&](uint32_t x, uint32_t y) { return rgb.get()[(y * 320 + x) * 3 + 1]; }, number));
    const std::vector<uint8_t> raw = rawFrame(TARNIS_OUTPUT_YUV422_8, number);
    std::vector<uint8_t> bgr(320 * 3 * 180);
    int32_t stride = 320 * 3;
    const TarnisCameraData data = camera(TARNIS_OUTPUT_YUV422_8);
    ASSERT_EQ(TARNIS_Decode(&data, raw.data(), bgr.data(), &stride, 2, nullptr, nullptr), 0u);
    for (size_t i = 0; i < bgr.size(); ++i)
        ASSERT_EQ(rgb.get()[i], bgr[i / 3 * 3 + 2 - i % 3]) << i;
}

TEST_F(Snap, TenBitPictureAndRawFrameBelongTogether) {
    m_card.setSignal(kSmall);
    const ProgramResult result = ctl("snap --depth 10 --raw --json " + file("a.png"));
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    expectSchema("snap", result.output);
    EXPECT_EQ(json::parse(result.output).at("rawFile"), file("a.raw"));
    const std::string raw = readWholeFile(file("a.raw"));
    int width = 0, height = 0, components = 0;
    const std::unique_ptr<uint16_t, void (*)(void*)> rgb(
        stbi_load_16(file("a.png").c_str(), &width, &height, &components, 3), stbi_image_free);
    ASSERT_TRUE(rgb);
    uint32_t number = 0;
    ASSERT_TRUE(readFrameNumber(
        320, 180, [&](uint32_t x, uint32_t y) { return rgb.get()[(y * 320 + x) * 3 + 1] >> 8; }, number));
    const std::vector<uint8_t> expected = rawFrame(TARNIS_OUTPUT_YUV422_10, number);
    EXPECT_TRUE(raw == std::string(expected.begin(), expected.end()))
        << "the raw frame is not the card's frame " << number;
    // Sixteen bits say the same as the decoder's eight, and more.
    std::vector<uint8_t> bgr(320 * 3 * 180);
    int32_t stride = 320 * 3;
    const TarnisCameraData data = camera(TARNIS_OUTPUT_YUV422_10);
    ASSERT_EQ(TARNIS_Decode(&data, expected.data(), bgr.data(), &stride, 2, nullptr, nullptr), 0u);
    bool hasMore = false;
    for (size_t i = 0; i < bgr.size(); ++i) {
        const double wide = rgb.get()[i] / 257.0, narrow = bgr[i / 3 * 3 + 2 - i % 3];
        ASSERT_NEAR(wide, narrow, 2.0) << i;
        hasMore = hasMore || rgb.get()[i] % 257 != 0;
    }
    EXPECT_TRUE(hasMore);
}

TEST_F(Snap, StandardOutputTakesThePicture) {
    m_card.setSignal(kSmall);
    const ProgramResult result = ctl("snap -");
    EXPECT_EQ(result.exitCode, 0u) << result.error;
    EXPECT_TRUE(result.output.starts_with("\x89PNG\r\n\x1A\n"));
    EXPECT_EQ(ctl("snap - --raw").exitCode, 2u);
}

TEST_F(Snap, WithoutASignalSaysSo) {
    m_card.setSignal({});
    expectFailure(ctl("snap " + file("a.png")), 4, "nothing arrives at card 0",
                  "check the cable, and that the source sends HD-SDI; kestra-ctl watch shows when it comes");
    EXPECT_FALSE(std::filesystem::exists(file("a.png")));
}

TEST_F(Snap, WhatAnotherProgramCapturesIsLeftAlone) {
    const TARNIS_HANDLE other = openCard();
    ASSERT_EQ(TARNIS_GetDMAAccess(other, 0), 0u);
    const ProgramResult result = ctl("snap " + file("a.png"));
    EXPECT_EQ(result.exitCode, 5u);
    EXPECT_EQ(result.error,
              std::string(kTaking) +
                  "kestra-ctl: another program captures the picture of card 0\n            end that capture "
                  "first; kestra-ctl status and watch --passive look without taking anything\n");
    EXPECT_EQ(ctl("status").exitCode, 0u);
    TARNIS_Done(other);
}

TEST_F(Snap, FilesThatCannotBeWrittenAreNamed) {
    const std::string missing = file("no/a.png");
    const ProgramResult result = ctl("snap " + missing);
    EXPECT_EQ(result.exitCode, 1u);
    EXPECT_EQ(result.error, std::string(kTaking) + "kestra-ctl: " + missing +
                                " cannot be written: Path not found (3)\n            make the folder first\n");
    const ProgramResult folder = ctl("snap " + m_folder.string());
    EXPECT_EQ(folder.exitCode, 1u);
    EXPECT_THAT(folder.error, HasSubstr(m_folder.string() + " cannot be written: "));
}

TEST_F(Snap, OptionsThatMakeNoSenseAreNamed) {
    EXPECT_EQ(ctl("snap").exitCode, 2u);
    const ProgramResult result = ctl("snap a.png --depth 9");
    EXPECT_EQ(result.exitCode, 2u);
    EXPECT_THAT(result.error, HasSubstr("--depth"));
    EXPECT_THAT(result.error, HasSubstr("see: kestra-ctl snap --help"));
}

TEST_F(Snap, ACardThatIsPulledOrNeverAnswersEndsIt) {
    m_card.addFault({FaultKind::Unplug, wire::kSnap, 0, 0, 1, {}});
    const ProgramResult pulled = ctl("snap " + file("a.png"));
    EXPECT_EQ(pulled.exitCode, 3u);
    EXPECT_THAT(pulled.error, HasSubstr("card 0 has been pulled"));
    m_card.plug();
    m_card.addFault({FaultKind::NeverComplete, wire::kSnap, 0, 0, 1, {}});
    const ProgramResult silent = ctl("snap " + file("a.png"));
    EXPECT_EQ(silent.exitCode, 1u);
    EXPECT_THAT(silent.error, HasSubstr("card 0 was asked for a picture, and its driver failed"));
    EXPECT_FALSE(std::filesystem::exists(file("a.png")));
}

} // namespace kestra::test
