// The image library's mean: exact, within the image, with the documented status codes.
#include "imagelib/ipp.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace kestra::test {
namespace {

std::vector<uint8_t> noise(size_t bytes, uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<uint8_t> result(bytes);
    for (uint8_t& byte : result)
        byte = uint8_t(random());
    return result;
}

} // namespace

TEST(ImageMean, IsExactAndIgnoresTheGapsBetweenLines) {
    constexpr int kWidth = 37, kHeight = 11, kStep = 128;
    const std::vector<uint8_t> image = noise(size_t{kStep} * (kHeight - 1) + kWidth * 3, 7);
    uint64_t sums[3] = {};
    for (size_t y = 0; y < kHeight; ++y)
        for (size_t x = 0; x < kWidth * 3; ++x)
            sums[x % 3] += image[y * kStep + x];
    double mean[3] = {};
    ASSERT_EQ(ippiMean_8u_C3R(image.data(), kStep, {kWidth, kHeight}, mean), ippStsNoErr);
    for (int channel = 0; channel < 3; ++channel)
        EXPECT_EQ(mean[channel], double(sums[channel]) / (kWidth * kHeight));
}

TEST(ImageMean, KeepsTheChannelsApart) {
    for (size_t channel = 0; channel < 3; ++channel) {
        // Ends where the line ends, so that the sanitizer finds an access beyond it.
        std::vector<uint8_t> image(3 * 1920);
        for (size_t i = channel; i < image.size(); i += 3)
            image[i] = 255;
        double mean[3] = {};
        ASSERT_EQ(ippiMean_8u_C3R(image.data(), int(image.size()), {1920, 1}, mean), 0);
        for (size_t i = 0; i < 3; ++i)
            EXPECT_EQ(mean[i], i == channel ? 255 : 0);
    }
}

TEST(ImageMean, OnePixelIsItsOwnMean) {
    const uint8_t pixel[3] = {1, 128, 255};
    double mean[3] = {};
    ASSERT_EQ(ippiMean_8u_C3R(pixel, 3, {1, 1}, mean), 0);
    EXPECT_EQ(mean[0], 1);
    EXPECT_EQ(mean[1], 128);
    EXPECT_EQ(mean[2], 255);
}

TEST(ImageMean, RefusesWhatIsNoImageAndWritesNothing) {
    const uint8_t image[32] = {};
    double mean[3] = {-1, -1, -1};
    EXPECT_EQ(ippiMean_8u_C3R(nullptr, 6, {2, 2}, mean), -8);
    EXPECT_EQ(ippiMean_8u_C3R(image, 6, {2, 2}, nullptr), -8);
    EXPECT_EQ(ippiMean_8u_C3R(nullptr, 0, {0, 0}, nullptr), -8) << "pointers are looked at first";
    EXPECT_EQ(ippiMean_8u_C3R(image, 6, {0, 2}, mean), -6);
    EXPECT_EQ(ippiMean_8u_C3R(image, 6, {2, 0}, mean), -6);
    EXPECT_EQ(ippiMean_8u_C3R(image, 0, {-1, 2}, mean), -6) << "the size before the step";
    EXPECT_EQ(ippiMean_8u_C3R(image, 0, {2, 2}, mean), -14);
    EXPECT_EQ(ippiMean_8u_C3R(image, -6, {2, 2}, mean), -14);
    EXPECT_EQ(ippiMean_8u_C3R(image, 5, {2, 2}, mean), -14);
    for (const double value : mean)
        EXPECT_EQ(value, -1);
}

} // namespace kestra::test
