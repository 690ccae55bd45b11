// What kernels of whole blocks, every set of them, must not take, and extreme values. Their code is
// compared in BlockDecodeTest and BlockEncodeTest.
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
void ExpectValues(BlocksKernels::Encode<Cell>* encode,
                  BlocksKernels::CountPlanes<Cell>* countPlanes, const BlocksKernels& kernels,
                  const std::vector<std::pair<Cell, std::int32_t>>& values, std::uint8_t planes) {
  // Two blocks, the values in the second.
  std::vector<Cell> cells(128);
  for (std::size_t i = 0; i < values.size(); ++i) cells[8 + i % 8 + i / 8 * 16] = values[i].first;
  for (const std::size_t rows : {1, 2, 3, 7, 8}) {
    std::uint8_t counts[2] = {9, 9};
    countPlanes(cells.data(), 16, rows, 2, counts);
    EXPECT_EQ(counts[0], 0) << rows << " rows";
    EXPECT_EQ(counts[1], planes) << rows << " rows";
    countPlanes(cells.data() + 8, 16, rows, 1, counts);
    EXPECT_EQ(counts[0], planes) << rows << " rows";
  }
  Bytes bytes(400);
  BlockSink sink{bytes.data(), 0, 0, 6, 0};
  encode(cells.data() + 8, 16, &planes, 1, sink);
  *sink.next = static_cast<std::uint8_t>(sink.pending >> 56);
  BlockSource source{bytes.data(), 0, 0, 6, 0, 0};
  std::vector<std::int32_t> decoded(64, kGuard);
  EXPECT_EQ(kernels.decodeSeparateSigns(source, decoded.data(), 8, 1), 1U);
  for (std::size_t i = 0; i < values.size(); ++i) {
    EXPECT_EQ(decoded[i], values[i].second) << values[i].first;
  }
}

// A minus sign on zero, values that wrap around at the ends of the range, a neighbour's magnitudes.
TEST(BlocksKernels, ExtremesOfCoefficients) {
  constexpr std::int32_t kMost = std::numeric_limits<std::int32_t>::max();
  WithEverySet([&](const kel::KernelTable& table) {
    const BlocksKernels& kernels = table.blocks;
    ExpectValues<std::int32_t>(kernels.encodeIntegers, kernels.countPlanesOfIntegers, kernels,
                               {{-kMost - 1, -kMost}, {kMost, kMost}, {-1, -1}, {0, 0}}, 31);
    ExpectValues<std::int16_t>(kernels.encodeShorts, kernels.countPlanesOfShorts, kernels,
                               {{0, 0}, {-32767, -32767}, {32767, 32767}, {-1, -1}}, 15);
    ExpectValues<std::int16_t>(kernels.encodeShorts, kernels.countPlanesOfShorts, kernels,
                               {{1, 1}, {-1, -1}, {0, 0}}, 1);
  });
}

}  // namespace
