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

/// Reads bits from bytes, most significant first; all ones behind the end.
struct PlainBits {
  const Bytes& bytes;
  std::size_t position = 0;

  unsigned Take() {
    const std::size_t at = position++;
    return at / 8 < bytes.size() ? bytes[at / 8] >> (7 - at % 8) & 1U : 1U;
  }
  std::uint64_t Take(int n) {
    std::uint64_t value = 0;
    while (n-- > 0) value = value << 1 | Take();
    return value;
  }
};

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
  const auto d = static_cast<std::uint32_t>(maxPlanes - minPlanes);
  if (d >= 0x80000000U) return 32;
  int bits = 1;
  while (bits < 31 && (std::uint32_t{1} << bits) <= d) ++bits;
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
/// columns; group says whether four columns share a pattern, or each has a flag of its own.
struct PlainColumns {
  bool group;
  std::vector<std::vector<std::pair<int, int>>> columns;
};
inline std::vector<PlainColumns> PlainOrder(int width, int height) {
  std::vector<PlainColumns> order;
  const auto column = [](int x, int y, int rows) {
    std::vector<std::pair<int, int>> places;
    for (int i = 0; i < rows; ++i) places.push_back({x, y + i});
    return places;
  };
  int y = 0;
  for (; y + 4 <= height; y += 4) {
    int x = 0;
    for (; x + 4 <= width; x += 4) {
      order.push_back({true, {}});
      for (int j = 0; j < 4; ++j) order.back().columns.push_back(column(x + j, y, 4));
    }
    for (; x < width; ++x) order.push_back({false, {column(x, y, 4)}});
  }
  if (y < height) {
    for (int x = 0; x < width; ++x) order.push_back({false, {column(x, y, height - y)}});
  }
  return order;
}

/// Appends a block's code. `planes` may exceed what the magnitudes need.
inline void PutPlainBlock(BitAssembler& out, PlainBlock block, int planes, int minPlanes,
                          int maxPlanes, bool separateSigns) {
  out.Bits(static_cast<std::uint64_t>(planes - minPlanes), PlainFieldBits(minPlanes, maxPlanes));
  if (planes == 0) return;
  for (int p = planes - 1; p >= 0 && p >= planes - 2; --p) {
    for (const PlainColumns& set : PlainOrder(block.width, block.height)) {
      std::string columns;
      int pattern = 0;
      for (const auto& places : set.columns) {
        std::string bits;
        for (const auto& [x, y] : places) bits += (block.At(x, y) >> p & 1) != 0 ? '1' : '0';
        const bool any = bits.find('1') != std::string::npos;
        pattern = pattern * 2 + (any ? 1 : 0);
        if (any) columns += bits;
      }
      const std::string flag = pattern != 0 ? "1" : "0";
      for (const char bit : (set.group ? PlainPatternWord(pattern) : flag) + columns) {
        out.Bits(bit == '1', 1);
      }
    }
  }
  for (std::size_t i = 0; i < block.magnitudes.size(); ++i) {
    if (planes > 2) out.Bits(block.magnitudes[i], planes - 2);
    if (!separateSigns && block.magnitudes[i] != 0) out.Bits(block.negative[i], 1);
  }
  for (std::size_t i = 0; i < block.magnitudes.size() && separateSigns; ++i) {
    if (block.magnitudes[i] != 0) out.Bits(block.negative[i], 1);
  }
}

/// Reads a block's code.
inline PlainBlock TakePlainBlock(PlainBits& in, int width, int height, int minPlanes, int maxPlanes,
                                 bool separateSigns) {
  PlainBlock block(width, height);
  const int planes = static_cast<int>(in.Take(PlainFieldBits(minPlanes, maxPlanes))) + minPlanes;
  if (planes == 0) return block;
  for (int p = planes - 1; p >= 0 && p >= planes - 2; --p) {
    for (const PlainColumns& set : PlainOrder(width, height)) {
      int pattern = 0;
      if (set.group) {
        std::string word;
        do {
          word += in.Take() != 0 ? '1' : '0';
          for (pattern = 0; pattern < 16 && PlainPatternWord(pattern) != word;) ++pattern;
        } while (pattern == 16);
      } else {
        pattern = static_cast<int>(in.Take());
      }
      const int last = static_cast<int>(set.columns.size()) - 1;
      for (int j = 0; j <= last; ++j) {
        if ((pattern >> (last - j) & 1) == 0) continue;
        for (const auto& [x, y] : set.columns[static_cast<std::size_t>(j)]) {
          block.At(x, y) |= in.Take() << p;
        }
      }
    }
  }
  for (std::size_t i = 0; i < block.magnitudes.size(); ++i) {
    if (planes > 2) block.magnitudes[i] |= static_cast<std::uint32_t>(in.Take(planes - 2));
    if (!separateSigns && block.magnitudes[i] != 0) block.negative[i] = in.Take() != 0;
  }
  for (std::size_t i = 0; i < block.magnitudes.size() && separateSigns; ++i) {
    if (block.magnitudes[i] != 0) block.negative[i] = in.Take() != 0;
  }
  return block;
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

  /// Makes blocks of exactly so many planes each, some coefficients zero.
  void Fill(std::mt19937& random, int leastPlanes, int mostPlanes) {
    const int w = 1 << widthExponent, h = 1 << heightExponent;
    for (int y = y0; y < y1; y = (y / h + 1) * h) {
      for (int x = x0; x < x1; x = (x / w + 1) * w) {
        PlainBlock block(std::min((x / w + 1) * w, x1) - x, std::min((y / h + 1) * h, y1) - y);
        const int n = leastPlanes + static_cast<int>(random() % (mostPlanes - leastPlanes + 1U));
        const unsigned rarity = 1 + random() % 4;
        for (std::size_t i = 0; i < block.magnitudes.size() && n > 0; ++i) {
          if (random() % rarity == 0) block.magnitudes[i] = random() & 0xFFFFFFFFU >> (32 - n);
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
    std::size_t bits = 16;
    for (auto& [x, y, block, endBits] : blocks) {
      BitAssembler alone;
      PutPlainBlock(alone, block, block.Planes(), minPlanes, maxPlanes, separateSigns);
      PutPlainBlock(out, block, block.Planes(), minPlanes, maxPlanes, separateSigns);
      PlainBits length{alone.Result()};
      TakePlainBlock(length, block.width, block.height, minPlanes, maxPlanes, separateSigns);
      endBits = bits += length.position;
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
