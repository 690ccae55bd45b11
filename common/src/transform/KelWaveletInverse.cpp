// Drivers of the inverse wavelet transform: the bands of a plane, and where the rows of samples go:
// to a plane of cells, or to 8-bit samples of one component or three.
#include <cassert>

#include "transform/KelWavelet.h"
#include "transform/KelWaveletSynthesis.h"

namespace kel {
namespace {

/// The bands of a plane whose cells are kept as they are.
ComponentBands BandsOf(const CoefficientPlane& plane, CellKind cells) {
  ComponentBands bands = {plane.box, plane.numLevels, cells, {}};
  for (int b = 0; b < NumSubbands(plane.numLevels); ++b) {
    const Box box = SubbandBox(plane.box, plane.numLevels, b);
    if (box.IsEmpty()) continue;
    const CellOffset offset = MallatOffset(plane.box, plane.numLevels, b);
    BandRows& rows = bands.bands[b];
    const std::size_t first = static_cast<std::size_t>(offset.row) * plane.strideCells +
                              static_cast<std::size_t>(offset.column);
    // Rows without margins are only read. Both kinds of cells have the same size.
    static_assert(sizeof(float) == sizeof(std::int32_t));
    rows.next = const_cast<std::int32_t*>(static_cast<const std::int32_t*>(plane.cells) + first);
    rows.width = box.Width();
    rows.strideCells = plane.strideCells;
    rows.rowsAhead = box.Height();
  }
  return bands;
}

template <class T>
T* RowOf(const Rows<T>& rows, std::int64_t y) {
  return rows.data + static_cast<std::size_t>(y) * rows.strideCells;
}

/// Gives every row of a component's samples to `take`.
template <class Cell, class Take>
void ForEachRow(const ComponentBands& bands, const SynthesisKernels<Cell>& kernels, void* scratch,
                Take take) {
  if (bands.box.IsEmpty()) return;
  ScratchCutter cutter(scratch);
  ComponentSynthesis<Cell> samples;
  samples.Init(bands, kernels, cutter);
  for (std::int64_t y = 0; y < bands.box.Height(); ++y) take(samples.Next(), y);
}

template <class Cell>
void ToPlane(const ComponentBands& bands, const SynthesisKernels<Cell>& kernels, void* scratch,
             Rows<Cell> out) {
  const auto bytes = static_cast<std::size_t>(bands.box.Width()) * sizeof(Cell);
  ForEachRow(bands, kernels, scratch,
             [&](const Cell* row, std::int64_t y) { std::memcpy(RowOf(out, y), row, bytes); });
}

template <class Cell>
void ToBytes(const ComponentBands& bands, const SynthesisKernels<Cell>& kernels, void* scratch,
             void (*convert)(const Cell*, std::uint8_t*, std::size_t), Rows<std::uint8_t> out) {
  const auto width = static_cast<std::size_t>(bands.box.Width());
  ForEachRow(bands, kernels, scratch,
             [&](const Cell* row, std::int64_t y) { convert(row, RowOf(out, y), width); });
}

/// Three components advance in step, row by row.
template <class Cell>
void ColorsToBytes(const ComponentBands (&bands)[3], const SynthesisKernels<Cell>& kernels,
                   void* scratch,
                   void (*convert)(const Cell*, const Cell*, const Cell*, std::uint8_t*,
                                   std::uint8_t*, std::uint8_t*, std::size_t),
                   const Rows<std::uint8_t> (&out)[3]) {
  const Box& box = bands[0].box;
  if (box.IsEmpty()) return;
  ScratchCutter cutter(scratch);
  ComponentSynthesis<Cell> samples[3];
  for (int c = 0; c < 3; ++c) samples[c].Init(bands[c], kernels, cutter);
  const auto width = static_cast<std::size_t>(box.Width());
  for (std::int64_t y = 0; y < box.Height(); ++y) {
    const Cell* rows[3];
    for (int c = 0; c < 3; ++c) rows[c] = samples[c].Next();
    convert(rows[0], rows[1], rows[2], RowOf(out[0], y), RowOf(out[1], y), RowOf(out[2], y), width);
  }
}

const SynthesisKernels<float>& SynthesisOf(Sums97 sums) {
  const WaveletKernels& kernels = Kernels().wavelet;
  return sums == Sums97::kSingle ? kernels.synthesis97Single : kernels.synthesis97;
}

}  // namespace

IndexSteps StepsOfIndices(const float* steps) {
  const double low = double{steps[0]};
  return {steps, low >= 0.9999 && low <= 1.0001 ? 1.0F : steps[0]};
}

ComponentBands BandsOfInts(const CoefficientPlane& plane) {
  return BandsOf(plane, CellKind::kInts);
}

ComponentBands BandsOfFloats(const CoefficientPlane& plane) {
  return BandsOf(plane, CellKind::kFloats);
}

ComponentBands BandsOfIndices(const CoefficientPlane& plane, const IndexSteps& steps) {
  ComponentBands bands = BandsOf(plane, CellKind::kFloats);
  for (int b = 0; b < NumSubbands(plane.numLevels); ++b) {
    BandRows& rows = bands.bands[b];
    rows.areIndices = true;
    rows.step = b == 0 ? steps.lowStep : steps.steps[b];
  }
  return bands;
}

std::uint64_t InverseDwtScratchCells(const Box& box, int numLevels, int numComponents) {
  if (box.IsEmpty()) return 0;
  std::uint64_t cells = 0;
  for (int level = 0; level < std::max(numLevels, 1); ++level) {
    const std::int64_t row = SynthesisRowCells(ReduceBox(box, level).Width());
    cells = SaturatingAdd(cells, SaturatingMul(AsCount(row), kMostLevelRows));
  }
  return SaturatingMul(cells, AsCount(numComponents));
}

void InverseDwt53(const ComponentBands& bands, void* scratch, Rows<std::int32_t> out) {
  assert(bands.cells == CellKind::kInts);
  ToPlane(bands, Kernels().wavelet.synthesis53, scratch, out);
}

void InverseDwt53To8Bit(const ComponentBands& bands, void* scratch, Rows<std::uint8_t> out) {
  const KernelTable& kernels = Kernels();
  if (bands.cells == CellKind::kShorts) {
    ToBytes(bands, kernels.wavelet.synthesis53Short, scratch, kernels.samples.shortTo8Bit, out);
  } else {
    ToBytes(bands, kernels.wavelet.synthesis53, scratch, kernels.samples.intTo8Bit, out);
  }
}

void InverseDwt97(const ComponentBands& bands, void* scratch, Rows<float> out) {
  ToPlane(bands, Kernels().wavelet.synthesis97, scratch, out);
}

void InverseDwt97GeneralTo8Bit(const ComponentBands& bands, void* scratch, Rows<std::uint8_t> out,
                               Sums97 sums) {
  const KernelTable& kernels = Kernels();
  ToBytes(bands, SynthesisOf(sums), scratch, kernels.samples.floatTo8Bit, out);
}

void InverseDwt97To8Bit(const ComponentBands& bands, void* scratch, Rows<std::uint8_t> out) {
  const KernelTable& kernels = Kernels();
  const bool halvesToEven =
      bands.numLevels == 0 || (bands.box.Width() % 4 == 0 && out.strideCells % 16 == 0);
  ToBytes(bands, kernels.wavelet.synthesis97Single, scratch,
          halvesToEven ? kernels.samples.floatTo8Bit : kernels.wavelet.floatTo8BitAway, out);
}

void InverseDwt53RctTo8Bit(const ComponentBands (&bands)[3], void* scratch,
                           const Rows<std::uint8_t> (&out)[3]) {
  const KernelTable& kernels = Kernels();
  if (bands[0].cells == CellKind::kShorts) {
    ColorsToBytes(bands, kernels.wavelet.synthesis53Short, scratch,
                  kernels.samples.inverseRctShortsTo8Bit, out);
  } else {
    ColorsToBytes(bands, kernels.wavelet.synthesis53, scratch, kernels.samples.inverseRctTo8Bit,
                  out);
  }
}

void InverseDwt97IctTo8Bit(const ComponentBands (&bands)[3], void* scratch,
                           const Rows<std::uint8_t> (&out)[3], Sums97 sums) {
  const SamplesKernels& kernels = Kernels().samples;
  ColorsToBytes(bands, SynthesisOf(sums), scratch,
                sums == Sums97::kSingle ? kernels.inverseIctSingleTo8Bit : kernels.inverseIctTo8Bit,
                out);
}

}  // namespace kel
