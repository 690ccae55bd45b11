// Laying out bands of waiting coefficients, and quantising the rows that come.
#include "KelWaitingBands.h"

#include <cmath>
#include <cstring>

#include "KelIndexChoice.h"
#include "kernels/KelKernels.h"
#include "transform/KelWavelet.h"

namespace kel {
namespace {

/// Whether the floats of a subband fit 16 bits once they are integers. Low or high, across and down
/// and through any number of levels, the 9/7 filter makes sums of samples whose weights have
/// magnitudes that add up to at most 2.63 each way (high at the first level; low, and what is high
/// after low, come to less), so to less than 7 both ways. That leaves more than single precision
/// and the colour transform can add. Rounding to an integer adds a half at most; rounding to a
/// multiple of another step first, where nothing was divided, doubles at most.
bool FloatsFitShorts(int sampleBits, const float* steps, int subband) {
  constexpr double kMostGain = 7.0;
  const double gain =
      steps != nullptr ? kMostGain / static_cast<double>(steps[subband]) : 2.0 * kMostGain;
  return gain * std::ldexp(1.0, sampleBits - 1) + 0.5 <= 32767.0;
}

bool AreShorts(const WaitingJob& job, int subband) {
  if (job.cells != CellKind::kFloats) return job.cells == CellKind::kShorts;
  return FloatsFitShorts(job.sampleBits, job.steps, subband);
}

std::size_t CellBytesOf(const EncodeBand& band) {
  return band.areShorts ? 2 : 4;
}

/// Bytes of a band's rows and of its plane counts.
struct BandBytes {
  std::uint64_t perRow, cells, planeCounts;
};

/// Rows of some length, and what stands behind them, begin on cache lines. They have a line more
/// than they need when they would else fall onto the same lines of the processor's cache.
BandBytes BytesOf(const EncodeBand& band) {
  constexpr std::int64_t kShort = 256, kLine = 64, kPage = 4096, kLeast = 4;
  const std::int64_t width = std::int64_t{band.x1} - band.x0;
  const std::int64_t height = std::int64_t{band.y1} - band.y0;
  if (width <= 0 || height <= 0) return {};
  const std::int64_t cells = width * static_cast<std::int64_t>(CellBytesOf(band));
  const std::int64_t multiple = cells < kShort ? kLeast : kLine;
  std::int64_t perRow = RoundUp(cells, multiple);
  if (perRow % kPage == 0) perRow += kLine;
  const std::uint64_t counts = SaturatingAdd(CountBlocksOf(band), AsCount(multiple - 1));
  return {AsCount(perRow), SaturatingMul(AsCount(perRow), AsCount(height)),
          counts & ~AsCount(multiple - 1)};
}

void* RowOf(const EncodeBand& band, std::int64_t row) {
  return static_cast<std::uint8_t*>(band.data) +
         AsIndex(row * band.strideCells) * CellBytesOf(band);
}

EncodeBand BandOf(const WaitingJob& job, int subband) {
  const Box box = SubbandBox(job.box, job.numLevels, subband);
  EncodeBand band = {};
  band.x0 = static_cast<std::int32_t>(box.x0);
  band.x1 = static_cast<std::int32_t>(box.x1);
  band.y0 = static_cast<std::int32_t>(box.y0);
  band.y1 = static_cast<std::int32_t>(box.y1);
  band.areShorts = AreShorts(job, subband);
  return band;
}

}  // namespace

void CoarsenRow(const CoarseOutside& outside, const BandRow& row, float* cells, std::size_t count) {
  const double step = static_cast<double>(outside.steps[row.subband]);
  const std::uint8_t* const marks =
      RegionMaskRow(outside.marks, row.box, row.numLevels, row.subband, row.row);
  for (std::size_t x = 0; x < count; ++x) {
    if (marks[x] != 0) continue;
    cells[x] = static_cast<float>(std::nearbyint(static_cast<double>(cells[x]) / step) * step);
  }
}

std::uint64_t WaitingBytes(const WaitingJob& job) {
  std::uint64_t bytes = 0;
  for (int b = 0; b < NumSubbands(job.numLevels); ++b) {
    const BandBytes own = BytesOf(BandOf(job, b));
    bytes = SaturatingAdd(bytes, SaturatingAdd(own.cells, own.planeCounts));
  }
  return bytes;
}

void BeginWaiting(const WaitingJob& job, void* memory, WaitingBands& waiting) {
  waiting.box = job.box;
  waiting.numLevels = job.numLevels;
  waiting.cells = job.cells;
  waiting.outside = {};
  waiting.choosesIndices = job.choosesIndices;
  auto* next = static_cast<std::uint8_t*>(memory);
  for (int b = 0; b < NumSubbands(job.numLevels); ++b) {
    EncodeBand& band = waiting.bands[b];
    band = BandOf(job, b);
    const BandBytes own = BytesOf(band);
    band.strideCells = static_cast<std::ptrdiff_t>(own.perRow / CellBytesOf(band));
    band.data = next;
    band.planeCounts = next + own.cells;
    next += own.cells + own.planeCounts;
  }
}

void* PlaceBandRow(void* context, int subband, std::int64_t row) {
  const WaitingBands& waiting = *static_cast<WaitingBands*>(context);
  return waiting.cells != CellKind::kFloats ? RowOf(waiting.bands[subband], row) : nullptr;
}

void TakeBandRow(void* context, int subband, std::int64_t row, void* cells) {
  const WaitingBands& waiting = *static_cast<WaitingBands*>(context);
  const EncodeBand& band = waiting.bands[subband];
  const auto count = static_cast<std::size_t>(band.x1 - band.x0);
  void* const to = RowOf(band, row);
  if (waiting.cells == CellKind::kFloats) {
    auto* const floats = static_cast<float*>(cells);
    if (waiting.outside.marks != nullptr) {
      CoarsenRow(waiting.outside, {waiting.box, waiting.numLevels, subband, row}, floats, count);
    }
    const SamplesKernels& kernels = Kernels().samples;
    if (band.areShorts) {
      kernels.floatsToShorts(floats, static_cast<std::int16_t*>(to), count);
    } else {
      const std::int32_t most = waiting.choosesIndices ? kMostParts : INT32_MAX;
      kernels.floatsToLevels(floats, static_cast<std::int32_t*>(to), count, -most, most, 0);
    }
  } else if (cells != to) {
    std::memcpy(to, cells, count * CellBytesOf(band));
  }
  const auto y = static_cast<std::int32_t>(band.y0 + row);
  if (!EndsBlocks(band, y)) return;
  if (waiting.choosesIndices) {
    ChooseIndicesAbove(band, y);
  } else {
    CountPlanesAbove(band, y);
  }
}

void NarrowAllPlaneCounts(const WaitingBands& waiting) {
  for (int b = 0; b < NumSubbands(waiting.numLevels); ++b) NarrowPlaneCounts(waiting.bands[b]);
}

}  // namespace kel
