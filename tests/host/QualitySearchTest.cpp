// The search for a quality: estimates on a part of a picture that lie far off the whole one, and
// none at all.
#include "QualitySearch.hpp"

#include <gtest/gtest.h>

#include <cmath>

namespace kel::host {
namespace {

constexpr QualityTarget kTarget = {13.2286, 0.005, 0.005, -40, 100, true};

double WholeAt(double quality) {
  return 12.9696 + 0.043 * (quality - 29.7724);
}

TEST(QualitySearchTest, EstimatesFarOffGiveTheShapeOnly) {
  // The first estimate hits the target, so that the whole is measured right beside it: the
  // distance between the two must not be taken for the slope of the curve.
  RisingCurve curve(30, 13.2379, 0.035);
  int numMeasured = 0;
  double found = 0;
  SearchQuality(
      kTarget, curve, [](double quality) { return WholeAt(quality) + 0.26 - quality / 500; },
      [&](double quality) {
        ++numMeasured;
        return found = WholeAt(quality);
      });
  EXPECT_NEAR(found, kTarget.value, kTarget.below);
  EXPECT_LE(numMeasured, 3);
}

TEST(QualitySearchTest, WithoutEstimatesMeasurementsGiveTheShape) {
  for (const double slope : {0.01, 0.035, 0.12}) {  // beside the 0.035 that is expected
    RisingCurve curve(30, 13.2379, 0.035);
    int numMeasured = 0;
    double found = 0;
    SearchQuality(kTarget, curve, {}, [&](double quality) {
      ++numMeasured;
      return found = 12.5 + slope * (quality - 20) - (quality > 40 ? 0.001 * (quality - 40) : 0);
    });
    EXPECT_NEAR(found, kTarget.value, kTarget.below) << slope;
    EXPECT_LE(numMeasured, 4) << slope;
  }
}

TEST(QualitySearchTest, ValuesOutOfReachEndAtTheLastQuality) {
  RisingCurve curve(30, 13.2379, 0.035);
  double last = 0;
  SearchQuality(kTarget, curve, {}, [&](double quality) {
    last = quality;
    return 5 + quality / 1000;
  });
  EXPECT_GT(last, 99.9);
}

}  // namespace
}  // namespace kel::host
