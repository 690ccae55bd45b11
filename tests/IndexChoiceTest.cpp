// The choice of indices: kernels against each other and against all possibilities where these can
// be tried, the range of plane counts, and what comes of it over the public interface.
#include "KelIndexChoice.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "EncodeHost.h"
#include "HostMemory.h"
#include "KernelSets.h"
#include "PlainBlocks.h"

namespace {

using namespace test;
using IndexChoice = test::LibraryTest;

/// Bits of a block's code but for its plane count.
long BitsOf(const std::vector<int>& indices) {
  PlainBlock block(8, 8);
  for (std::size_t i = 0; i < 64; ++i) {
    block.magnitudes[i] = static_cast<std::uint32_t>(std::abs(indices[i]));
    block.negative[i] = indices[i] < 0;
  }
  const int planes = block.Planes();
  if (planes == 0) return 0;
  BitAssembler bits;
  PutPlainBlock(bits, block, planes, planes, planes, true);
  return static_cast<long>(bits.NumBits()) - 1;
}

/// Squared error in eighteenths of a step and bits, at a bit for a ninth of a squared step.
long PriceOf(const std::vector<int>& t, const std::vector<int>& indices) {
  long price = 36 * BitsOf(indices);
  for (std::size_t i = 0; i < 64; ++i) {
    const long d = t[i] - 18 * indices[i];
    price += d * d;
  }
  return price;
}

std::vector<int> RandomBlock(std::mt19937& random, double scale, int most) {
  std::exponential_distribution<> size(1 / scale);
  std::vector<int> t(64);
  for (int& v : t) {
    v = static_cast<int>(std::min(static_cast<double>(most), size(random)));
    if (random() % 2 == 0) v = -v;
  }
  return t;
}

template <class Cell>
std::vector<int> Chosen(kel::ChoiceKernels::Choose<Cell>* choose, const std::vector<int>& t,
                        int* planes) {
  std::vector<Cell> cells(t.begin(), t.end());
  std::uint8_t planeCount = 0;
  choose(cells.data(), 8, 1, &planeCount);
  *planes = planeCount;
  return {cells.begin(), cells.end()};
}

// Sets that disagree in a rule, a tie or a width, from empty blocks to those beyond 16 bits; a
// plane count that is not the block's.
TEST_F(IndexChoice, SetsAgree) {
  kel::KernelTable scalar;
  ASSERT_TRUE(FillKernelTable(kel::KernelSets().front(), scalar));
  WithEverySet([&](const kel::KernelTable& table) {
    std::mt19937 random(1);
    for (int i = 0; i < 6000; ++i) {
      const double scale = std::exp(std::uniform_real_distribution<>(0.5, 11.5)(random));
      std::vector<int> t = RandomBlock(random, scale, 32767);
      if (i % 4 == 0) std::ranges::for_each(t, [&](int& v) { v = v / 9 * 9; });  // halves
      int expected = 0, planes = 0;
      const std::vector<int> want = Chosen(scalar.choice.chooseOfShorts, t, &expected);
      ASSERT_EQ(Chosen(table.choice.chooseOfShorts, t, &planes), want) << i;
      ASSERT_EQ(planes, expected);
      ASSERT_EQ(Chosen(table.choice.chooseOfIntegers, t, &planes), want) << i;
      ASSERT_EQ(planes, expected);
      t[random() % 64] *= 60000;
      const std::vector<int> wide = Chosen(scalar.choice.chooseOfIntegers, t, &expected);
      ASSERT_EQ(Chosen(table.choice.chooseOfIntegers, t, &planes), wide) << i;
      ASSERT_EQ(planes, expected);
    }
  });
}

// A price that is not the block coder's: blocks of a single plane, for which all sets of columns
// can be tried, group by group, must come out at the least price; larger ones, whose planes are
// chosen one after the other, at most a few bits above that of their nearest indices, and far below
// it altogether.
TEST_F(IndexChoice, PriceIsTheLeast) {
  std::mt19937 random(2);
  for (int i = 0; i < 300; ++i) {
    const std::vector<int> t = RandomBlock(random, i % 2 == 0 ? 4 : 7, 26);
    int planes = 0;
    const std::vector<int> chosen = Chosen(kel::Kernels().choice.chooseOfShorts, t, &planes);
    std::vector<int> best(64);
    for (const int first : {0, 4, 32, 36}) {
      std::vector<int> least = best;
      for (int columns = 0; columns < 16; ++columns) {
        std::vector<int> other = best;
        for (int k = 0; k < 16; ++k) {
          const auto at = static_cast<std::size_t>(first + 8 * (k / 4) + k % 4);
          if ((columns >> k % 4 & 1) != 0) other[at] = t[at] > 10 ? 1 : t[at] < -10 ? -1 : 0;
        }
        // An empty block has no patterns; here they count.
        const auto price = [&](const std::vector<int>& v) {
          return PriceOf(t, v) + (std::ranges::count(v, 0) == 64 ? 36 * 4 : 0);
        };
        if (price(other) < price(least)) least = other;
      }
      best = least;
    }
    const long empty = PriceOf(t, std::vector<int>(64));
    ASSERT_EQ(PriceOf(t, chosen), std::min(PriceOf(t, best), empty)) << i;
  }
  long total = 0, totalOfNearest = 0;
  for (int i = 0; i < 2000; ++i) {
    const std::vector<int> t = RandomBlock(random, std::exp(1.5 + i % 60 / 12.0), 20000);
    std::vector<int> nearest;
    for (const int v : t) nearest.push_back((v < 0 ? -1 : 1) * ((std::abs(v) + 9) / 18));
    int planes = 0;
    const long price = PriceOf(t, Chosen(kel::Kernels().choice.chooseOfShorts, t, &planes));
    ASSERT_LE(price, PriceOf(t, nearest) + 36 * 12) << i;
    total += price;
    totalOfNearest += PriceOf(t, nearest);
  }
  EXPECT_LT(total, totalOfNearest * 0.995);
}

// A plane count beyond the others that widens the field of a whole band for less than that costs;
// one that is worth it and must stay; blocks cut by the band's edges; a band that is left with less
// than its field takes.
TEST_F(IndexChoice, PlaneCountsAreNarrowed) {
  for (const int outlier : {15, 40}) {
    constexpr std::int32_t kSide = 8 * 40 + 3;
    std::vector<std::int16_t> cells(kSide * kSide, 0);
    std::vector<std::uint8_t> counts(41 * 41);
    for (std::size_t i = 0; i < cells.size(); i += 7) cells[i] = 20;
    cells[kSide * 20 + 20] = static_cast<std::int16_t>(18 * -outlier);
    const kel::EncodeBand band = {0, kSide, 0, kSide, cells.data(), kSide, true, counts.data()};
    for (std::int32_t y = 0; y < kSide; ++y) {
      if (EndsBlocks(band, y)) ChooseIndicesAbove(band, y);
    }
    ASSERT_GT(*std::ranges::max_element(counts), 2);
    NarrowPlaneCounts(band);
    EXPECT_EQ(*std::ranges::max_element(counts), outlier == 15 ? 2 : 6);
    EXPECT_EQ(cells[kSide * 20 + 20], outlier == 15 ? -3 : -40);
    std::ranges::fill(counts, std::uint8_t{0});
    std::ranges::fill(cells, std::int16_t{0});
    cells[0] = counts[0] = 1;
    NarrowPlaneCounts(band);
    EXPECT_EQ(cells[0] + counts[0], 0);
  }
}

double Psnr(const std::vector<Plane>& a, const std::vector<Plane>& b) {
  double sum = 0, count = 0;
  for (std::size_t c = 0; c < a.size(); ++c) {
    for (std::size_t i = 0; i < a[c].samples.size(); ++i) {
      const auto d = static_cast<double>(a[c].samples[i] - b[c].samples[i]);
      sum += d * d;
      ++count;
    }
  }
  return 10 * std::log10(255.0 * 255.0 * count / sum);
}

// A file that the decoder takes otherwise than it was meant; an error that is not the one of the
// quality; bytes that grow; an extra channel that is no longer exact; layers that repeat.
TEST_F(IndexChoice, FewerBytesForTheQuality) {
  struct Row {
    std::size_t components;
    Coding coding;
    KelLong tile;
    KelLong depth = 8;
  };
  const Row rows[] = {{3, {.quality = 60, .transform = true}, 203},
                      {4, {.quality = 30, .transform = true, .order = KelCPRL, .colors = 3}, 90},
                      {1, {.quality = 80, .levels = 3, .layers = 3}, 64},
                      {1, {.quality = 100, .levels = 5}, 203},
                      {1, {.quality = 70}, 110, 16}};
  for (const Row& row : rows) {
    SCOPED_TRACE(&row - rows);
    const Picture picture = MakePicture(203, 187, row.components, row.depth);
    std::size_t sizes[2];
    std::vector<Plane> decoded[2];
    for (const int choose : {0, 1}) {
      Coding coding = row.coding;
      coding.choose = choose != 0;
      EncodeHost host(picture, row.tile, row.tile, coding);
      const Bytes file = host.Encode();
      sizes[choose] = file.size();
      Decoded result = Decode(file);
      ASSERT_TRUE(result.isComplete);
      decoded[choose] = std::move(result.planes);
    }
    if (row.components == 4) {
      EXPECT_TRUE(decoded[1].back() == picture.planes.back());
      for (auto& planes : decoded) planes.pop_back();
    }
    EXPECT_LT(sizes[1], sizes[0] * (row.coding.layers > 1 ? 4 : 10) / 10);
    EXPECT_NEAR(Psnr(decoded[1], picture.planes), Psnr(decoded[0], picture.planes), 1.5);
  }
}

// A tile whose steps are not those that the main header announced; a region of interest whose
// coefficients are chosen as if they had steps.
TEST_F(IndexChoice, QualityOfEachTileAndRegions) {
  const Picture picture = MakePicture(96, 64, 4, 8);
  const auto decodedAt = [&](float first, float second) {
    EncodeHost host(picture, 48, 64,
                    {.quality = 40, .transform = true, .colors = 3, .choose = true});
    HostStream stream;
    EXPECT_EQ(host.Init(stream), KelOK);
    for (const KelLong tile : {0, 1}) {
      host.options.TargetQuality = tile == 0 ? first : second;
      EXPECT_EQ(host.encoder.CompressAndWriteTile(tile, nullptr), KelOK);
    }
    host.encoder.Die();
    if (stream.stream.wbuf != nullptr) stream.stream.flushWriteBuffer();
    return Decode(stream.bytes).planes;
  };
  const auto both = decodedAt(40, 90), low = decodedAt(40, 40), high = decodedAt(90, 90);
  for (std::size_t c = 0; c < 4; ++c) {
    for (KelLong y = 0; y < 64; ++y) {
      for (KelLong x = 0; x < 96; ++x) {
        ASSERT_EQ(both[c].At(x, y), (x < 48 ? low : high)[c].At(x, y)) << c;
      }
    }
  }
  const auto withRegion = [&](bool choose) {
    return EncodeHost(picture, 48, 64, {.transform = true, .mask = 3, .choose = choose}).Encode();
  };
  EXPECT_TRUE(Decode(withRegion(true)).planes == Decode(withRegion(false)).planes);
  EXPECT_LE(withRegion(true).size(), withRegion(false).size());
}

// A component whose packets are all empty beside one that has data, with either filter.
TEST_F(IndexChoice, EmptyComponentsDecode) {
  for (const KelLong irreversible : {0, 1}) {
    Picture picture = MakePicture(70, 50, 3, 8);
    picture.planes[1] = picture.planes[2] = picture.planes[0];
    EncodeHost host(picture, {.irreversible = irreversible, .transform = true, .choose = true});
    const Decoded decoded = Decode(host.Encode());
    ASSERT_TRUE(decoded.isComplete);
    EXPECT_TRUE(decoded.planes[0] == decoded.planes[2]);
    EXPECT_TRUE(irreversible != 0 || decoded.planes == picture.planes);
  }
}

}  // namespace
