// The grid of code blocks on a band, and the width of a block's plane-count field: what both
// directions of the block coder must agree on besides the code itself.
//
// Blocks are 2^exponent wide and high, the exponents being at most 3, on a grid whose lines fall on
// multiples of that size in band coordinates; blocks at the edges of the rectangle that is coded
// are smaller. Nothing is stored per block: a walk asks for each block's end.
#ifndef KEL_BLOCK_GRID_H
#define KEL_BLOCK_GRID_H

#include <algorithm>
#include <cstdint>

#include "base/KelInt.h"

namespace kel {

/// Side of the largest block, and its exponent.
inline constexpr std::int64_t kBlockSide = 8;
inline constexpr int kBlockExponent = 3;

/// Where the block that holds `position` ends, in one dimension of a rectangle that ends at `end`.
constexpr std::int64_t BlockEnd(std::int64_t position, std::int64_t end, int exponent) {
  return std::min(end, ((position >> exponent) + 1) << exponent);
}

/// Number of blocks that a range touches, in one dimension.
constexpr std::int64_t CountBlocks(std::int64_t begin, std::int64_t end, int exponent) {
  return begin < end ? CeilShift(end, exponent) - FloorShift(begin, exponent) : 0;
}

/// Width in bits of the plane-count field of a band's blocks: enough for the difference of the
/// band's largest and smallest counts, but at least one bit, even when they are equal. The
/// difference is unsigned: a largest count below the smallest one makes 32 bits.
constexpr unsigned PlaneCountFieldBits(int minPlanes, int maxPlanes) {
  const auto difference = static_cast<std::uint32_t>(maxPlanes - minPlanes);
  return difference == 0 ? 1 : static_cast<unsigned>(BitLength(difference));
}

}  // namespace kel

#endif
