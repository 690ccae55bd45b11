// Kernels of the block coder: runs of whole blocks of 8 x 8 coefficients, in both directions, and
// the plane counts of blocks.
//
// A block's code, in bits: its plane count N less the band's smallest one, in a field whose width
// the band fixes; when N is 0, nothing more. Then plane N - 1 and, from N = 2 on, plane N - 2, each
// as four groups of 4 x 4 (left, right, then the two below): the word of the column pattern, then
// four bits, top row first, for each column that the pattern names. Then N - 2 low bits of every
// magnitude in raster order, and one bit for every coefficient that is not zero, 1 when negative:
// after all the low bits with separate signs, behind each coefficient's low bits with interleaved
// signs. Blocks follow each other without padding.
//
// Where the bits come from and go to are small records, because both survive from run to run.
#ifndef KEL_BLOCKS_KERNELS_H
#define KEL_BLOCKS_KERNELS_H

#include <cstddef>
#include <cstdint>

#include "KelInline.h"

namespace kel {

/// Most magnitude bits of a coefficient, and of one in a cell of 16 bits.
inline constexpr unsigned kMostPlanes = 32;
inline constexpr unsigned kMostShortPlanes = 15;

/// Most bytes that a block's code can touch: a field of 6 bits, two planes of four groups of 20
/// bits, 30 low bits for each of 64 coefficients, 64 signs: 2150 bits, at any phase in a byte.
inline constexpr std::uint64_t kMostBlockBytes = (7 + 6 + 2 * 4 * 20 + 64 * 30 + 64 + 7) / 8;
/// Bytes that kernels may load behind the last bit that they use.
inline constexpr std::uint64_t kLoadSlackBytes = 16;
/// Bytes that kernels may store behind the last bit that they put.
inline constexpr std::uint64_t kStoreSlackBytes = 8;

/// Bits to decode, most significant first, and the state of a band's decoding.
struct BlockSource {
  const std::uint8_t* window;
  std::uint64_t bitPosition;  ///< of the next bit, counted from the window's first byte
  /// Last position at which a block may begin, so that kMostBlockBytes and the slack behind them
  /// are readable.
  std::uint64_t lastStart;
  unsigned fieldBits;                 ///< width of the plane-count field, 1 to 6
  unsigned minPlanes;                 ///< the band's smallest plane count
  unsigned planesSeen;                ///< the plane counts met, ORed together
  unsigned mostPlanes = kMostPlanes;  ///< decoding stops in front of a block that has more
  float step = 1.0F;                  ///< what floats are multiplied by
};

/// Where bits are put, most significant first, and the state of a band's encoding.
struct BlockSink {
  std::uint8_t* next;     ///< whole bytes stand before it
  std::uint64_t pending;  ///< bits that are not yet a whole byte, at its most significant end
  unsigned numPending;    ///< 0 to 7
  unsigned fieldBits;     ///< width of the plane-count field, 1 to 6
  unsigned minPlanes;     ///< the band's smallest plane count
};

struct BlocksKernels {
  /// Decode up to `count` blocks, neighbours in a row of blocks, into cells of the given stride.
  /// They stop in front of a block that begins after lastStart or has more than mostPlanes, and
  /// return the number of blocks decoded. Magnitudes of 2^31 and more wrap around.
  template <class Cell>
  using Decode = std::size_t(BlockSource& source, Cell* cells, std::ptrdiff_t strideCells,
                             std::size_t count);
  Decode<std::int32_t>* decodeSeparateSigns;
  Decode<std::int32_t>* decodeInterleavedSigns;
  /// The same with separate signs, of blocks of up to 15 planes; they stop in front of others.
  Decode<std::int16_t>* decodeShorts;
  /// The same, each coefficient converted to single precision and then multiplied by the step.
  Decode<float>* decodeFloats;

  /// Encode `count` blocks, neighbours in a row of blocks, with separate signs. The sink has room
  /// for them and for the slack. Integers of -2^31 count as -(2^31 - 1); shorts of -2^15 do not
  /// come.
  template <class Cell>
  using Encode = void(const Cell* cells, std::ptrdiff_t strideCells,
                      const std::uint8_t* planeCounts, std::size_t count, BlockSink& sink);
  Encode<std::int32_t>* encodeIntegers;
  Encode<std::int16_t>* encodeShorts;

  /// Plane counts of `count` neighbouring blocks, 8 cells wide and `rows` (1 to 8) high: the bit
  /// length of the largest magnitude, as the encoding kernels see it.
  template <class Cell>
  using CountPlanes = void(const Cell* cells, std::ptrdiff_t strideCells, std::size_t rows,
                           std::size_t count, std::uint8_t* planeCounts);
  CountPlanes<std::int32_t>* countPlanesOfIntegers;
  CountPlanes<std::int16_t>* countPlanesOfShorts;
};

// Scalar kernels that vector kernels fall back on for blocks of many planes.
template <class Cell>
std::size_t DecodeSeparateSignsScalar(BlockSource& source, Cell* cells, std::ptrdiff_t strideCells,
                                      std::size_t count);
void EncodeIntegersScalar(const std::int32_t* cells, std::ptrdiff_t strideCells,
                          const std::uint8_t* planeCounts, std::size_t count, BlockSink& sink);
/// The scalar reference of every kernel.
void FillScalarBlocksKernels(BlocksKernels& table) noexcept;

}  // namespace kel

#endif
