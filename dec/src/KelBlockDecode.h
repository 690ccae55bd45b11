// Block decoding: the bits of one band of one packet back into signed integer coefficients.
//
// A band's data are two bytes, the smallest and the largest plane count among its blocks, then its
// code blocks in raster order, bit after bit, filled up to a whole byte. The code of a block stands
// in kernels/KelBlocksKernels.h. No sequence of bits is invalid to the coder; what ends a band
// early is a header or a plane count that no block can have, or the end of the data.
#ifndef KEL_BLOCK_DECODE_H
#define KEL_BLOCK_DECODE_H

#include <cstddef>
#include <cstdint>

#include "KelDecDataMgr.h"

namespace kel {

/// Where sign bits stand: after all low planes of a block, or behind each coefficient's low bits.
/// Bit 0x08 of the code-block style, when set, means the former.
enum class SignLayout : std::uint8_t { kInterleavedSigns, kSeparateSigns };

constexpr SignLayout SignLayoutOfStyle(std::uint32_t codeBlockStyle) {
  return (codeBlockStyle & 0x08) != 0 ? SignLayout::kSeparateSigns : SignLayout::kInterleavedSigns;
}

/// The part of a band that a packet carries, and where its coefficients go.
struct BandBlocks {
  std::int32_t x0, x1, y0, y1;  ///< the precinct's rectangle, in band coordinates
  std::uint8_t widthExponent;   ///< of the code blocks, 0 to 3 unless the rectangle is empty
  std::uint8_t heightExponent;  ///< likewise
  std::int32_t* cells;          ///< of (x0, y0)
  std::ptrdiff_t strideCells;
};

/// How the decoding of a band ended.
enum class BandEnd : std::uint8_t {
  kWhole,   ///< every block was decoded, and the reader stands on the byte behind the band
  kCutOff,  ///< a block needed bytes behind the end of the data: it is zero, later ones untouched
  kOutOfRange,  ///< the header, or a block's plane count, is outside 0 to 32: later blocks
                ///< untouched
};

struct BandOutcome {
  BandEnd end;
  bool anyNonZero;  ///< whether a coefficient that is not zero was stored
};

/// Decodes a band from the reader, which stands on its first byte. After kOutOfRange the reader
/// stands somewhere inside the band: the caller passes over the rest by the band's length.
BandOutcome DecodeBandBlocks(KelDecDataMgr& reader, const BandBlocks& band, SignLayout layout);

}  // namespace kel

#endif
