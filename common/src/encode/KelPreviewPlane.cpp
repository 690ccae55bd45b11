// Boxes of a preview and the gathering of its coefficients.
#include "encode/KelPreviewPlane.h"

#include <algorithm>

#include "base/KelRaise.h"
#include "kernels/KelKernels.h"
#include "samples/KelPackedSamples.h"

namespace kel {
namespace {

/// Coefficients of the coarsest band that a window has beside what is shown. A sample needs the
/// coefficients of a level up to 5 samples away; halved from level to level, the sum of these
/// reaches stays below 5 coefficients of the coarsest band, and one more makes up for rounding.
constexpr std::int64_t kWindowMargin = 6;

/// The shift of regions, and the longest shift that is carried out.
constexpr int kRegionShift = 9;
constexpr int kMostShift = 31;

/// The largest magnitude of a coefficient that is coded.
constexpr std::int64_t kMostMagnitude = INT32_MAX;

std::int64_t Scaled(std::int64_t edge, std::int64_t size, std::int64_t fullSize) {
  return fullSize > 0 ? edge * size / fullSize : 0;
}

void ScaleRow(const std::uint8_t* marks, const RegionScale& scale, std::int32_t* row,
              std::size_t count) {
  for (std::size_t x = 0; x < count; ++x) {
    const std::int64_t v = row[x];
    const std::int64_t scaled =
        marks[x] != 0 ? v * (std::int64_t{1} << scale.up) : v / (std::int64_t{1} << scale.down);
    row[x] = static_cast<std::int32_t>(std::clamp(scaled, -kMostMagnitude, kMostMagnitude));
  }
}

/// Stores unsigned samples as a host has them.
void StoreRow(const std::int32_t* row, std::size_t count, int bitDepth, std::uint8_t* out) {
  if (bitDepth == 8) {
    Kernels().samples.levelsToBytes(row, out, count);
  } else if (bitDepth == 16) {
    void* words = out;
    Kernels().samples.levelsToWords(row, static_cast<std::uint16_t*>(words), count, 0);
  } else {
    PackSamples(row, count, bitDepth, out);
  }
}

}  // namespace

PreviewView ViewOf(const Box& full, const Box& part, int reduction) {
  const Box r = ReduceBox(full, reduction);
  return {r,
          {r.x0 + Scaled(part.x0, r.Width(), full.Width()),
           r.x0 + Scaled(part.x1, r.Width(), full.Width()),
           r.y0 + Scaled(part.y0, r.Height(), full.Height()),
           r.y0 + Scaled(part.y1, r.Height(), full.Height())}};
}

Box WindowOf(const PreviewView& view, int numLevels) {
  if (numLevels == 0) return view.shown;
  const Box &all = view.resolution, &shown = view.shown;
  const std::int64_t unit = std::int64_t{1} << numLevels;
  const auto before = [&](std::int64_t edge) {
    return (FloorShift(edge, numLevels) - kWindowMargin) * unit;
  };
  const auto after = [&](std::int64_t edge) {
    return (CeilShift(edge, numLevels) + kWindowMargin) * unit;
  };
  return {std::max(all.x0, before(shown.x0)), std::min(all.x1, after(shown.x1)),
          std::max(all.y0, before(shown.y0)), std::min(all.y1, after(shown.y1))};
}

RegionScale RegionScaleFor(const RegionMarks& marks, int maxBitPlanes) {
  const int down = std::clamp(maxBitPlanes - kRegionShift, 0, kMostShift);
  return {&marks, kRegionShift, down};
}

void GatherBandRow(void* context, int b, std::int64_t bandRow, void* cells) {
  const GatheredWindow& to = *static_cast<GatheredWindow*>(context);
  if (b >= NumSubbands(to.resolution)) return;
  const Box band = SubbandBox(to.box, to.numLevels, b);
  const Box part = SubbandBox(to.window, to.resolution, b);
  const std::int64_t y = band.y0 + bandRow, column = part.x0 - band.x0;
  if (part.IsEmpty() || y < part.y0 || y >= part.y1) return;
  const CellOffset place = MallatOffset(to.window, to.resolution, b);
  std::int32_t* const row = to.cells + (place.row + y - part.y0) * to.window.Width() + place.column;
  const std::size_t count = AsIndex(part.Width());
  if (to.rowCells == CellKind::kFloats && to.outside.marks != nullptr) {
    CoarsenRow(to.outside, {to.box, to.numLevels, b, bandRow}, static_cast<float*>(cells),
               AsIndex(band.Width()));
  }
  StoreIntegers(to.rowCells, cells, column, row, count);
  if (to.scale.marks != nullptr)
    ScaleRow(to.scale.marks->Row(b, bandRow) + column, to.scale, row, count);
}

void GatherFromBands(const WaitingBands& waiting, GatheredWindow& to) {
  for (int b = 0; b < NumSubbands(to.resolution); ++b) {
    const EncodeBand& band = waiting.bands[b];
    to.rowCells = band.areShorts ? CellKind::kShorts : CellKind::kInts;
    const std::ptrdiff_t rowBytes = band.strideCells * (band.areShorts ? 2 : 4);
    auto* row = static_cast<std::uint8_t*>(band.data);
    for (std::int64_t y = 0; y < std::int64_t{band.y1} - band.y0; ++y, row += rowBytes) {
      GatherBandRow(&to, b, y, row);
    }
  }
}

void StoreIntegers(CellKind kind, const void* cells, std::int64_t first, std::int32_t* out,
                   std::size_t count) {
  if (kind == CellKind::kFloats) {
    Kernels().samples.floatsToLevels(static_cast<const float*>(cells) + first, out, count,
                                     -INT32_MAX, INT32_MAX, 0);
  } else if (kind == CellKind::kInts) {
    std::copy_n(static_cast<const std::int32_t*>(cells) + first, count, out);
  } else {
    std::copy_n(static_cast<const std::int16_t*>(cells) + first, count, out);
  }
}

OwnedBuffer CopyPart(const BoxPlane& plane, const Box& part) {
  const std::uint64_t rowBytes = PlaneBytes(part.Width(), 1, plane.cellBytes);
  const std::uint64_t strideBytes = SaturatingMul(plane.strideCells, AsCount(plane.cellBytes));
  OwnedBuffer copy = OwnedBuffer::Make(SaturatingMul(rowBytes, AsCount(part.Height())));
  const BufferLock lock(copy.Get());
  if (!lock) Raise(KelErrNoMemory, kModulePreview);
  const auto* from = static_cast<const std::uint8_t*>(plane.cells) +
                     AsCount(part.y0 - plane.box.y0) * strideBytes +
                     PlaneBytes(part.x0 - plane.box.x0, 1, plane.cellBytes);
  for (std::uint64_t y = 0; y < AsCount(part.Height()); ++y) {
    KelMemCopy(lock.As<std::uint8_t>() + y * rowBytes, from + y * strideBytes, rowBytes);
  }
  return copy;
}

WindowPlane::WindowPlane(const Box& window, KelLong sampleBytes)
    : window_(window),
      sampleBytes_(sampleBytes),
      buffer_(OwnedBuffer::Make(PlaneBytes(window.Width(), window.Height(), sampleBytes))),
      lock_(buffer_.Get()) {
  if (!lock_) Raise(KelErrNoMemory, kModulePreview);
}

OwnedBuffer WindowPlane::TakePart(const Box& shown) {
  if (!(shown == window_)) {
    return CopyPart({lock_.As<void>(), AsIndex(window_.Width()), sampleBytes_, window_}, shown);
  }
  lock_ = BufferLock();
  return std::move(buffer_);
}

void RestoreSamples(KelImageData& image, int bitDepth) {
  const std::uint64_t rowBytes = PackedRowBytes(image.Width, bitDepth);
  const std::size_t width = AsIndex(image.Width);
  OwnedBuffer restored = OwnedBuffer::Make(SaturatingMul(rowBytes, AsCount(image.Height)));
  {
    const BufferLock from(image.ImageBuffer), to(restored.Get());
    if (!from || !to) Raise(KelErrNoMemory, kModulePreview);
    for (std::uint64_t y = 0; y < AsCount(image.Height); ++y) {
      std::int32_t* const row = from.As<std::int32_t>() + y * width;
      for (std::size_t x = 0; x < width; ++x) row[x] += std::int32_t{1} << (bitDepth - 1);
      StoreRow(row, width, bitDepth, to.As<std::uint8_t>() + y * rowBytes);
    }
  }
  InstallSamples(image, std::move(restored), image.Width, image.Height, bitDepth / 8,
                 kIntegerSamples);
}

}  // namespace kel
