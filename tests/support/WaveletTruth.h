// The wavelet transforms by their definition, slowly: periodic symmetric extension, convolution
// with the whole impulse responses (9/7) or lifting (5/3), subsampling, one signal at a time.
#ifndef TESTS_SUPPORT_WAVELET_TRUTH_H
#define TESTS_SUPPORT_WAVELET_TRUTH_H

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "base/KelBox.h"

namespace test {

// Halves of the symmetric 9/7 filters, centre first: low, high of the analysis, of the synthesis.
inline constexpr double kFilters97[2][2][5] = {
    {{0.602949018236, 0.266864118443, -0.078223266529, -0.016864118443, 0.026748757411},
     {1.115087052457, -0.591271763114, -0.057543526228, 0.091271763114, 0.0}},
    {{1.115087052457, 0.591271763114, -0.057543526228, -0.091271763114, 0.0},
     {0.602949018236, -0.266864118443, -0.078223266529, 0.016864118443, 0.026748757411}}};

/// Which transform: back to samples or not, and with which filter.
struct Transform {
  bool inverse, irreversible;
};

/// Values at positions first, first + 1, ...; reading beyond either end mirrors.
struct Signal {
  std::int64_t first;
  std::vector<double> values;

  double At(std::int64_t i) const {
    const std::int64_t last = first + static_cast<std::int64_t>(values.size()) - 1;
    while (i < first || i > last) i = i < first ? 2 * first - i : 2 * last - i;
    return values[static_cast<std::size_t>(i - first)];
  }
};

/// The result at a position; low-pass values have even positions, high-pass values odd ones.
inline double ResultAt(const Signal& in, std::int64_t i, Transform kind) {
  const bool odd = i % 2 != 0;
  if (in.values.size() == 1) {
    if (!odd) return in.At(i);
    if (!kind.inverse) return in.At(i) * 2;
    return kind.irreversible ? in.At(i) / 2 : std::trunc(in.At(i) / 2);
  }
  if (kind.irreversible) {
    double sum = 0;
    for (std::int64_t p = i - 4; p <= i + 4; ++p) {
      const bool high = (kind.inverse ? p : i) % 2 != 0;
      sum += kFilters97[kind.inverse][high][std::abs(i - p)] * in.At(p);
    }
    return sum;
  }
  const double sign = kind.inverse ? 1 : -1;
  const auto lifted = [&](auto at, double add, double divisor) {
    return std::floor((at(i - 1) + at(i + 1) + add) / divisor);
  };
  const auto plain = [&](std::int64_t p) { return in.At(p); };
  const auto partner = [&](std::int64_t p) { return ResultAt(in, p, kind); };
  if (odd) return in.At(i) + sign * (kind.inverse ? lifted(partner, 0, 2) : lifted(plain, 0, 2));
  return in.At(i) - sign * (kind.inverse ? lifted(plain, 2, 4) : lifted(partner, 2, 4));
}

/// Transforms one row or column of a plane; its positions are [first, end). Samples stand in
/// order, coefficients with the low-pass ones first.
inline void TransformLine(double* line, std::int64_t pitch, std::int64_t first, std::int64_t end,
                          Transform kind) {
  const std::int64_t lows = kel::CeilShift(end, 1) - kel::CeilShift(first, 1);
  const auto cell = [&](std::int64_t i, bool parted) -> double& {
    const std::int64_t half =
        i % 2 == 0 ? i / 2 - kel::CeilShift(first, 1) : lows + i / 2 - kel::FloorShift(first, 1);
    return line[(parted ? half : i - first) * pitch];
  };
  Signal in{first, {}};
  for (std::int64_t i = first; i < end; ++i) in.values.push_back(cell(i, kind.inverse));
  for (std::int64_t i = first; i < end; ++i) cell(i, !kind.inverse) = ResultAt(in, i, kind);
}

/// The whole transform in place, on the rows of a box without gaps; coefficients in Mallat layout.
inline void TransformTruly(std::vector<double>& cells, const kel::Box& box, int levels,
                           Transform kind) {
  for (int done = 0; done < levels; ++done) {
    const kel::Box b = kel::ReduceBox(box, kind.inverse ? levels - 1 - done : done);
    if (b.IsEmpty()) continue;
    const auto columns = [&] {
      for (std::int64_t c = 0; c < b.Width(); ++c) {
        TransformLine(&cells[static_cast<std::size_t>(c)], box.Width(), b.y0, b.y1, kind);
      }
    };
    if (!kind.inverse) columns();
    for (std::int64_t r = 0; r < b.Height(); ++r) {
      TransformLine(&cells[static_cast<std::size_t>(r * box.Width())], 1, b.x0, b.x1, kind);
    }
    if (kind.inverse) columns();
  }
}

}  // namespace test

#endif
