// Region masks: which coefficients the rebuilding of marked samples needs.
//
// A sample needs, across and down each, the low-pass and high-pass indices that the synthesis
// filter reads for it. Marks of a sample are the products of its columns and its rows, so one row
// of samples gives one row of marks, which is then added to every row of coefficients that the
// sample row needs. Indices are not limited to their band: one too small or too large by a little
// lands in the margin or marks a cell of a neighbouring band, which costs a few bits and no
// correctness. Phases follow from the absolute coordinates of the box, as in the transform.
#include "base/KelMemFuncDefs.h"
#include "transform/KelWavelet.h"
#include "transform/KelWaveletAxes.h"

namespace kel {
namespace {

/// Indices [lowFirst, lowEnd) and [highFirst, highEnd) that a sample needs.
struct Needs {
  std::int64_t lowFirst, lowEnd, highFirst, highEnd;
};

Needs NeedsOf(std::int64_t position, bool irreversible) {
  const std::int64_t n = FloorShift(position, 1), odd = position & 1;
  if (irreversible) return {n - 1, n + 2 + odd, n - 2, n + 2 + odd};
  return {n, n + 1 + odd, n - 1, n + 1 + odd};
}

/// One axis of a level's box: from indices to cells of the Mallat layout, counted from the box's
/// first sample.
struct MaskAxis {
  std::int64_t first, end;

  std::int64_t LowCell(std::int64_t n) const { return n - BandEdge(first, false); }
  std::int64_t HighCell(std::int64_t n) const {
    return n - BandEdge(first, true) + BandEdge(end, false) - BandEdge(first, false);
  }
};

/// One level: samples' mask of the level's box, and the result array whose cell (kMaskMargin,
/// kMaskMargin) belongs to the box's first coefficient.
struct MaskLevel {
  Box box;
  bool irreversible;
  const std::uint8_t* samples;
  std::int64_t sampleStride;
  std::uint8_t* result;
  std::int64_t resultStride;
};

/// Marks, in a cleared row with margins, what one row of samples needs across. Returns whether
/// the row has any marked sample.
bool MarkAcross(const MaskLevel& level, const std::uint8_t* samples, std::uint8_t* row) {
  const MaskAxis axis = {level.box.x0, level.box.x1};
  bool any = false;
  for (std::int64_t x = axis.first; x < axis.end; ++x) {
    if (samples[x - axis.first] == 0) continue;
    any = true;
    const Needs needs = NeedsOf(x, level.irreversible);
    for (std::int64_t n = needs.lowFirst; n < needs.lowEnd; ++n) {
      row[kMaskMargin + axis.LowCell(n)] = kMaskMark;
    }
    for (std::int64_t n = needs.highFirst; n < needs.highEnd; ++n) {
      row[kMaskMargin + axis.HighCell(n)] = kMaskMark;
    }
  }
  return any;
}

/// Carries one level's mask down. The row is scratch of the box's width plus both margins.
void CarryLevel(const MaskLevel& level, std::uint8_t* row) {
  const MaskAxis axis = {level.box.y0, level.box.y1};
  const std::int64_t width = level.box.Width() + 2 * kMaskMargin;
  const auto add = [&](std::int64_t cell) {
    std::uint8_t* const to = level.result + (kMaskMargin + cell) * level.resultStride;
    for (std::int64_t i = 0; i < width; ++i) to[i] = std::max(to[i], row[i]);
  };
  for (std::int64_t y = axis.first; y < axis.end; ++y) {
    std::fill_n(row, width, std::uint8_t{0});
    if (!MarkAcross(level, level.samples + (y - axis.first) * level.sampleStride, row)) continue;
    const Needs needs = NeedsOf(y, level.irreversible);
    for (std::int64_t n = needs.lowFirst; n < needs.lowEnd; ++n) add(axis.LowCell(n));
    for (std::int64_t n = needs.highFirst; n < needs.highEnd; ++n) add(axis.HighCell(n));
  }
}

/// Moves the mask of LL out of the result into rows of their own and clears it there.
void TakeLow(const Box& low, std::uint8_t* result, std::int64_t resultStride, std::uint8_t* out) {
  for (std::int64_t y = 0; y < low.Height(); ++y) {
    std::uint8_t* const from = result + (kMaskMargin + y) * resultStride + kMaskMargin;
    std::copy_n(from, low.Width(), out + y * low.Width());
    std::fill_n(from, low.Width(), std::uint8_t{0});
  }
}

}  // namespace

std::uint64_t RegionMaskScratchBytes(const Box& box) {
  const Box low = ReduceBox(box, 1);
  return SaturatingAdd(SaturatingMul(AsCount(low.Width()), AsCount(low.Height())),
                       SaturatingAdd(AsCount(box.Width()), 2 * kMaskMargin));
}

void CarryRegionMask(const RegionMask& mask, std::uint8_t* scratch, std::uint8_t* coefficients) {
  const Box& box = mask.box;
  const std::int64_t stride = box.Width() + 2 * kMaskMargin;
  KelMemSet(coefficients, 0,
            SaturatingMul(AsCount(stride), AsCount(box.Height() + 2 * kMaskMargin)));
  std::uint8_t* const row = scratch;
  std::uint8_t* const low = scratch + stride;
  if (mask.numLevels == 0) {
    for (std::int64_t y = 0; y < box.Height(); ++y) {
      std::uint8_t* const to = coefficients + (kMaskMargin + y) * stride + kMaskMargin;
      for (std::int64_t x = 0; x < box.Width(); ++x) {
        to[x] = mask.samples[y * box.Width() + x] != 0 ? kMaskMark : 0;
      }
    }
  }
  for (int done = 0; done < mask.numLevels; ++done) {
    const Box level = ReduceBox(box, done);
    if (level.IsEmpty()) return;
    if (done > 0) TakeLow(level, coefficients, stride, low);
    CarryLevel({level, mask.irreversible, done > 0 ? low : mask.samples, level.Width(),
                coefficients, stride},
               row);
  }
}

const std::uint8_t* RegionMaskRow(const std::uint8_t* coefficients, const Box& box, int numLevels,
                                  int subband, std::int64_t row) {
  const CellOffset place = MallatOffset(box, numLevels, subband);
  const std::int64_t stride = box.Width() + 2 * kMaskMargin;
  return coefficients + (kMaskMargin + place.row + row) * stride + kMaskMargin + place.column;
}

}  // namespace kel
