// What kernels of whole blocks, every set of them, must not take and how they convert. Their code
// is compared in BlockDecodeTest and BlockEncodeTest.
#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "BitAssembler.h"
#include "KernelSets.h"

namespace {

using kel::BlockSink;
using kel::BlocksKernels;
using kel::BlockSource;
using namespace test;

constexpr std::int32_t kGuard = 0x5A5A5A5A;

// A run that goes on past what it may read, or decodes a plane count that no block can have.
TEST(BlocksKernels, DecodingStopsInFrontOfWhatItMayNotTake) {
  WithEverySet([](const kel::KernelTable& table) {
    for (const auto decode :
         {table.blocks.decodeSeparateSigns, table.blocks.decodeInterleavedSigns}) {
      const Bytes bytes(400, 0x00);
      std::vector<std::int32_t> cells(8 * 64, kGuard);
      BlockSource source{bytes.data(), 5, 11, 3, 0, 0};
      EXPECT_EQ(decode(source, cells.data(), 64, 8), 3U) << "those at bits 5, 8 and 11";
      EXPECT_EQ(source.bitPosition, 14U);
      EXPECT_EQ(cells[24], kGuard);
      const Bytes ones(400, 0xFF);
      source = {ones.data(), 0, 100, 3, 26, 0};
      EXPECT_EQ(decode(source, cells.data(), 64, 8), 0U) << "7 above 26 is 33";
      EXPECT_EQ(source.bitPosition, 0U);
      EXPECT_EQ(source.planesSeen, 0U);
    }
  });
}

template <class Cell>
void ExpectValues(const BlocksKernels& kernels,
                  const std::vector<std::pair<Cell, std::int32_t>>& values, std::uint8_t planes) {
  const auto [encode, countPlanes] = [&] {
    if constexpr (std::is_same_v<Cell, float>) {
      return std::pair(kernels.encodeFloats, kernels.countPlanesOfFloats);
    } else {
      return std::pair(kernels.encodeIntegers, kernels.countPlanesOfIntegers);
    }
  }();
  std::vector<Cell> cells(64);
  for (std::size_t i = 0; i < values.size(); ++i) cells[i] = values[i].first;
  for (const std::size_t rows : {1, 2, 3, 7, 8}) {
    std::uint8_t count = 0;
    countPlanes(cells.data(), 8, rows, 1, &count);
    EXPECT_EQ(count, planes) << rows << " rows";
  }
  Bytes bytes(400);
  BlockSink sink{bytes.data(), 0, 0, 6, 0};
  encode(cells.data(), 8, &planes, 1, sink);
  *sink.next = static_cast<std::uint8_t>(sink.pending >> 56);
  BlockSource source{bytes.data(), 0, 0, 6, 0, 0};
  std::vector<std::int32_t> decoded(64, kGuard);
  EXPECT_EQ(kernels.decodeSeparateSigns(source, decoded.data(), 8, 1), 1U);
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_EQ(decoded[i], values[i].second) << values[i].first;
  }
}

// Halves rounded away from zero, a minus sign on zero, values beyond 31 bits that wrap around.
TEST(BlocksKernels, ConversionOfCoefficients) {
  constexpr std::int32_t kMost = std::numeric_limits<std::int32_t>::max();
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
  const std::vector<std::pair<float, std::int32_t>> small = {{0.5F, 0},   {-0.5F, 0},     {1.5F, 2},
                                                             {-2.5F, -2}, {-0.0F, 0},     {kNaN, 0},
                                                             {-kNaN, 0},  {3.4999998F, 3}};
  const std::vector<std::pair<float, std::int32_t>> large = {
      {kInfinity, kMost},          {-kInfinity, -kMost},
      {2147483648.0F, kMost},      {-2147483648.0F, -kMost},
      {2147483520.0F, 2147483520}, {kNaN, 0},
      {-8388609.0F, -8388609},     {1e-30F, 0}};
  WithEverySet([&](const kel::KernelTable& table) {
    ExpectValues<std::int32_t>(table.blocks,
                               {{-kMost - 1, -kMost}, {kMost, kMost}, {-1, -1}, {0, 0}}, 31);
    ExpectValues<float>(table.blocks, small, 2);
    ExpectValues<float>(table.blocks, large, 31);
  });
}

}  // namespace
