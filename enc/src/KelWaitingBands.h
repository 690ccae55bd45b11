// The quantised coefficients of a tile-component, waiting until all of its bands are complete: a
// band begins with the bounds of its blocks' plane counts, which only its last block makes known.
//
// Coefficients wait as integers, of 16 bits where depth and step prove that they fit, else of 32.
// Rows come in as the transform makes them; a float is rounded to the nearest integer, halves to
// even. The planes of a row of blocks are counted as soon as its last row is there. Until the bands
// are encoded their integers and plane counts may be changed block by block.
#ifndef KEL_WAITING_BANDS_H
#define KEL_WAITING_BANDS_H

#include <cstdint>

#include "KelBlockEncode.h"
#include "base/KelBox.h"
#include "samples/KelCellKind.h"

namespace kel {

/// The region of interest as bands see it, and the steps outside it. The marks stand as
/// CarryRegionMask lays them out.
struct CoarseOutside {
  const std::uint8_t* marks;  ///< null: no region
  const float* steps;         ///< one per subband
};

/// A row of a subband of a tile-component.
struct BandRow {
  const Box& box;  ///< of the tile-component
  int numLevels, subband;
  std::int64_t row;  ///< counted from the subband's first one
};

/// Rounds what lies outside the region to multiples of the subband's step: nearest, halves to even.
void CoarsenRow(const CoarseOutside& outside, const BandRow& row, float* cells, std::size_t count);

/// What is to wait.
struct WaitingJob {
  Box box;
  int numLevels;
  CellKind cells;       ///< of the rows that come
  int sampleBits;       ///< of the transformed component's samples, sign included
  const float* steps;   ///< that floats are divided by before they come; null: none
  bool choosesIndices;  ///< floats come as eighteenths of the steps that indices stand for
};

/// The bands of a tile-component; a plain record over the memory that it was given.
struct WaitingBands {
  Box box;
  int numLevels;
  CellKind cells;
  CoarseOutside outside;
  bool choosesIndices;
  EncodeBand* bands;  ///< one per subband, of the caller
};

/// Bytes of memory that bands need. Saturates.
std::uint64_t WaitingBytes(const WaitingJob& job);

/// Lays bands out in memory of that size, aligned to 64 bytes. The records of bands are there.
void BeginWaiting(const WaitingJob& job, void* memory, WaitingBands& waiting);

// What the forward transform calls; `waiting` is a WaitingBands. Integers are put where they wait.
void* PlaceBandRow(void* waiting, int subband, std::int64_t row);
void TakeBandRow(void* waiting, int subband, std::int64_t row, void* cells);

/// The last step of choosing indices, once all rows are there.
void NarrowAllPlaneCounts(const WaitingBands& waiting);

}  // namespace kel

#endif
