// One level of the inverse transform over a strip of columns, two rows per step.
//
// A step takes the next row of low-pass and of high-pass bands, synthesises each across into a
// ring of rows, and synthesises down from the ring. Borders are mirrored: across by cells around
// the row pieces, down by the choice of ring rows. Internal to the wavelet transform.
#ifndef KEL_WAVELET_SYNTHESIS_H
#define KEL_WAVELET_SYNTHESIS_H

#include <cstring>
#include <type_traits>

#include "base/KelBox.h"
#include "kernels/KelKernels.h"
#include "transform/KelWaveletStrips.h"

namespace kel {

/// The coefficients of one band, or the result of a coarser level. Indices of the 9/7 filter are
/// dequantised as they are read.
struct BandSource {
  const void* cells;
  std::size_t strideCells;
  bool areIndices;
  float step, offset;
};

/// The bands of one level by kind, and the box that they rebuild. A flat level has no high-pass
/// bands; LL is the result.
struct LevelBands {
  Box box;
  BandSource bands[4];
  bool isFlat;
};

template <class Cell>
struct StripSynthesis {
  static constexpr std::int64_t kRingRows = 4;

  LevelBands level;
  const SynthesisKernels<Cell>* kernels;
  std::int64_t rowCells;
  Cell* pieces[2];              ///< low and high samples of one row with mirrored neighbours
  Cell* rings[2];               ///< rows low down, and rows high down, by index modulo kRingRows
  Cell* spareRows[2];           ///< take rows outside the box, of even and of odd position
  std::int64_t c0, c1;          ///< columns of the strip
  std::int64_t nextIndices[2];  ///< of the rows that have not been synthesised across yet
  const Cell* evenBefore;       ///< the last row of even position
};

/// Cells that InitStripSynthesis takes from scratch.
inline std::int64_t StripSynthesisCells(std::int64_t width) {
  return 12 * ScratchRowCells(width);
}

template <class Cell>
void InitStripSynthesis(StripSynthesis<Cell>& s, const LevelBands& level,
                        const SynthesisKernels<Cell>& kernels, ScratchCutter& scratch) {
  s.level = level;
  s.kernels = &kernels;
  s.rowCells = ScratchRowCells(level.box.Width());
  for (int kind = 0; kind < 2; ++kind) {
    s.pieces[kind] = scratch.Take<Cell>(s.rowCells);
    s.rings[kind] = scratch.Take<Cell>(s.rowCells * StripSynthesis<Cell>::kRingRows);
  }
  for (Cell*& row : s.spareRows) row = scratch.Take<Cell>(s.rowCells);
}

template <class Cell>
void BeginStrip(StripSynthesis<Cell>& s, std::int64_t c0, std::int64_t c1) {
  s.c0 = c0;
  s.c1 = c1;
  for (int kind = 0; kind < 2; ++kind) s.nextIndices[kind] = BandEdge(s.level.box.y0, kind == 1);
  // The first step's odd row lies outside the box, so what it is computed from does not matter.
  s.evenBefore = s.rings[0];
}

/// Reads cells of one row of a band; row and column count from the band's first cell.
template <class Cell>
void ReadBand(const BandSource& band, std::int64_t row, std::int64_t column, std::int64_t count,
              Cell* out) {
  const std::size_t at =
      static_cast<std::size_t>(row) * band.strideCells + static_cast<std::size_t>(column);
  const std::size_t cells = static_cast<std::size_t>(count);
  if constexpr (std::is_same_v<Cell, float>) {
    if (band.areIndices) {
      Kernels().wavelet.dequantise(static_cast<const std::int32_t*>(band.cells) + at, out, cells,
                                   band.step, band.offset);
      return;
    }
  }
  std::memcpy(out, static_cast<const Cell*>(band.cells) + at, cells * sizeof(Cell));
}

/// A high-pass sample of a signal of one sample, whose filter doubles it.
inline std::int32_t Halved(std::int32_t v) {
  return v / 2;
}
inline float Halved(float v) {
  return v * 0.5F;
}

/// Reads the samples [first, end) of one kind across into out, those outside the box mirrored.
template <class Cell>
void ReadPiece(const StripSynthesis<Cell>& s, const BandSource& band, bool high, std::int64_t row,
               std::int64_t first, std::int64_t end, Cell* out) {
  const Box& box = s.level.box;
  const std::int64_t bandFirst = BandEdge(box.x0, high);
  const std::int64_t from = std::max(first, bandFirst);
  const std::int64_t to = std::min(end, BandEdge(box.x1, high));
  ReadBand(band, row, from - bandFirst, to - from, out + (from - first));
  const auto mirror = [&](std::int64_t n) {
    out[n - first] = out[BandEdge(Mirror(2 * n + (high ? 1 : 0), box.x0, box.x1), high) - first];
  };
  for (std::int64_t n = first; n < from; ++n) mirror(n);
  for (std::int64_t n = to; n < end; ++n) mirror(n);
}

/// Synthesises across the row of a given index, low or high down, into its place in the ring.
template <class Cell>
void SynthesiseAcross(StripSynthesis<Cell>& s, bool highDown, std::int64_t index) {
  const Box& box = s.level.box;
  const std::int64_t row = index - BandEdge(box.y0, highDown);
  const BandSource* bands = s.level.bands + (highDown ? 2 : 0);
  Cell* const out =
      s.rings[highDown] + (index & (StripSynthesis<Cell>::kRingRows - 1)) * s.rowCells;
  if (box.Width() == 1) {
    const bool odd = (box.x0 & 1) != 0;
    Cell* const sample = out + (odd ? 1 : 0);
    ReadBand(bands[odd], row, 0, 1, sample);
    if (odd) *sample = Halved(*sample);
    return;
  }
  const std::int64_t first = FloorShift(s.c0, 1), end = CeilShift(s.c1, 1);
  Cell *const low = s.pieces[0] + kRowLead, *const high = s.pieces[1] + kRowLead;
  ReadPiece(s, bands[0], false, row, first - 1, end + 2, low - 1);
  ReadPiece(s, bands[1], true, row, first - 2, end + 2, high - 2);
  s.kernels->row(low, high, out, static_cast<std::size_t>(end - first));
}

/// The ring's rows that show the positions 2 (first + i) + kind, i < count, at the strip's first
/// column; rows that have not been synthesised across yet are.
template <class Cell>
void ShowRows(StripSynthesis<Cell>& s, bool high, std::int64_t first, int count,
              const Cell** rows) {
  const Box& box = s.level.box;
  std::int64_t indices[StripSynthesis<Cell>::kRingRows];
  for (int i = 0; i < count; ++i) {
    indices[i] = BandEdge(Mirror(2 * (first + i) + (high ? 1 : 0), box.y0, box.y1), high);
    while (s.nextIndices[high] <= indices[i]) SynthesiseAcross(s, high, s.nextIndices[high]++);
  }
  for (int i = 0; i < count; ++i) {
    rows[i] = s.rings[high] + (indices[i] & (StripSynthesis<Cell>::kRingRows - 1)) * s.rowCells +
              (s.c0 & 1);
  }
}

/// The row at a position of a level without filtering down: a flat one, or of one row.
template <class Cell>
void CopyRow(StripSynthesis<Cell>& s, std::int64_t position, Cell* out) {
  const Box& box = s.level.box;
  const std::int64_t count = s.c1 - s.c0;
  if (s.level.isFlat) {
    ReadBand(s.level.bands[0], position - box.y0, s.c0 - box.x0, count, out);
    return;
  }
  const bool high = (position & 1) != 0;
  const std::int64_t index = FloorShift(position, 1);
  SynthesiseAcross(s, high, index);
  const Cell* const row =
      s.rings[high] + (index & (StripSynthesis<Cell>::kRingRows - 1)) * s.rowCells + (s.c0 & 1);
  for (std::int64_t i = 0; i < count; ++i) out[i] = high ? Halved(row[i]) : row[i];
}

/// Computes the rows of positions 2n + 1 and 2n + 2. Steps begin with the n that yields the box's
/// first row second, or the row before it; rows outside the box go to s.spareRows. The even row
/// must stay until the next step, which reads it.
template <class Cell>
void Step(StripSynthesis<Cell>& s, std::int64_t n, Cell* odd, Cell* even) {
  const Box& box = s.level.box;
  if (s.level.isFlat || box.Height() == 1) {
    if (2 * n + 1 >= box.y0 && 2 * n + 1 < box.y1) CopyRow(s, 2 * n + 1, odd);
    if (2 * n + 2 >= box.y0 && 2 * n + 2 < box.y1) CopyRow(s, 2 * n + 2, even);
    return;
  }
  const Cell* low[3];
  const Cell* high[4];
  ShowRows(s, false, n, 3, low);
  ShowRows(s, true, n - 1, 4, high);
  s.kernels->rows(low, high, s.evenBefore, odd, even, static_cast<std::size_t>(s.c1 - s.c0));
  s.evenBefore = even;
}

/// Runs one level of several planes of the same box in step. The sink says where row pieces go,
/// and is told when a row piece of all planes is complete.
template <class Cell, class Sink>
void RunLevel(StripSynthesis<Cell>* planes, int numPlanes, Sink& sink) {
  const Box& box = planes[0].level.box;
  for (std::int64_t c0 = box.x0; c0 < box.x1;) {
    const std::int64_t c1 = StripEnd(c0, box.x1);
    for (int p = 0; p < numPlanes; ++p) BeginStrip(planes[p], c0, c1);
    const auto rowOf = [&](int p, std::int64_t y) {
      return y >= box.y0 && y < box.y1 ? sink.RowPiece(p, y - box.y0, c0 - box.x0)
                                       : planes[p].spareRows[y & 1];
    };
    for (std::int64_t n = FloorShift(box.y0, 1) - 1; 2 * n + 1 < box.y1; ++n) {
      for (int p = 0; p < numPlanes; ++p) {
        Step(planes[p], n, rowOf(p, 2 * n + 1), rowOf(p, 2 * n + 2));
      }
      for (std::int64_t y = 2 * n + 1; y <= 2 * n + 2; ++y) {
        if (y >= box.y0 && y < box.y1) sink.Complete(y - box.y0, c0 - box.x0, c1 - c0);
      }
    }
    c0 = c1;
  }
}

}  // namespace kel

#endif
