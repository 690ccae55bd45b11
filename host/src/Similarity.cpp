// Structural similarity. The five sums that a window needs (of both samples, their squares and
// their product) are weighted across row by row, and down over the last rows, kept in a ring.
#include <kel/host/convert.hpp>
#include <kel/host/similarity.hpp>

#include <algorithm>
#include <array>
#include <cmath>

namespace kel::host {
namespace {

constexpr std::size_t kWindow = 11;
constexpr double kDeviation = 1.5;
constexpr std::size_t kSums = 5;  // a, b, aa, bb, ab

/// Weights of so many samples in a row; they add up to 1.
std::vector<double> Weights(std::size_t count) {
  std::vector<double> weights(count);
  double sum = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const double x = static_cast<double>(i) - static_cast<double>(count - 1) / 2;
    sum += weights[i] = std::exp(-x * x / (2 * kDeviation * kDeviation));
  }
  for (double& weight : weights) weight /= sum;
  return weights;
}

using SumRows = std::array<std::vector<double>, kSums>;

/// A row of the five products, before any weighting.
void LoadRow(const Plane& a, const Plane& b, std::uint32_t y, SumRows& products) {
  WithSampleType(a.BytesPerSample(), [&](auto sample) {
    const auto *left = a.Row<decltype(sample)>(y), *right = b.Row<decltype(sample)>(y);
    for (std::size_t x = 0; x < a.Width(); ++x) {
      const double va = left[x], vb = right[x];
      products[0][x] = va;
      products[1][x] = vb;
      products[2][x] = va * va;
      products[3][x] = vb * vb;
      products[4][x] = va * vb;
    }
  });
}

/// row[x] = sum of weights[i] * source[x + i].
void WeighAcross(const SumRows& source, const std::vector<double>& weights, SumRows& rows) {
  for (std::size_t s = 0; s < kSums; ++s) {
    std::ranges::fill(rows[s], 0.0);
    for (std::size_t i = 0; i < weights.size(); ++i) {
      const double* from = source[s].data() + i;
      for (std::size_t x = 0; x < rows[s].size(); ++x) rows[s][x] += weights[i] * from[x];
    }
  }
}

double SumOfWindows(const SumRows& sums, double c1, double c2) {
  double total = 0;
  for (std::size_t x = 0; x < sums[0].size(); ++x) {
    const double ma = sums[0][x], mb = sums[1][x];
    const double va = sums[2][x] - ma * ma, vb = sums[3][x] - mb * mb;
    const double covariance = sums[4][x] - ma * mb;
    total +=
        (2 * ma * mb + c1) * (2 * covariance + c2) / ((ma * ma + mb * mb + c1) * (va + vb + c2));
  }
  return total;
}

double PlaneSsim(const Plane& a, const Plane& b) {
  const std::size_t width = a.Width(), height = a.Height();
  const std::vector<double> across = Weights(std::min(width, kWindow));
  const std::vector<double> down = Weights(std::min(height, kWindow));
  const std::size_t columns = width - across.size() + 1;
  SumRows products, sums;
  for (auto& row : products) row.resize(width);
  for (auto& row : sums) row.resize(columns);
  std::vector<SumRows> ring(down.size(), sums);
  const double peak = a.MaxValue();
  const double c1 = 0.01 * peak * 0.01 * peak, c2 = 0.03 * peak * 0.03 * peak;
  double total = 0;
  for (std::size_t y = 0; y < height; ++y) {
    LoadRow(a, b, static_cast<std::uint32_t>(y), products);
    WeighAcross(products, across, ring[y % down.size()]);
    if (y + 1 < down.size()) continue;
    for (auto& row : sums) std::ranges::fill(row, 0.0);
    for (std::size_t i = 0; i < down.size(); ++i) {
      const SumRows& row = ring[(y + 1 + i) % down.size()];
      for (std::size_t s = 0; s < kSums; ++s) {
        for (std::size_t x = 0; x < columns; ++x) sums[s][x] += down[i] * row[s][x];
      }
    }
    total += SumOfWindows(sums, c1, c2);
  }
  return total / (static_cast<double>(columns) * static_cast<double>(height - down.size() + 1));
}

}  // namespace

double Ssim(const Image& a, const Image& b) {
  Compare(a, b);  // throws when they cannot be compared
  double total = 0;
  for (std::size_t i = 0; i < a.planes.size(); ++i) total += PlaneSsim(a.planes[i], b.planes[i]);
  return total / static_cast<double>(a.planes.size());
}

}  // namespace kel::host
