// Kernels of whole blocks, every set of them, against the block code written down plainly.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <span>
#include <vector>

#include "PlainBlocks.h"
#include "kernels/KelKernels.h"

namespace {

using kel::BlockSink;
using kel::BlocksKernels;
using kel::BlockSource;
using test::BitAssembler;
using test::Bytes;
using test::PlainBlock;

constexpr std::int32_t kGuard = 0x5A5A5A5A;

/// Runs a check with the block kernels of each set that the machine has.
template <class Check>
void WithEverySet(Check check) {
  for (const kel::KernelSet set : kel::kAllKernelSets) {
    kel::KernelTable table;
    if (!kel::FillKernelTable(set, table)) continue;
    SCOPED_TRACE(kel::KernelSetName(set));
    check(table.blocks);
    if (testing::Test::HasFailure()) return;
  }
}

/// Blocks of 8 x 8 with exactly n planes: full of ones, one coefficient only in each corner, and
/// random ones of rising density, to which every column pattern belongs.
std::vector<PlainBlock> BlocksOf(int n) {
  std::mt19937 random(static_cast<unsigned>(n));
  std::vector<PlainBlock> blocks(40, PlainBlock(8, 8));
  if (n == 0) return blocks;
  const std::uint32_t most = 0xFFFFFFFFU >> (32 - n);
  constexpr std::array<std::size_t, 4> kCorners = {0, 7, 56, 63};
  for (std::size_t k = 0; k < blocks.size(); ++k) {
    for (std::size_t i = 0; i < 64; ++i) {
      const bool only = i == kCorners[k % 4];
      std::uint32_t magnitude = k < 4 ? only * most : most;
      if (k >= 8) {
        magnitude = random() & most;
        for (std::size_t fewer = k / 8; fewer < 5; ++fewer) magnitude &= random();
      }
      blocks[k].magnitudes[i] = magnitude;
      blocks[k].negative[i] = k % 3 == 0 || (k % 3 == 1 && random() % 2 != 0);
    }
    blocks[k].magnitudes[k < 4 ? kCorners[k] : k] |= 1U << (n - 1);
  }
  return blocks;
}

/// A row of blocks as cells, with guards around it.
struct Cells {
  explicit Cells(std::size_t blocks)
      : stride(8 * blocks + 3), cells(stride * 10, kGuard), first(stride + 2) {}
  std::size_t stride;
  std::vector<std::int32_t> cells;
  std::size_t first;
  std::int32_t& At(std::size_t block, std::size_t i) {
    return cells[first + 8 * block + i / 8 * stride + i % 8];
  }
};

// Wrong places of bits, lost signs, a cursor that is off by a bit, stores outside the block.
TEST(BlocksKernels, DecodeWhatIsWrittenPlainly) {
  WithEverySet([](const BlocksKernels& kernels) {
    for (int n = 0; n <= 32; ++n) {
      const std::vector<PlainBlock> blocks = BlocksOf(n);
      for (const bool separate : {true, false}) {
        for (const auto& [minPlanes, maxPlanes] : {std::pair{n, n}, {0, 32}}) {
          BitAssembler code;
          code.Bits(0, n % 8);
          for (const PlainBlock& block : blocks) {
            PutPlainBlock(code, block, n, minPlanes, maxPlanes, separate);
          }
          Bytes bytes = code.Result();
          bytes.resize(bytes.size() + kel::kLoadSlackBytes, 0xFF);
          Cells cells(blocks.size());
          BlockSource source{};
          source.window = bytes.data();
          source.bitPosition = static_cast<unsigned>(n % 8);
          source.lastStart = 8 * bytes.size();
          source.fieldBits = static_cast<unsigned>(test::PlainFieldBits(minPlanes, maxPlanes));
          source.minPlanes = static_cast<unsigned>(minPlanes);
          const auto decode =
              separate ? kernels.decodeSeparateSigns : kernels.decodeInterleavedSigns;
          ASSERT_EQ(decode(source, &cells.At(0, 0), static_cast<std::ptrdiff_t>(cells.stride),
                           blocks.size()),
                    blocks.size());
          EXPECT_EQ(source.planesSeen, static_cast<unsigned>(n));
          EXPECT_EQ((source.bitPosition + 7) / 8, code.Result().size());
          for (std::size_t k = 0; k < blocks.size(); ++k) {
            for (std::size_t i = 0; i < 64; ++i) {
              ASSERT_EQ(std::exchange(cells.At(k, i), kGuard), blocks[k].Value(i))
                  << n << " planes, block " << k << ", coefficient " << i;
            }
          }
          EXPECT_EQ(cells.cells, std::vector<std::int32_t>(cells.cells.size(), kGuard));
        }
      }
    }
  });
}

// A run that goes on past what it may read, or decodes a plane count that no block can have.
TEST(BlocksKernels, DecodingStopsInFrontOfWhatItMayNotTake) {
  WithEverySet([](const BlocksKernels& kernels) {
    for (const auto decode : {kernels.decodeSeparateSigns, kernels.decodeInterleavedSigns}) {
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
void ExpectEncoded(BlocksKernels::Encode<Cell>* encode,
                   BlocksKernels::CountPlanes<Cell>* countPlanes, int n) {
  const std::vector<PlainBlock> blocks = BlocksOf(n);
  BitAssembler expected;
  expected.Bits(0x55, n % 8);
  std::vector<Cell> cells(blocks.size() * 64, Cell(-1));
  const auto stride = static_cast<std::ptrdiff_t>(8 * blocks.size());
  for (std::size_t k = 0; k < blocks.size(); ++k) {
    for (std::size_t i = 0; i < 64; ++i) {
      cells[8 * k + i / 8 * 8 * blocks.size() + i % 8] = static_cast<Cell>(blocks[k].Value(i));
    }
    PutPlainBlock(expected, blocks[k], n, 0, 32, true);
  }
  std::vector<std::uint8_t> planeCounts(blocks.size() + 1, 99);
  countPlanes(cells.data(), stride, 8, blocks.size(), planeCounts.data());
  EXPECT_EQ(planeCounts.back(), 99);
  planeCounts.pop_back();
  EXPECT_EQ(planeCounts, std::vector<std::uint8_t>(blocks.size(), static_cast<std::uint8_t>(n)));
  Bytes bytes(expected.Result().size() + kel::kStoreSlackBytes + 1, 0xCC);
  const auto numPending = static_cast<unsigned>(n % 8);
  BlockSink sink{bytes.data(), std::uint64_t{0x55} << 1 << (63 - numPending), numPending, 6, 0};
  encode(cells.data(), stride, planeCounts.data(), blocks.size(), sink);
  EXPECT_EQ(bytes.back(), 0xCC) << "stored too far";
  *sink.next = static_cast<std::uint8_t>(sink.pending >> 56);
  bytes.resize(static_cast<std::size_t>(sink.next - bytes.data()) + (sink.numPending > 0));
  EXPECT_EQ(bytes, expected.Result()) << n << " planes";
}

// Wrong order of columns or planes, lost bits between puts, floats and integers treated unlike.
TEST(BlocksKernels, EncodeWhatIsWrittenPlainly) {
  WithEverySet([](const BlocksKernels& kernels) {
    for (int n = 0; n <= 31; ++n) {
      ExpectEncoded(kernels.encodeIntegers, kernels.countPlanesOfIntegers, n);
      // Floats hold every magnitude of up to 24 bits.
      if (n <= 24) ExpectEncoded(kernels.encodeFloats, kernels.countPlanesOfFloats, n);
    }
  });
}

template <class Cell>
void ExpectValues(const BlocksKernels& kernels, BlocksKernels::Encode<Cell>* encode,
                  BlocksKernels::CountPlanes<Cell>* countPlanes,
                  std::vector<std::pair<Cell, std::int32_t>> values, std::uint8_t planes) {
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
  WithEverySet([&](const BlocksKernels& kernels) {
    ExpectValues<std::int32_t>(kernels, kernels.encodeIntegers, kernels.countPlanesOfIntegers,
                               {{-kMost - 1, -kMost}, {kMost, kMost}, {-1, -1}, {0, 0}}, 31);
    ExpectValues<float>(kernels, kernels.encodeFloats, kernels.countPlanesOfFloats,
                        {{0.5F, 0},
                         {-0.5F, 0},
                         {1.5F, 2},
                         {-2.5F, -2},
                         {-0.0F, 0},
                         {kNaN, 0},
                         {-kNaN, 0},
                         {3.4999998F, 3}},
                        2);
    ExpectValues<float>(kernels, kernels.encodeFloats, kernels.countPlanesOfFloats,
                        {{kInfinity, kMost},
                         {-kInfinity, -kMost},
                         {2147483648.0F, kMost},
                         {-2147483648.0F, -kMost},
                         {2147483520.0F, 2147483520},
                         {kNaN, 0},
                         {-8388609.0F, -8388609},
                         {1e-30F, 0}},
                        31);
  });
}

}  // namespace
