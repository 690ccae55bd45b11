// The formulas of rate control at values worked out by hand.
#include "KelRate.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

using kel::ChooseQuality;
using kel::MaxCodeStreamLength;
using kel::MinCodeStreamLength;
using kel::QualityNumber;
using kel::RateInputs;
using kel::SizeForQuality;

/// Four tiles of 256 x 256 in three 8-bit components.
constexpr RateInputs kImage = {4, 256, 256, 8, 3, 3 * 512 * 512, 0};

// A rounding in the wrong direction or a factor of the wrong count in the bounds.
TEST(Rate, BoundsOfTheLength) {
  // 4 x 15 x 1 x 1 x ceil(4 / 3) = 120 is below one hundredth, ceil(7864.32).
  EXPECT_EQ(MinCodeStreamLength(kImage), 4 * 14 + 167 + 7865);
  // round(786432 x 1.070633888...) = 841981; with headers 842204, in whole KiB 823.
  EXPECT_EQ(MaxCodeStreamLength(kImage), 823 * 1024);
  RateInputs many = kImage;
  many.numTiles = 1000;
  many.tileWidth = 257;
  many.bitDepth = 9;
  many.numRated = 4;
  // ceil(257 x 256 / 65536) = 2, two bytes, ceil(5 / 3) = 2: 120 bytes per tile.
  EXPECT_EQ(MinCodeStreamLength(many), 14000 + 167 + 120000);
  many.rawSize = 100;
  EXPECT_EQ(MinCodeStreamLength(many), 14000 + 167 + 100) << "not above the raw size";
  many.apartSize = -50;
  EXPECT_EQ(MinCodeStreamLength(many), 14000 + 167 + 50);
}

// Wrap-around of large images.
TEST(Rate, BoundsSaturate) {
  const RateInputs huge = {65535, INT32_MAX, INT32_MAX, 28, 16384, INT32_MAX, INT32_MAX};
  EXPECT_EQ(MinCodeStreamLength(huge), INT32_MAX);
  EXPECT_EQ(MaxCodeStreamLength(huge), INT32_MAX / 1024 * 1024);
  EXPECT_EQ(SizeForQuality(huge, 1), INT32_MAX) << "the least size is the raw size";
}

TEST(Rate, SizeForQuality) {
  EXPECT_EQ(SizeForQuality(kImage, 50), 393216);
  EXPECT_EQ(SizeForQuality(kImage, 1), 7865) << "not below the least size";
  EXPECT_EQ(SizeForQuality(kImage, 200), 786432) << "not above the raw size";
}

// The table read at the wrong index; a choice outside 1 to 100; a division by a raw size of 0.
TEST(Rate, QualityForATarget) {
  const RateInputs raw = {1, 100, 100, 8, 1, 10000, 0};
  const auto expect = [&](std::int64_t target, KelLong effective, std::int32_t quality) {
    const auto choice = ChooseQuality(raw, target);
    EXPECT_EQ(choice.effectiveTarget, effective) << target;
    EXPECT_EQ(choice.quality, quality) << target;
  };
  expect(0, 0, 1);
  expect(-5, 0, 1);
  // round(50.5) - 1 = 49: factor 1.01321, so 5000 / 1.014531.
  expect(5000, 4928, 50);
  expect(20000, 9091, 91);
  expect(INT64_MAX, 9091, 91);
  RateInputs nothing = raw;
  nothing.rawSize = 0;
  EXPECT_EQ(ChooseQuality(nothing, 500).quality, 1);
}

TEST(Rate, QualityNumbersAreRoundedToEvenAndLimited) {
  EXPECT_EQ(QualityNumber(40.5F), 40);
  EXPECT_EQ(QualityNumber(41.5F), 42);
  EXPECT_EQ(QualityNumber(-3.0F), 1);
  EXPECT_EQ(QualityNumber(1.0e30F), 100);
  EXPECT_EQ(QualityNumber(std::numeric_limits<float>::quiet_NaN()), 1);
}

}  // namespace
