// The wavelet transform of a tile-component: subband geometry, inverse drivers for the reversible
// 5/3 and the irreversible 9/7 filter, and region masks.
//
// A tile-component covers a box; all phases follow from the box's coordinates, never from 0. A
// plane holds the sample (x, y) of its box at cell (y - y0) stride + (x - x0). In the Mallat
// layout each level's box holds the quadrants LL HL / LH HH, low parts first, and the next level
// stands in LL. Drivers never fail and obtain nothing: scratch comes from the caller, aligned to
// 64 bytes (ScratchArray).
#ifndef KEL_WAVELET_H
#define KEL_WAVELET_H

#include <cstddef>
#include <cstdint>

#include "base/KelBox.h"
#include "kel/KelFormat.h"
#include "samples/KelCellKind.h"

namespace kel {

/// Kinds of subbands: low or high across, then low or high down.
enum class SubbandKind : std::uint8_t { kLL, kHL, kLH, kHH };

// Subbands in code-stream order: LL of the coarsest level, then HL, LH, HH of every level from
// the coarsest to the finest. Level numLevels is the coarsest, level 1 the finest.

constexpr int NumSubbands(int numLevels) {
  return 3 * numLevels + 1;
}
/// Subbands of the most levels that a code stream can ask for.
inline constexpr int kMaxSubbands = NumSubbands(format::kMostLevels);
/// The kind of a subband, and the level it belongs to (with no level at all LL counts as 0).
constexpr SubbandKind KindOfSubband(int subband) {
  return subband == 0 ? SubbandKind::kLL : static_cast<SubbandKind>((subband - 1) % 3 + 1);
}
constexpr int LevelOfSubband(int subband, int numLevels) {
  return subband == 0 ? numLevels : numLevels - (subband - 1) / 3;
}
/// Bits by which a subband's nominal range exceeds that of the samples.
constexpr int GainOfSubband(int subband) {
  return subband == 0 ? 0 : KindOfSubband(subband) == SubbandKind::kHH ? 2 : 1;
}

/// The coefficients of a subband in its own coordinates.
Box SubbandBox(const Box& box, int numLevels, int subband);

/// Where a subband's first coefficient stands in the Mallat layout of its box.
struct CellOffset {
  std::int64_t column, row;
};
CellOffset MallatOffset(const Box& box, int numLevels, int subband);

/// Rows of something, strideCells elements apart.
template <class T>
struct Rows {
  T* data;
  std::size_t strideCells;
};

// Inverse transforms. They run row by row through all levels at once: samples come out from the
// first row to the last, and the rows of every band are taken in that order, each once, when they
// are needed. A lower resolution is decoded from the bands of that resolution alone, with as many
// levels as the resolution's number: they have the same boxes there, and the first entries of the
// same list of steps.

/// Cells around a row of a band that the synthesis may write, if the band says so.
inline constexpr std::int64_t kBandRowMargin = 32;

/// The rows of a band that have not been taken: coefficients of the component's kind of cells, or
/// indices that are dequantised as they are taken.
struct BandRows {
  std::int64_t width;       ///< cells of a row
  void* next;               ///< the next row, when one is ahead; only read unless it has margins
  std::size_t strideCells;  ///< from row to row
  std::int64_t rowsAhead;   ///< that can be taken
  /// Called when none is ahead: makes further ones ready, at least one, and describes them in the
  /// three fields above. Rows taken before need not stay. Null when all rows are ahead.
  void (*refill)(BandRows& band);
  void* source;     ///< for refill's use
  bool hasMargins;  ///< kBandRowMargin cells before and behind each row may be written
  bool areIndices;  ///< std::int32_t, for the 9/7 filter: index times step
  float step;
};

/// A tile-component as its bands.
struct ComponentBands {
  Box box;
  int numLevels;
  CellKind cells;
  BandRows bands[NumSubbands(format::kMostLevels)];
};

/// How the indices of the 9/7 filter are dequantised.
struct IndexSteps {
  const float* steps;  ///< one per subband
  float lowStep;       ///< that of LL
};
/// Every index is multiplied by its subband's step; LL stays as it is when its step lies in 0.9999
/// to 1.0001.
IndexSteps StepsOfIndices(const float* steps);

/// A tile-component's coefficients in Mallat layout: std::int32_t, 5/3 values or 9/7 indices, or
/// floats.
struct CoefficientPlane {
  const void* cells;
  std::size_t strideCells;
  Box box;
  int numLevels;
};

/// The bands of a plane. Planes are only read.
ComponentBands BandsOfInts(const CoefficientPlane& plane);
ComponentBands BandsOfIndices(const CoefficientPlane& plane, const IndexSteps& steps);
ComponentBands BandsOfFloats(const CoefficientPlane& plane);

/// Whether a component whose bands have magnitudes of at most so many bits can be synthesised with
/// the 5/3 filter in cells of 16 bits, with samples of at most `mostSample` in magnitude.
bool FitsShorts(int numLevels, const std::uint8_t* bandBits, std::int64_t mostSample);

/// 32-bit cells of scratch that an inverse driver needs for components of one box and of up to so
/// many levels: some two dozen rows of each. Saturates.
std::uint64_t InverseDwtScratchCells(const Box& box, int numLevels, int numComponents = 1);

void InverseDwt53(const ComponentBands& bands, void* scratch, Rows<std::int32_t> out);
/// Straight to 8-bit samples: v + 128, clamped.
void InverseDwt53To8Bit(const ComponentBands& bands, void* scratch, Rows<std::uint8_t> out);

// The general 9/7 path. Results are of single precision.

/// Sums and products: rounded to double precision, or each to single precision, which is faster.
enum class Sums97 : std::uint8_t { kDouble, kSingle };

/// In double precision.
void InverseDwt97(const ComponentBands& bands, void* scratch, Rows<float> out);
/// Straight to 8-bit samples: v + 128, to nearest, halves to even, clamped.
void InverseDwt97GeneralTo8Bit(const ComponentBands& bands, void* scratch, Rows<std::uint8_t> out,
                               Sums97 sums = Sums97::kDouble);

/// The direct 9/7 path to 8-bit samples: single-precision arithmetic. Samples are v + 128, clamped,
/// rounded to nearest: halves to even when the width is a multiple of 4 and the output stride one
/// of 16, or without levels, else away from zero.
void InverseDwt97To8Bit(const ComponentBands& bands, void* scratch, Rows<std::uint8_t> out);

/// Three colour components of one box and kind straight to 8-bit red, green and blue. Level counts
/// may differ.
void InverseDwt53RctTo8Bit(const ComponentBands (&bands)[3], void* scratch,
                           const Rows<std::uint8_t> (&out)[3]);
void InverseDwt97IctTo8Bit(const ComponentBands (&bands)[3], void* scratch,
                           const Rows<std::uint8_t> (&out)[3], Sums97 sums = Sums97::kDouble);

// Region masks.

/// Cells around the mask of the coefficients, on each side.
inline constexpr std::int64_t kMaskMargin = 5;
/// What marks a coefficient that the region needs.
inline constexpr std::uint8_t kMaskMark = 127;

/// Carries the mask of a tile-component's samples (nonzero inside the region, W x H bytes without
/// gaps) down to its coefficients. The result has W + 10 columns and H + 10 rows; its cell
/// (5 + i, 5 + j) belongs to the coefficient at cell (i, j) of the Mallat layout and holds
/// kMaskMark when rebuilding a sample of the region needs that coefficient, else 0. Scratch of
/// RegionMaskScratchBytes.
struct RegionMask {
  const std::uint8_t* samples;
  Box box;
  int numLevels;
  bool irreversible;
};
std::uint64_t RegionMaskScratchBytes(const Box& box);
void CarryRegionMask(const RegionMask& mask, std::uint8_t* scratch, std::uint8_t* coefficients);
/// What the result says of a subband's row, counted from its first one.
const std::uint8_t* RegionMaskRow(const std::uint8_t* coefficients, const Box& box, int numLevels,
                                  int subband, std::int64_t row);

}  // namespace kel

#endif
