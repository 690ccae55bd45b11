// Word-wise reading of blocks, which the scalar and the vector kernels share: bits from a window,
// the groups of the top planes, and the walk from block to block.
//
// A plane of a block is a 64-bit word, first bit first. Here it stands in the order of the code:
// the four groups, in a group the columns from the left, in a column from the top. Included by
// sources with different target flags, so that everything is local to the including source, and no
// inline function of the standard library is called.
#ifndef KEL_BLOCKS_READ_H
#define KEL_BLOCKS_READ_H

#include <bit>
#include <cstring>
#if defined(__BMI2__)
#include <immintrin.h>
#endif

#include "KelBlocksKernels.h"
#include "kernels/KelColumnPatternCode.h"

namespace kel {
namespace {

/// Eight bytes as a number, the first byte most significant.
[[maybe_unused]] KEL_INLINE std::uint64_t LoadWord(const std::uint8_t* address) {
  std::uint64_t word;
  std::memcpy(&word, address, sizeof word);
  if constexpr (std::endian::native == std::endian::little) word = __builtin_bswap64(word);
  return word;
}

/// The bits from a position on, first bit most significant; at least 57 of them are valid.
[[maybe_unused]] KEL_INLINE std::uint64_t LoadBits(const std::uint8_t* window,
                                                   std::uint64_t position) {
  return LoadWord(window + (position >> 3)) << (position & 7);
}

/// The 64 bits from a position on.
[[maybe_unused]] KEL_INLINE std::uint64_t LoadAllBits(const std::uint8_t* window,
                                                      std::uint64_t position) {
  const std::uint8_t ninth = window[(position >> 3) + 8];
  return LoadBits(window, position) | ninth >> (8 - (position & 7));
}

// A group as its first six bits tell it, packed into 32 bits so that the walk from group to group
// is one load and one shift:
//   0-5    bits of the group's code: the pattern's word and four for each column
//   6-9    bits of columns 2 and 3 together: 0, 4 or 8
//   10-12  4 when column 2 is there and column 3 is not, else 0
//   13-15  4 when column 0 is there and column 1 is not, else 0
//   16-31  the places of the columns that are there, column 0 most significant
struct GroupsByBits {
  std::uint32_t group[64];

  consteval GroupsByBits() : group{} {
    for (unsigned bits = 0; bits < 64; ++bits) {
      const unsigned pattern = kColumnPatternsByBits.pattern[bits];
      unsigned places = 0;
      for (unsigned column = 0; column < 4; ++column) {
        if ((pattern >> (3 - column) & 1) != 0) places |= 0xF000U >> 4 * column;
      }
      const auto columns = static_cast<unsigned>(std::popcount(pattern));
      const auto right = static_cast<unsigned>(std::popcount(pattern & 3));
      group[bits] = (kColumnPatternCode[pattern].length + 4 * columns) | 4 * right << 6 |
                    ((pattern & 3) == 2 ? 4U : 0U) << 10 | (pattern >> 2 == 2 ? 4U : 0U) << 13 |
                    places << 16;
    }
  }
};
alignas(64) constexpr GroupsByBits kGroupsByBits;

/// Puts a group's columns, which stand at the low end of `columns`, to their places.
[[maybe_unused]] KEL_INLINE std::uint32_t SpreadColumns(std::uint64_t columns,
                                                        std::uint32_t group) {
#if defined(__BMI2__)
  return static_cast<std::uint32_t>(_pdep_u64(columns, group >> 16));
#else
  const std::uint64_t right = columns << (group >> 10 & 7) & 0xFF;
  const std::uint64_t left = columns >> (group >> 6 & 15) << (group >> 13) % 8 << 8 & 0xFF00;
  return static_cast<std::uint32_t>(left | right) & group >> 16;
#endif
}

/// Walks along the code by pairs of neighbouring groups. The bits of the next pair come from words
/// that are loaded while this one is decoded, so that a pair waits for two table look-ups and not
/// for its bits.
struct GroupWalk {
  const std::uint8_t* window;
  std::uint64_t position;  ///< of the next bit
  std::uint64_t bits;      ///< those from there on, at least 40

  /// Reads two neighbouring groups of a plane, left one first: at most 40 bits.
  std::uint64_t ReadPair() {
    const std::uint64_t word = LoadBits(window, position);
    const std::uint64_t further = LoadBits(window, position + 48);
    const std::uint32_t left = kGroupsByBits.group[bits >> 58];
    const std::uint64_t leftColumns = SpreadColumns(bits >> (64 - (left & 63)), left);
    bits <<= left & 63;
    const std::uint32_t right = kGroupsByBits.group[bits >> 58];
    const std::uint64_t rightColumns = SpreadColumns(bits >> (64 - (right & 63)), right);
    const unsigned taken = (left & 63) + (right & 63);
    // Both words reach 57 places or more; where they overlap they are the same.
    bits = word << taken | further >> (48 - taken);
    position += taken;
    return leftColumns << 16 | rightColumns;
  }

  /// Reads a plane, in the order of the code.
  std::uint64_t ReadPlane() {
    const std::uint64_t top = ReadPair();
    return top << 32 | ReadPair();
  }
};

/// Most planes of a block that goes to cells of a kind.
template <class Cell>
inline constexpr unsigned kMostPlanesOf = sizeof(Cell) == 2 ? kMostShortPlanes : kMostPlanes;

/// Decodes a run of blocks: the plane counts, blocks without planes, and when to stop, which
/// includes a block of more than `mostPlanes` or source.mostPlanes. The rest of a block is
/// decodeBlock(window, bits, position, planes, cells, strideCells), which returns the position
/// behind it; `bits` are those from the position on, 51 of them valid.
template <class Cell, class DecodeBlock>
[[maybe_unused]] KEL_INLINE std::size_t DecodeRun(BlockSource& source, Cell* cells,
                                                  std::ptrdiff_t strideCells, std::size_t count,
                                                  unsigned mostPlanes, DecodeBlock decodeBlock) {
  const BlockSource start = source;
  if (mostPlanes > start.mostPlanes) mostPlanes = start.mostPlanes;
  std::uint64_t position = start.bitPosition;
  unsigned planesSeen = start.planesSeen;
  std::size_t done = 0;
  for (; done < count && position <= start.lastStart; ++done, cells += 8) {
    const std::uint64_t bits = LoadBits(start.window, position);
    const unsigned planes = start.minPlanes + static_cast<unsigned>(bits >> (64 - start.fieldBits));
    if (planes > mostPlanes) break;
    planesSeen |= planes;
    position += start.fieldBits;
    if (planes == 0) {
      for (int y = 0; y < 8; ++y) std::memset(cells + y * strideCells, 0, 8 * sizeof *cells);
      continue;
    }
    position =
        decodeBlock(start.window, bits << start.fieldBits, position, planes, cells, strideCells);
  }
  source.bitPosition = position;
  source.planesSeen = planesSeen;
  return done;
}

}  // namespace
}  // namespace kel

#endif
