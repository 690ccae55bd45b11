// Partitions of boxes by grids anchored at 0: precincts of a resolution, code blocks of a
// precinct's band. Computed from the geometry whenever they are needed; nothing is stored.
#ifndef KEL_PARTITION_H
#define KEL_PARTITION_H

#include <algorithm>

#include "KelBox.h"
#include "KelHeaders.h"

namespace kel {

/// The cells of a grid that a box touches. Cells are 2^widthExp x 2^heightExp; the first and the
/// last cell may be partial. An exponent of kWholePrecinct or more means a single cell in that
/// direction, however large the box.
struct GridPartition {
  Box box;
  int widthExp, heightExp;
  std::int64_t firstColumn, firstRow;  ///< grid indices of the first cell
  std::int64_t across, down;           ///< 0 when the box is empty

  std::int64_t Count() const { return across * down; }

  /// Cell number i in raster order, clipped to the box.
  Box Cell(std::int64_t i) const {
    const std::int64_t column = firstColumn + i % across;
    const std::int64_t row = firstRow + i / across;
    return {CellStart(column, widthExp, box.x0), CellEnd(column, widthExp, box.x1),
            CellStart(row, heightExp, box.y0), CellEnd(row, heightExp, box.y1)};
  }

 private:
  static std::int64_t CellStart(std::int64_t index, int exponent, std::int64_t least) {
    return exponent >= kWholePrecinct ? least : std::max(least, index << exponent);
  }
  static std::int64_t CellEnd(std::int64_t index, int exponent, std::int64_t most) {
    return exponent >= kWholePrecinct ? most : std::min(most, (index + 1) << exponent);
  }
};

inline GridPartition PartitionBox(const Box& box, int widthExp, int heightExp) {
  GridPartition grid{box, widthExp, heightExp, 0, 0, 0, 0};
  if (box.IsEmpty()) return grid;
  grid.across = grid.down = 1;
  if (widthExp < kWholePrecinct) {
    grid.firstColumn = FloorShift(box.x0, widthExp);
    grid.across = CeilShift(box.x1, widthExp) - grid.firstColumn;
  }
  if (heightExp < kWholePrecinct) {
    grid.firstRow = FloorShift(box.y0, heightExp);
    grid.down = CeilShift(box.y1, heightExp) - grid.firstRow;
  }
  return grid;
}

/// The part of a band that belongs to a precinct of its resolution. Bands of resolutions above 0
/// have half the sampling of their resolution, so their cells are half as large.
inline Box PrecinctOfBand(const Box& band, const GridPartition& resolution, std::int64_t precinct,
                          bool isLowest) {
  const int halving = isLowest ? 0 : 1;
  const auto clip = [&](std::int64_t first, std::int64_t index, int exponent, std::int64_t least,
                        std::int64_t most, std::int64_t& start, std::int64_t& end) {
    start = least;
    end = most;
    if (exponent >= kWholePrecinct) return;
    const int bandExponent = exponent - halving;
    start = std::max(least, (first + index) << bandExponent);
    end = std::min(most, (first + index + 1) << bandExponent);
  };
  Box part{};
  clip(resolution.firstColumn, precinct % resolution.across, resolution.widthExp, band.x0, band.x1,
       part.x0, part.x1);
  clip(resolution.firstRow, precinct / resolution.across, resolution.heightExp, band.y0, band.y1,
       part.y0, part.y1);
  return part;
}

}  // namespace kel

#endif
