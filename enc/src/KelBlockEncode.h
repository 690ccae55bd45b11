// Block encoding: the coefficients of a tile-component into one buffer of bytes, band by band, with
// the size of every resolution and band beside it.
//
// A band's bytes are its smallest and its largest plane count, then its blocks of 8 x 8 in raster
// order, bit after bit, filled up with zero bits to a whole byte. The code of a block stands in
// kernels/KelBlocksKernels.h; sign bits are always separate. Coefficients are read where the
// transform left them and converted on the way, so that no second plane is written.
#ifndef KEL_BLOCK_ENCODE_H
#define KEL_BLOCK_ENCODE_H

#include <cstddef>
#include <cstdint>

namespace kel {

/// What a tile-component's coefficients are: 32-bit integers after the reversible transform; floats
/// after the irreversible one, to be rounded to the nearest integer, halves to even.
enum class CoefficientKind : std::uint8_t { kIntegers, kFloats };

/// A band to be encoded: one precinct. The bands of a tile-component may stand in different planes.
struct EncodeBand {
  std::int32_t x0, x1, y0, y1;  ///< the band's rectangle, in band coordinates
  const void* data;             ///< the coefficient at (x0, y0)
  std::ptrdiff_t strideCells;
};

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
  BlockRateRecord* records;  ///< null unless it was asked for
  std::uint32_t count;
};

/// A coded tile-component. Resolution r's bytes follow those of the resolutions below it, and the
/// bands of a resolution follow each other.
struct CodedTileComponent {
  std::uint8_t* bytes;
  std::uint64_t numBytes;
  std::uint64_t obtainedBytes;  ///< of the block that holds them
  std::int32_t numLevels;
  // The size tables; one block of memory, which resSize begins.
  std::uint32_t* resSize;      ///< bytes of each of the numLevels + 1 resolutions
  std::uint32_t* bandSize;     ///< bytes of each of the 3 numLevels + 1 bands
  std::uint32_t* firstRecord;  ///< blocks before each resolution, and at last of all
  BlockRateTable rates;
};

/// Encodes the 3 numLevels + 1 bands of a tile-component, in subband order; numLevels is at
/// most 32. Fills a zero-filled record; raises 8 with nothing left behind.
void EncodeTileComponent(const EncodeBand* bands, std::int32_t numLevels, CoefficientKind kind,
                         bool keepRates, CodedTileComponent& coded);

/// The most bytes of a band of so many blocks, none of which has more planes than given.
std::uint64_t MostBytesOfBand(std::uint64_t numBlocks, unsigned planes);

/// Gives back what the bytes' block has too much, which is a fraction of them: for many components
/// that wait to be written together. Raises 8 with everything kept.
void TrimCodedBytes(CodedTileComponent& coded);

/// Releases bytes and rates, which are not needed once they are written. The size tables stay.
void ReleaseCodedBytes(CodedTileComponent& coded) noexcept;

/// Releases everything; accepts half-built records and may run twice.
void ReleaseCodedTileComponent(CodedTileComponent& coded) noexcept;

}  // namespace kel

#endif
