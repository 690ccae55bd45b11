// Zoom: a rectangle of one component resampled by a power of two with the 9/7 filters.
//
// Enlarging takes the samples for the low-pass band of a larger image whose other bands are zero;
// reducing keeps the low-pass band of the rectangle. Both have a gain of 1 for constants, so the
// samples go in and come out unsigned, as they are.
#include <cmath>

#include "base/KelRaise.h"
#include "encode/KelImageEncode.h"
#include "encode/KelPreview.h"
#include "format/KelHeaders.h"
#include "kernels/KelKernels.h"
#include "samples/KelImageDataAccess.h"
#include "transform/KelWavelet.h"

namespace kel {
namespace {

/// Factors reach from 1 / kMostFactor to kMostFactor.
constexpr float kMostFactor = 32768.0F;

/// Where 16-bit samples are cut off.
constexpr std::int32_t kMostWord = 32768;

struct ZoomJob {
  KelLong tile;
  const TileCompRecord& record;
  Box part;    ///< of the tile-component, relative to its first sample
  int in;      ///< levels of synthesis
  int out;     ///< levels of analysis; one of the two is 0
  Box result;  ///< the result in its own coordinates
};

/// How often a factor above 1 is halved to come to at most 1.
int HalvingsToOne(double factor) {
  int halvings = 0;
  for (; factor > 1.0; factor /= 2.0) ++halvings;
  return halvings;
}

/// Enlarged or reduced edges. Raises 8 for what cannot be held.
void SizeResult(ZoomJob& job, double factor) {
  const Box& from = job.part;
  job.in = HalvingsToOne(factor);
  job.out = job.in == 0 ? HalvingsToOne(1.0 / factor) : 0;
  const std::int64_t times = std::int64_t{1} << job.in;
  job.result = job.out > 0
                   ? ReduceBox(from, job.out)
                   : Box{from.x0 * times, from.x1 * times, from.y0 * times, from.y1 * times};
  if (PlaneBytes(job.result.Width(), job.result.Height(), 4) > UINT32_MAX) {
    Raise(KelErrNoMemory, kModulePreview);
  }
}

/// Fills rows with the samples of the part as floats.
void ReadPart(const ZoomJob& job, SampleSource source, float* cells, std::size_t strideCells) {
  source.samples += AsCount(job.part.y0) * source.rowBytes;
  source.first += static_cast<std::uint32_t>(job.part.x0) * source.step;
  const PlaneSize size = {job.part.Width(), job.part.Height()};
  PreparePlane(source, {cells, strideCells}, size, true);
  const float offset = std::ldexp(1.0F, source.bitDepth - 1);
  for (std::uint64_t y = 0; y < AsCount(size.height); ++y) {
    float* const row = cells + y * strideCells;
    for (std::uint64_t x = 0; x < AsCount(size.width); ++x) row[x] += offset;
  }
}

/// Whether a preview shows the whole tile-component, so that its samples can be had from there.
bool IsWholePreview(const TileCompRecord& record) {
  const KelTileGeometry& t = record.tileGeom;
  const KelImageData* image = record.outputImage;
  return image != nullptr && image->ImageBuffer != nullptr && image->Width == t.X1 - t.X0 &&
         image->Height == t.Y1 - t.Y0 && image->ImageBufferType == kIntegerSamples &&
         image->SizeOfDataType * 8 == t.BitDepth;
}

/// Reads the part from the component's preview or from the host. False: the host has no samples.
bool ReadSamples(const ImageState& state, const ZoomJob& job, float* cells,
                 std::size_t strideCells) {
  const KelTileGeometry& t = job.record.tileGeom;
  if (IsWholePreview(job.record)) {
    const BufferLock lock(job.record.outputImage->ImageBuffer);
    if (!lock) Raise(KelErrNoMemory, kModulePreview);
    ReadPart(job,
             MakeSampleSource(lock.As<void>(), job.record.outputImage->Width, t.BitDepth, 1, 0),
             cells, strideCells);
    return true;
  }
  TileSource source(state.encoder->reader, job.tile);
  FetchedSamples samples;
  if (!source.Fetch(t.Component, samples)) return false;
  ReadPart(job, samples.source, cells, strideCells);
  return true;
}

/// Rounds the result's samples and limits them to what the depth shows.
OwnedBuffer StoreResult(const ZoomJob& job, const float* cells, std::size_t strideCells) {
  const KelLong depth = job.record.tileGeom.BitDepth;
  const std::size_t width = AsIndex(job.result.Width());
  const SamplesKernels& kernels = Kernels().samples;
  OwnedBuffer stored =
      OwnedBuffer::Make(PlaneBytes(job.result.Width(), job.result.Height(), depth / 8));
  const BufferLock lock(stored.Get());
  if (!lock) Raise(KelErrNoMemory, kModulePreview);
  const auto row = OwnedArray<std::int32_t>::Make(width);
  for (std::uint64_t y = 0; y < AsCount(job.result.Height()); ++y) {
    const float* const from = cells + y * strideCells;
    kernels.floatsToLevels(from, row.Data(), width, 0, depth == 8 ? 255 : kMostWord, 0);
    if (depth == 8) {
      kernels.levelsToBytes(row.Data(), lock.As<std::uint8_t>() + y * width, width);
    } else {
      kernels.levelsToWords(row.Data(), lock.As<std::uint16_t>() + y * width, width, 0);
    }
  }
  return stored;
}

OwnedBuffer Copied(const ImageState& state, const ZoomJob& job) {
  const std::size_t stride = AsIndex(job.part.Width());
  const auto cells = ScratchArray<float>::Make(SaturatingMul(stride, AsCount(job.part.Height())));
  if (!ReadSamples(state, job, cells.Data(), stride)) return {};
  return StoreResult(job, cells.Data(), stride);
}

OwnedBuffer Enlarged(const ImageState& state, const ZoomJob& job) {
  const std::size_t stride = AsIndex(job.result.Width());
  const std::uint64_t count = SaturatingMul(stride, AsCount(job.result.Height()));
  // The edges are multiples of 2^k, so the low-pass band has exactly the size of the part.
  auto bands = OwnedArray<float>::Make(count);
  if (!ReadSamples(state, job, bands.Data(), stride)) return {};
  const auto samples = ScratchArray<float>::Make(count);
  {
    const auto scratch =
        ScratchArray<std::int32_t>::Make(InverseDwtScratchCells(job.result, job.in));
    InverseDwt97(BandsOfFloats({bands.Data(), stride, job.result, job.in}), scratch.Data(),
                 {samples.Data(), stride});
  }
  bands = {};
  return StoreResult(job, samples.Data(), stride);
}

OwnedBuffer Reduced(const ImageState& state, const ZoomJob& job) {
  const std::size_t stride = AsIndex(job.part.Width());
  const std::uint64_t count = SaturatingMul(stride, AsCount(job.part.Height()));
  const auto samples = ScratchArray<float>::Make(count), work = ScratchArray<float>::Make(count);
  const auto scratch = ScratchArray<std::int32_t>::Make(ForwardDwtScratchCells(job.part));
  if (!ReadSamples(state, job, samples.Data(), stride)) return {};
  SubbandRecord records[kMaxSubbands];
  ForwardDwt97({samples.Data(), work.Data(), stride, job.part, job.out},
               {nullptr, job.record.tileGeom.BitDepth, false}, scratch.Data(), records);
  return StoreResult(job, static_cast<const float*>(records[0].data), stride);
}

OwnedBuffer MakeResult(const ImageState& state, const ZoomJob& job) {
  const KelLong depth = job.record.tileGeom.BitDepth;
  if ((depth != 8 && depth != 16) || job.result.IsEmpty()) return {};
  if (job.in > 0) return Enlarged(state, job);
  return job.out > 0 ? Reduced(state, job) : Copied(state, job);
}

}  // namespace

KelImageData* Zoom(ImageState& state, KelLong tile, KelLong component, float factor,
                   const Box& canvas, KelLong* width, KelLong* height) {
  const ImageMap& map = state.map;
  // Written so that a factor that is not a number fails too.
  const bool isFactor = factor >= 1.0F / kMostFactor && factor <= kMostFactor;
  if (state.encoder == nullptr || tile < 0 || tile >= map.numTiles || component < 0 ||
      component >= map.numComps || !isFactor) {
    Raise(KelErrBadParam, kModulePreview);
  }
  return NamingModule(kModulePreview, [&] {
    EnsureTileComps(state.map, map.tiles[tile]);
    const TileCompRecord& record = map.tiles[tile].comps[component];
    ZoomJob job = {tile, record, PartOfTileComp(record.tileGeom, canvas), 0, 0, {}};
    if (job.part.IsEmpty()) Raise(KelErrBadParam, kModulePreview);
    SizeResult(job, static_cast<double>(factor));
    OwnedBuffer samples = MakeResult(state, job);
    const auto newWidth = static_cast<KelLong>(job.result.Width());
    const auto newHeight = static_cast<KelLong>(job.result.Height());
    KelImageData* image = NewImage();
    InstallSamples(*image, std::move(samples), newWidth, newHeight, record.tileGeom.BitDepth / 8,
                   kIntegerSamples);
    if (width != nullptr) *width = newWidth;
    if (height != nullptr) *height = newHeight;
    return image;
  });
}

}  // namespace kel
