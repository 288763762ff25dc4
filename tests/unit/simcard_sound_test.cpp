// The simulated card's sound.
#include "simcard/model/sound.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

using namespace kestra::simcard;

TEST(SoundBlock, HoldsOneVideoFramesWorth) {
    EXPECT_EQ(samplesPerBlock(24), 2000u);
    EXPECT_EQ(samplesPerBlock(25), 1920u);
    EXPECT_EQ(samplesPerBlock(30), 1600u);
    EXPECT_EQ(samplesPerBlock(50), 960u);
    EXPECT_EQ(samplesPerBlock(60), 800u);
    EXPECT_EQ(samplesPerBlock(0), 0u);
    EXPECT_EQ(sampleFrameBytes(1), 4u);
    EXPECT_EQ(sampleFrameBytes(0), 6u);
}

TEST(SoundBlock, SixteenBitSamplesAreTheUpperBitsOfTheTwentyFour) {
    std::vector<uint8_t> narrow(800 * 4), wide(800 * 6);
    soundBlock(7, 60, 1, narrow.data());
    soundBlock(7, 60, 0, wide.data());
    for (uint32_t i = 0; i < 1600; ++i) {
        EXPECT_EQ(narrow[i * 2], wide[i * 3 + 1]);
        EXPECT_EQ(narrow[i * 2 + 1], wide[i * 3 + 2]);
    }
}

TEST(SoundBlock, EverySampleFollowsFromItsIndex) {
    std::vector<uint8_t> block(1600 * 6);
    soundBlock(31, 30, 0, block.data());
    for (uint32_t i = 0; i < 1600; ++i)
        for (uint32_t channel = 0; channel < 2; ++channel) {
            const uint8_t* p = &block[(i * 2 + channel) * 3];
            const int32_t value = int32_t(uint32_t(p[0]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 24) >> 8;
            ASSERT_EQ(value, soundSample(31 * 1600 + i, channel, false)) << i;
        }
}

TEST(SoundBlock, BeepsExactlyWhereThePictureFlashes) {
    for (uint32_t frame = 0; frame <= 60; ++frame) {
        std::vector<uint8_t> block(1600 * 4);
        soundBlock(frame, 30, 1, block.data());
        int peak = 0;
        for (uint32_t i = 0; i < 3200; ++i)
            peak = std::max(peak, std::abs(int(int16_t(block[i * 2] | block[i * 2 + 1] << 8))));
        if (isFlashFrame(frame, 30))
            EXPECT_GT(peak, 16000) << frame;
        else
            EXPECT_LT(peak, 4000) << frame;
    }
}

TEST(SoundSample, LeftAndRightDifferAndNoPeriodRepeats) {
    int sameAsRight = 0, sameAsNextPeriod = 0;
    for (uint64_t i = 0; i < 4800; ++i) {
        sameAsRight += soundSample(i, 0, false) == soundSample(i, 1, false);
        sameAsNextPeriod += soundSample(i, 0, false) == soundSample(i + 48, 0, false);
    }
    EXPECT_LT(sameAsRight, 48);
    EXPECT_LT(sameAsNextPeriod, 48);
}
