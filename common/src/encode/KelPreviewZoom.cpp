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
#include "transform/KelWaveletForward.h"

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

/// Reads row y of the part as floats.
void ReadRow(const ZoomJob& job, SampleSource source, std::uint64_t y, float* row) {
  source.first += static_cast<std::uint32_t>(job.part.x0) * source.step;
  const PlaneSize size = {job.part.Width(), 1};
  PreparePlane(FromRow(source, AsCount(job.part.y0) + y), {row, 0}, size, CellKind::kFloats);
  const float offset = std::ldexp(1.0F, source.bitDepth - 1);
  for (std::uint64_t x = 0; x < AsCount(size.width); ++x) row[x] += offset;
}

/// Whether a preview shows the whole tile-component, so that its samples can be had from there.
bool IsWholePreview(const TileCompRecord& record) {
  const KelTileGeometry& t = record.tileGeom;
  const KelImageData* image = record.shown.outputImage;
  return image != nullptr && image->ImageBuffer != nullptr && image->Width == t.X1 - t.X0 &&
         image->Height == t.Y1 - t.Y0 && image->ImageBufferType == kIntegerSamples &&
         image->SizeOfDataType * 8 == t.BitDepth;
}

/// The samples of the component, from its preview or from the host, as long as this lives.
class ZoomSource {
 public:
  ZoomSource(const ImageState& state, const ZoomJob& job) : host_(state.encoder->reader, job.tile) {
    const KelTileGeometry& t = job.record.tileGeom;
    if (!IsWholePreview(job.record)) {
      isThere_ = host_.Fetch(t.Component, samples_);
      return;
    }
    samples_.lock = BufferLock(job.record.shown.outputImage->ImageBuffer);
    if (!samples_.lock) Raise(KelErrNoMemory, kModulePreview);
    samples_.source = MakeSampleSource(samples_.lock.As<void>(),
                                       job.record.shown.outputImage->Width, t.BitDepth, 1, 0);
    isThere_ = true;
  }

  /// False: the host has no samples.
  bool IsThere() const { return isThere_; }
  const SampleSource& Samples() const { return samples_.source; }

 private:
  TileSource host_;
  FetchedSamples samples_;
  bool isThere_ = false;
};

/// The result under way: rows are rounded, limited to what the depth shows, and stored.
class ZoomResult {
 public:
  explicit ZoomResult(const ZoomJob& job)
      : depth_(job.record.tileGeom.BitDepth),
        width_(AsIndex(job.result.Width())),
        stored_(OwnedBuffer::Make(PlaneBytes(job.result.Width(), job.result.Height(), depth_ / 8))),
        lock_(stored_.Get()),
        row_(OwnedArray<std::int32_t>::Make(width_)) {
    if (!lock_) Raise(KelErrNoMemory, kModulePreview);
  }

  void StoreRow(std::int64_t y, const float* from) {
    const SamplesKernels& kernels = Kernels().samples;
    const std::size_t at = AsIndex(y) * width_;
    kernels.floatsToLevels(from, row_.Data(), width_, 0, depth_ == 8 ? 255 : kMostWord, 0);
    if (depth_ == 8) {
      kernels.levelsToBytes(row_.Data(), lock_.As<std::uint8_t>() + at, width_);
    } else {
      kernels.levelsToWords(row_.Data(), lock_.As<std::uint16_t>() + at, width_, 0);
    }
  }

  OwnedBuffer Take() {
    lock_ = BufferLock();
    return std::move(stored_);
  }

 private:
  KelLong depth_;
  std::size_t width_;
  OwnedBuffer stored_;
  BufferLock lock_;
  OwnedArray<std::int32_t> row_;
};

OwnedBuffer Enlarged(const ImageState& state, const ZoomJob& job) {
  const std::size_t stride = AsIndex(job.result.Width());
  const std::uint64_t count = SaturatingMul(stride, AsCount(job.result.Height()));
  // The edges are multiples of 2^k, so the low-pass band has exactly the size of the part.
  auto bands = OwnedArray<float>::Make(count);
  {
    const ZoomSource source(state, job);
    if (!source.IsThere()) return {};
    for (std::uint64_t y = 0; y < AsCount(job.part.Height()); ++y) {
      ReadRow(job, source.Samples(), y, bands.Data() + y * stride);
    }
  }
  const auto samples = ScratchArray<float>::Make(count);
  {
    const auto scratch =
        ScratchArray<std::int32_t>::Make(InverseDwtScratchCells(job.result, job.in));
    InverseDwt97(BandsOfFloats({bands.Data(), stride, job.result, job.in}), scratch.Data(),
                 {samples.Data(), stride});
  }
  bands = {};
  ZoomResult result(job);
  for (std::int64_t y = 0; y < job.result.Height(); ++y) {
    result.StoreRow(y, samples.Data() + AsIndex(y) * stride);
  }
  return result.Take();
}

/// The low-pass band; without levels of analysis the samples themselves.
OwnedBuffer Reduced(const ImageState& state, const ZoomJob& job) {
  const ZoomSource source(state, job);
  if (!source.IsThere()) return {};
  ZoomResult result(job);
  const BandRowTaker taker = {&result, [](void* to, int subband, std::int64_t row, void* cells) {
                                if (subband != 0) return;
                                static_cast<ZoomResult*>(to)->StoreRow(
                                    row, static_cast<const float*>(cells));
                              }};
  const auto memory =
      ScratchArray<std::uint8_t>::Make(ForwardRowsBytes(job.part, job.out, CellKind::kFloats));
  ForwardRows rows;
  BeginForward({job.part, job.out, CellKind::kFloats, nullptr, taker}, memory.Data(), rows);
  for (std::uint64_t y = 0; y < AsCount(job.part.Height()); ++y) {
    ReadRow(job, source.Samples(), y, static_cast<float*>(NextSampleRow(rows)));
    TakeSampleRow(rows);
  }
  return result.Take();
}

OwnedBuffer MakeResult(const ImageState& state, const ZoomJob& job) {
  const KelLong depth = job.record.tileGeom.BitDepth;
  if ((depth != 8 && depth != 16) || job.result.IsEmpty()) return {};
  return job.in > 0 ? Enlarged(state, job) : Reduced(state, job);
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
