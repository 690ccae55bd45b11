// Drivers of the inverse wavelet transform: the walk over the levels and the sinks of the last
// one.
//
// The coarser levels of each plane go, in turn, to two areas of scratch: one for the result of the
// last level but one, a quarter of a plane, and one for the level before that, a sixteenth. The
// last level goes to a sink: a plane of cells, or 8-bit samples of one or three planes. Three
// planes need those areas one after the other only, when each may take the result back into the
// place of its coarse coefficients.
#include "transform/KelWavelet.h"

#include <cstring>

#include "transform/KelWaveletSynthesis.h"

namespace kel {
namespace {

/// Cells of scratch for the result of a level with a given box.
std::uint64_t ResultCells(const Box& box) {
  return box.IsEmpty() ? 0
                       : SaturatingMul(AsCount(RoundUp(box.Width(), 16)), AsCount(box.Height()));
}

/// How the bands of a plane are dequantised.
struct BandSteps {
  const float* steps;  ///< null: not at all
  float lowStep;       ///< of LL
  float lowOffset;
  bool areIndices = true;  ///< false: the 9/7 filter's coefficients are floats
};

BandSource BandOf(const CoefficientPlane& plane, const BandSteps& steps, int subband) {
  BandSource band = {plane.cells, plane.strideCells, steps.areIndices, 1.0F, 0.0F};
  if (SubbandBox(plane.box, plane.numLevels, subband).IsEmpty()) return band;
  const CellOffset offset = MallatOffset(plane.box, plane.numLevels, subband);
  band.cells = plane.cells + static_cast<std::size_t>(offset.row) * plane.strideCells +
               static_cast<std::size_t>(offset.column);
  if (steps.steps != nullptr) {
    band.step = subband == 0 ? steps.lowStep : steps.steps[subband];
    band.offset = subband == 0 ? steps.lowOffset : 0.0F;
  }
  return band;
}

/// The bands of a level, counted from the coarsest, 1; level 0 is LL alone.
LevelBands BandsOfLevel(const CoefficientPlane& plane, const BandSteps& steps,
                        const BandSource& low, int level) {
  LevelBands bands = {};
  bands.box = ReduceBox(plane.box, plane.numLevels - level);
  bands.bands[0] = low;
  bands.isFlat = level == 0;
  for (int kind = 1; kind < 4 && !bands.isFlat; ++kind) {
    bands.bands[kind] = BandOf(plane, steps, 3 * (level - 1) + kind);
  }
  return bands;
}

/// Rows go to a plane of cells.
template <class Cell>
struct PlaneSink {
  Rows<Cell> out;

  Cell* RowPiece(int, std::int64_t row, std::int64_t column) const {
    return out.data + static_cast<std::size_t>(row) * out.strideCells +
           static_cast<std::size_t>(column);
  }
  void Complete(std::int64_t, std::int64_t, std::int64_t) const {}
};

/// Rows of one plane or three go to 8-bit samples by way of a few row pieces; four, because an
/// even row is still read when the row after the next is complete.
template <class Cell, int kPlanes>
struct ByteSink {
  Rows<std::uint8_t> out[kPlanes];
  Cell* pieces[kPlanes];
  std::int64_t pieceCells;
  void (*convertOne)(const Cell* in, std::uint8_t* out, std::size_t count);
  void (*convertThree)(const Cell*, const Cell*, const Cell*, std::uint8_t*, std::uint8_t*,
                       std::uint8_t*, std::size_t);

  Cell* RowPiece(int plane, std::int64_t row, std::int64_t) const {
    return pieces[plane] + (row & 3) * pieceCells;
  }
  void Complete(std::int64_t row, std::int64_t column, std::int64_t cells) const {
    const auto to = [&](int p) {
      return out[p].data + static_cast<std::size_t>(row) * out[p].strideCells +
             static_cast<std::size_t>(column);
    };
    const std::size_t count = static_cast<std::size_t>(cells);
    if constexpr (kPlanes == 1) {
      convertOne(RowPiece(0, row, 0), to(0), count);
    } else {
      convertThree(RowPiece(0, row, 0), RowPiece(1, row, 0), RowPiece(2, row, 0), to(0), to(1),
                   to(2), count);
    }
  }
};

template <class Cell, int kPlanes>
void TakePieces(ByteSink<Cell, kPlanes>& sink, const Box& box, ScratchCutter& scratch) {
  sink.pieceCells = ScratchRowCells(box.Width());
  for (Cell*& piece : sink.pieces) piece = scratch.Take<Cell>(4 * sink.pieceCells);
}

/// Undoes all levels but the last and returns the bands of that one.
template <class Cell>
LevelBands RunToLastLevel(const CoefficientPlane& plane, const BandSteps& steps,
                          const SynthesisKernels<Cell>& kernels, ScratchCutter& scratch) {
  Cell* areas[2] = {};
  for (int area = 0; area < 2 && area + 1 < plane.numLevels; ++area) {
    const std::uint64_t cells = ResultCells(ReduceBox(plane.box, area + 1));
    areas[area] = scratch.Take<Cell>(static_cast<std::int64_t>(cells));
  }
  BandSource low = BandOf(plane, steps, 0);
  for (int level = 1; level < plane.numLevels; ++level) {
    const LevelBands bands = BandsOfLevel(plane, steps, low, level);
    if (bands.box.IsEmpty()) continue;
    ScratchCutter rest = scratch;
    StripSynthesis<Cell> strips;
    InitStripSynthesis(strips, bands, kernels, rest);
    const std::size_t stride = static_cast<std::size_t>(RoundUp(bands.box.Width(), 16));
    PlaneSink<Cell> sink = {{areas[(plane.numLevels - level - 1) & 1], stride}};
    RunLevel(&strips, 1, sink);
    low = {sink.out.data, stride, false, 1.0F, 0.0F};
  }
  return BandsOfLevel(plane, steps, low, plane.numLevels);
}

/// The whole inverse transform of one plane into a sink of one plane.
template <class Cell, class Sink>
void RunPlane(const CoefficientPlane& plane, const BandSteps& steps,
              const SynthesisKernels<Cell>& kernels, ScratchCutter& scratch, Sink& sink) {
  if (plane.box.IsEmpty()) return;
  const LevelBands last = RunToLastLevel(plane, steps, kernels, scratch);
  StripSynthesis<Cell> strips;
  InitStripSynthesis(strips, last, kernels, scratch);
  RunLevel(&strips, 1, sink);
}

template <class Cell>
void RunPlaneTo8Bit(const CoefficientPlane& plane, const BandSteps& steps,
                    const SynthesisKernels<Cell>& kernels, ByteSink<Cell, 1> sink, void* scratch) {
  ScratchCutter cutter(scratch);
  TakePieces(sink, plane.box, cutter);
  RunPlane(plane, steps, kernels, cutter, sink);
}

/// Takes the result of the coarser levels, the LL of the last one, back into the plane: over the
/// coefficients that it was made of, which lie in the same quarter.
template <class Cell>
void MoveLowIntoPlane(BandSource& low, const Box& lowBox, const CoefficientPlane& plane) {
  static_assert(sizeof(Cell) == sizeof(std::int32_t));
  if (low.cells == plane.cells || lowBox.IsEmpty()) return;
  const auto* from = static_cast<const Cell*>(low.cells);
  std::int32_t* to = plane.consumable;
  for (std::int64_t y = 0; y < lowBox.Height(); ++y) {
    std::memcpy(to, from, AsIndex(lowBox.Width()) * sizeof(Cell));
    from += low.strideCells;
    to += plane.strideCells;
  }
  low.cells = plane.consumable;
  low.strideCells = plane.strideCells;
}

template <class Cell>
void RunTripleTo8Bit(const CoefficientPlane (&planes)[3], const BandSteps (&steps)[3],
                     const SynthesisKernels<Cell>& kernels, ByteSink<Cell, 3> sink, void* scratch) {
  if (planes[0].box.IsEmpty()) return;
  ScratchCutter cutter(scratch);
  TakePieces(sink, planes[0].box, cutter);
  LevelBands last[3];
  for (int p = 0; p < 3; ++p) {
    const CoefficientPlane& plane = planes[p];
    ScratchCutter passing = cutter;
    const bool isConsumable = plane.consumable != nullptr;
    last[p] = RunToLastLevel(plane, steps[p], kernels, isConsumable ? passing : cutter);
    if (isConsumable && plane.numLevels > 1) {
      MoveLowIntoPlane<Cell>(last[p].bands[0], ReduceBox(plane.box, 1), plane);
    }
  }
  StripSynthesis<Cell> strips[3];
  for (int p = 0; p < 3; ++p) InitStripSynthesis(strips[p], last[p], kernels, cutter);
  RunLevel(strips, 3, sink);
}

constexpr BandSteps kNoSteps = {nullptr, 1.0F, 0.0F};

/// Steps of the general path: an LL step close to 1 counts as 1.
BandSteps GeneralSteps(const float* steps) {
  const double low = double{steps[0]};
  return {steps, low >= 0.9999 && low <= 1.0001 ? 1.0F : steps[0], 0.0F};
}

}  // namespace

std::uint64_t InverseDwtScratchCells(const Box& box, int numLevels, int numPlanes,
                                     bool areConsumable) {
  if (box.IsEmpty()) return 0;
  const std::int64_t rows = StripSynthesisCells(box.Width()) + 4 * ScratchRowCells(box.Width());
  std::uint64_t areas = 0;
  for (int level = 1; level <= 2 && level < numLevels; ++level) {
    areas = SaturatingAdd(areas, ResultCells(ReduceBox(box, level)));
  }
  return SaturatingAdd(SaturatingMul(AsCount(rows), AsCount(numPlanes)),
                       SaturatingMul(areas, areConsumable ? 1 : AsCount(numPlanes)));
}

void InverseDwt53(const CoefficientPlane& plane, void* scratch, Rows<std::int32_t> out) {
  ScratchCutter cutter(scratch);
  PlaneSink<std::int32_t> sink = {out};
  RunPlane(plane, kNoSteps, Kernels().wavelet.synthesis53, cutter, sink);
}

void InverseDwt53To8Bit(const CoefficientPlane& plane, void* scratch, Rows<std::uint8_t> out) {
  ByteSink<std::int32_t, 1> sink = {};
  sink.out[0] = out;
  sink.convertOne = Kernels().samples.intTo8Bit;
  RunPlaneTo8Bit(plane, kNoSteps, Kernels().wavelet.synthesis53, sink, scratch);
}

void InverseDwt97(const CoefficientPlane& plane, const float* steps, void* scratch,
                  Rows<float> out) {
  ScratchCutter cutter(scratch);
  PlaneSink<float> sink = {out};
  RunPlane(plane, GeneralSteps(steps), Kernels().wavelet.synthesis97, cutter, sink);
}

void InverseDwt97OfFloats(const CoefficientPlane& plane, void* scratch, Rows<float> out) {
  ScratchCutter cutter(scratch);
  PlaneSink<float> sink = {out};
  RunPlane(plane, {nullptr, 1.0F, 0.0F, false}, Kernels().wavelet.synthesis97, cutter, sink);
}

void InverseDwt97GeneralTo8Bit(const CoefficientPlane& plane, const float* steps, void* scratch,
                               Rows<std::uint8_t> out) {
  ByteSink<float, 1> sink = {};
  sink.out[0] = out;
  sink.convertOne = Kernels().samples.floatTo8Bit;
  RunPlaneTo8Bit(plane, GeneralSteps(steps), Kernels().wavelet.synthesis97, sink, scratch);
}

void InverseDwt97To8Bit(const CoefficientPlane& plane, const float* steps, float offset,
                        void* scratch, Rows<std::uint8_t> out) {
  const bool halvesToEven =
      plane.numLevels == 0 || (plane.box.Width() % 4 == 0 && out.strideCells % 16 == 0);
  ByteSink<float, 1> sink = {};
  sink.out[0] = out;
  sink.convertOne =
      halvesToEven ? Kernels().samples.floatTo8Bit : Kernels().wavelet.floatTo8BitAway;
  const BandSteps bandSteps = {steps, steps[0], plane.numLevels == 0 ? 0.0F : offset};
  RunPlaneTo8Bit(plane, bandSteps, Kernels().wavelet.synthesis97Single, sink, scratch);
}

void InverseDwt53RctTo8Bit(const CoefficientPlane (&planes)[3], void* scratch,
                           const Rows<std::uint8_t> (&out)[3]) {
  ByteSink<std::int32_t, 3> sink = {};
  for (int p = 0; p < 3; ++p) sink.out[p] = out[p];
  sink.convertThree = Kernels().samples.inverseRctTo8Bit;
  RunTripleTo8Bit(planes, {kNoSteps, kNoSteps, kNoSteps}, Kernels().wavelet.synthesis53, sink,
                  scratch);
}

void InverseDwt97IctTo8Bit(const CoefficientPlane (&planes)[3], const float* const (&steps)[3],
                           void* scratch, const Rows<std::uint8_t> (&out)[3]) {
  ByteSink<float, 3> sink = {};
  for (int p = 0; p < 3; ++p) sink.out[p] = out[p];
  sink.convertThree = Kernels().samples.inverseIctTo8Bit;
  RunTripleTo8Bit(planes, {GeneralSteps(steps[0]), GeneralSteps(steps[1]), GeneralSteps(steps[2])},
                  Kernels().wavelet.synthesis97, sink, scratch);
}

}  // namespace kel
