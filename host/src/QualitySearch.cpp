// The curve of measurements, and the search along it.
#include "QualitySearch.hpp"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

namespace kel::host {
namespace {

constexpr int kMostMeasurements = 10, kMostEstimates = 3;
/// Where fractional qualities have closed in, and how far around a point a curve is known.
constexpr double kFinestDifference = 0.01, kKnownAround = 0.7;

struct Measured {
  double quality, value;
};

/// The quality to be measured at next, between what was measured below and above the target.
double NextQuality(const QualityTarget& target, const RisingCurve& curve,
                   const std::optional<Measured>& below, const std::optional<Measured>& above) {
  double quality = curve.QualityFor(target.value);
  if (below && above && !(quality > below->quality && quality < above->quality)) {
    const double share = (target.value - below->value) / (above->value - below->value);
    quality = below->quality + std::clamp(share, 0.1, 0.9) * (above->quality - below->quality);
  }
  return target.isFractional ? quality : std::round(quality);
}

}  // namespace

void RisingCurve::Add(double quality, double value) {
  const auto place = std::ranges::lower_bound(points_, quality, {}, &Point::quality);
  if (place != points_.end() && place->quality == quality) return;
  points_.insert(place, {quality, value + distance_});
}

void RisingCurve::MoveTo(double quality, double value) {
  if (points_.size() < 2) {
    Add(quality, value - distance_);
    return;
  }
  const double further = value - ValueAt(quality);
  for (Point& point : points_) point.value += further;
  distance_ += further;
}

bool RisingCurve::IsKnownAt(double quality) const {
  return std::ranges::any_of(points_, [&](const Point& point) {
    return std::abs(point.quality - quality) <= kKnownAround;
  });
}

template <class IsBehind>
std::pair<RisingCurve::Point, double> RisingCurve::Stretch(IsBehind isBehind) const {
  if (points_.empty()) return {{quality_, value_}, slope_};
  if (points_.size() == 1) return {points_[0], slope_};
  std::size_t end = 1;
  while (end + 1 < points_.size() && !isBehind(points_[end])) ++end;
  const Point &from = points_[end - 1], &to = points_[end];
  const double slope = (to.value - from.value) / (to.quality - from.quality);
  // Measurements of very little may fall where they should rise.
  return {from, std::max(slope, slope_ / 8)};
}

double RisingCurve::ValueAt(double quality) const {
  const auto [point, slope] = Stretch([&](const Point& p) { return p.quality >= quality; });
  return point.value + (quality - point.quality) * slope;
}

double RisingCurve::QualityFor(double value) const {
  const auto [point, slope] = Stretch([&](const Point& p) { return p.value >= value; });
  return point.quality + (value - point.value) / slope;
}

void SearchQuality(const QualityTarget& target, RisingCurve& curve, const Measure& estimate,
                   const Measure& measure) {
  std::optional<Measured> below, above;
  const double step = target.isFractional ? kFinestDifference : 1;
  for (int i = 0; i < kMostMeasurements; ++i) {
    const double least = below ? below->quality + step : target.least;
    const double most = above ? above->quality - step : target.most;
    if (least > most) return;
    const auto next = [&] {
      return std::clamp(NextQuality(target, curve, below, above), least, most);
    };
    double quality = next();
    for (int j = 0; estimate && j < kMostEstimates && !curve.IsKnownAt(quality); ++j) {
      curve.Add(quality, estimate(quality));
      quality = next();
    }
    const double value = measure(quality);
    if (value >= target.value - target.below && value <= target.value + target.above) return;
    (value < target.value ? below : above) = {quality, value};
    curve.MoveTo(quality, value);
  }
}

}  // namespace kel::host
