// The prefix code of column patterns, which the block coder uses in both directions.
//
// A group is 4 x 4 coefficients of a block, looked at in one bit-plane. Its column pattern has one
// bit per column, the leftmost column's first; a bit is set when the column holds a set bit. The
// pattern is written as one of sixteen words that form a complete prefix code: every string of
// bits begins with exactly one of them. One word per pattern, drawn first bit first:
//
//   0000  0          0100  1101       1000  1110       1100  11111
//   0001  1011       0101  100001     1001  100010     1101  100000
//   0010  10011      0110  100100     1010  100011     1110  11000
//   0011  11110      0111  11001      1011  100101     1111  1010
//
// Data only: sources compiled with extra target flags include this header too.
#ifndef KEL_COLUMN_PATTERN_CODE_H
#define KEL_COLUMN_PATTERN_CODE_H

#include <cstdint>

namespace kel {

struct ColumnPatternWord {
  std::uint8_t code;  ///< its low `length` bits are the word
  std::uint8_t length;
};

/// The word of each pattern.
inline constexpr ColumnPatternWord kColumnPatternCode[16] = {
    {0b0, 1},      {0b1011, 4},   {0b10011, 5}, {0b11110, 5},  {0b1101, 4},   {0b100001, 6},
    {0b100100, 6}, {0b11001, 5},  {0b1110, 4},  {0b100010, 6}, {0b100011, 6}, {0b100101, 6},
    {0b11111, 5},  {0b100000, 6}, {0b11000, 5}, {0b1010, 4},
};

/// The pattern whose word any six bits begin with, by those bits.
struct ColumnPatternsByBits {
  std::uint8_t pattern[64];

  consteval ColumnPatternsByBits() : pattern{} {
    for (unsigned i = 0; i < 16; ++i) {
      const unsigned spare = 6U - kColumnPatternCode[i].length;
      const unsigned first = static_cast<unsigned>(kColumnPatternCode[i].code) << spare;
      for (unsigned rest = 0; rest < 1U << spare; ++rest) {
        pattern[first + rest] = static_cast<std::uint8_t>(i);
      }
    }
  }
};
inline constexpr ColumnPatternsByBits kColumnPatternsByBits;

}  // namespace kel

#endif
