// Region masks: what they mark must suffice to rebuild the region, and not be much more.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "HostMemory.h"
#include "WaveletTruth.h"
#include "transform/KelWavelet.h"

namespace {

using kel::Box;
using WaveletMask = test::LibraryTest;

/// The coefficients' marks without their margin, in Mallat layout.
std::vector<std::uint8_t> Marks(const std::vector<std::uint8_t>& mask, const Box& box, int levels,
                                bool irreversible) {
  const std::int64_t stride = box.Width() + 2 * kel::kMaskMargin;
  std::vector<std::uint8_t> scratch(kel::RegionMaskScratchBytes(box));
  std::vector<std::uint8_t> result(
      static_cast<std::size_t>(stride * (box.Height() + 2 * kel::kMaskMargin)), 0x55);
  kel::CarryRegionMask({mask.data(), box, levels, irreversible}, scratch.data(), result.data());
  std::vector<std::uint8_t> marks;
  for (std::int64_t y = 0; y < box.Height(); ++y) {
    const auto row = result.begin() + (kel::kMaskMargin + y) * stride + kel::kMaskMargin;
    marks.insert(marks.end(), row, row + box.Width());
  }
  return marks;
}

// With all other coefficients gone, the region's samples must come back.
void CheckRegion(const Box& box, int levels, bool irreversible, std::mt19937& random) {
  std::vector<double> samples(static_cast<std::size_t>(box.Width() * box.Height()));
  std::vector<std::uint8_t> mask(samples.size());
  for (double& v : samples) v = static_cast<double>(random() % 256);
  for (std::uint8_t& m : mask) m = random() % 12 == 0 ? 1 : 0;
  const std::vector<std::uint8_t> marks = Marks(mask, box, levels, irreversible);
  std::vector<double> cells = samples;
  test::TransformTruly(cells, box, levels, {false, irreversible});
  for (std::size_t i = 0; i < cells.size(); ++i) {
    ASSERT_TRUE(marks[i] == 0 || marks[i] == kel::kMaskMark);
    if (marks[i] == 0) cells[i] = 0;
  }
  test::TransformTruly(cells, box, levels, {true, irreversible});
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (mask[i] != 0) {
      ASSERT_NEAR(cells[i], samples[i], 1e-5) << "sample " << i;
    }
  }
}

TEST_F(WaveletMask, MarkedCoefficientsRebuildTheRegion) {
  std::mt19937 random(7);
  for (std::int64_t size = 1; size <= 12; ++size) {
    for (std::int64_t parity = 0; parity < 4; ++parity) {
      for (int levels = 0; levels <= 3; ++levels) {
        const std::int64_t x0 = 2 + (parity & 1), y0 = 6 + (parity >> 1);
        const Box box = {x0, x0 + size, y0, y0 + 13 - size};
        CheckRegion(box, levels, false, random);
        CheckRegion(box, levels, true, random);
      }
    }
  }
  CheckRegion({3, 60, 5, 48}, 3, true, random);
}

// Samples far from every edge need exactly the filter's support, not a cell more: marks that stay
// behind from another row or a finer level show.
TEST_F(WaveletMask, SupportOfSingleSamples) {
  const Box box = {1, 41, 0, 40};
  const auto marksOf = [&](std::vector<std::int64_t> diagonal, std::int64_t right, int levels,
                           bool irreversible) {
    std::vector<std::uint8_t> mask(1600, 0);
    for (const std::int64_t y : diagonal) {
      mask[static_cast<std::size_t>((y - box.y0) * 40 + (y + right - box.x0))] = 9;
    }
    const std::vector<std::uint8_t> marks = Marks(mask, box, levels, irreversible);
    return std::count(marks.begin(), marks.end(), kel::kMaskMark);
  };
  EXPECT_EQ(marksOf({20}, 0, 1, true), 7 * 7);
  EXPECT_EQ(marksOf({20}, 1, 1, true), 9 * 7);
  EXPECT_EQ(marksOf({20}, 0, 1, false), 3 * 3);
  EXPECT_EQ(marksOf({21}, 1, 1, false), 3 * 5);
  EXPECT_EQ(marksOf({10, 30}, 0, 1, true), 2 * 7 * 7);
  EXPECT_EQ(marksOf({20}, 0, 2, true), 7 * 7 - 3 * 3 + 11 * 11);
}

}  // namespace
