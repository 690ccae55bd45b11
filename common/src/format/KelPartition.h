// Partitions of boxes by grids anchored at 0: the precincts of a resolution. Computed from the
// geometry; code blocks stand in KelBlockGrid.
#ifndef KEL_PARTITION_H
#define KEL_PARTITION_H

#include <algorithm>

#include "base/KelBox.h"
#include "format/KelHeaders.h"

namespace kel {

/// The cells of a grid that a box touches. Cells are 2^widthExp x 2^heightExp; the first and the
/// last cell may be partial. An exponent of format::kWholePrecinct or more means a single cell in
/// that direction, however large the box.
struct GridPartition {
  Box box;
  int widthExp, heightExp;
  std::int64_t firstColumn, firstRow;  ///< grid indices of the first cell
  std::int64_t across, down;           ///< 0 when the box is empty

  std::int64_t Count() const { return across * down; }
};

inline GridPartition PartitionBox(const Box& box, int widthExp, int heightExp) {
  GridPartition grid{box, widthExp, heightExp, 0, 0, 0, 0};
  if (box.IsEmpty()) return grid;
  grid.across = grid.down = 1;
  if (widthExp < format::kWholePrecinct) {
    grid.firstColumn = FloorShift(box.x0, widthExp);
    grid.across = CeilShift(box.x1, widthExp) - grid.firstColumn;
  }
  if (heightExp < format::kWholePrecinct) {
    grid.firstRow = FloorShift(box.y0, heightExp);
    grid.down = CeilShift(box.y1, heightExp) - grid.firstRow;
  }
  return grid;
}

/// A range of samples along one axis.
struct CellRange {
  std::int64_t first, end;
};

/// Cell number `index` of a grid along one axis, clipped to a range. Exponents of
/// format::kWholePrecinct and more give the whole range.
inline CellRange ClipCell(std::int64_t index, int exponent, bool isWhole, CellRange range) {
  if (isWhole) return range;
  return {std::max(range.first, index << exponent), std::min(range.end, (index + 1) << exponent)};
}

/// The part of a band that belongs to a precinct of its resolution. Bands of resolutions above 0
/// have half the sampling of their resolution, so their cells are half as large.
inline Box PrecinctOfBand(const Box& band, const GridPartition& resolution, std::int64_t precinct,
                          bool isLowest) {
  const int halving = isLowest ? 0 : 1;
  const CellRange across =
      ClipCell(resolution.firstColumn + precinct % resolution.across, resolution.widthExp - halving,
               resolution.widthExp >= format::kWholePrecinct, {band.x0, band.x1});
  const CellRange down =
      ClipCell(resolution.firstRow + precinct / resolution.across, resolution.heightExp - halving,
               resolution.heightExp >= format::kWholePrecinct, {band.y0, band.y1});
  return {across.first, across.end, down.first, down.end};
}

}  // namespace kel

#endif
