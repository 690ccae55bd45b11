// Finding the quality at which something that rises with it, such as the size of the file, has a
// wanted value, with few and costly measurements.
#ifndef KEL_HOST_QUALITY_SEARCH_HPP
#define KEL_HOST_QUALITY_SEARCH_HPP

#include <functional>
#include <utility>
#include <vector>

namespace kel::host {

/// What is known of a quantity as it rises with the quality: straight between the points that were
/// measured, and on from the outer ones.
class RisingCurve {
 public:
  /// The line that stands as long as fewer than two points were measured.
  RisingCurve(double quality, double value, double slope)
      : quality_(quality), value_(value), slope_(slope) {}

  void Add(double quality, double value);
  /// Moves the curve, and points that will be added, to where it passes through a point: what is
  /// measured on a part of a picture has the shape of the whole one's.
  void MoveTo(double quality, double value);
  /// Whether a point was added so near to a quality that the curve is known there.
  bool IsKnownAt(double quality) const;
  double ValueAt(double quality) const;
  double QualityFor(double value) const;

 private:
  struct Point {
    double quality, value;
  };
  /// The stretch that ends at the first point for which `isBehind` holds, or the last one.
  template <class IsBehind>
  std::pair<Point, double> Stretch(IsBehind isBehind) const;

  double quality_, value_, slope_;
  double distance_ = 0;        ///< by which the curve was moved
  std::vector<Point> points_;  ///< of rising quality
};

/// What is looked for, and how exactly.
struct QualityTarget {
  double value, below, above;  ///< anything from value - below to value + above will do
  double least, most;          ///< qualities
  bool isFractional;           ///< else qualities are whole numbers
};

using Measure = std::function<double(double quality)>;

/// Measures at the qualities that a curve suggests, until a value will do, the qualities at hand
/// close in, or many were tried. The curve moves to each measurement. `estimate`, when there is
/// one, costs little and gives the curve its shape around the qualities to be measured at.
void SearchQuality(const QualityTarget& target, RisingCurve& curve, const Measure& estimate,
                   const Measure& measure);

}  // namespace kel::host

#endif
