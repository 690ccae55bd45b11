// The inverse transform of one tile-component, row by row through all its levels at once.
//
// Whoever wants samples asks the finest level for its next row. A level asks the level below for
// rows of its LL band, and the bands for theirs; it synthesises each across into a ring of rows,
// and down from the rings, two rows per step. So every level keeps only the rows that its filter
// needs. Borders are mirrored: across by cells around the rows, down by the choice of ring rows.
// Internal to the wavelet transform.
#ifndef KEL_WAVELET_SYNTHESIS_H
#define KEL_WAVELET_SYNTHESIS_H

#include <cstring>
#include <type_traits>

#include "kernels/KelKernels.h"
#include "transform/KelWavelet.h"
#include "transform/KelWaveletAxes.h"

namespace kel {

/// One level: the bands by kind, and the box that they rebuild. A flat level has no high-pass
/// bands; LL is the result.
template <class Cell>
struct LevelSynthesis {
  // Rows that the filter needs down, low and high; powers of two. The 5/3 filter needs one low
  // row and its two high neighbours, the 9/7 filter three and four.
  static constexpr std::int64_t kRingRows[2] = {std::is_same_v<Cell, float> ? 4 : 1,
                                                std::is_same_v<Cell, float> ? 4 : 2};

  Box box;
  bool isFlat;
  LevelSynthesis* below;  ///< gives the rows of LL; null: LL is a band
  BandRows bands[4];
  const SynthesisKernels<Cell>* kernels;
  std::int64_t rowCells;
  Cell* pieces[2];              ///< low and high samples of a row, with mirrored neighbours
  Cell* rings[2];               ///< rows low down, and rows high down, by index
  Cell* evenRows[2];            ///< the last results of even position
  Cell* oddRow;                 ///< and of odd position
  std::int64_t nextIndices[2];  ///< of the rows that have not been synthesised across yet
  std::int64_t lastStep;        ///< step n yields the rows of positions 2n + 1 and 2n + 2
  std::int64_t nextPosition;    ///< of the row that is given next
};

/// Cells before the first one of a row of scratch, of which the filters touch the last three, and
/// behind its last one.
inline constexpr std::int64_t kRowMargin = kBandRowMargin;

inline std::int64_t SynthesisRowCells(std::int64_t width) {
  return RoundUp(width, kRowMargin) + 2 * kRowMargin;
}

/// Rows of scratch that a level takes at most.
inline constexpr std::int64_t kMostLevelRows = 2 + 4 + 4 + 2 + 1;

template <class Cell>
void InitLevel(LevelSynthesis<Cell>& s, ScratchCutter& scratch) {
  s.rowCells = SynthesisRowCells(s.box.Width());
  for (Cell*& piece : s.pieces) piece = scratch.Take<Cell>(s.rowCells) + kRowMargin;
  if (s.isFlat) return;
  for (int high = 0; high < 2; ++high) {
    s.rings[high] = scratch.Take<Cell>(s.rowCells * s.kRingRows[high]);
    s.evenRows[high] = scratch.Take<Cell>(s.rowCells) + kRowMargin;
    s.nextIndices[high] = BandEdge(s.box.y0, high == 1);
  }
  s.oddRow = scratch.Take<Cell>(s.rowCells) + kRowMargin;
  s.lastStep = FloorShift(s.box.y0, 1) - 2;
  s.nextPosition = s.box.y0;
}

template <class Cell>
Cell* NextRow(LevelSynthesis<Cell>& s);

/// The next row of a band, with cells around it that may be written. It stays until the band's
/// next row is asked for, or goes to `piece`.
template <class Cell>
Cell* NextBandRow(LevelSynthesis<Cell>& s, int kind, Cell* piece) {
  if (kind == 0 && s.below != nullptr) return NextRow(*s.below);
  BandRows& band = s.bands[kind];
  if (band.rowsAhead == 0) band.refill(band);
  --band.rowsAhead;
  const auto count = static_cast<std::size_t>(band.width);
  if constexpr (std::is_same_v<Cell, float>) {
    if (band.areIndices) {
      auto* const row = static_cast<std::int32_t*>(band.next);
      band.next = row + band.strideCells;
      Kernels().wavelet.dequantise(row, piece, count, band.step);
      return piece;
    }
  }
  auto* const row = static_cast<Cell*>(band.next);
  band.next = row + band.strideCells;
  if (band.hasMargins) return row;
  std::memcpy(piece, row, count * sizeof(Cell));
  return piece;
}

/// A high-pass sample of a signal of one sample, whose filter doubles it.
template <class Cell>
Cell Halved(Cell v) {
  return static_cast<Cell>(v / 2);
}

/// Mirrors a row of low or high samples into the cells around it, `before` and `behind` the pairs
/// of the box, which is at least two samples wide. Returns the place of the first pair's sample.
template <class Cell>
Cell* MirrorAround(Cell* row, bool high, const Box& box, std::int64_t before, std::int64_t behind) {
  const std::int64_t firstPair = FloorShift(box.x0, 1), endPair = CeilShift(box.x1, 1);
  const std::int64_t first = BandEdge(box.x0, high), end = BandEdge(box.x1, high);
  // At an edge that only one reflection reaches beyond, sample n shows edge - n - high.
  constexpr std::int64_t kLeastOfOne = 8;
  if (box.Width() >= kLeastOfOne) {
    const std::int64_t left = box.x0 - high - first, right = box.x1 - 1 - high - first;
    for (std::int64_t n = firstPair - before; n < first; ++n) row[n - first] = row[left - n];
    for (std::int64_t n = end; n < endPair + behind; ++n) row[n - first] = row[right - n];
    return row - (first - firstPair);
  }
  const auto mirror = [&](std::int64_t n) {
    const std::int64_t shown = Mirror(2 * n + (high ? 1 : 0), box.x0, box.x1);
    row[n - first] = row[BandEdge(shown, high) - first];
  };
  for (std::int64_t n = firstPair - before; n < first; ++n) mirror(n);
  for (std::int64_t n = end; n < endPair + behind; ++n) mirror(n);
  return row - (first - firstPair);
}

/// Synthesises across the row of a given index, low or high down, into its place in the ring.
template <class Cell>
void SynthesiseAcross(LevelSynthesis<Cell>& s, bool highDown, std::int64_t index) {
  const Box& box = s.box;
  const int kind = highDown ? 2 : 0;
  Cell* const out = s.rings[highDown] + (index & (s.kRingRows[highDown] - 1)) * s.rowCells;
  if (box.Width() == 1) {
    const bool odd = (box.x0 & 1) != 0;
    const Cell sample = *NextBandRow(s, kind + (odd ? 1 : 0), s.pieces[0]);
    out[odd] = odd ? Halved(sample) : sample;
    return;
  }
  Cell* const low = MirrorAround(NextBandRow(s, kind, s.pieces[0]), false, box, 1, 2);
  Cell* const high = MirrorAround(NextBandRow(s, kind + 1, s.pieces[1]), true, box, 2, 2);
  const std::int64_t pairs = CeilShift(box.x1, 1) - FloorShift(box.x0, 1);
  s.kernels->row(low, high, out, static_cast<std::size_t>(pairs));
}

/// The ring's row that shows the position 2 index + high; rows up to it that have not been
/// synthesised across yet are.
template <class Cell>
const Cell* ShowRow(LevelSynthesis<Cell>& s, bool high, std::int64_t index) {
  const Box& box = s.box;
  const std::int64_t shown = BandEdge(Mirror(2 * index + (high ? 1 : 0), box.y0, box.y1), high);
  while (s.nextIndices[high] <= shown) SynthesiseAcross(s, high, s.nextIndices[high]++);
  return s.rings[high] + (shown & (s.kRingRows[high] - 1)) * s.rowCells + (box.x0 & 1);
}

/// Computes the rows of positions 2n + 1 and 2n + 2 from that of 2n and the rings. The first step
/// yields the box's first row second, or the row before it.
template <class Cell>
void Step(LevelSynthesis<Cell>& s, std::int64_t n) {
  const Cell* low[3];
  const Cell* high[4];
  // What lies further on is shown first: rings keep what the mirrored position needs.
  if constexpr (std::is_same_v<Cell, float>) {
    for (int i = 2; i >= 0; --i) low[i] = ShowRow(s, false, n + i);
    for (int i = 3; i >= 0; --i) high[i] = ShowRow(s, true, n - 1 + i);
  } else {
    low[1] = ShowRow(s, false, n + 1);
    high[2] = ShowRow(s, true, n + 1);
    high[1] = ShowRow(s, true, n);
  }
  s.kernels->rows(low, high, s.evenRows[n & 1], s.oddRow, s.evenRows[(n + 1) & 1],
                  static_cast<std::size_t>(s.box.Width()));
}

/// The row of a level of one row, which is not filtered down.
template <class Cell>
Cell* OnlyRow(LevelSynthesis<Cell>& s) {
  const bool high = (s.box.y0 & 1) != 0;
  const std::int64_t index = FloorShift(s.box.y0, 1);
  SynthesiseAcross(s, high, index);
  const Cell* const row =
      s.rings[high] + (index & (s.kRingRows[high] - 1)) * s.rowCells + (s.box.x0 & 1);
  for (std::int64_t i = 0; i < s.box.Width(); ++i) s.oddRow[i] = high ? Halved(row[i]) : row[i];
  return s.oddRow;
}

/// The next row of a level, with kRowMargin cells around it that may be written. It stays until
/// the next one is asked for.
template <class Cell>
Cell* NextRow(LevelSynthesis<Cell>& s) {
  if (s.isFlat) return NextBandRow(s, 0, s.pieces[0]);
  if (s.box.Height() == 1) return OnlyRow(s);
  const std::int64_t y = s.nextPosition++;
  for (const std::int64_t step = CeilShift(y, 1) - 1; s.lastStep < step;) Step(s, ++s.lastStep);
  return (y & 1) != 0 ? s.oddRow : s.evenRows[(y >> 1) & 1];
}

/// All levels of a tile-component.
template <class Cell>
class ComponentSynthesis {
 public:
  void Init(const ComponentBands& bands, const SynthesisKernels<Cell>& kernels,
            ScratchCutter& scratch) {
    LevelSynthesis<Cell>* below = nullptr;
    for (int level = bands.numLevels == 0 ? 0 : 1; level <= bands.numLevels; ++level) {
      LevelSynthesis<Cell>& s = levels_[level];
      s.box = ReduceBox(bands.box, bands.numLevels - level);
      s.isFlat = level == 0;
      s.below = below;
      s.kernels = &kernels;
      s.bands[0] = bands.bands[0];
      for (int kind = 1; kind < 4 && level > 0; ++kind) {
        s.bands[kind] = bands.bands[3 * (level - 1) + kind];
      }
      InitLevel(s, scratch);
      below = &s;
    }
    finest_ = &levels_[bands.numLevels];
  }

  /// The next row of samples, which stays until the one after it is asked for.
  const Cell* Next() { return NextRow(*finest_); }

 private:
  LevelSynthesis<Cell> levels_[format::kMostLevels + 1];
  LevelSynthesis<Cell>* finest_;
};

}  // namespace kel

#endif
