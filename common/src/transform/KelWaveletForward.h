// The forward wavelet transform of a tile-component, row by row through all levels at once.
//
// Rows of samples go in from the top. Each level keeps the few rows that its filter reaches over;
// as soon as they suffice, it gives out a low-pass and a high-pass row: three quarters of them are
// rows of subbands, the rest is the next level's input. What is at work at a time is some rows per
// level, however high the tile-component is. Every row of every band that has samples is handed
// over once, the rows of each band from the top; those of different bands come interleaved.
#ifndef KEL_WAVELET_FORWARD_H
#define KEL_WAVELET_FORWARD_H

#include <cstddef>
#include <cstdint>

#include "base/KelBox.h"
#include "samples/KelCellKind.h"
#include "transform/KelWavelet.h"

namespace kel {

/// Who takes finished rows. Raises nothing.
struct BandRowTaker {
  void* context;
  /// Called with a subband, a row of it counted from its first one, and its coefficients, which may
  /// be changed; they are not valid afterwards unless `place` said where they go.
  void (*take)(void* context, int subband, std::int64_t row, void* cells);
  /// Where a row is to be put before it is taken, or null for wherever; null when it never matters.
  void* (*place)(void* context, int subband, std::int64_t row) = nullptr;
};

/// What to transform. Shorts and integers go through the 5/3 filter, floats through the 9/7 filter
/// and are divided by their subband's step.
struct ForwardJob {
  Box box;
  int numLevels;
  CellKind cells;
  const float* steps;  ///< one per subband, read at the start; null: divide by nothing
  BandRowTaker taker;
};

/// One level at work.
struct ForwardLevel {
  Box box;                  ///< of its input
  std::uint8_t* ring;       ///< the newest rows of its input
  std::size_t rowBytes;     ///< from row to row of the ring
  std::uint8_t* states[2];  ///< what a step leaves for the next one, and the next one's
  std::int64_t numTaken;    ///< rows of input so far
  std::int64_t step;        ///< the next pair of rows: 2 step and 2 step + 1
  double factors[4];        ///< of the level's bands by kind
};

/// A transform under way. Plain pointers into the memory that it was given.
struct ForwardRows {
  BandRowTaker taker;
  CellKind cells;
  int numLevels;
  ForwardLevel
      levels[format::kMostLevels + 1];  ///< finest first; the last one is LL, which has no steps
  std::uint8_t* lowHigh[2];             ///< rows made down, with room for mirrored neighbours
  std::uint8_t* across[2];              ///< rows made across
};

/// Whether samples and everything that the 5/3 filter makes of them stay within 16 bits: samples
/// of at most so many bits (sign included), through so many levels.
bool SamplesFitShorts(int sampleBits, int numLevels);

/// Bytes of memory that a transform needs. Saturates.
std::uint64_t ForwardRowsBytes(const Box& box, int numLevels, CellKind cells);

/// Begins a transform in memory of that size, aligned to 64 bytes. An empty box has no rows.
void BeginForward(const ForwardJob& job, void* memory, ForwardRows& rows);

/// Where the next row of samples is to be put, of the job's kind of cells.
void* NextSampleRow(const ForwardRows& rows);

/// Takes the row that was put there. After the last row all bands are complete.
void TakeSampleRow(ForwardRows& rows);

}  // namespace kel

#endif
