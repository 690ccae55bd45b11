// Walking the blocks of a band: runs of whole blocks that kernels take at once, and the single
// smaller blocks at its edges.
#ifndef KEL_BLOCK_RUNS_H
#define KEL_BLOCK_RUNS_H

#include "KelBlockEncode.h"
#include "format/KelBlockGrid.h"

namespace kel {

/// Blocks beside each other in a row of blocks: whole ones across, or a single narrower one.
template <class Cell>
struct BlockRun {
  Cell* cells;
  int width, height;  ///< of each block
  std::size_t count;
  std::size_t first;  ///< index of the first block in the band's raster order
};

/// Calls visit(run) for all blocks of a band in raster order.
template <class Cell, class Visit>
void ForEachRun(const EncodeBand& band, Visit visit) {
  std::size_t first = 0;
  auto* row = static_cast<Cell*>(band.data);
  for (std::int64_t y = band.y0; y < band.y1;) {
    const std::int64_t height = BlockEnd(y, band.y1, kBlockExponent) - y;
    for (std::int64_t x = band.x0; x < band.x1;) {
      const std::int64_t width = BlockEnd(x, band.x1, kBlockExponent) - x;
      const std::int64_t count = width == kBlockSide ? (band.x1 - x) / kBlockSide : 1;
      visit(BlockRun<Cell>{row + (x - band.x0), static_cast<int>(width), static_cast<int>(height),
                           static_cast<std::size_t>(count), first});
      x += width * count;
      first += static_cast<std::size_t>(count);
    }
    row += height * band.strideCells;
    y += height;
  }
}

}  // namespace kel

#endif
