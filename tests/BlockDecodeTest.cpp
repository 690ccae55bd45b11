// Decoding of bands: blocks of every size, from the window and through the reader, grids, bands
// that end early, and headers out of range.
#include "KelBlockDecode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "DataSource.h"
#include "HostMemory.h"
#include "KernelSets.h"
#include "PlainBlocks.h"

namespace {

using kel::BandEnd;
using kel::SignLayout;
using namespace test;
using Cells = test::BandCells<std::int32_t>;
using BlockDecode = test::LibraryTest;

SignLayout LayoutOf(bool separate) {
  return separate ? SignLayout::kSeparateSigns : SignLayout::kInterleavedSigns;
}

/// Decodes the band that the source stands on into fresh cells.
Cells Decode(DataSource& source, const PlainBand& band, bool separate, kel::BandOutcome& outcome) {
  Cells cells{band.x0, band.x1, band.y0, band.y1};
  outcome = DecodeBandBlocks(
      *source,
      {band.x0, band.x1, band.y0, band.y1, static_cast<std::uint8_t>(band.widthExponent),
       static_cast<std::uint8_t>(band.heightExponent), LayoutOf(separate)},
      cells.First(), cells.Stride());
  return cells;
}

/// Decodes a band into cells of another kind, a row of blocks at a time, and compares them.
template <class Cell>
void ExpectCells(DataSource& source, const PlainBand& band, bool isStrict, float step) {
  test::BandCells<Cell> cells{band.x0, band.x1, band.y0, band.y1};
  kel::BandDecoder decoder;
  decoder.Begin(*source,
                {band.x0, band.x1, band.y0, band.y1, static_cast<std::uint8_t>(band.widthExponent),
                 static_cast<std::uint8_t>(band.heightExponent), SignLayout::kSeparateSigns},
                isStrict, step);
  for (Cell* at = cells.First(); !decoder.IsOver();) {
    at += decoder.DecodeRow(*source, at, cells.Stride()) * cells.Stride();
  }
  EXPECT_EQ(decoder.Outcome().end, BandEnd::kWhole);
  test::BandCells<Cell> expected{band.x0, band.x1, band.y0, band.y1};
  Cells exact = band.Cells<std::int32_t>(band.blocks.size());
  for (int y = band.y0; y < band.y1; ++y) {
    for (int x = band.x0; x < band.x1; ++x) {
      expected.At(x, y) = static_cast<Cell>(static_cast<Cell>(exact.At(x, y)) * Cell(step));
    }
  }
  ASSERT_EQ(cells.cells, expected.cells);
}

// Worked by hand, against an understanding of the code that the plain coder shares: a block that
// has no group (3 x 3, magnitudes 3 0 -1 / 0 0 0 / 2 0 0), and one coefficient of -5 in column 1,
// row 2 of a whole block, with its low bits, in both layouts.
TEST_F(BlockDecode, WorkedByHand) {
  kel::BandOutcome outcome{};
  DataSource source(Hex("0202 698C40 EE"), kel::Flavour::kAB);
  Cells small = Decode(source, {5, 8, 0, 3}, true, outcome);
  EXPECT_EQ(small.At(5, 0), 3);
  EXPECT_EQ(small.At(7, 0), -1);
  EXPECT_EQ(small.At(5, 2), 2);
  EXPECT_EQ(std::count(small.cells.begin(), small.cells.end(), 0), 6);
  EXPECT_EQ(source->ReadByte(), 0xEEU) << "the band ends at the next byte";
  for (const bool separate : {true, false}) {
    Bytes bytes = Hex(separate ? "0303 6900 0000400000000000 80" : "0303 6900 0000600000000000 00");
    bytes.resize(400);
    DataSource data(bytes, kel::Flavour::kAB);
    Cells whole = Decode(data, {8, 16, 8, 16}, separate, outcome);
    EXPECT_EQ(whole.At(9, 10), -5);
    EXPECT_EQ(std::count(whole.cells.begin(), whole.cells.end(), 0), 63);
    EXPECT_EQ(data->GetPosition(), 13);
  }
}

// A resolution of one sample has bands without any, whose blocks the header may call as large as it
// likes.
TEST_F(BlockDecode, ABandWithoutSamplesIsItsHeader) {
  DataSource source(Hex("0909 EE"), kel::Flavour::kAB);
  const kel::BandOutcome outcome =
      DecodeBandBlocks(*source, {0, 1, 0, 0, 6, 6, SignLayout::kSeparateSigns}, nullptr, 16);
  EXPECT_EQ(outcome.end, BandEnd::kWhole);
  EXPECT_EQ(source->ReadByte(), 0xEEU);
}

// Edge columns and rows in the wrong order, a source of bits that differs from the other, wide
// fields, N of 31 and 32, signs behind the wrong coefficient.
TEST_F(BlockDecode, EverySizeOfBlockFromWindowAndReader) {
  std::mt19937 random(1);
  for (int w = 1; w <= 8; ++w) {
    for (int h = 1; h <= 8; ++h) {
      for (int i = 0; i <= 8 * 32; ++i) {
        const int n = i / 8;
        const bool separate = i % 2 != 0, window = i % 4 >= 2, wide = i % 8 >= 4;
        PlainBand band{16 - w, 16, 8, 8 + h};
        band.Fill(random, n, n);
        Bytes bytes = band.Code(wide ? 0 : n, wide ? 32 : n, separate);
        const auto length = static_cast<std::int64_t>(bytes.size());
        if (window) bytes.resize(bytes.size() + 400, 0xA5);
        DataSource source(bytes, kel::Flavour::kAB);
        kel::BandOutcome outcome{};
        const Cells decoded = Decode(source, band, separate, outcome);
        EXPECT_EQ(outcome.end, BandEnd::kWhole);
        EXPECT_EQ(outcome.anyNonZero, n != 0);
        EXPECT_EQ(source->GetPosition(), length);
        EXPECT_EQ(source->UnreadBits(), 0);
        ASSERT_EQ(decoded.cells, band.Cells<std::int32_t>(1).cells)
            << w << " x " << h << ", " << n << " planes, variant " << i % 8;
      }
    }
  }
}

// A grid anchored at the rectangle instead of at 0, a window that loses or repeats bits where it
// slides, whole blocks that run on into the next row; in kernels wrong places of bits, lost signs,
// a cursor that is off by a bit, stores outside the block.
TEST_F(BlockDecode, GridsAndWindows) {
  std::mt19937 random(2);
  const auto below = [&](unsigned n) { return static_cast<int>(random() % n); };
  // 0 is a block of memory; 286 bytes are just enough to decode from the window.
  constexpr std::pair<std::uint32_t, KelLong> kWindows[] = {
      {0, 1}, {1, 1}, {100, 100}, {286, 77}, {1000, 1000}};
  test::WithEverySet([&](const kel::KernelTable&) {
    for (const auto& [capacity, mostPerRead] : kWindows) {
      for (int round = 0; round < 40; ++round) {
        const int x = below(12), y = below(12), most = below(33);
        PlainBand band{x, x + 1 + below(60), y, y + 1 + below(30)};
        if (round % 2 != 0) band.widthExponent = below(4);
        if (round % 4 == 1) band.heightExponent = below(4);
        const bool separate = round % 3 != 0;
        band.Fill(random, most / 2, most);
        Bytes bytes = band.Code(most / 2, most, separate);
        const auto length = static_cast<std::int64_t>(bytes.size());
        bytes.resize(bytes.size() + random() % 500, 0xA5);
        DataSource source(bytes, kel::Flavour::kAB,
                          Delivery{capacity == 0, round % 2 == 0, capacity, mostPerRead});
        kel::BandOutcome outcome{};
        ASSERT_EQ(Decode(source, band, separate, outcome).cells,
                  band.Cells<std::int32_t>(band.blocks.size()).cells)
            << "round " << round << ", window of " << capacity;
        EXPECT_EQ(outcome.end, BandEnd::kWhole);
        EXPECT_EQ(source->GetPosition(), length);
      }
    }
  });
}

// Cells of 16 bits and dequantised ones: lost bits of coefficients of many planes, a step not
// applied to edge blocks or to those that no vector kernel takes, stores outside the block.
TEST_F(BlockDecode, OtherKindsOfCells) {
  std::mt19937 random(5);
  test::WithEverySet([&](const kel::KernelTable&) {
    for (int round = 0; round < 66; ++round) {
      const int most = round % 33, x = round % 9;
      PlainBand band{x, x + 9 + round % 30, round % 5, 20};
      band.Fill(random, most / 2, most);
      Bytes bytes = band.Code(most / 2, most, true);
      if (round < 33) bytes.resize(bytes.size() + 500, 0xA5);
      DataSource floats(bytes, kel::Flavour::kAB), shorts(bytes, kel::Flavour::kAB);
      ExpectCells<float>(floats, band, true, 0.3F);
      if (most <= 15) ExpectCells<std::int16_t>(shorts, band, true, 1.0F);
    }
  });
}

// A block of more planes than the header says, which the sums of 16 bits would not hold.
TEST_F(BlockDecode, StrictBandsKeepTheirHeader) {
  for (const std::size_t behind : {0U, 400U}) {
    Bytes bytes = Hex("0002 C0");  // a field of 2 bits: 3 planes
    bytes.resize(bytes.size() + behind);
    DataSource source(bytes, kel::Flavour::kAB);
    std::vector<std::int16_t> cells(64);
    kel::BandDecoder decoder;
    decoder.Begin(*source, {0, 8, 0, 8, 3, 3, SignLayout::kSeparateSigns}, true, 1.0F);
    decoder.DecodeRow(*source, cells.data(), 8);
    EXPECT_EQ(decoder.Outcome().end, BandEnd::kOutOfRange);
  }
}

// Filler from behind the end of the data taken for coefficients, at any cut: in small blocks and
// zero ones, and in the largest blocks that there are.
TEST_F(BlockDecode, BandCutOffAtEveryByte) {
  std::mt19937 random(3);
  for (int variant = 0; variant < 4; ++variant) {
    const bool separate = variant % 2 != 0, largest = variant >= 2;
    PlainBand band = largest ? PlainBand{0, 32, 0, 8} : PlainBand{3, 37, 2, 21};
    band.Fill(random, largest ? 32 : 0, largest ? 32 : 12);
    const Bytes bytes = band.Code(largest ? 32 : 0, largest ? 32 : 12, separate);
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
      DataSource source(Bytes(bytes.begin(), bytes.begin() + static_cast<int>(cut)),
                        kel::Flavour::kAB);
      PlainBand expected = band;
      std::size_t reached = 0;
      while (reached < band.blocks.size() && band.blocks[reached].endBits <= 8 * cut) ++reached;
      if (cut >= 2 && reached < band.blocks.size()) {
        auto& magnitudes = expected.blocks[reached++].block.magnitudes;
        std::fill(magnitudes.begin(), magnitudes.end(), 0);
      }
      kel::BandOutcome outcome{};
      ASSERT_EQ(Decode(source, band, separate, outcome).cells,
                expected.Cells<std::int32_t>(reached).cells)
          << "variant " << variant << ", cut at " << cut;
      EXPECT_EQ(outcome.end, cut < bytes.size() ? BandEnd::kCutOff : BandEnd::kWhole);
    }
  }
}

// Shifts by more than 32 or by less than 0 planes; a header of a band without blocks refused.
TEST_F(BlockDecode, HeadersOutOfRange) {
  const auto expectEnd = [](const PlainBand& band, Bytes bytes, std::size_t filled, BandEnd end) {
    bytes.resize(filled, 0xFF);
    DataSource source(bytes, kel::Flavour::kAB);
    kel::BandOutcome outcome{};
    EXPECT_EQ(Decode(source, band, true, outcome).cells, band.Cells<std::int32_t>(0).cells);
    EXPECT_EQ(outcome.end, end) << "header " << int{bytes[0]} << ", " << int{bytes[1]};
  };
  for (const char* header : {"8000", "FF05", "0021", "007F", "0504", "7F00", "2121", "0080"}) {
    expectEnd({0, 8, 0, 8}, Hex(header), 400, BandEnd::kOutOfRange);
    expectEnd({0, 0, 0, 8}, Hex(header), 2, BandEnd::kWhole);
  }
  // A field of 3 bits, all ones: 26 + 7 planes, from the reader and from the window.
  expectEnd({0, 16, 0, 16}, Hex("1A20"), 20, BandEnd::kOutOfRange);
  expectEnd({0, 16, 0, 16}, Hex("1A20"), 400, BandEnd::kOutOfRange);
}

}  // namespace
