// The block code written down plainly, one bit at a time, as a yardstick for the library's coder:
// it shares no table and no arithmetic with it. And bands of random blocks in that code.
#ifndef TESTS_SUPPORT_PLAIN_BLOCKS_H
#define TESTS_SUPPORT_PLAIN_BLOCKS_H

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "BitAssembler.h"

namespace test {

/// A block's coefficients in raster order, by magnitude and sign.
struct PlainBlock {
  int width, height;
  std::vector<std::uint32_t> magnitudes;
  std::vector<bool> negative;

  PlainBlock(int w, int h)
      : width(w),
        height(h),
        magnitudes(static_cast<std::size_t>(w * h)),
        negative(static_cast<std::size_t>(w * h)) {}
  std::uint32_t& At(int x, int y) { return magnitudes[static_cast<std::size_t>(y * width + x)]; }
  std::int32_t Value(std::size_t i) const {
    return static_cast<std::int32_t>(negative[i] ? 0 - magnitudes[i] : magnitudes[i]);
  }
  int Planes() const {
    std::uint32_t all = 0;
    for (const std::uint32_t m : magnitudes) all |= m;
    int n = 0;
    for (; all != 0; all >>= 1) ++n;
    return n;
  }
};

inline int PlainFieldBits(int minPlanes, int maxPlanes) {
  int bits = 1;
  while (1 << bits <= maxPlanes - minPlanes) ++bits;
  return bits;
}

/// The words of the column patterns 0 to 15.
inline const std::string& PlainPatternWord(int pattern) {
  static const std::string words[16] = {"0",      "1011",   "10011", "11110",  "1101",   "100001",
                                        "100100", "11001",  "1110",  "100010", "100011", "100101",
                                        "11111",  "100000", "11000", "1010"};
  return words[pattern];
}

/// The places of a plane of a block in the order in which the code visits them, as lists of
/// columns: sets of four columns share a pattern, a column alone has a flag of its own.
using PlainColumn = std::vector<std::pair<int, int>>;
inline std::vector<std::vector<PlainColumn>> PlainOrder(int width, int height) {
  std::vector<std::vector<PlainColumn>> order;
  for (int y = 0; y < height; y += 4) {
    const int rows = std::min(4, height - y);
    for (int x = 0; x < width;) {
      const int across = rows == 4 && x + 4 <= width ? 4 : 1;
      order.emplace_back();
      for (const int end = x + across; x < end; ++x) {
        order.back().emplace_back();
        for (int i = 0; i < rows; ++i) order.back().back().push_back({x, y + i});
      }
    }
  }
  return order;
}

/// Appends a block's code. `planes` may exceed what the magnitudes need.
inline void PutPlainBlock(BitAssembler& out, PlainBlock block, int planes, int minPlanes,
                          int maxPlanes, bool separateSigns) {
  out.Bits(static_cast<std::uint64_t>(planes - minPlanes), PlainFieldBits(minPlanes, maxPlanes));
  if (planes == 0) return;
  for (int p = planes - 1; p >= 0 && p >= planes - 2; --p) {
    for (const std::vector<PlainColumn>& set : PlainOrder(block.width, block.height)) {
      std::string columns;
      int pattern = 0;
      for (const PlainColumn& places : set) {
        std::string bits;
        for (const auto& [x, y] : places) bits += (block.At(x, y) >> p & 1) != 0 ? '1' : '0';
        const bool any = bits.find('1') != std::string::npos;
        pattern = pattern * 2 + (any ? 1 : 0);
        if (any) columns += bits;
      }
      const std::string flag = pattern != 0 ? "1" : "0";
      for (const char bit : (set.size() == 4 ? PlainPatternWord(pattern) : flag) + columns) {
        out.Bits(bit == '1', 1);
      }
    }
  }
  const auto sign = [&](std::size_t i) {
    if (block.magnitudes[i] != 0) out.Bits(block.negative[i], 1);
  };
  for (std::size_t i = 0; i < block.magnitudes.size(); ++i) {
    if (planes > 2) out.Bits(block.magnitudes[i], planes - 2);
    if (!separateSigns) sign(i);
  }
  for (std::size_t i = 0; i < block.magnitudes.size() && separateSigns; ++i) sign(i);
}

/// A band's cells with guards around them.
template <class Cell>
struct BandCells {
  static constexpr std::int32_t kGuard = -1000000;

  int x0, x1, y0, y1;
  std::vector<Cell> cells = std::vector<Cell>(static_cast<std::size_t>(Stride() * (y1 - y0 + 2)),
                                              static_cast<Cell>(kGuard));

  std::ptrdiff_t Stride() const { return x1 - x0 + 2; }
  Cell& At(int x, int y) {
    return cells[static_cast<std::size_t>((y - y0 + 1) * Stride() + x - x0 + 1)];
  }
  Cell* First() { return cells.data() + Stride() + 1; }
};

/// A band of random blocks, on a grid of 2^exponent.
struct PlainBand {
  struct Placed {
    int x, y;
    PlainBlock block;
    std::size_t endBits;  ///< of the band's code, once coded
  };
  int x0, x1, y0, y1;
  int widthExponent = 3, heightExponent = 3;
  std::vector<Placed> blocks{};

  /// Makes blocks of exactly so many planes each, some coefficients zero, some blocks all ones.
  void Fill(std::mt19937& random, int leastPlanes, int mostPlanes) {
    const int w = 1 << widthExponent, h = 1 << heightExponent;
    for (int y = y0; y < y1; y = (y / h + 1) * h) {
      for (int x = x0; x < x1; x = (x / w + 1) * w) {
        PlainBlock block(std::min((x / w + 1) * w, x1) - x, std::min((y / h + 1) * h, y1) - y);
        const int n = leastPlanes + static_cast<int>(random() % (mostPlanes - leastPlanes + 1U));
        const unsigned rarity = 1 + random() % 5;  // 5: one coefficient alone
        const bool ones = random() % 4 == 0;
        const std::uint32_t most = n > 0 ? 0xFFFFFFFFU >> (32 - n) : 0;
        for (std::size_t i = 0; i < block.magnitudes.size(); ++i) {
          if (rarity < 5 && random() % rarity == 0) {
            block.magnitudes[i] = ones ? most : random() & most;
          }
          block.negative[i] = random() % 2 != 0;
        }
        if (n > 0) block.magnitudes[random() % block.magnitudes.size()] |= 1U << (n - 1);
        blocks.push_back({x, y, block, 0});
      }
    }
  }
  Bytes Code(int minPlanes, int maxPlanes, bool separateSigns) {
    BitAssembler out;
    out.U8(static_cast<unsigned>(minPlanes)).U8(static_cast<unsigned>(maxPlanes));
    for (auto& [x, y, block, endBits] : blocks) {
      PutPlainBlock(out, block, block.Planes(), minPlanes, maxPlanes, separateSigns);
      endBits = out.NumBits();
    }
    return out.Result();
  }
  /// The first `count` blocks as cells; guards elsewhere.
  template <class Cell>
  BandCells<Cell> Cells(std::size_t count) const {
    BandCells<Cell> result{x0, x1, y0, y1};
    for (std::size_t k = 0; k < count; ++k) {
      const auto& [left, top, block, end] = blocks[k];
      for (int i = 0; i < block.width * block.height; ++i) {
        result.At(left + i % block.width, top + i / block.width) =
            static_cast<Cell>(block.Value(static_cast<std::size_t>(i)));
      }
    }
    return result;
  }
};

}  // namespace test

#endif
