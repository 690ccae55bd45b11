// Range, crop, bilinear enlargement and compaction of sample containers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "HostMemory.h"
#include "TestImage.h"
#include "samples/KelImageDataAccess.h"

namespace {

using namespace test;
using Resampling = test::LibraryTest;
using Bytes = std::vector<std::uint8_t>;

struct Range {
  float minimum = -9, maximum = -9, below = 0, above = 0;
  bool operator==(const Range&) const = default;
};

Range RangeOf(Image& image) {
  Range range;
  EXPECT_EQ(image.GetDynRange(&range.minimum, &range.maximum), KelOK);
  return range;
}

Range SpillOf(Image& image, KelLong low, KelLong high) {
  Range r;
  const KelLong code =
      image.GetDynRangeAndSpillOverRatios(low, high, &r.minimum, &r.maximum, &r.below, &r.above);
  EXPECT_EQ(code, image.ImageBufferType > 1 ? KelErrBadParam : KelOK);
  return r;
}

TEST_F(Resampling, RangeEveryKindIsReadAsItself) {
  Image bytes(3, 1, Bytes{5, 200, 17});
  EXPECT_FALSE(bytes.DynRangeIsValid());
  EXPECT_EQ(RangeOf(bytes), (Range{5, 200}));
  EXPECT_TRUE(bytes.DynRangeIsValid());
  { *kel::BufferLock(bytes.ImageBuffer).As<std::uint8_t>() = 0; }
  EXPECT_EQ(RangeOf(bytes), (Range{5, 200})) << "a valid cache is not measured again";
  Image words(2, 2, std::vector<std::uint16_t>{300, 300, 65535, 0});
  EXPECT_EQ(RangeOf(words), (Range{0, 65535})) << "the last row alone";
  Image ints(2, 1, std::vector<std::int32_t>{-1, INT32_MIN});
  EXPECT_EQ(RangeOf(ints), (Range{-2147483648.0F, -1}));
  Image floats(3, 1, std::vector<float>{-0.25F, -8.5F, -1});
  EXPECT_EQ(RangeOf(floats), (Range{-8.5F, -0.25F}));
}

TEST_F(Resampling, RangeSharesOutsideLimitsAreStrict) {
  Image bytes(4, 1, Bytes{5, 10, 50, 101});
  EXPECT_EQ(SpillOf(bytes, 10, 100), (Range{5, 101, 0.25F, 0.25F}));
  bytes.DynRangeMin = bytes.DynRangeMax = 1;
  EXPECT_EQ(SpillOf(bytes, 6, 101), (Range{5, 101, 0.25F, 0})) << "whatever the cache holds";
  Image ints(2, 1, std::vector<std::int32_t>{16777217, -5});
  EXPECT_EQ(SpillOf(ints, -5, 16777216).above, 0.5F) << "compared as integers, not as floats";
}

TEST_F(Resampling, RangeNothingToMeasure) {
  Image image(2, 1, std::vector<float>{1, 2});
  float r[2];
  image.SetImageBufferType(2);
  EXPECT_EQ(image.GetDynRange(&r[0], &r[1]), KelErrBadParam);
  SpillOf(image, 0, 1);
  for (const auto& [type, size, height] : {std::array{0, 3, 1}, {1, 1, 1}, {1, 8, 1}, {1, 4, -1}}) {
    image.SetImageBufferType(type);
    image.SetSizeOfImageDataType(size);
    image.SetHeight(height);
    EXPECT_EQ(RangeOf(image), (Range{1, 0})) << "read as " << type << ' ' << size;
    EXPECT_EQ(SpillOf(image, 0, 1), (Range{1, 0}));
  }
}

TEST_F(Resampling, CropCutsOutABoxOrNothing) {
  const Bytes all = {0, 1, 2, 3, 4, 5, 6, 7};
  Image bytes(4, 2, all);
  bytes.DynRangeMax = 9;
  const KelLong outside[][4] = {{-1, 2, 0, 1},
                                {0, 5, 0, 1},
                                {0, 1, 0, 3},
                                {0, 1, -1, 1},
                                {2, 2, 0, 1},
                                {3, 1, 0, 2},
                                {INT32_MIN, INT32_MAX, 0, 1}};
  for (const auto& [x0, x1, y0, y1] : outside) {
    EXPECT_EQ(bytes.CropData(x0, x1, y0, y1), KelOK);
    EXPECT_EQ(bytes.Width, 4) << x0 << ' ' << x1 << ' ' << y0 << ' ' << y1;
    EXPECT_FALSE(bytes.DynRangeIsValid());
  }
  memory.RefuseLocksToo();
  for (const std::size_t n : {1, 2, 3}) {
    memory.RefuseRequest(n);
    EXPECT_EQ(RaisedBy([&] { bytes.CropData(1, 3, 0, 2); }).errCode, KelErrNoMemory);
    EXPECT_EQ(bytes.Content<std::uint8_t>(8), all);
  }
  bytes.CropData(1, 3, 0, 2);
  EXPECT_EQ(bytes.Content<std::uint8_t>(4), (Bytes{1, 2, 5, 6}));
  bytes.CropData(0, 2, 1, 2);
  EXPECT_EQ(bytes.Content<std::uint8_t>(2), (Bytes{5, 6}));
  Image words(3, 2, std::vector<std::uint16_t>{0, 1, 2, 3, 4, 5});
  words.CropData(2, 3, 0, 2);
  EXPECT_EQ(words.Content<std::uint16_t>(2), (std::vector<std::uint16_t>{2, 5}));
  Image ints(2, 1, std::vector<std::int32_t>{1, 2});
  ints.CropData(0, 1, 0, 1);
  EXPECT_EQ(ints.Width, 2) << "32-bit samples are not cropped";
}

/// One cell with its corners included, as the definition has it; cells write over each other's
/// edges. Positions outside the new image are left out.
template <class Sample>
void FillCell(std::vector<Sample>& out, const int (&size)[2], const int (&x)[2], const int (&y)[2],
              const float (&corner)[4]) {
  const auto weight = [](const int(&ends)[2], int at) {
    const auto span = static_cast<float>(ends[1] - ends[0]);
    return span == 0 ? 1 : static_cast<float>(ends[1] - at) / span;
  };
  for (int b = y[0]; b <= y[1] && b < size[1]; ++b) {
    for (int a = x[0]; a <= x[1] && a < size[0]; ++a) {
      const float fx = weight(x, a), fy = weight(y, b);
      const float v = fx * fy * corner[0] + (1 - fx) * fy * corner[1] + fx * (1 - fy) * corner[2] +
                      (1 - fx) * (1 - fy) * corner[3];
      out[static_cast<std::size_t>(b * size[0] + a)] = static_cast<Sample>(std::nearbyint(v));
    }
  }
}

template <class Sample>
void CheckInterpolation(int W, int H, int stepX, int stepY) {
  std::mt19937 random(5);
  std::vector<Sample> in(static_cast<std::size_t>(W * H));
  for (auto& sample : in) sample = static_cast<Sample>(random() % 65536);
  const auto at = [&](int c, int r) {
    const int index = std::min(r, H - 1) * W + std::min(c, W - 1);
    return static_cast<float>(in[static_cast<std::size_t>(index)]);
  };
  for (int newW = 1; newW <= stepX * W + 1; ++newW) {
    for (int newH = 1; newH <= stepY * H + 1; ++newH) {
      std::vector<Sample> expected(static_cast<std::size_t>(newW * newH));
      for (int cell = 0; cell < W * H; ++cell) {
        const int c = cell % W, r = cell / W;
        FillCell(expected, {newW, newH}, {c * stepX, c < W - 1 ? (c + 1) * stepX : newW - 1},
                 {r * stepY, r < H - 1 ? (r + 1) * stepY : newH - 1},
                 {at(c, r), at(c + 1, r), at(c, r + 1), at(c + 1, r + 1)});
      }
      Image image(W, H, in);
      ASSERT_EQ(image.Interpolate(newW, newH, stepX, stepY), KelOK);
      ASSERT_EQ(image.GetWidth(), newW);
      ASSERT_EQ(image.Content<Sample>(expected.size()), expected)
          << W << 'x' << H << " to " << newW << 'x' << newH << ", steps " << stepX << ' ' << stepY;
    }
  }
}

TEST_F(Resampling, InterpolationEverySizeAgainstTheDefinition) {
  for (const int W : {1, 2, 3}) {
    for (const auto& [H, stepX, stepY] : {std::array{1, 1, 1}, {2, 2, 3}, {3, 5, 2}}) {
      CheckInterpolation<std::uint8_t>(W, H, stepX, stepY);
      CheckInterpolation<std::uint16_t>(W, H, stepX, stepY);
      CheckInterpolation<std::int32_t>(W, H, stepX, stepY);
      CheckInterpolation<float>(W, H, stepX, stepY);
    }
  }
}

TEST_F(Resampling, InterpolationWhatDoesNotFitIsLeftAlone) {
  Image image(2, 2, Bytes{1, 2, 3, 4});
  KelBufID_I* const buffer = image.GetImageBuffer();
  for (const auto& [w, h, sx, sy] :
       {std::array{0, 3, 1, 1}, {3, -1, 1, 1}, {3, 3, 0, 1}, {3, 3, 1, INT32_MIN}}) {
    EXPECT_EQ(image.Interpolate(w, h, sx, sy), KelOK);
    EXPECT_EQ(image.GetImageBuffer(), buffer);
  }
  memory.RefuseLocksToo();
  for (const std::size_t n : {1, 2, 3}) {
    memory.RefuseRequest(n);
    EXPECT_EQ(RaisedBy([&] { image.Interpolate(4, 4, 2, 2); }).errCode, KelErrNoMemory);
  }
  float least = 0, most = 0, below = 0, above = 0;
  memory.RefuseRequest(1);
  EXPECT_EQ(image.GetDynRange(&least, &most), KelErrNoMemory);
  memory.RefuseRequest(1);
  EXPECT_EQ(image.GetDynRangeAndSpillOverRatios(0, 9, &least, &most, &below, &above),
            KelErrNoMemory);
  EXPECT_THROW(image.Interpolate(INT32_MAX, INT32_MAX, 1, 1), KelException);
  EXPECT_EQ(image.GetImageBuffer(), buffer);
  EXPECT_EQ(image.Interpolate(3, 3, INT32_MAX, INT32_MAX), KelOK) << "only the first cell is seen";
  EXPECT_EQ(image.Content<std::uint8_t>(9), Bytes(9, 1));
}

/// Padding behind each row disappears whatever the sizes; rows overlap the places they move to.
TEST_F(Resampling, CompactRowsKeepsTheTrueSamples) {
  for (const KelLong trueWidth : {0, 1, 4, 6, 7, 9}) {
    std::vector<std::int32_t> cells(7 * 5);
    for (std::size_t i = 0; i < cells.size(); ++i) cells[i] = static_cast<std::int32_t>(i);
    Image image(7, 5, cells);
    kel::CompactRows(image, trueWidth);
    const KelLong width = std::min<KelLong>(trueWidth, 7);
    EXPECT_EQ(image.GetWidth(), width);
    const auto got = image.Content<std::int32_t>(static_cast<std::size_t>(width * 5));
    for (KelLong i = 0; i < width * 5; ++i) {
      ASSERT_EQ(got[static_cast<std::size_t>(i)], i / width * 7 + i % width);
    }
  }
}

}  // namespace
