// Encoding of tile-components: bytes against the code written down plainly, size tables and
// rates.
#include "KelBlockEncode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <vector>

#include "HostMemory.h"
#include "KernelSets.h"
#include "PlainBlocks.h"

namespace {

using kel::CodedTileComponent;
using kel::EncodeBand;
using namespace test;
using BlockEncode = test::LibraryTest;

/// A tile-component's result, released at scope end.
struct Coded : CodedTileComponent {
  Coded() : CodedTileComponent{} {}
  template <class Cell>
  explicit Coded(std::vector<BandCells<Cell>>& bands, bool keepRates = false) : Coded() {
    Code(bands, keepRates);
  }
  ~Coded() { ReleaseCodedTileComponent(*this); }
  Coded(const Coded&) = delete;
  Coded& operator=(const Coded&) = delete;
  ::test::Bytes Copy() const { return {Bytes(), Bytes() + numBytes}; }

  /// Codes with the planes counted as rows come, over what was coded before.
  template <class Cell>
  void Code(std::vector<BandCells<Cell>>& bands, bool keepRates) {
    std::vector<EncodeBand> records;
    std::vector<::test::Bytes> planeCounts;
    for (BandCells<Cell>& b : bands) {
      records.push_back(
          {b.x0, b.x1, b.y0, b.y1, b.First(), b.Stride(), sizeof(Cell) == 2, nullptr});
      planeCounts.emplace_back(CountBlocksOf(records.back()));
      records.back().planeCounts = planeCounts.back().data();
      for (int y = b.y0; y < b.y1; ++y) {
        if (EndsBlocks(records.back(), y)) CountPlanesAbove(records.back(), y);
      }
    }
    const auto levels = static_cast<std::int32_t>(bands.size() / 3);
    sizes.resize(kel::CountSizes(levels));
    PlaceSizes(levels, sizes.data(), *this);
    EncodeTileComponent(records.data(), keepRates, false, *this);
  }

  std::vector<std::uint32_t> sizes{};
};

/// Encodes 3 levels + 1 bands of random places and sizes.
template <class Cell>
void ExpectTileComponent(int seed, int mostPlanes) {
  const int numLevels = seed % 4;
  std::mt19937 random(static_cast<unsigned>(seed));
  const auto below = [&](unsigned n) { return static_cast<int>(random() % n); };
  std::vector<BandCells<Cell>> bands;
  std::vector<std::size_t> sizes;
  Bytes expected;
  for (int b = 0; b <= 3 * numLevels; ++b) {
    const int x = below(20), y = below(20);
    PlainBand band{x, x + below(40), y, y + below(40)};
    band.Fill(random, 0, mostPlanes);
    int least = 127, most = 0;
    for (const PlainBand::Placed& placed : band.blocks) {
      least = std::min(least, placed.block.Planes());
      most = std::max(most, placed.block.Planes());
    }
    const Bytes one = band.Code(least, most, true);
    sizes.push_back(one.size());
    expected.insert(expected.end(), one.begin(), one.end());
    bands.push_back(band.Cells<Cell>(band.blocks.size()));
  }
  const Coded coded(bands);
  ASSERT_EQ(coded.Copy(), expected) << "seed " << seed;
  for (std::size_t r = 0; r <= static_cast<std::size_t>(numLevels); ++r) {
    std::size_t bytes = 0;
    for (std::size_t b = r == 0 ? 0 : 3 * r - 2; b <= 3 * r; ++b) {
      EXPECT_EQ(coded.bandSize[b], sizes[b]);
      bytes += sizes[b];
    }
    EXPECT_EQ(coded.resSize[r], bytes);
  }
}

// Blocks cut at the wrong lines, edges in the wrong order, bands or sizes mixed
// up, cells beside the band encoded.
TEST_F(BlockEncode, TileComponentsAgainstThePlainCode) {
  test::WithEverySet([](const kel::KernelTable&) {
    for (int i = 0; i < 40; ++i) {
      ExpectTileComponent<std::int32_t>(i, i % 32);
      ExpectTileComponent<std::int16_t>(i, i % 16);
    }
  });
}

/// The bytes of a single band whose cells all have one value.
template <class Cell>
Bytes CodeUniform(BandCells<Cell> cells, Cell value) {
  std::fill(cells.cells.begin(), cells.cells.end(), value);
  std::vector<BandCells<Cell>> bands = {cells};
  const Coded coded(bands);
  if (value > 1) {
    EXPECT_EQ(coded.room.numBytes, coded.numBytes + kel::kStoreSlackBytes);
  }
  return coded.Copy();
}

// Two header bytes forgotten in a size, padding of ones, a band without blocks that writes none,
// room for more or less than the longest code.
TEST_F(BlockEncode, UniformBandsExactly) {
  EXPECT_EQ(CodeUniform<std::int32_t>({0, 72, 0, 8}, 0), Hex("0000 0000"))
      << "nine zero blocks of a bit each";
  EXPECT_EQ(CodeUniform<std::int16_t>({4, 4, 0, 9}, 0), Hex("7F00"));
  EXPECT_EQ(CodeUniform<std::int16_t>({3, 4, 5, 6}, -1), Hex("0101 70"))
      << "field 0, flag, bit, sign";
  EXPECT_EQ(CodeUniform<std::int32_t>({0, 16, 0, 16}, 7).size(), 2U + 4 * (1 + 160 + 128) / 8 + 1);
}

// Records that miss the header of the first band, count pending bits, or differ without the table.
TEST_F(BlockEncode, RatesOfBlocks) {
  std::mt19937 random(7);
  std::vector<BandCells<std::int32_t>> bands;
  for (PlainBand band : {PlainBand{0, 8, 0, 8}, {0, 24, 0, 9}, {0, 0, 0, 8}, {5, 9, 0, 8}}) {
    band.Fill(random, 9, 9);
    bands.push_back(band.Cells<std::int32_t>(band.blocks.size()));
  }
  for (int i = 0; i < 64; ++i) bands[1].At(8 + i % 8, i / 8) = 0;
  const Coded without(bands);
  const Coded coded(bands, true);
  EXPECT_EQ(coded.Copy(), without.Copy());
  ASSERT_EQ(coded.rates.count, 9U) << "1 + 3 x 2 + 0 + 2 blocks";
  for (const CodedTileComponent* one :
       std::initializer_list<const CodedTileComponent*>{&coded, &without}) {
    EXPECT_EQ(one->firstRecord[0], 0U);
    EXPECT_EQ(one->firstRecord[1], 1U);
    EXPECT_EQ(one->firstRecord[2], 9U);
  }
  EXPECT_EQ(coded.rates.records[0].planeCount, 9);
  EXPECT_GE(coded.rates.records[0].length + 1U, coded.bandSize[0])
      << "but for pending bits, the first record is the whole first band";
  EXPECT_EQ(coded.rates.records[2].planeCount, 0);
  EXPECT_EQ(coded.rates.records[2].length, 0);
}

// A block lost when memory runs out half-way; what was coded before in the same room showing
// through; room made anew for every tile.
TEST_F(BlockEncode, RoomIsKeptAndRefusalsGiveEverythingBack) {
  std::mt19937 random(8);
  std::vector<BandCells<std::int16_t>> small, large;
  for (PlainBand band : {PlainBand{0, 30, 0, 30}, {0, 3, 0, 9}, {0, 9, 0, 8}, {5, 9, 0, 8}}) {
    band.Fill(random, 0, 2);
    small.push_back(band.Cells<std::int16_t>(band.blocks.size()));
    band.blocks.clear();
    band.Fill(random, 3, 6);
    large.push_back(band.Cells<std::int16_t>(band.blocks.size()));
  }
  const Bytes expected = Coded(small).Copy();
  Coded coded(large);
  const std::uint64_t requests = memory.Requests();
  coded.Code(small, false);
  EXPECT_EQ(coded.Copy(), expected);
  EXPECT_EQ(memory.Requests(), requests);
  const auto runs = test::SweepRefusals(memory, [&] {
    Coded both(small, true);
    both.Code(large, true);
    return KelOK;
  });
  EXPECT_GE(runs, 5U);
}

}  // namespace
