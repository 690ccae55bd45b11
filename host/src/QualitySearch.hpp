// Finding the quality at which something that rises with it, such as the size of the file, has a
// wanted value, with few and costly measurements.
#ifndef KEL_HOST_QUALITY_SEARCH_HPP
#define KEL_HOST_QUALITY_SEARCH_HPP

#include <functional>
#include <vector>

namespace kel::host {

struct QualityPoint {
  double quality, value;
};

/// What is known of a quantity as it rises with the quality. Estimates, which are taken on a part
/// of a picture, give the shape of the curve: straight between them, and on from the outer ones.
/// Measurements of the whole picture tell how far above or below that shape the curve runs.
class RisingCurve {
 public:
  /// The line that stands as long as nothing is known, and whose slope holds until there are two
  /// points.
  RisingCurve(double quality, double value, double slope) : start_{quality, value}, slope_(slope) {}

  void AddEstimate(double quality, double value);
  void AddMeasured(double quality, double value);
  /// Whether an estimate stands so near to a quality that the curve is known there.
  bool IsKnownAt(double quality) const;
  /// The quality, in a range, at which the curve reaches a value; an end where it does not.
  double QualityFor(double value, double least, double most) const;

 private:
  double ShapeAt(double quality) const;
  double ValueAt(double quality) const;

  QualityPoint start_;
  double slope_;
  std::vector<QualityPoint> shape_, measured_;  ///< of rising quality
};

/// What is looked for, and how exactly.
struct QualityTarget {
  double value, below, above;  ///< anything from value - below to value + above will do
  double least, most;          ///< qualities
  bool isFractional;           ///< else qualities are whole numbers
};

using Measure = std::function<double(double quality)>;

/// Measures at the qualities that a curve suggests, until a value will do, the qualities at hand
/// close in, or many were tried. `estimate`, when there is one, costs little and gives the curve
/// its shape around the qualities to be measured at.
void SearchQuality(const QualityTarget& target, RisingCurve& curve, const Measure& estimate,
                   const Measure& measure);

}  // namespace kel::host

#endif
