// Decoding of bands: blocks of every size, from the window and through the reader, grids, bands
// that end early, and headers out of range.
#include "KelBlockDecode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "DataSource.h"
#include "HostMemory.h"
#include "KelBlockGrid.h"
#include "PlainBlocks.h"

namespace {

using kel::BandBlocks;
using kel::BandEnd;
using kel::SignLayout;
using test::BitAssembler;
using test::Bytes;
using test::DataSource;
using test::Delivery;
using test::Hex;
using test::HostMemory;
using test::PlainBlock;

constexpr std::int32_t kGuard = 0x5A5A5A5A;

/// A band's rectangle, exponents, and cells with guards around them.
struct Band {
  std::int32_t x0, x1, y0, y1;
  int widthExponent = 3, heightExponent = 3;
  std::vector<std::int32_t> cells = std::vector<std::int32_t>(Stride() * (Height() + 2), kGuard);

  std::size_t Width() const { return static_cast<std::size_t>(x1 - x0); }
  std::size_t Height() const { return static_cast<std::size_t>(y1 - y0); }
  std::size_t Stride() const { return Width() + 3; }
  std::int32_t& At(std::int64_t x, std::int64_t y) {
    return cells[static_cast<std::size_t>(y - y0 + 1) * Stride() +
                 static_cast<std::size_t>(x - x0 + 1)];
  }
  BandBlocks Record() {
    return {x0,
            x1,
            y0,
            y1,
            static_cast<std::uint8_t>(widthExponent),
            static_cast<std::uint8_t>(heightExponent),
            &At(x0, y0),
            static_cast<std::ptrdiff_t>(Stride())};
  }
};

/// A block of random magnitudes with exactly n planes, some zero.
PlainBlock RandomBlock(std::mt19937& random, int w, int h, int n) {
  PlainBlock block(w, h);
  if (n == 0) return block;
  const unsigned rarity = random() % 4;
  for (std::size_t i = 0; i < block.magnitudes.size(); ++i) {
    if (random() % (rarity + 1) == 0) block.magnitudes[i] = random() & 0xFFFFFFFFU >> (32 - n);
    block.negative[i] = random() % 2 != 0;
  }
  block.magnitudes[random() % block.magnitudes.size()] |= 1U << (n - 1);
  return block;
}

/// A coded band, and for each block its place, its coefficients and the bits up to its end.
struct CodedBand {
  struct Placed {
    std::int64_t x, y;
    PlainBlock block;
    std::size_t endBits;
  };
  Bytes bytes;
  std::vector<Placed> blocks;
};

CodedBand CodeRandomBand(std::mt19937& random, const Band& band, int minPlanes, int maxPlanes,
                         bool separate) {
  CodedBand coded;
  BitAssembler out;
  out.U8(static_cast<unsigned>(minPlanes)).U8(static_cast<unsigned>(maxPlanes));
  std::size_t bits = 16;
  const int blockWidth = 1 << band.widthExponent, blockHeight = 1 << band.heightExponent;
  for (int y = band.y0 / blockHeight * blockHeight; y < band.y1; y += blockHeight) {
    for (int x = band.x0 / blockWidth * blockWidth; x < band.x1; x += blockWidth) {
      const int left = std::max(x, band.x0), top = std::max(y, band.y0);
      const PlainBlock block = RandomBlock(
          random, std::min(x + blockWidth, band.x1) - left,
          std::min(y + blockHeight, band.y1) - top,
          minPlanes +
              static_cast<int>(random() % static_cast<unsigned>(maxPlanes - minPlanes + 1)));
      const int n = std::max(block.Planes(), minPlanes);
      BitAssembler alone;
      PutPlainBlock(alone, block, n, minPlanes, maxPlanes, separate);
      test::PlainBits length{alone.Result()};
      TakePlainBlock(length, block.width, block.height, minPlanes, maxPlanes, separate);
      PutPlainBlock(out, block, n, minPlanes, maxPlanes, separate);
      coded.blocks.push_back({left, top, block, bits += length.position});
    }
  }
  coded.bytes = out.Result();
  return coded;
}

/// Expects the first `count` blocks in the band's cells, and nothing else there or around.
void ExpectBlocks(Band band, const CodedBand& coded, std::size_t count) {
  for (std::size_t k = 0; k < count; ++k) {
    const auto& [left, top, block, end] = coded.blocks[k];
    for (std::size_t i = 0; i < block.magnitudes.size(); ++i) {
      const auto w = static_cast<std::size_t>(block.width);
      std::int32_t& cell =
          band.At(left + static_cast<std::int64_t>(i % w), top + static_cast<std::int64_t>(i / w));
      ASSERT_EQ(std::exchange(cell, kGuard), block.Value(i)) << "block " << k << " place " << i;
    }
  }
  EXPECT_EQ(std::count(band.cells.begin(), band.cells.end(), kGuard),
            static_cast<std::ptrdiff_t>(band.cells.size()));
}

SignLayout LayoutOf(bool separate) {
  return separate ? SignLayout::kSeparateSigns : SignLayout::kInterleavedSigns;
}

// Worked by hand, against an understanding of the code that the plain coder shares: a block that
// has no group (3 x 3, magnitudes 3 0 -1 / 0 0 0 / 2 0 0), and one coefficient of -5 in column 1,
// row 2 of a whole block, with its low bits, in both layouts.
TEST(BlockDecode, WorkedByHand) {
  HostMemory memory;
  Band small{5, 8, 0, 3};
  DataSource source(Hex("0202 698C40 EE"), kel::Flavour::kAB);
  EXPECT_EQ(DecodeBandBlocks(*source, small.Record(), SignLayout::kSeparateSigns).end,
            BandEnd::kWhole);
  EXPECT_EQ(small.At(5, 0), 3);
  EXPECT_EQ(small.At(7, 0), -1);
  EXPECT_EQ(small.At(5, 2), 2);
  EXPECT_EQ(std::count(small.cells.begin(), small.cells.end(), 0), 6);
  EXPECT_EQ(source->ReadByte(), 0xEEU) << "the band ends at the next byte";
  for (const bool separate : {true, false}) {
    Band whole{8, 16, 8, 16};
    Bytes bytes = Hex(separate ? "0303 6900 0000400000000000 80" : "0303 6900 0000600000000000 00");
    bytes.resize(400);
    DataSource data(bytes, kel::Flavour::kAB);
    EXPECT_TRUE(DecodeBandBlocks(*data, whole.Record(), LayoutOf(separate)).anyNonZero);
    EXPECT_EQ(whole.At(9, 10), -5);
    EXPECT_EQ(std::count(whole.cells.begin(), whole.cells.end(), 0), 63);
    EXPECT_EQ(data->GetPosition(), 13);
  }
}

// Edge columns and rows in the wrong order, a source of bits that differs from the other, wide
// fields, N of 31 and 32, signs behind the wrong coefficient.
TEST(BlockDecode, EverySizeOfBlockFromWindowAndReader) {
  HostMemory memory;
  std::mt19937 random(1);
  for (int w = 1; w <= 8; ++w) {
    for (int h = 1; h <= 8; ++h) {
      for (int n = 0; n <= 32; ++n) {
        for (int variant = 0; variant < 8; ++variant) {
          const bool separate = variant % 2 != 0, window = variant % 4 >= 2, wide = variant >= 4;
          const Band band{16 - w, 16, 8, 8 + h};
          CodedBand coded = CodeRandomBand(random, band, wide ? 0 : n, wide ? 32 : n, separate);
          const std::size_t length = coded.bytes.size();
          if (window) coded.bytes.resize(length + 400, 0xA5);
          DataSource source(coded.bytes, kel::Flavour::kAB);
          Band decoded = band;
          const auto outcome = DecodeBandBlocks(*source, decoded.Record(), LayoutOf(separate));
          EXPECT_EQ(outcome.end, BandEnd::kWhole);
          EXPECT_EQ(outcome.anyNonZero, coded.blocks[0].block.Planes() != 0);
          EXPECT_EQ(source->GetPosition(), static_cast<std::int64_t>(length));
          ASSERT_NO_FATAL_FAILURE(ExpectBlocks(decoded, coded, 1))
              << w << " x " << h << ", " << n << " planes, variant " << variant;
        }
      }
    }
  }
}

// A grid anchored at the rectangle instead of at 0, a window that loses or repeats bits where it
// slides, whole blocks that run on into the next row.
TEST(BlockDecode, GridsAndWindows) {
  HostMemory memory;
  std::mt19937 random(2);
  // 0 is a block of memory; 286 bytes are just enough to decode from the window.
  constexpr std::pair<std::uint32_t, KelLong> kWindows[] = {
      {0, 1}, {1, 1}, {100, 100}, {286, 77}, {1000, 1000}};
  for (const auto& [capacity, mostPerRead] : kWindows) {
    for (int round = 0; round < 24; ++round) {
      const auto below = [&](int n) {
        return static_cast<int>(random() % static_cast<unsigned>(n));
      };
      const int x = below(12), y = below(12);
      Band band{x, x + 1 + below(60), y, y + 1 + below(30)};
      if (round % 2 != 0) band.widthExponent = below(4);
      if (round % 4 == 1) band.heightExponent = below(4);
      const bool separate = round % 3 != 0;
      const int most = below(33);
      CodedBand coded = CodeRandomBand(random, band, most / 2, most, separate);
      const auto length = static_cast<std::int64_t>(coded.bytes.size());
      coded.bytes.resize(coded.bytes.size() + random() % 500, 0xA5);
      const Delivery how{capacity == 0, round % 2 == 0, capacity, mostPerRead};
      DataSource source(coded.bytes, kel::Flavour::kAB, how);
      EXPECT_EQ(DecodeBandBlocks(*source, band.Record(), LayoutOf(separate)).end, BandEnd::kWhole);
      EXPECT_EQ(source->GetPosition(), length);
      ASSERT_NO_FATAL_FAILURE(ExpectBlocks(band, coded, coded.blocks.size()))
          << "round " << round << ", window of " << capacity;
    }
  }
}

// Filler from behind the end of the data taken for coefficients, at any cut.
TEST(BlockDecode, BandCutOffAtEveryByte) {
  HostMemory memory;
  std::mt19937 random(3);
  for (const bool separate : {true, false}) {
    const Band band{3, 37, 2, 21};
    const CodedBand coded = CodeRandomBand(random, band, 0, 12, separate);
    for (std::size_t cut = 0; cut <= coded.bytes.size(); ++cut) {
      DataSource source(Bytes(coded.bytes.begin(), coded.bytes.begin() + static_cast<int>(cut)),
                        kel::Flavour::kAB);
      Band decoded = band;
      const BandEnd end = DecodeBandBlocks(*source, decoded.Record(), LayoutOf(separate)).end;
      EXPECT_EQ(end, cut < coded.bytes.size() ? BandEnd::kCutOff : BandEnd::kWhole);
      std::size_t whole = 0;
      while (whole < coded.blocks.size() && coded.blocks[whole].endBits <= 8 * cut) ++whole;
      CodedBand expected = coded;
      if (cut >= 2 && whole < coded.blocks.size()) {
        PlainBlock& block = expected.blocks[whole++].block;
        std::fill(block.magnitudes.begin(), block.magnitudes.end(), 0);
      }
      ASSERT_NO_FATAL_FAILURE(ExpectBlocks(decoded, expected, whole)) << "cut at " << cut;
    }
  }
}

// Shifts by more than 32 or by less than 0 planes; a header of a band without blocks refused.
TEST(BlockDecode, HeadersOutOfRange) {
  HostMemory memory;
  const auto endOf = [](Band& band, Bytes bytes, std::size_t filled) {
    bytes.resize(filled, 0xFF);
    DataSource source(bytes, kel::Flavour::kAB);
    return DecodeBandBlocks(*source, band.Record(), SignLayout::kSeparateSigns).end;
  };
  for (const char* header : {"8000", "FF05", "0021", "007F", "0504", "7F00", "2121", "0080"}) {
    Band band{0, 8, 0, 8};
    EXPECT_EQ(endOf(band, Hex(header), 400), BandEnd::kOutOfRange) << header;
    ExpectBlocks(band, {}, 0);
    Band empty{0, 0, 0, 8};
    EXPECT_EQ(endOf(empty, Hex(header), 2), BandEnd::kWhole) << header;
  }
  // A field of 3 bits, all ones: 28 + 7 planes.
  for (const std::size_t length : {20U, 400U}) {
    Band band{0, 16, 0, 16};
    EXPECT_EQ(endOf(band, Hex("1C20"), length), BandEnd::kOutOfRange);
    ExpectBlocks(band, {}, 0);
  }
}

TEST(BlockGrid, WidthOfThePlaneCountField) {
  EXPECT_EQ(kel::PlaneCountFieldBits(5, 5), 1U) << "equal counts still have a bit";
  EXPECT_EQ(kel::PlaneCountFieldBits(0, 1), 1U);
  EXPECT_EQ(kel::PlaneCountFieldBits(3, 5), 2U);
  EXPECT_EQ(kel::PlaneCountFieldBits(0, 32), 6U);
  EXPECT_EQ(kel::PlaneCountFieldBits(-128, 127), 8U);
  EXPECT_EQ(kel::PlaneCountFieldBits(6, 5), 32U);
}

}  // namespace
