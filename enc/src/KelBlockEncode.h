// Block encoding: the coefficients of a tile-component into bytes, band by band, with the size of
// every resolution and band beside them.
//
// A band's bytes are its smallest and its largest plane count, then its blocks of 8 x 8 in raster
// order, bit after bit, filled up with zero bits to a whole byte. The code of a block stands in
// kernels/KelBlocksKernels.h; sign bits are always separate.
#ifndef KEL_BLOCK_ENCODE_H
#define KEL_BLOCK_ENCODE_H

#include <cstddef>
#include <cstdint>

#include "KelKeptBlock.h"
#include "base/KelBox.h"
#include "base/KelMemFuncDefs.h"
#include "transform/KelWavelet.h"

namespace kel {

/// A band to be encoded: one precinct. Its coefficients are integers of 16 bits or of 32.
struct EncodeBand {
  std::int32_t x0, x1, y0, y1;  ///< the band's rectangle, in band coordinates
  void* data;                   ///< the coefficient at (x0, y0)
  std::ptrdiff_t strideCells;
  bool areShorts;
  std::uint8_t* planeCounts;  ///< of its blocks, in raster order: bits of the largest magnitude, at
                              ///< most 31
};

/// Blocks of a band.
std::uint64_t CountBlocksOf(const EncodeBand& band);

/// The row of blocks of which `row` (in band coordinates) is the last row, as a band.
EncodeBand BlocksAbove(const EncodeBand& band, std::int32_t row);

/// Counts the planes of the blocks of which `row` (in band coordinates) is the last row.
void CountPlanesAbove(const EncodeBand& band, std::int32_t row);

/// Whether a row is the last one of its blocks.
bool EndsBlocks(const EncodeBand& band, std::int32_t row);

/// What the coding of one block came to, for inspection. Eleven bytes, without padding.
#pragma pack(push, 1)
struct BlockRateRecord {
  /// Whole bytes stored while the block was coded; bits that are pending count with the block that
  /// completes their byte. The first record includes the two bytes in front of its block; a block
  /// without planes has 0.
  std::uint16_t length;
  std::uint8_t planeCount;
  std::uint32_t perPlane;  ///< 0
  std::uint32_t reserved;  ///< 0
};
#pragma pack(pop)
static_assert(sizeof(BlockRateRecord) == 11);

struct BlockRateTable {
  BlockRateRecord* records;  ///< owned; null unless it was asked for
  std::uint32_t count;
};

/// A coded tile-component. Resolution r's bytes follow those of the resolutions below it, and the
/// bands of a resolution follow each other. The room for the bytes serves the next coding.
struct CodedTileComponent {
  KeptBlock room;
  std::uint64_t numBytes;
  std::int32_t numLevels;
  // The size tables; CountSizes entries, which resSize begins. Of the caller.
  std::uint32_t* resSize;      ///< bytes of each of the numLevels + 1 resolutions
  std::uint32_t* bandSize;     ///< bytes of each of the 3 numLevels + 1 bands
  std::uint32_t* firstRecord;  ///< blocks before each resolution, and at last of all
  BlockRateTable rates;

  const std::uint8_t* Bytes() const { return static_cast<const std::uint8_t*>(room.bytes); }
};

constexpr std::uint64_t CountSizes(std::int32_t numLevels) {
  return 5 * static_cast<std::uint64_t>(numLevels) + 4;
}

/// The most bytes of a band of so many blocks, none of which has more planes than given.
std::uint64_t MostBytesOfBand(std::uint64_t numBlocks, unsigned planes);

/// Lays the size tables out in memory of CountSizes entries.
void PlaceSizes(std::int32_t numLevels, std::uint32_t* memory, CodedTileComponent& coded);

/// Encodes the 3 numLevels + 1 bands of a tile-component, in subband order, whose plane counts are
/// there. Bands whose counts are all 0 come to no bytes when dropEmpty is set. What the record held
/// before gives way. Raises 8 with nothing coded.
void EncodeTileComponent(const EncodeBand* bands, bool keepRates, bool dropEmpty,
                         CodedTileComponent& coded);

/// The bytes of a band whose cells stand without gaps, for a packet of its own making. Cells become
/// what can be coded: the smallest integer is taken for its neighbour. Raises 8.
OwnedArray<std::uint8_t> EncodeBandAlone(const Box& box, std::int32_t* cells);

/// Releases bytes and rates; accepts half-built records and may run twice.
void ReleaseCodedTileComponent(CodedTileComponent& coded) noexcept;

}  // namespace kel

#endif
