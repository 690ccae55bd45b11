// Encoding of tile-components: bytes against the code written down plainly, size tables, rates, and
// the way back through the decoder.
#include "KelBlockEncode.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <utility>
#include <vector>

#include "DataSource.h"
#include "HostMemory.h"
#include "KelBlockDecode.h"
#include "PlainBlocks.h"

namespace {

using kel::CodedTileComponent;
using kel::CoefficientKind;
using kel::EncodeBand;
using test::BitAssembler;
using test::Bytes;
using test::Hex;
using test::HostMemory;
using test::PlainBlock;

/// A band's rectangle and coefficients; cells around them hold a large value.
template <class Cell>
struct Band {
  std::int32_t x0, x1, y0, y1;
  std::vector<Cell> cells = std::vector<Cell>(Stride() * (Rows() + 2), Cell(-1000000));

  std::size_t Stride() const { return static_cast<std::size_t>(x1 - x0 + 2); }
  std::size_t Rows() const { return static_cast<std::size_t>(y1 - y0); }
  Cell& At(std::int32_t x, std::int32_t y) {
    return cells[static_cast<std::size_t>(y - y0 + 1) * Stride() +
                 static_cast<std::size_t>(x - x0 + 1)];
  }
  EncodeBand Record() {
    return {x0, x1, y0, y1, &At(x0, y0), static_cast<std::ptrdiff_t>(Stride())};
  }
};

/// A tile-component's result, released at scope end.
struct Coded : CodedTileComponent {
  Coded(const std::vector<EncodeBand>& bands, CoefficientKind kind, bool keepRates = false)
      : CodedTileComponent{} {
    EncodeTileComponent(bands.data(), static_cast<std::int32_t>(bands.size() / 3), kind, keepRates,
                        *this);
  }
  ~Coded() { ReleaseCodedTileComponent(*this); }
  Coded(const Coded&) = delete;
  Coded& operator=(const Coded&) = delete;
  Bytes Copy() const { return Bytes(bytes, bytes + numBytes); }
};

template <class Cell>
constexpr CoefficientKind kKindOf =
    std::is_same_v<Cell, float> ? CoefficientKind::kFloats : CoefficientKind::kIntegers;

/// Fills a band with blocks of 0 to `most` planes and returns its expected bytes.
template <class Cell>
Bytes FillAndCodePlainly(std::mt19937& random, Band<Cell>& band, unsigned most) {
  std::vector<PlainBlock> blocks;
  int least = 127, largest = 0;
  for (int y = band.y0; y < band.y1; y = (y / 8 + 1) * 8) {
    for (int x = band.x0; x < band.x1; x = (x / 8 + 1) * 8) {
      PlainBlock block(std::min((x / 8 + 1) * 8, band.x1) - x,
                       std::min((y / 8 + 1) * 8, band.y1) - y);
      const unsigned n = random() % (most + 1);
      const unsigned rarity = 1 + random() % 4;
      for (std::size_t i = 0; i < block.magnitudes.size() && n != 0; ++i) {
        if (random() % rarity == 0) block.magnitudes[i] = random() & 0xFFFFFFFFU >> (32 - n);
        block.negative[i] = random() % 2 != 0;
        const auto w = static_cast<std::size_t>(block.width);
        band.At(x + static_cast<int>(i % w), y + static_cast<int>(i / w)) =
            static_cast<Cell>(block.Value(i));
      }
      for (int i = 0; n == 0 && i < block.width * block.height; ++i) {
        band.At(x + i % block.width, y + i / block.width) = 0;
      }
      least = std::min(least, block.Planes());
      largest = std::max(largest, block.Planes());
      blocks.push_back(block);
    }
  }
  BitAssembler out;
  out.U8(static_cast<unsigned>(least)).U8(static_cast<unsigned>(largest));
  for (const PlainBlock& block : blocks) {
    PutPlainBlock(out, block, block.Planes(), least, largest, true);
  }
  return out.Result();
}

/// Encodes 3 levels + 1 bands of random places and sizes, and decodes them again.
template <class Cell>
void ExpectTileComponent(unsigned seed, std::int32_t numLevels, unsigned most) {
  std::mt19937 random(seed);
  const auto below = [&](unsigned n) { return static_cast<std::int32_t>(random() % n); };
  std::vector<Band<Cell>> bands;
  std::vector<EncodeBand> records;
  std::vector<std::size_t> sizes;
  Bytes expected;
  for (std::int32_t b = 0; b <= 3 * numLevels; ++b) {
    const std::int32_t x = below(20), y = below(20);
    bands.push_back({x, x + below(40), y, y + below(40)});
    const Bytes one = FillAndCodePlainly(random, bands.back(), most);
    expected.insert(expected.end(), one.begin(), one.end());
    sizes.push_back(one.size());
  }
  for (Band<Cell>& band : bands) records.push_back(band.Record());
  const Coded coded(records, kKindOf<Cell>);
  ASSERT_EQ(coded.Copy(), expected) << "seed " << seed;
  for (std::size_t r = 0; r <= static_cast<std::size_t>(numLevels); ++r) {
    std::size_t bytes = 0;
    for (std::size_t b = r == 0 ? 0 : 3 * r - 2; b <= 3 * r; ++b) {
      EXPECT_EQ(coded.bandSize[b], sizes[b]);
      bytes += sizes[b];
    }
    EXPECT_EQ(coded.resSize[r], bytes);
  }
  test::DataSource source(expected, kel::Flavour::kAB);
  for (Band<Cell>& band : bands) {
    std::vector<std::int32_t> decoded(band.cells.begin(), band.cells.end());
    const EncodeBand place = band.Record();
    const std::ptrdiff_t first = static_cast<const Cell*>(place.data) - band.cells.data();
    const auto outcome = DecodeBandBlocks(
        *source,
        {band.x0, band.x1, band.y0, band.y1, 3, 3, decoded.data() + first, place.strideCells},
        kel::SignLayout::kSeparateSigns);
    EXPECT_EQ(outcome.end, kel::BandEnd::kWhole);
    EXPECT_EQ(decoded, std::vector<std::int32_t>(band.cells.begin(), band.cells.end()));
  }
}

// Blocks cut at the wrong lines, edges in another order than the decoder's, bands or sizes mixed
// up, a buffer that is too small (under a sanitizer).
TEST(BlockEncode, TileComponentsAgainstThePlainCode) {
  HostMemory memory;
  for (unsigned seed = 0; seed < 60; ++seed) {
    const auto levels = static_cast<std::int32_t>(seed % 4);
    ExpectTileComponent<std::int32_t>(seed, levels, seed % 32);
    ExpectTileComponent<float>(seed, levels, seed % 25);
  }
}

// Two header bytes forgotten in a size, padding of ones, a band without blocks that writes none.
TEST(BlockEncode, TinyBandsExactly) {
  HostMemory memory;
  Band<std::int32_t> zeros{0, 72, 0, 8};
  std::fill(zeros.cells.begin(), zeros.cells.end(), 0);
  EXPECT_EQ(Coded({zeros.Record()}, CoefficientKind::kIntegers).Copy(), Hex("0000 0000"))
      << "nine zero blocks of a bit each";
  Band<std::int32_t> empty{4, 4, 0, 9};
  EXPECT_EQ(Coded({empty.Record()}, CoefficientKind::kIntegers).Copy(), Hex("7F00"));
  // Field 0, flag 1 and bit 1, sign 1.
  Band<float> one{3, 4, 5, 6};
  one.At(3, 5) = -1.4F;
  EXPECT_EQ(Coded({one.Record()}, CoefficientKind::kFloats).Copy(), Hex("0101 70"));
}

// Records that miss the header of the first band, count pending bits, or differ without the table.
TEST(BlockEncode, RatesOfBlocks) {
  HostMemory memory;
  std::mt19937 random(7);
  std::array<Band<std::int32_t>, 4> bands = {
      {{0, 8, 0, 8}, {0, 24, 0, 9}, {0, 0, 0, 8}, {5, 9, 0, 8}}};
  for (Band<std::int32_t>& band : bands) FillAndCodePlainly(random, band, 9);
  bands[0].At(3, 3) = 500;  // nine planes in the first block
  for (int i = 0; i < 64; ++i) bands[1].At(8 + i % 8, i / 8) = 0;
  std::vector<EncodeBand> records;
  for (Band<std::int32_t>& band : bands) records.push_back(band.Record());
  const Coded without(records, CoefficientKind::kIntegers);
  const Coded coded(records, CoefficientKind::kIntegers, true);
  EXPECT_EQ(coded.Copy(), without.Copy());
  ASSERT_EQ(coded.rates.count, 9U) << "1 + 3 x 2 + 0 + 2 blocks";
  for (const CodedTileComponent* one : {static_cast<const CodedTileComponent*>(&coded),
                                        static_cast<const CodedTileComponent*>(&without)}) {
    EXPECT_EQ(one->firstRecord[0], 0U);
    EXPECT_EQ(one->firstRecord[1], 1U);
    EXPECT_EQ(one->firstRecord[2], 9U);
  }
  EXPECT_EQ(coded.rates.records[0].planeCount, 9);
  const unsigned last = coded.bytes[coded.bandSize[0] - 1];
  EXPECT_GE(coded.rates.records[0].length + (last != 0), coded.bandSize[0])
      << "but for the bits in the last byte, the first record is the whole first band";
  EXPECT_EQ(coded.rates.records[2].planeCount, 0);
  EXPECT_EQ(coded.rates.records[2].length, 0);
}

// A block lost when memory runs out half-way, or one of the result's released twice.
TEST(BlockEncode, EveryRefusalGivesEverythingBack) {
  HostMemory memory;
  std::mt19937 random(8);
  std::array<Band<float>, 4> bands = {{{0, 30, 0, 30}, {0, 3, 0, 9}, {0, 9, 0, 8}, {5, 9, 0, 8}}};
  std::vector<EncodeBand> records;
  for (Band<float>& band : bands) {
    FillAndCodePlainly(random, band, 6);
    records.push_back(band.Record());
  }
  const auto runs = test::SweepRefusals(memory, [&] {
    Coded coded(records, CoefficientKind::kFloats, true);
    const Bytes before = coded.Copy();
    try {
      TrimCodedBytes(coded);
    } catch (const KelException&) {
      EXPECT_EQ(coded.Copy(), before);
      throw;
    }
    EXPECT_EQ(coded.Copy(), before);
    EXPECT_EQ(coded.obtainedBytes, coded.numBytes);
    ReleaseCodedBytes(coded);
    EXPECT_EQ(coded.bandSize[1] + coded.bandSize[2] + coded.bandSize[3], coded.resSize[1]);
    return KelOK;
  });
  EXPECT_GE(runs, 6U);
}

}  // namespace
