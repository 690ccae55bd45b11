// Delivering a tile. Three routes lead from coefficients to samples:
//
//   colour   three 8-bit components under the colour transform go to bytes in lockstep, without
//            planes of 32 bits in between;
//   direct   one irreversible component goes from its coefficients to bytes in the host's buffer;
//   general  everything else: 32-bit planes, inverse component transform, recast and rotation,
//            cut short where that is known to end in plain bytes.
//
// Relies on the inverse wavelet drivers, on quantisation for the steps and on the sample
// conversions; leaves reading and the order of tiles to the flow.
#include "KelTileOutput.h"

#include <algorithm>
#include <optional>

#include "KelBandSource.h"
#include "KelHostPlacement.h"
#include "KelTileLayout.h"
#include "base/KelRaise.h"
#include "kernels/KelSamplesKernels.h"
#include "samples/KelCompTransform.h"
#include "samples/KelImageDataAccess.h"
#include "transform/KelQuant.h"
#include "transform/KelWavelet.h"

namespace kel {
namespace {

/// What padding columns hold in planes of bytes: a sample of zero, shifted.
constexpr std::uint8_t kMiddleGrey = 128;

/// Addresses and strides of the direct path are multiples of this.
constexpr std::uintptr_t kDirectAlignment = 16;

/// The request's values for a component; empty beyond the channels of the request.
ChannelRequest ChannelOf(const FrameRequest& request, std::int32_t component) {
  return static_cast<std::uint32_t>(component) < request.numChannels ? request.channels[component]
                                                                     : ChannelRequest{};
}

bool IsIrreversible(const TileCompRecord& record) {
  return record.dec->params.style->irreversible != 0;
}

/// The steps of a component's bands; the first entries serve lower resolutions.
struct Steps {
  float values[kMaxSubbands];

  Steps(const ImageMap& map, const TileCompRecord& record) {
    MakeDecoderSteps(StepsSaid(*record.dec->params.quant),
                     map.geometry->BitDepths[record.tileGeom.Component], record.dec->numLevels,
                     values);
  }
};

/// A fresh plane of samples with the padded row length of a component.
class SamplePlane {
 public:
  SamplePlane(const TileCompRecord& record, KelLong sampleBytes)
      : width_(record.dec->resolutionBox.Width()),
        stride_(record.dec->rowStride),
        height_(record.dec->resolutionBox.Height()),
        sampleBytes_(sampleBytes),
        buffer_(OwnedBuffer::MakeAligned(PlaneBytes(stride_, height_, sampleBytes))),
        lock_(buffer_.Get()) {
    if (!lock_) Raise(KelErrNoMemory, kModuleImageMap);
    FillPadding();
  }

  template <class T>
  Rows<T> RowsOf() const {
    return {lock_.As<T>(), static_cast<std::size_t>(stride_)};
  }

  void Clear() { KelMemSet(lock_.As<void>(), 0, PlaneBytes(stride_, height_, sampleBytes_)); }

  /// Makes the plane the component's output.
  void Install(TileCompRecord& record, KelLong bufferType) {
    lock_ = BufferLock();
    InstallSamples(*record.shown.outputImage, std::move(buffer_), static_cast<KelLong>(stride_),
                   static_cast<KelLong>(height_), sampleBytes_, bufferType);
  }

 private:
  void FillPadding() {
    const auto rowBytes = AsCount(stride_ * sampleBytes_);
    const auto usedBytes = AsCount(width_ * sampleBytes_);
    for (std::int64_t y = 0; y < height_; ++y) {
      std::uint8_t* row = lock_.As<std::uint8_t>() + AsCount(y) * rowBytes;
      std::fill(row + usedBytes, row + rowBytes, sampleBytes_ == 1 ? kMiddleGrey : std::uint8_t{0});
    }
  }

  std::int64_t width_, stride_, height_;
  KelLong sampleBytes_;
  OwnedBuffer buffer_;
  BufferLock lock_;
};

/// The delivery of one tile.
class Delivery {
 public:
  Delivery(const DeliveryContext& context, TileRecord& tile, OutputScratch& scratch)
      : context_(context),
        request_(context.request),
        tile_(tile),
        scratch_(scratch),
        isPlain8Bit_(AsksPlain8Bit(request_, context.map.numComps) && request_.orientation == 0),
        transformIsCoded_(tile.dec->params.style->componentTransform != 0),
        isTaken_(tile.dec->progress.takesBands) {}

  /// False when a coded band that was taken did not end where its length says.
  bool Run() {
    for (std::int32_t c = 0; c < context_.map.numComps; ++c) {
      Clear(tile_.comps[c]);
      if (isTaken_ && tile_.comps[c].dec->frameDone) CheckBandsWithoutSamples(tile_.comps[c]);
    }
    DeliverConstants();
    if (TakesColorRoute()) DeliverColors();
    for (std::int32_t c = 0; c < context_.map.numComps; ++c) {
      if (!tile_.comps[c].dec->frameDone && TakesDirectRoute(tile_.comps[c])) {
        DeliverDirect(tile_.comps[c]);
      }
    }
    if (TakesInverseTransform()) DeliverTriple();
    for (std::int32_t c = 0; c < context_.map.numComps; ++c) {
      if (!tile_.comps[c].dec->frameDone) DeliverAlone(tile_.comps[c]);
    }
    return bandsAreSound_;
  }

 private:
  static void Clear(TileCompRecord& record) {
    if (record.shown.outputImage == nullptr) record.shown.outputImage = NewImage();
    record.dec->frameDone = record.dec->resolutionBox.IsEmpty();
    record.shown.dataReady = record.shown.dataValid = false;
  }

  // ---- Routes ----

  bool IsPlainByteComponent(const TileCompRecord& record) const {
    return record.dec->sampleDepth == 8 && !record.dec->resolutionBox.IsEmpty();
  }

  /// The components of colours 1 to 3.
  TileCompRecord& Color(int i) const { return tile_.comps[context_.colorComponents[i]]; }

  /// Whether the colours' planes have one size and kind, so that they can be combined. Depths are
  /// those of the code stream; a file may give each component a depth of its own, which matters
  /// only once the colours are apart again.
  bool ColorsMatch() const {
    if (context_.map.numComps < 3) return false;
    const TileCompRecord& first = Color(0);
    for (int i = 0; i < 3; ++i) {
      const TileCompRecord& other = Color(i);
      if (other.dec->resolutionBox.IsEmpty() ||
          !(other.dec->resolutionBox == first.dec->resolutionBox) ||
          IsIrreversible(other) != IsIrreversible(first) ||
          other.tileGeom.BitDepth != first.tileGeom.BitDepth ||
          other.tileGeom.XRsiz != first.tileGeom.XRsiz ||
          other.tileGeom.YRsiz != first.tileGeom.YRsiz) {
        return false;
      }
    }
    return true;
  }

  bool TakesColorRoute() const {
    // Its result is bytes, which is no answer to who asks for 32-bit samples.
    if (request_.skipConversion || request_.skipRecast || !isPlain8Bit_ || !ColorsMatch()) {
      return false;
    }
    if (!transformIsCoded_ && !context_.forceComponentTransform) return false;
    return Color(0).tileGeom.XRsiz == 1 && Color(0).tileGeom.YRsiz == 1 &&
           std::all_of(tile_.comps, tile_.comps + context_.map.numComps,
                       [](const TileCompRecord& record) { return record.dec->sampleDepth == 8; });
  }

  bool TakesInverseTransform() const {
    return !request_.skipConversion && transformIsCoded_ && ColorsMatch() &&
           !Color(0).dec->frameDone && !Color(1).dec->frameDone && !Color(2).dec->frameDone;
  }

  bool TakesDirectRoute(const TileCompRecord& record) const {
    const bool transforms =
        !request_.skipConversion && (transformIsCoded_ || context_.forceComponentTransform);
    if (!isPlain8Bit_ || transforms || !IsIrreversible(record) || !IsPlainByteComponent(record)) {
      return false;
    }
    const ChannelRequest channel = ChannelOf(request_, record.tileGeom.Component);
    const HostPlacement place = PlaceInHostBuffer(context_.map, request_, record);
    if (place.address == nullptr || !place.isWhole) return false;
    // Alignment only matters where there is something to synthesise.
    const auto address = reinterpret_cast<std::uintptr_t>(channel.buffer);
    const auto stride = static_cast<std::uintptr_t>(channel.stride);
    return record.dec->decodeRes == 0 || (address | stride) % kDirectAlignment == 0;
  }

  // ---- Bands ----

  /// The bands of components that are synthesised together, and the working memory for that. Bands
  /// come from the coded bytes when these were taken, else from the planes of coefficients.
  struct Source {
    std::int32_t count;
    TileCompRecord* records[3];
    std::optional<LockedPlane> planes[3];
    BandMemory memory[3];
    ComponentBands bands[3];
    void* scratch;
  };

  /// Obtains the working memory of a source whose records are known.
  void PrepareSource(Source& source) {
    int levels = 0, numBands = 0;
    std::uint64_t rowBytes = 0;
    for (std::int32_t i = 0; i < source.count; ++i) {
      const TileCompRecord& record = *source.records[i];
      EnsureBands(*source.records[i]);
      levels = std::max(levels, record.dec->decodeRes);
      if (!isTaken_) continue;
      numBands += NumSubbands(record.dec->decodeRes);
      rowBytes = SaturatingAdd(rowBytes, CodedRowBytes(record));
    }
    const std::uint64_t cells =
        InverseDwtScratchCells(source.records[0]->dec->resolutionBox, levels, source.count);
    source.scratch = scratch_.Cells(SaturatingAdd(cells, rowBytes / sizeof(std::uint32_t)));
    if (!isTaken_) return;
    CodedBand* bands = scratch_.Bands(AsCount(numBands));
    std::uint32_t* rows = static_cast<std::uint32_t*>(source.scratch) + cells;
    for (std::int32_t i = 0; i < source.count; ++i) {
      source.memory[i] = {bands, rows, &context_.work};
      bands += NumSubbands(source.records[i]->dec->decodeRes);
      rows += CodedRowBytes(*source.records[i]) / sizeof(std::uint32_t);
    }
  }

  /// Makes the bands of the records, for cells of a kind other than floats.
  void OpenSource(Source& source, CellKind cells) {
    PrepareSource(source);
    for (std::int32_t i = 0; i < source.count; ++i) {
      TileCompRecord& record = *source.records[i];
      source.bands[i] = isTaken_ ? BandsOfCodedBytes(record, cells, nullptr, source.memory[i])
                                 : BandsOfInts(source.planes[i].emplace(record).Plane());
    }
  }

  /// Makes the bands of the records for the 9/7 filter.
  void OpenSource97(Source& source) {
    PrepareSource(source);
    for (std::int32_t i = 0; i < source.count; ++i) {
      TileCompRecord& record = *source.records[i];
      const Steps said(context_.map, record);
      const IndexSteps steps = StepsOfIndices(said.values);
      source.bands[i] = isTaken_
                            ? BandsOfCodedBytes(record, CellKind::kFloats, &steps, source.memory[i])
                            : BandsOfIndices(source.planes[i].emplace(record).Plane(), steps);
    }
  }

  /// Ends the use of a source whose rows have all been taken.
  void CloseSource(Source& source) {
    for (std::int32_t i = 0; i < source.count; ++i) {
      source.planes[i].reset();
      bandsAreSound_ = bandsAreSound_ &&
                       (!isTaken_ || CodedBandsEndedWell(*source.records[i], source.memory[i]));
    }
  }

  /// The cells for the 5/3 filter of samples that end as bytes: 16 bits where that surely suffices.
  CellKind ShortestCells(const Source& source, std::int64_t mostSample) const {
    bool fit = isTaken_;
    for (std::int32_t i = 0; i < source.count; ++i) {
      EnsureBands(*source.records[i]);
      fit = fit && CodedBandsFitShorts(*source.records[i], mostSample);
    }
    return fit ? CellKind::kShorts : CellKind::kInts;
  }

  /// Bands of a component without samples can have data all the same.
  void CheckBandsWithoutSamples(TileCompRecord& record) {
    if (record.dec->bands == nullptr) return;
    Source source{1, {&record}, {}, {}, {}, nullptr};
    OpenSource(source, CellKind::kInts);
    CloseSource(source);
  }

  // ---- Delivering ----

  /// A component of which no coefficient has come is one sample again and again, and needs no
  /// transform. Colours that are transformed together are so together.
  void DeliverConstants() {
    const bool transforms =
        !request_.skipConversion && (transformIsCoded_ || context_.forceComponentTransform);
    const bool areTogether = transforms && ColorsMatch();
    const bool colorsAreConstant =
        areTogether && !Color(0).dec->hasData && !Color(1).dec->hasData && !Color(2).dec->hasData;
    for (std::int32_t c = 0; c < context_.map.numComps; ++c) {
      TileCompRecord& record = tile_.comps[c];
      if (record.dec->frameDone || record.dec->hasData) continue;
      const bool isColor =
          areTogether && (&record == &Color(0) || &record == &Color(1) || &record == &Color(2));
      if (!isColor || colorsAreConstant) DeliverConstant(record);
    }
  }

  /// The host's buffer receives the samples alone. Without one the output image does, once the tile
  /// is complete: what has not come needs no memory.
  void DeliverConstant(TileCompRecord& record) {
    const bool isCopied = !request_.skipRecast || TakesDirectRoute(record);
    const bool isFilled = isCopied && FillHostBuffer(context_.map, request_, record);
    if (isFilled || !tile_.dec->progress.isComplete) return FinishInHostBuffer(record);
    SamplePlane samples(record, 4);
    samples.Clear();
    samples.Install(record, IsIrreversible(record) ? kFloatSamples : kIntegerSamples);
    Recast(record);
  }

  /// Where the bytes of a component are written: its output image, or the host's buffer.
  class ByteTarget {
   public:
    ByteTarget(Delivery& delivery, TileCompRecord& record) : delivery_(delivery), record_(record) {
      const HostPlacement place =
          PlaceInHostBuffer(delivery.context_.map, delivery.request_, record);
      const bool fits = place.address != nullptr && place.isWhole && place.sampleBytes == 1;
      if (delivery.context_.manner.withoutOutputImages && fits) {
        rows = {place.address, static_cast<std::size_t>(place.stride)};
      } else {
        rows = image_.emplace(record, 1).RowsOf<std::uint8_t>();
      }
    }

    /// All rows have been written.
    void Finish() {
      if (!image_) return delivery_.FinishInHostBuffer(record_);
      image_->Install(record_, kIntegerSamples);
      delivery_.Finish(record_);
    }

    Rows<std::uint8_t> rows;

   private:
    Delivery& delivery_;
    TileCompRecord& record_;
    std::optional<SamplePlane> image_;
  };

  void DeliverColors() {
    Source source{3, {&Color(0), &Color(1), &Color(2)}, {}, {}, {}, nullptr};
    ByteTarget targets[3] = {{*this, Color(0)}, {*this, Color(1)}, {*this, Color(2)}};
    const Rows<std::uint8_t> out[3] = {targets[0].rows, targets[1].rows, targets[2].rows};
    if (IsIrreversible(Color(0))) {
      OpenSource97(source);
      InverseDwt97IctTo8Bit(source.bands, source.scratch, out, Sums());
    } else {
      OpenSource(source, ShortestCells(source, kMostShortColor));
      InverseDwt53RctTo8Bit(source.bands, source.scratch, out);
    }
    CloseSource(source);
    for (ByteTarget& target : targets) target.Finish();
  }

  void DeliverDirect(TileCompRecord& record) {
    const HostPlacement place = PlaceInHostBuffer(context_.map, request_, record);
    Source source{1, {&record}, {}, {}, {}, nullptr};
    OpenSource97(source);
    InverseDwt97To8Bit(source.bands[0], source.scratch,
                       {place.address, static_cast<std::size_t>(place.stride)});
    CloseSource(source);
    FinishInHostBuffer(record);
  }

  /// Reconstructs a component as 32-bit samples.
  void Reconstruct(TileCompRecord& record) {
    SamplePlane samples(record, 4);
    Source source{1, {&record}, {}, {}, {}, nullptr};
    if (IsIrreversible(record)) {
      OpenSource97(source);
      InverseDwt97(source.bands[0], source.scratch, samples.RowsOf<float>());
    } else {
      OpenSource(source, CellKind::kInts);
      InverseDwt53(source.bands[0], source.scratch, samples.RowsOf<std::int32_t>());
    }
    CloseSource(source);
    samples.Install(record, IsIrreversible(record) ? kFloatSamples : kIntegerSamples);
    ReleaseCoefficients(record);
  }

  void DeliverTriple() {
    for (int i = 0; i < 3; ++i) Reconstruct(Color(i));
    {
      const BufferLock locks[3] = {BufferLock(Color(0).shown.outputImage->ImageBuffer),
                                   BufferLock(Color(1).shown.outputImage->ImageBuffer),
                                   BufferLock(Color(2).shown.outputImage->ImageBuffer)};
      if (!locks[0] || !locks[1] || !locks[2]) Raise(KelErrNoMemory, kModuleImageMap);
      const Box& box = Color(0).dec->resolutionBox;
      InverseComponentTransform({{locks[0].As<void>(), locks[1].As<void>(), locks[2].As<void>()},
                                 static_cast<std::size_t>(Color(0).dec->rowStride),
                                 {box.Width(), box.Height()},
                                 IsIrreversible(Color(0))});
    }
    for (int i = 0; i < 3; ++i) Recast(Color(i));
  }

  void DeliverAlone(TileCompRecord& record) {
    const ChannelRequest channel = ChannelOf(request_, record.tileGeom.Component);
    // Recasting 8-bit samples to bytes does not look at the range, so it can be done on the fly.
    const bool endsInBytes = !request_.skipRecast && request_.orientation == 0 &&
                             channel.hasFormat && channel.outBitDepth == 8;
    if (!endsInBytes || !IsPlainByteComponent(record)) {
      Reconstruct(record);
      Recast(record);
      return;
    }
    ByteTarget target(*this, record);
    Source source{1, {&record}, {}, {}, {}, nullptr};
    if (IsIrreversible(record)) {
      OpenSource97(source);
      InverseDwt97GeneralTo8Bit(source.bands[0], source.scratch, target.rows, Sums());
    } else {
      OpenSource(source, ShortestCells(source, INT16_MAX));
      InverseDwt53To8Bit(source.bands[0], source.scratch, target.rows);
    }
    CloseSource(source);
    target.Finish();
  }

  /// Turns a component's 32-bit samples into the form asked for.
  void Recast(TileCompRecord& record) {
    const ChannelRequest channel = ChannelOf(request_, record.tileGeom.Component);
    if (!request_.skipRecast && channel.hasFormat) {
      if (request_.orientation != 0) {
        CompactRows(*record.shown.outputImage,
                    static_cast<KelLong>(record.dec->resolutionBox.Width()));
      }
      RecastFor(channel, record.dec->sampleDepth, request_.orientation, *record.shown.outputImage);
    }
    Finish(record);
  }

  Sums97 Sums() const {
    return context_.manner.singlePrecision ? Sums97::kSingle : Sums97::kDouble;
  }

  /// The host's buffer holds the samples, and nothing else does.
  void FinishInHostBuffer(TileCompRecord& record) {
    record.shown.outputImage->FreeImageBuffer();
    DescribeOutput(record);
    record.dec->frameDone = record.shown.dataReady = true;
    ReleaseCoefficients(record);
  }

  /// The output image holds the samples: gives the host its copy.
  void Finish(TileCompRecord& record) {
    record.dec->frameDone = record.shown.dataReady = record.shown.dataValid = true;
    CopyToHostBuffer(context_.map, request_, record);
    ReleaseCoefficients(record);
  }

  // ---- Memory ----

  /// Coefficients of a complete tile are not needed again.
  void ReleaseCoefficients(TileCompRecord& record) {
    if (tile_.dec->progress.isComplete) ReleaseImage(record.shown.waveletData);
  }

  const DeliveryContext& context_;
  const FrameRequest& request_;
  TileRecord& tile_;
  OutputScratch& scratch_;
  bool isPlain8Bit_;
  bool transformIsCoded_;
  bool isTaken_;  ///< the bands' coded bytes were taken, and there are no planes
  bool bandsAreSound_ = true;
};

/// Adds the bytes decoded since the last frame to the options' count.
void CountDecodedBytes(const ImageMap& map, TileRecord& tile) {
  for (std::int32_t c = 0; c < map.numComps; ++c) {
    TileCompRecord& record = tile.comps[c];
    if (map.encOpt->RateMode == format::kRateModeUnset) {
      const std::uint64_t sum = AsCount(map.encOpt->RateParamB) + record.dec->decodedBytes;
      map.encOpt->RateParamB =
          SaturateToInt32(static_cast<std::int64_t>(std::min<std::uint64_t>(sum, INT32_MAX)));
    }
    record.dec->decodedBytes = 0;
  }
}

/// Delivers a tile of which nothing but headers has come, and for which no records exist.
void DeliverBareTile(const DeliveryContext& context, const TileRecord& tile) {
  const FrameRequest& request = context.request;
  for (std::uint32_t c = 0; c < request.numChannels && !request.skipRecast; ++c) {
    if (request.channels[c].buffer == nullptr) continue;
    DecTileComp comp{};
    TileCompRecord record{};
    record.dec = &comp;
    DescribeTileComp(context.map, tile, static_cast<std::int32_t>(c), record);
    FillHostBuffer(context.map, request, record);
  }
}

}  // namespace

bool DeliverTile(const DeliveryContext& context, TileRecord& tile, OutputScratch& scratch) {
  if (tile.dec == nullptr) return true;
  TileProgress& progress = tile.dec->progress;
  if (progress.isChanged && tile.dec->walk == nullptr) {
    DeliverBareTile(context, tile);
    progress.isChanged = false;
  }
  if (progress.isChanged) {
    // A failed delivery has released some coefficients already: the tile must be decoded again.
    ScopeGuard restart([&] { RestartTile(context.map, tile); });
    if (!Delivery(context, tile, scratch).Run()) return false;
    restart.Disarm();
    CountDecodedBytes(context.map, tile);
    progress.isChanged = false;
  }
  if (progress.isComplete && !progress.isDelivered) {
    ReleaseTileWork(context.map, tile);
    progress.isDelivered = true;
  }
  return true;
}

}  // namespace kel
