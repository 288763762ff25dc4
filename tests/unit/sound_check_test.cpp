// What the check of recorded sound finds and what it accepts.
#include "tests/support/sound_check.h"

#include "simcard/model/sound.h"

#include <gtest/gtest.h>

namespace kestra::test {
namespace {

using namespace kestra::simcard;

constexpr uint32_t kRate = 30, kBlock = kSamplesPerSecond / kRate;

std::vector<uint8_t> recording(const std::vector<uint32_t>& frames) {
    std::vector<uint8_t> sound(frames.size() * kBlock * 4);
    for (size_t i = 0; i < frames.size(); ++i)
        soundBlock(frames[i], kRate, 1, &sound[i * kBlock * 4]);
    return sound;
}

TEST(SoundCheck, BlocksInOrderAreWholeAlsoIfTheLastIsCut) {
    std::vector<uint8_t> sound = recording({28, 29, 30, 31});
    sound.resize(sound.size() - 1001);
    const SoundReport report = compareSound(sound, kRate);
    EXPECT_TRUE(report.isWhole());
    EXPECT_EQ(report.firstFrame, 28u);
    EXPECT_EQ(report.samples, 4 * kBlock - 251u);
    EXPECT_FALSE(compareSound({}, kRate).isWhole());
}

TEST(SoundCheck, MissingAndDoubledBlocksAreCounted) {
    const SoundReport lost = compareSound(recording({5, 6, 9, 10}), kRate);
    EXPECT_EQ(lost.lost, 2 * kBlock);
    EXPECT_EQ(lost.doubled + lost.unlike, 0u);
    const SoundReport doubled = compareSound(recording({5, 6, 6, 7}), kRate);
    EXPECT_EQ(doubled.doubled, kBlock);
    EXPECT_EQ(doubled.lost + doubled.unlike, 0u);
}

TEST(SoundCheck, OneWrongSampleIsFound) {
    for (const size_t byte : {size_t{0}, size_t{kBlock} * 4 + 17, size_t{kBlock} * 8 - 1}) {
        std::vector<uint8_t> sound = recording({7, 8, 9});
        sound[byte] ^= 1;
        const SoundReport report = compareSound(sound, kRate);
        EXPECT_EQ(report.unlike, kBlock) << byte;
        EXPECT_EQ(report.lost + report.doubled, 0u);
    }
    std::vector<uint8_t> shifted = recording({7, 8, 9, 10});
    shifted.erase(shifted.begin() + kBlock * 4 + 40, shifted.begin() + kBlock * 4 + 44);
    EXPECT_FALSE(compareSound(shifted, kRate).isWhole()) << "one sample is missing";
}

TEST(SoundCheck, BeepsAreFoundToTwoSamples) {
    std::vector<uint32_t> frames;
    for (uint32_t frame = 50; frame < 125; ++frame)
        frames.push_back(frame);
    const std::vector<size_t> beeps = beepsOf(recording(frames));
    ASSERT_EQ(beeps.size(), 3u); // at frames 60, 90 and 120
    for (size_t i = 0; i < 3; ++i)
        EXPECT_NEAR(double(beeps[i]), double((10 + 30 * i) * kBlock), 2.0);
}

TEST(SoundCheck, FrameIsFoundInBothDepths) {
    for (const uint32_t format : {0u, 1u}) {
        std::vector<uint8_t> sound(size_t{kBlock} * sampleFrameBytes(format));
        soundBlock(90, kRate, format, sound.data());
        EXPECT_EQ(soundFrameOf(sound.data(), kRate, format, 0, 1000), 90u);
        EXPECT_EQ(soundFrameOf(sound.data(), kRate, format, 91, 1000), std::nullopt);
    }
}

} // namespace
} // namespace kestra::test
