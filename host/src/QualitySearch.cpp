// The curve of measurements, and the search along it.
#include "QualitySearch.hpp"

#include <algorithm>
#include <cmath>
#include <optional>

namespace kel::host {
namespace {

/// Ends of a search that does not converge; two or three of each are usual.
constexpr int kMostMeasurements = 10, kMostEstimates = 3;
/// Fractional qualities are multiples of one by this.
constexpr double kFractionalSteps = 1024;
/// Where fractional qualities have closed in, and how far around a point a curve is known.
constexpr double kFinestDifference = 0.01, kKnownAround = 0.7;

bool IsBefore(const QualityPoint& point, double quality) {
  return point.quality < quality;
}

void Insert(std::vector<QualityPoint>& points, double quality, double value) {
  const auto place = std::lower_bound(points.begin(), points.end(), quality, IsBefore);
  if (place != points.end() && place->quality == quality) return;
  points.insert(place, {quality, value});
}

/// The quality to be measured at next, between what was measured below and above the target.
double NextQuality(const QualityTarget& target, const RisingCurve& curve,
                   const std::optional<QualityPoint>& below,
                   const std::optional<QualityPoint>& above, double least, double most) {
  double quality = curve.QualityFor(target.value, least, most);
  if (below && above) {  // keeps off the ends, at which it would creep
    const double length = above->quality - below->quality;
    quality = std::clamp(quality, below->quality + 0.02 * length, above->quality - 0.02 * length);
  }
  // Whole steps, so that the last digits of logarithms, in which standard libraries differ, never
  // show in what is coded.
  const double steps = target.isFractional ? kFractionalSteps : 1;
  return std::clamp(std::round(quality * steps) / steps, least, most);
}

}  // namespace

void RisingCurve::AddEstimate(double quality, double value) {
  Insert(shape_, quality, value);
}

void RisingCurve::AddMeasured(double quality, double value) {
  Insert(measured_, quality, value);
}

bool RisingCurve::IsKnownAt(double quality) const {
  return std::any_of(shape_.begin(), shape_.end(), [&](const QualityPoint& point) {
    return std::abs(point.quality - quality) <= kKnownAround;
  });
}

double RisingCurve::ShapeAt(double quality) const {
  // Without estimates what was measured gives the shape as well.
  const std::vector<QualityPoint>& points = shape_.empty() ? measured_ : shape_;
  if (points.size() < 2) {
    const QualityPoint& from = points.empty() ? start_ : points[0];
    return from.value + (quality - from.quality) * slope_;
  }
  const auto to = std::lower_bound(points.begin() + 1, points.end() - 1, quality, IsBefore);
  const auto from = to - 1;
  const double slope = (to->value - from->value) / (to->quality - from->quality);
  // Estimates of very little may fall where they should rise.
  return from->value + (quality - from->quality) * std::max(slope, slope_ / 8);
}

double RisingCurve::ValueAt(double quality) const {
  const double shape = ShapeAt(quality);
  if (measured_.empty()) return shape;
  const auto distance = [&](const QualityPoint& point) {
    return point.value - ShapeAt(point.quality);
  };
  const auto above = std::lower_bound(measured_.begin(), measured_.end(), quality, IsBefore);
  if (above == measured_.end()) return shape + distance(measured_.back());
  if (above == measured_.begin()) return shape + distance(*above);
  const auto below = above - 1;
  const double share = (quality - below->quality) / (above->quality - below->quality);
  return shape + distance(*below) + share * (distance(*above) - distance(*below));
}

double RisingCurve::QualityFor(double value, double least, double most) const {
  constexpr int kHalvings = 40;  // of at most some hundred: exact enough
  for (int i = 0; i < kHalvings; ++i) {
    const double middle = (least + most) / 2;
    (ValueAt(middle) < value ? least : most) = middle;
  }
  return (least + most) / 2;
}

void SearchQuality(const QualityTarget& target, RisingCurve& curve, const Measure& estimate,
                   const Measure& measure) {
  std::optional<QualityPoint> below, above;
  const double step = target.isFractional ? kFinestDifference : 1;
  for (int i = 0; i < kMostMeasurements; ++i) {
    const double least = below ? below->quality + step : target.least;
    const double most = above ? above->quality - step : target.most;
    if (least > most) return;
    const auto next = [&] { return NextQuality(target, curve, below, above, least, most); };
    double quality = next();
    for (int j = 0; estimate && j < kMostEstimates && !curve.IsKnownAt(quality); ++j) {
      curve.AddEstimate(quality, estimate(quality));
      quality = next();
    }
    const double value = measure(quality);
    if (value >= target.value - target.below && value <= target.value + target.above) return;
    (value < target.value ? below : above) = {quality, value};
    curve.AddMeasured(quality, value);
  }
}

}  // namespace kel::host
