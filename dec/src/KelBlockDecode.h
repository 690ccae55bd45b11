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
#include "image/KelWork.h"
#include "kernels/KelBlocksKernels.h"

namespace kel {

/// Where sign bits stand: after all low planes of a block, or behind each coefficient's low bits.
/// Bit 0x08 of the code-block style, when set, means the former.
enum class SignLayout : std::uint8_t { kInterleavedSigns, kSeparateSigns };

constexpr SignLayout SignLayoutOfStyle(std::uint32_t codeBlockStyle) {
  return (codeBlockStyle & 0x08) != 0 ? SignLayout::kSeparateSigns : SignLayout::kInterleavedSigns;
}

/// The part of a band that a packet carries.
struct BandPart {
  std::int32_t x0, x1, y0, y1;  ///< the precinct's rectangle, in band coordinates
  std::uint8_t widthExponent;   ///< of the code blocks, 0 to 3 unless the rectangle is empty
  std::uint8_t heightExponent;  ///< likewise
  SignLayout layout;
  std::int64_t end = INT64_MAX;  ///< position in the data where the band's are said to end
  WorkMeter* work = nullptr;     ///< counts the samples decoded; may be null

  bool IsEmpty() const { return x0 >= x1 || y0 >= y1; }
};

/// How the decoding of a band ended.
enum class BandEnd : std::uint8_t {
  kWhole,    ///< every block was decoded, and the reader stands on the byte behind the band
  kCutOff,   ///< a block needed bytes behind the end of the data: it is zero, later ones untouched
  kPastEnd,  ///< the next block would begin behind `end`: it and later blocks are untouched
  kOutOfRange,  ///< the header, or a block's plane count, is out of range: later blocks untouched
};

struct BandOutcome {
  BandEnd end;
  bool anyNonZero;  ///< whether a coefficient that is not zero was stored
};

struct DecodedBlock;

/// Decodes a band one row of blocks at a time. The reader stands on the band's first byte at first
/// and belongs to the decoding until it ends, which IsOver tells.
class BandDecoder {
 public:
  /// Reads the band's header. Plane counts may reach 32 whatever the header says, or, strictly,
  /// what it says. Floats are multiplied by the step.
  void Begin(KelDecDataMgr& reader, const BandPart& part, bool isStrict, float step);

  /// The first row of coefficients that has not been decoded, in band coordinates.
  std::int32_t NextRow() const { return nextRow_; }
  bool IsOver() const { return end_ != BandEnd::kWhole || nextRow_ >= part_.y1; }
  BandOutcome Outcome() const { return {end_, source_.planesSeen != 0}; }

  /// Decodes the next row of blocks into std::int32_t, or with separate signs into std::int16_t
  /// (strictly, of a band of up to 15 planes) or float. Returns its height.
  template <class Cell>
  std::int32_t DecodeRow(KelDecDataMgr& reader, Cell* cells, std::ptrdiff_t strideCells);

 private:
  bool OpenWindow(KelDecDataMgr& reader);
  void CloseWindow(KelDecDataMgr& reader);
  template <class Cell>
  std::int64_t DecodeRun(KelDecDataMgr& reader, Cell* cells, std::ptrdiff_t strideCells,
                         std::int64_t count);
  template <class Bits>
  BandEnd DecodeFrom(Bits& bits, DecodedBlock& block);
  BandEnd DecodeOne(KelDecDataMgr& reader, DecodedBlock& block);

  BandPart part_;
  BandEnd end_;
  bool windowIsOpen_;
  std::int32_t nextRow_;
  BlockSource source_;
};

/// Decodes a band from the reader, which stands on its first byte, into cells of which the first is
/// the part's first coefficient. After kOutOfRange the reader stands somewhere inside the band: the
/// caller passes over the rest by the band's length.
BandOutcome DecodeBandBlocks(KelDecDataMgr& reader, const BandPart& part, std::int32_t* cells,
                             std::ptrdiff_t strideCells);

}  // namespace kel

#endif
