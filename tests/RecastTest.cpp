// Recast and rotation, against the rules evaluated plainly for one sample at a time.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "BitAssembler.h"
#include "HostMemory.h"
#include "TestImage.h"

namespace {

using namespace test;
using Ints = std::vector<std::int32_t>;
using Floats = std::vector<float>;
using Recasting = test::LibraryTest;

/// Samples around zero that fill a depth and exceed it, half the time by as much as they can.
template <class Cell>
std::vector<Cell> Samples(std::size_t count, KelLong depth, std::mt19937& random) {
  constexpr bool kFloats = std::is_same_v<Cell, float>;
  std::vector<Cell> cells(count);
  for (Cell& cell : cells) {
    const double s = std::ldexp(static_cast<double>(random()) / 4294967296.0 - 0.5, depth) * 1.2;
    cell = static_cast<Cell>(kFloats ? std::nearbyint(s * 2) / 2
                                     : std::clamp(s, -2147483648., 2147483647.));
  }
  if (random() % 2 == 0) return cells;
  cells.front() = kFloats ? static_cast<Cell>(-1e30F) : INT32_MIN;
  cells.back() = kFloats ? static_cast<Cell>(1e30F) : INT32_MAX;
  return cells;
}

struct Target {
  KelLong depth, numBits, outMax, outMin, method;
  bool general;  // bytes and words have arithmetic of their own otherwise
};

std::int64_t Shifted(double s, KelLong depth) {
  const double nearest = std::nearbyint(std::clamp(s, -0x1p60, 0x1p60));
  return static_cast<std::int64_t>(nearest) + (std::int64_t{1} << (depth - 1));
}

/// One sample by the rules, each clamp where they have it.
std::int64_t Recast(double s, Target t, const KelImageData& data) {
  const bool words = !t.general && t.numBits == 16, bytes = !t.general && t.numBits == 8;
  const std::int64_t M = (std::int64_t{1} << t.depth) - 1,
                     half = std::int64_t{1} << (t.numBits - 1);
  std::int64_t q = Shifted(s, t.depth);
  if (bytes && t.depth == 8 && t.method == 0) return std::clamp<std::int64_t>(q, 0, 255);
  const int shift = words && t.depth < 16 ? 16 - t.depth : 0;
  if (shift > 0) t.outMax = static_cast<KelLong>(std::min<std::int64_t>(t.outMax, M));
  if (!words || t.method == 0 || t.method == 2) q = std::max<std::int64_t>(q, 0);
  if (!words || t.method == 0 || t.method == 3) q = std::min(q, M);
  if (words && t.outMin == 0 && t.outMax == M) {
    return std::clamp<std::int64_t>(q, 0, std::min<std::int64_t>(M, 65535)) << shift;
  }
  const bool dataMin = words && t.method % 2 == 1, dataMax = words && (t.method + 1) / 2 == 1;
  const std::int64_t lo = dataMin ? Shifted(double{data.DynRangeMin}, t.depth) : 0;
  const std::int64_t hi = dataMax ? Shifted(double{data.DynRangeMax}, t.depth) : M;
  const auto level = static_cast<float>(q - lo), length = static_cast<float>(hi - lo);
  const auto span = static_cast<float>(std::int64_t{t.outMax} - t.outMin);
  float v = hi > lo ? level * (span / length) : 0.0F;
  if (bytes) v = level * (span * (1.0F / length));
  if (t.general) v = level * span / length;
  v = std::nearbyint(std::clamp(v + static_cast<float>(t.outMin), -1e18F, 1e18F));
  const auto [low, high] = std::minmax({std::int64_t{t.outMin}, std::int64_t{t.outMax}});
  const std::int64_t limited = std::clamp(static_cast<std::int64_t>(v), low, high);
  return std::clamp(limited, t.general ? -half : 0, 2 * half - 1) << shift;
}

/// Rows of such samples, packed bit by bit; words in the host's order.
template <class Cell>
Bytes Rows(const std::vector<Cell>& cells, std::size_t width, const Target& t,
           const KelImageData& data) {
  test::BitAssembler rows;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (i % width == 0) rows.Align();
    const std::int64_t v = Recast(static_cast<double>(cells[i]), t, data);
    rows.Sample(static_cast<std::uint64_t>(v), t.numBits);
  }
  return rows.Result();
}

template <class Cell>
void Check(const Target& t, std::mt19937& random) {
  const auto cells = Samples<Cell>(13 * 3, t.depth, random);
  Image image(13, 3, cells), measured(13, 3, cells);
  float least, most;
  measured.GetDynRange(&least, &most);
  ASSERT_EQ(image.RecastData(t.depth, t.general, t.numBits, t.outMax, t.outMin,
                             static_cast<KelRecastMeth>(t.method)),
            KelOK);
  const Bytes expected = Rows(cells, 13, t, measured);
  ASSERT_EQ(image.Content<std::uint8_t>(expected.size()), expected)
      << t.depth << " to " << t.numBits << " bits, " << t.outMin << " to " << t.outMax
      << ", method " << t.method << ", general " << t.general;
  ASSERT_EQ(image.SizeOfDataType, t.numBits / 8);
  ASSERT_EQ(image.ImageBufferType, 0);
  ASSERT_FALSE(image.DynRangeIsValid());
}

/// Full, narrow, signed and inverted ranges from and to everything, by every method.
TEST_F(Recasting, EveryDepthToEveryNumberOfBits) {
  std::mt19937 random(2);
  for (KelLong depth = 1; depth <= 38; ++depth) {
    const std::int64_t M = (std::int64_t{1} << depth) - 1;
    for (KelLong numBits = 1; numBits <= 32; ++numBits) {
      const std::int64_t largest = std::min((std::int64_t{1} << numBits) - 1, M);
      const auto most = static_cast<KelLong>(std::min<std::int64_t>(largest, INT32_MAX));
      for (const auto& [outMax, outMin] :
           {std::pair{most, 0}, {most / 3, -most / 4 - 1}, {0, most}, {INT32_MAX, 0}}) {
        Check<std::int32_t>({depth, numBits, outMax, outMin, 0, true}, random);
        Check<float>({depth, numBits, outMax, outMin, 0, true}, random);
        if (numBits % 8 != 0 || numBits > 16 || outMin > 255) continue;
        for (KelLong method = 0; method <= 3; ++method) {
          Check<std::int32_t>({depth, numBits, outMax, outMin, method, false}, random);
          Check<float>({depth, numBits, outMax, outMin, method, false}, random);
        }
      }
    }
  }
}

template <class Out, class Cell>
std::vector<Out> Recast(const std::vector<Cell>& cells, const Target& t, std::size_t count) {
  Image image(static_cast<KelLong>(cells.size()), 1, cells);
  image.RecastData(t.depth, t.general, t.numBits, t.outMax, t.outMin,
                   static_cast<KelRecastMeth>(t.method));
  return image.Content<Out>(count);
}

// An understanding of the rules that the plain evaluation shares.
TEST_F(Recasting, WorkedExamples) {
  using Words = std::vector<std::uint16_t>;
  const Floats ties = {-128.4F, 0.5F, 127.6F}, far = {-0x1.0004p31F, -0x1.0002p31F, -0x1p31F};
  EXPECT_EQ(Recast<std::uint8_t>(ties, {8, 8, 255, 0, 0, false}, 3), (Bytes{0, 128, 255}));
  EXPECT_EQ(Recast<std::uint16_t>(Ints{0}, {12, 16, 65535, 0, 0, false}, 1), Words{32768});
  EXPECT_EQ(Recast<std::uint16_t>(far, {16, 16, 1000, 0, 1, false}, 3), (Words{0, 500, 1000}));
  EXPECT_EQ(Recast<std::uint8_t>(Ints{-8, -7, 7}, {4, 4, 15, 0, 0, false}, 2), (Bytes{0x01, 0xF0}));
}

/// Every orientation of plain, narrow and tall images larger than the blocks that are turned at
/// once, against the source sample that each output sample is defined by.
void CheckTurn(KelLong W, KelLong H, KelLong numBits, KelLong turn) {
  static std::mt19937 random(4);
  const auto cells = Samples<std::int32_t>(static_cast<std::size_t>(W * H), 12, random);
  const KelLong newW = turn == 180 ? W : H;
  Ints turned;
  for (KelLong i = 0; i < W * H; ++i) {
    const KelLong y = i / newW, x = i % newW;
    const KelLong row = turn == 90 ? H - 1 - x : turn == 180 ? H - 1 - y : x;
    const KelLong column = turn == 90 ? y : turn == 180 ? W - 1 - x : W - 1 - y;
    turned.push_back(cells[static_cast<std::size_t>(row * W + column)]);
  }
  Image image(W, H, cells);
  const auto orientation = static_cast<KelImageOrientation>(turn);
  image.RecastData_Rotation(12, false, numBits, 4095, 0, KelRecastNominal, orientation);
  ASSERT_EQ(image.GetWidth(), newW);
  ASSERT_EQ(image.GetHeight(), W * H / newW);
  const Target target = {12, numBits, 4095, 0, 0, true};
  const Bytes expected = Rows(turned, static_cast<std::size_t>(newW), target, image);
  ASSERT_EQ(image.Content<std::uint8_t>(expected.size()), expected) << W << 'x' << H << ' ' << turn;
}

TEST_F(Recasting, RotationTakesTheRightSample) {
  for (const auto& [W, H] :
       {std::pair{3, 2}, {1, 1}, {1, 37}, {37, 1}, {17, 33}, {35, 521}, {1030, 5}}) {
    for (const KelLong numBits : {5, 8, 12, 16, 32}) {
      for (const KelLong turn : {90, 180, 270}) CheckTurn(W, H, numBits, turn);
    }
  }
  Image odd(3, 2, Ints(6, 100));
  odd.RecastData_Rotation(8, false, 12, 4095, 0, KelRecastNominal,
                          static_cast<KelImageOrientation>(45));
  EXPECT_EQ(odd.Content<std::uint8_t>(10), Bytes(10, 0)) << "no such orientation";
}

/// Numbers of the host that must neither be trusted nor change anything.
TEST_F(Recasting, WhatCannotBeRecastIsLeftAlone) {
  Image image(4, 4, Ints(16, 1));
  const auto leavesAlone = [&](KelLong depth, KelLong numBits) {
    const KelImageData before = image;
    EXPECT_EQ(image.RecastData(depth, false, numBits, 255, 0, KelRecastNominal), KelOK);
    EXPECT_EQ(
        image.RecastData_Rotation(depth, true, numBits, 9, 0, KelRecastData, KelOrientation90),
        KelOK);
    return image.ImageBuffer == before.ImageBuffer && image.SizeOfDataType == before.SizeOfDataType;
  };
  for (const KelLong depth : {INT32_MIN, 0, 39, INT32_MAX}) EXPECT_TRUE(leavesAlone(depth, 8));
  for (const KelLong numBits : {INT32_MIN, 0, 33}) EXPECT_TRUE(leavesAlone(8, numBits));
  image.RecastData(8, false, 8, 255, 0, KelRecastNominal);
  EXPECT_TRUE(leavesAlone(8, 8)) << "bytes are not read as 32-bit samples";
  image.FreeImageBuffer();
  EXPECT_EQ(image.RecastDataTo8BppUnsigned(8, 255, 0, KelRecastNominal), KelOK);
  Image empty(4, 0, Ints{});
  empty.SetHeight(-3);
  EXPECT_EQ(empty.RecastData(8, false, 12, 4095, 0, KelRecastNominal), KelOK);
  EXPECT_EQ(empty.SizeOfDataType, 1) << "an empty image is recast to an empty one";
  for (const float limit : {3e38F, INFINITY}) {
    Image words(2, 1, Ints{-9, INT32_MAX});
    words.DynRangeMin = -limit;
    words.DynRangeMax = limit;
    EXPECT_EQ(words.RecastDataTo16BppUnsigned(31, 1000, 0, KelRecastData), KelOK);
    EXPECT_EQ(words.Content<std::uint16_t>(2), (std::vector<std::uint16_t>{500, 500}));
  }
}

TEST_F(Recasting, ARefusedBufferLeavesTheContainerUnchanged) {
  Image image(5, 3, Ints(15, -7));
  const KelImageData before = image;
  for (const KelLong turn : {-8, -16, 0, 90, 180, 270, 1}) {
    memory.RefuseRequest(1);
    EXPECT_EQ(turn == -8    ? image.RecastDataTo8BppUnsigned(8, 255, 0, KelRecastNominal)
              : turn == -16 ? image.RecastDataTo16BppUnsigned(8, 99, 0, KelRecastData)
                            : image.RecastData_Rotation(8, true, 11, 255, 0, KelRecastNominal,
                                                        static_cast<KelImageOrientation>(turn)),
              KelErrNoMemory);
    EXPECT_EQ(image.Content<std::int32_t>(15), Ints(15, -7));
    EXPECT_TRUE(image.ImageBuffer == before.ImageBuffer && image.SizeOfDataType == 4 &&
                image.Width == before.Width && !image.DynRangeIsValid());
  }
  image.SetWidth(INT32_MAX);
  image.SetHeight(INT32_MAX);
  EXPECT_EQ(image.RecastData(8, false, 32, 255, 0, KelRecastNominal), KelErrNoMemory);
}

}  // namespace
