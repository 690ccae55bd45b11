// Component transforms over rows, and their 8-bit results: layouts of the host's samples, colour
// transforms both ways, worked values.
#include "samples/KelCompTransform.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "BitAssembler.h"
#include "HostMemory.h"
#include "kernels/KelKernels.h"

namespace {

using namespace kel;
using namespace test;
using Ints = std::vector<std::int32_t>;
using Floats = std::vector<float>;
using ColorTransform = test::LibraryTest;
using OutputConvert = test::LibraryTest;
using PlanePreparation = test::LibraryTest;

/// A host's buffer of two rows of pixels, and the samples in it by pixel and channel.
struct HostBuffer {
  std::int64_t width;
  std::uint32_t channels;
  int depth;
  std::vector<std::uint32_t> values{};
  Bytes bytes{};  // exactly as long as the samples

  HostBuffer(std::int64_t w, std::uint32_t n, int bits) : width(w), channels(n), depth(bits) {
    static std::mt19937 random(6);
    BitAssembler rows;
    for (std::int64_t i = 0; i < 2 * w * n; ++i) {
      if (i == w * n) rows.Align();
      values.push_back(static_cast<std::uint32_t>(random()) >> (32 - depth));
      rows.Sample(values.back(), depth);
    }
    bytes = rows.Result();
  }
  SampleSource Channel(std::uint32_t c) const {
    return MakeSampleSource(bytes.data(), width, depth, channels, c);
  }
  std::int32_t Levelled(std::size_t pixel, std::size_t c) const {
    return static_cast<std::int32_t>(values[pixel * channels + c] - (1U << (depth - 1)));
  }
};

/// Every depth, alone and interleaved, into rows longer than they need be: a bit taken from a
/// neighbour, an offset of another depth, or a cell written behind the row would show.
TEST_F(PlanePreparation, ReadsEveryLayout) {
  for (int depth = 1; depth <= 28; ++depth) {
    for (const auto& [width, channels] :
         {std::pair{1, 1U}, {10, 1U}, {37, 3U}, {30, 19U}, {1100, 2U}}) {
      const HostBuffer host(width, channels, depth);
      for (std::uint32_t c = 0; c < channels; ++c) {
        const auto stride = static_cast<std::size_t>(width) + 3;
        Ints ints(2 * stride, 77);
        Floats floats(2 * stride, 77);
        std::vector<std::int16_t> shorts(2 * stride, 77);
        PreparePlane(host.Channel(c), {ints.data(), stride}, {width, 2}, CellKind::kInts);
        PreparePlane(host.Channel(c), {floats.data(), stride}, {width, 2}, CellKind::kFloats);
        if (depth < 16) {
          PreparePlane(host.Channel(c), {shorts.data(), stride}, {width, 2}, CellKind::kShorts);
        }
        for (std::size_t i = 0; i < ints.size(); ++i) {
          const std::size_t x = i % stride, row = i / stride * static_cast<std::size_t>(width);
          const std::int32_t expected = x < stride - 3 ? host.Levelled(row + x, c) : 77;
          ASSERT_EQ(ints[i], expected) << depth << " bits, channel " << c << " of " << channels;
          ASSERT_EQ(floats[i], static_cast<float>(expected)) << depth << " bits";
          ASSERT_EQ(shorts[i], depth < 16 ? expected : 77) << depth << " bits";
        }
      }
    }
  }
  PreparePlane({}, {}, {0, 5}, CellKind::kInts);
  PreparePlane({}, {}, {5, -1}, CellKind::kFloats);
}

/// Sources of a colour triple: one buffer of three or more channels, or one buffer each.
struct Triple {
  std::vector<HostBuffer> buffers;
  std::uint32_t spacing = 1;

  std::pair<const HostBuffer*, std::uint32_t> Place(std::uint32_t c) const {
    if (buffers.size() == 1) return {&buffers[0], c * spacing};
    return {&buffers[c], 0};
  }
  SampleSource Source(std::uint32_t c) const { return Place(c).first->Channel(Place(c).second); }
  std::int32_t Levelled(std::size_t pixel, std::uint32_t c) const {
    return Place(c).first->Levelled(pixel, Place(c).second);
  }
};

constexpr std::int64_t kWidth = 1051;  // more than one piece of a row

std::vector<Triple> Triples() {
  std::vector<Triple> triples;
  for (const int depth : {5, 8, 12, 16}) {
    for (const std::uint32_t n : {3U, 4U, 6U}) {
      triples.push_back({{HostBuffer(kWidth, n, depth)}, n == 6 ? 2U : 1U});
    }
  }
  for (const auto& depths : {std::array{8, 8, 8}, {16, 16, 16}, {8, 16, 12}, {1, 28, 7}}) {
    triples.push_back({});
    for (const int depth : depths) triples.back().buffers.emplace_back(kWidth, 1, depth);
  }
  return triples;
}

/// The planes that a triple becomes, with room behind each row.
template <class Cell>
struct Planes {
  static constexpr std::size_t kStride = kWidth + 2;
  std::vector<Cell> cells[3];
  ColorPlanes planes;

  explicit Planes(const Triple& triple, bool lumaAlone = false) {
    CodingPlane targets[3];
    for (std::size_t c = 0; c < 3; ++c) {
      cells[c].assign(2 * kStride, 55);
      planes.cells[c] = cells[c].data();
      targets[c] = {lumaAlone && c != 0 ? nullptr : planes.cells[c], kStride};
    }
    planes.strideCells = kStride;
    planes.size = {kWidth, 2};
    planes.floats = std::is_same_v<Cell, float>;
    PrepareColorPlanes({triple.Source(0), triple.Source(1), triple.Source(2)}, targets, planes.size,
                       planes.floats                        ? CellKind::kFloats
                       : std::is_same_v<Cell, std::int16_t> ? CellKind::kShorts
                                                            : CellKind::kInts);
  }
  /// Calls check(pixel index, first cell of each plane) and sees to the cells between rows.
  template <class Check>
  void ForEach(Check check) const {
    for (std::size_t i = 0; i < 2 * kStride; ++i) {
      const std::size_t x = i % kStride;
      if (x < kWidth) {
        check(i / kStride * kWidth + x, cells[0][i], cells[1][i], cells[2][i]);
      } else {
        for (const auto& plane : cells) ASSERT_EQ(plane[i], 55) << "written behind a row";
      }
    }
  }
  /// Whether the inverse transform gives the sources back.
  void CheckInverse(const Triple& triple, double tolerance) {
    InverseComponentTransform(planes);
    ForEach([&](std::size_t i, Cell r, Cell g, Cell b) {
      ASSERT_NEAR(r, triple.Levelled(i, 0), tolerance);
      ASSERT_NEAR(g, triple.Levelled(i, 1), tolerance);
      ASSERT_NEAR(b, triple.Levelled(i, 2), tolerance);
    });
  }
};

TEST_F(ColorTransform, ReversibleIsExactBothWays) {
  for (const Triple& triple : Triples()) {
    Planes<std::int32_t> image(triple);
    const Planes<std::int32_t> yuv = image;
    image.ForEach([&](std::size_t i, std::int32_t y, std::int32_t u, std::int32_t v) {
      const double r = triple.Levelled(i, 0), g = triple.Levelled(i, 1), b = triple.Levelled(i, 2);
      ASSERT_EQ(y, std::floor((r + 2 * g + b) / 4));
      ASSERT_EQ(u, b - g);
      ASSERT_EQ(v, r - g);
    });
    const Planes<std::int32_t> luma(triple, true);
    EXPECT_EQ(luma.cells[0], image.cells[0]);
    EXPECT_EQ(luma.cells[1], std::vector(luma.cells[1].size(), 55));
    image.CheckInverse(triple, 0);
    if (triple.Source(0).bitDepth == 16 || triple.Source(1).bitDepth > 15) continue;
    const Planes<std::int16_t> narrow(triple);
    for (std::size_t c = 0; c < 3; ++c) {
      EXPECT_TRUE(std::equal(narrow.cells[c].begin(), narrow.cells[c].end(), yuv.cells[c].begin()));
    }
  }
}

/// The two matrices are inverse to each other within the digits that they are given with.
TEST_F(ColorTransform, IrreversibleKeepsToItsFormulas) {
  for (const Triple& triple : Triples()) {
    Planes<float> image(triple);
    double largest = 0;
    image.ForEach([&](std::size_t i, float y, float cb, float cr) {
      const double r = triple.Levelled(i, 0), g = triple.Levelled(i, 1), b = triple.Levelled(i, 2);
      const double tolerance = 1e-6 * (std::abs(r) + std::abs(g) + std::abs(b));
      largest = std::max(largest, tolerance);
      ASSERT_NEAR(y, 0.299 * r + 0.587 * g + 0.114 * b, tolerance);
      ASSERT_NEAR(cb, -0.16875 * r - 0.33126 * g + 0.5 * b, tolerance);
      ASSERT_NEAR(cr, 0.5 * r - 0.41869 * g - 0.08131 * b, tolerance);
    });
    image.CheckInverse(triple, 20 * largest);
  }
}

TEST_F(ColorTransform, AppliesToThreeColoursSubsampledAlike) {
  KelEncOpt options;
  options.InitToDefaults(64, 64, 64, 64, 4, 8);
  KelImageGeometry& geometry = *options.GeomParams;
  options.NumColorChannels = 3;
  EXPECT_FALSE(ColorTransformApplies(options));
  options.ComponentTransform = true;
  geometry.XRsiz[3] = 2;
  EXPECT_TRUE(ColorTransformApplies(options)) << "the fourth component plays no part";
  for (KelLong* field : {&geometry.XRsiz[1], &geometry.XRsiz[2], &geometry.YRsiz[1],
                         &geometry.YRsiz[2], &geometry.Csiz, &options.NumColorChannels}) {
    const KelLong before = std::exchange(*field, 2);
    EXPECT_FALSE(ColorTransformApplies(options)) << before;
    *field = before;
  }
  options.Die();
}

/// Eight-bit samples of one triple, by the kernels that every 8-bit colour route ends in.
template <class Cell>
Bytes PixelOf(Cell y, Cell second, Cell third) {
  Bytes pixel(3);
  const auto convert = [&](auto kernel) {
    kernel(&y, &second, &third, &pixel[0], &pixel[1], &pixel[2], 1);
  };
  if constexpr (std::is_same_v<Cell, float>) convert(Kernels().samples.inverseIctTo8Bit);
  if constexpr (!std::is_same_v<Cell, float>) convert(Kernels().samples.inverseRctTo8Bit);
  return pixel;
}

/// Low bands overshoot, so results beyond a byte are ordinary: they must not come round again.
TEST_F(OutputConvert, RoundsAndLimits) {
  for (const auto& [y, byte] : {std::pair{127.5F, 255}, {-128.5F, 0}, {0.5F, 128}, {1.5F, 130}}) {
    EXPECT_EQ(PixelOf(y, 0.F, 0.F), Bytes(3, static_cast<std::uint8_t>(byte))) << "halves to even";
  }
  EXPECT_EQ(PixelOf(NAN, 0.F, 0.F), Bytes(3, 0));
  EXPECT_EQ(PixelOf(0.F, 100.F, -100.F), (Bytes{0, 165, 255}));
  EXPECT_EQ(PixelOf(200, 0, 0), Bytes(3, 255));
  EXPECT_EQ(PixelOf(-129, 0, 0), Bytes(3, 0));
  EXPECT_EQ(PixelOf(127, 200, -40), (Bytes{175, 215, 255}));
  EXPECT_EQ(PixelOf(-1, -255, -255), (Bytes{0, 255, 0}));
}

}  // namespace
