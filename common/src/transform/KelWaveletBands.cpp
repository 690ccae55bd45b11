// Subband geometry of the wavelet transform: boxes of subbands and their places in the Mallat
// layout.
#include "transform/KelWavelet.h"

namespace kel {
namespace {

bool IsHighAcross(int subband) {
  return KindOfSubband(subband) == SubbandKind::kHL || KindOfSubband(subband) == SubbandKind::kHH;
}

bool IsHighDown(int subband) {
  return KindOfSubband(subband) == SubbandKind::kLH || KindOfSubband(subband) == SubbandKind::kHH;
}

}  // namespace

// An edge x of the samples becomes ceil((x - 2^(level - 1) high) / 2^level) in the subband. That
// equals the edge of the box one level finer, moved down by one for a high-pass band, and halved.
Box SubbandBox(const Box& box, int numLevels, int subband) {
  const int level = LevelOfSubband(subband, numLevels);
  if (level == 0) return box;
  const Box finer = ReduceBox(box, level - 1);
  const std::int64_t across = IsHighAcross(subband) ? 1 : 0;
  const std::int64_t down = IsHighDown(subband) ? 1 : 0;
  return ReduceBox({finer.x0 - across, finer.x1 - across, finer.y0 - down, finer.y1 - down}, 1);
}

CellOffset MallatOffset(const Box& box, int numLevels, int subband) {
  const Box low = ReduceBox(box, LevelOfSubband(subband, numLevels));
  return {IsHighAcross(subband) ? low.Width() : 0, IsHighDown(subband) ? low.Height() : 0};
}

void ComputeSubbandBoxes(const Box& box, int numLevels, SubbandRecord* records) {
  for (int b = 0; b < NumSubbands(numLevels); ++b) {
    records[b] = {};
    records[b].box = SubbandBox(box, numLevels, b);
  }
}

void ComputeSubbandBoxes(const Box& box, int numLevels, void* cells, std::size_t strideCells,
                         SubbandRecord* records) {
  ComputeSubbandBoxes(box, numLevels, records);
  for (int b = 0; b < NumSubbands(numLevels); ++b) {
    records[b].data = cells;
    records[b].strideCells = strideCells;
    if (records[b].box.IsEmpty()) continue;
    const CellOffset offset = MallatOffset(box, numLevels, b);
    records[b].data = static_cast<std::int32_t*>(cells) +
                      static_cast<std::size_t>(offset.row) * strideCells +
                      static_cast<std::size_t>(offset.column);
  }
}

}  // namespace kel
