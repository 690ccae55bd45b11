// Orders of a plane of a block, a 64-bit word with the first bit highest: raster order and the
// order of the code. Everything is local to the including source.
#ifndef KEL_BLOCKS_ORDER_H
#define KEL_BLOCKS_ORDER_H

#include <cstdint>

#include "KelInline.h"

namespace kel {
namespace {

/// Swaps the bits that a mask selects with those `distance` places higher.
constexpr std::uint64_t SwapBits(std::uint64_t word, int distance, std::uint64_t mask) {
  const std::uint64_t differing = (word ^ word >> distance) & mask;
  return word ^ differing ^ differing << distance;
}

/// A plane in raster order from the order of the code: each group is transposed, then the rows of
/// two neighbouring groups are laid side by side.
[[maybe_unused]] KEL_INLINE std::uint64_t RasterFromCodeOrder(std::uint64_t plane) {
  plane = SwapBits(plane, 3, 0x0A0A0A0A0A0A0A0A);
  plane = SwapBits(plane, 6, 0x00CC00CC00CC00CC);
  plane = SwapBits(plane, 8, 0x0000FF000000FF00);
  return SwapBits(plane, 4, 0x00F000F000F000F0);
}

/// The reverse.
[[maybe_unused]] KEL_INLINE std::uint64_t CodeFromRasterOrder(std::uint64_t plane) {
  plane = SwapBits(plane, 4, 0x00F000F000F000F0);
  plane = SwapBits(plane, 8, 0x0000FF000000FF00);
  plane = SwapBits(plane, 6, 0x00CC00CC00CC00CC);
  return SwapBits(plane, 3, 0x0A0A0A0A0A0A0A0A);
}

/// The bit of each column in a row of a plane.
constexpr std::uint32_t kColumnBits[8] = {0x80, 0x40, 0x20, 0x10, 0x08, 0x04, 0x02, 0x01};

/// One row of a plane in raster order.
constexpr std::uint32_t RowOfPlane(std::uint64_t plane, int y) {
  return static_cast<std::uint32_t>(plane >> (56 - 8 * y)) & 0xFF;
}

/// A row of the top planes of a block, in raster order, as magnitudes without their low bits.
[[maybe_unused]] KEL_INLINE void SpreadTopPlanes(std::uint64_t upper, std::uint64_t lower, int y,
                                                 unsigned planes, std::uint32_t* magnitudes) {
  const std::uint32_t upperValue = std::uint32_t{1} << (planes - 1);
  const std::uint32_t upperRow = RowOfPlane(upper, y), lowerRow = RowOfPlane(lower, y);
  for (int x = 0; x < 8; ++x) {
    magnitudes[x] = ((upperRow & kColumnBits[x]) != 0 ? upperValue : 0) |
                    ((lowerRow & kColumnBits[x]) != 0 ? upperValue >> 1 : 0);
  }
}

/// The last bit first.
[[maybe_unused]] KEL_INLINE std::uint64_t ReverseBits(std::uint64_t word) {
  word = SwapBits(word, 1, 0x5555555555555555);
  word = SwapBits(word, 2, 0x3333333333333333);
  return __builtin_bswap64(SwapBits(word, 4, 0x0F0F0F0F0F0F0F0F));
}

}  // namespace
}  // namespace kel

#endif
