// Gains from means, including pictures that have no solution.
#include "capture/white_balance.h"

#include <gtest/gtest.h>

#include <cmath>

namespace kestra::test {

TEST(WhiteBalance, RaisesTheWeakerChannelsToTheStrongest) {
    const WhiteBalance result = whiteBalanceOf({100.0, 120.0, 160.0});
    EXPECT_EQ(result.gainRed, 1.0f);
    EXPECT_EQ(result.gainGreen, float(160.0 / 120.0));
    EXPECT_EQ(result.gainBlue, 1.6f);
}

TEST(WhiteBalance, MeansAreReportedWithoutTheirFractions) {
    const WhiteBalance result = whiteBalanceOf({99.999, 0.5, 255.0});
    EXPECT_EQ(result.meanBlue, 99);
    EXPECT_EQ(result.meanGreen, 0);
    EXPECT_EQ(result.meanRed, 255);
    EXPECT_EQ(result.gainGreen, 510.0f) << "but the gain knows them";
}

TEST(WhiteBalance, BlackPictureNeedsNoGains) {
    const WhiteBalance result = whiteBalanceOf({0.0, 0.0, 0.0});
    EXPECT_EQ(result.gainRed, 1.0f);
    EXPECT_EQ(result.gainGreen, 1.0f);
    EXPECT_EQ(result.gainBlue, 1.0f);
}

TEST(WhiteBalance, BlackChannelBesideALightOneGetsAnInfiniteGain) {
    const WhiteBalance result = whiteBalanceOf({0.0, 10.0, 20.0});
    EXPECT_TRUE(std::isinf(result.gainBlue));
    EXPECT_GT(result.gainBlue, 0);
    EXPECT_EQ(result.gainGreen, 2.0f);
}

TEST(WhiteBalance, NearlyBlackPictureIsNotBlack) {
    const WhiteBalance result = whiteBalanceOf({0.0, 0.25, 0.5});
    EXPECT_TRUE(std::isinf(result.gainBlue));
    EXPECT_EQ(result.gainGreen, 2.0f);
    EXPECT_EQ(result.gainRed, 1.0f);
}

TEST(WhiteBalance, GainThatIsNoNumberBecomesOne) {
    const WhiteBalance result = whiteBalanceOf({10.0, 10.0, INFINITY}); // inf / inf
    EXPECT_EQ(result.gainRed, 1.0f);
    EXPECT_TRUE(std::isinf(result.gainGreen));
}

} // namespace kestra::test
