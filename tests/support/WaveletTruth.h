// The wavelet transforms by their definition, slowly: periodic symmetric extension, convolution
// with the whole impulse responses (9/7) or lifting (5/3), subsampling, one signal at a time.
#ifndef TESTS_SUPPORT_WAVELET_TRUTH_H
#define TESTS_SUPPORT_WAVELET_TRUTH_H

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "KelBox.h"

namespace test {

/// Samples at positions first, first + 1, ...; reading beyond either end mirrors.
struct Signal {
  std::int64_t first;
  std::vector<double> values;

  double At(std::int64_t i) const {
    const std::int64_t last = first + static_cast<std::int64_t>(values.size()) - 1;
    while (i < first || i > last) i = i < first ? 2 * first - i : 2 * last - i;
    return values[static_cast<std::size_t>(i - first)];
  }
};

// Halves of the symmetric 9/7 filters, centre first.
inline constexpr double kAnalysisLow[] = {0.602949018236, 0.266864118443, -0.078223266529,
                                          -0.016864118443, 0.026748757411};
inline constexpr double kAnalysisHigh[] = {1.115087052457, -0.591271763114, -0.057543526228,
                                           0.091271763114, 0.0};
inline constexpr double kSynthesisLow[] = {1.115087052457, 0.591271763114, -0.057543526228,
                                           -0.091271763114, 0.0};
inline constexpr double kSynthesisHigh[] = {0.602949018236, -0.266864118443, -0.078223266529,
                                            0.016864118443, 0.026748757411};

/// Low-pass results at even positions, high-pass results at odd ones.
inline Signal Analysed(const Signal& x, bool irreversible) {
  Signal y = x;
  if (x.values.size() == 1) {
    if (x.first % 2 != 0) y.values[0] *= 2;
    return y;
  }
  const auto high53 = [&](std::int64_t i) {
    return x.At(i) - std::floor((x.At(i - 1) + x.At(i + 1)) / 2);
  };
  for (std::size_t k = 0; k < y.values.size(); ++k) {
    const std::int64_t i = x.first + static_cast<std::int64_t>(k);
    const bool odd = i % 2 != 0;
    if (irreversible) {
      double sum = 0;
      for (std::int64_t j = -4; j <= 4; ++j) {
        sum += (odd ? kAnalysisHigh : kAnalysisLow)[std::abs(j)] * x.At(i + j);
      }
      y.values[k] = sum;
    } else {
      y.values[k] = odd ? high53(i) : x.At(i) + std::floor((high53(i - 1) + high53(i + 1) + 2) / 4);
    }
  }
  return y;
}

inline Signal Synthesised(const Signal& y, bool irreversible) {
  Signal x = y;
  if (y.values.size() == 1) {
    if (y.first % 2 != 0)
      x.values[0] = irreversible ? x.values[0] / 2 : std::trunc(x.values[0] / 2);
    return x;
  }
  const auto even53 = [&](std::int64_t i) {
    return y.At(i) - std::floor((y.At(i - 1) + y.At(i + 1) + 2) / 4);
  };
  for (std::size_t k = 0; k < x.values.size(); ++k) {
    const std::int64_t i = y.first + static_cast<std::int64_t>(k);
    if (irreversible) {
      double sum = 0;
      for (std::int64_t p = i - 4; p <= i + 4; ++p) {
        sum += (p % 2 != 0 ? kSynthesisHigh : kSynthesisLow)[std::abs(i - p)] * y.At(p);
      }
      x.values[k] = sum;
    } else {
      x.values[k] =
          i % 2 == 0 ? even53(i) : y.At(i) + std::floor((even53(i - 1) + even53(i + 1)) / 2);
    }
  }
  return x;
}

/// One row or column of a plane, by the place of its samples in the Mallat layout or in order.
struct Line {
  std::vector<double>& cells;
  std::int64_t start, pitch, first, end;

  double& InOrder(std::int64_t i) const { return Cell(i - first); }
  double& Parted(std::int64_t i) const {
    const std::int64_t lows = kel::CeilShift(end, 1) - kel::CeilShift(first, 1);
    return i % 2 == 0 ? Cell(i / 2 - kel::CeilShift(first, 1))
                      : Cell(lows + i / 2 - kel::FloorShift(first, 1));
  }
  double& Cell(std::int64_t k) const { return cells[static_cast<std::size_t>(start + k * pitch)]; }

  void Analyse(bool irreversible) const {
    Signal x{first, {}};
    for (std::int64_t i = first; i < end; ++i) x.values.push_back(InOrder(i));
    const Signal y = Analysed(x, irreversible);
    for (std::int64_t i = first; i < end; ++i) Parted(i) = y.At(i);
  }
  void Synthesise(bool irreversible) const {
    Signal y{first, {}};
    for (std::int64_t i = first; i < end; ++i) y.values.push_back(Parted(i));
    const Signal x = Synthesised(y, irreversible);
    for (std::int64_t i = first; i < end; ++i) InOrder(i) = x.At(i);
  }
};

/// Whole transforms in place, on the rows of a box without gaps; results in Mallat layout.
inline void TrueForward(std::vector<double>& cells, const kel::Box& box, int levels,
                        bool irreversible) {
  for (int level = 0; level < levels; ++level) {
    const kel::Box b = kel::ReduceBox(box, level);
    if (b.IsEmpty()) return;
    for (std::int64_t c = 0; c < b.Width(); ++c) {
      Line{cells, c, box.Width(), b.y0, b.y1}.Analyse(irreversible);
    }
    for (std::int64_t r = 0; r < b.Height(); ++r) {
      Line{cells, r * box.Width(), 1, b.x0, b.x1}.Analyse(irreversible);
    }
  }
}

inline void TrueInverse(std::vector<double>& cells, const kel::Box& box, int levels,
                        bool irreversible) {
  for (int level = levels - 1; level >= 0; --level) {
    const kel::Box b = kel::ReduceBox(box, level);
    if (b.IsEmpty()) continue;
    for (std::int64_t r = 0; r < b.Height(); ++r) {
      Line{cells, r * box.Width(), 1, b.x0, b.x1}.Synthesise(irreversible);
    }
    for (std::int64_t c = 0; c < b.Width(); ++c) {
      Line{cells, c, box.Width(), b.y0, b.y1}.Synthesise(irreversible);
    }
  }
}

}  // namespace test

#endif
