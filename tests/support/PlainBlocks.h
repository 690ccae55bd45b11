// The block code written down plainly, one bit at a time, as a yardstick for the library's coder:
// it shares no table and no arithmetic with it.
#ifndef TESTS_SUPPORT_PLAIN_BLOCKS_H
#define TESTS_SUPPORT_PLAIN_BLOCKS_H

#include <cstdint>
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

}  // namespace test

#endif
