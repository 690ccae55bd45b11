// The flow of a preview: views of the components, preparing, forward transform, quantisation,
// inverse transform, colours, recast.
//
// Everything is computed for the part of each component that is shown; only preparing and the
// forward transform take the whole tile.
#include "encode/KelPreview.h"

#include <algorithm>

#include "base/KelRaise.h"
#include "encode/KelMainStream.h"
#include "encode/KelPreviewPlane.h"
#include "encode/KelTilePlanes.h"
#include "format/KelHeadersWrite.h"
#include "samples/KelImageDataAccess.h"
#include "samples/KelRecast.h"

namespace kel {
namespace {

/// The rate mode of a preview that shows what coding does; any other one simulates it.
constexpr KelLong kDirectMode = 5;

Box BoxOf(const KelTileGeometry& t) {
  return {t.X0, t.X1, t.Y0, t.Y1};
}

/// The top of the range that previews are recast to.
KelLong PreviewMax(KelLong bitDepth) {
  return bitDepth == 8 ? 255 : KelLong{1} << (bitDepth - 1);
}

struct PreviewRequest {
  Box canvas;
  KelLong resolution;
  bool luminanceOnly;
};

/// How a component gets its preview.
enum class PreviewRoute : std::uint8_t { kNone, kColor, kExtra };

struct ComponentPlan {
  PreviewRoute route;
  PreviewView view;
};

/// The preview of one tile.
class TilePreview {
 public:
  TilePreview(ImageState& state, TileRecord& tile, const PreviewRequest& request)
      : state_(state),
        encoder_(*state.encoder),
        options_(encoder_.settings),
        tile_(tile),
        request_(request),
        resolution_(static_cast<int>(request.resolution)),
        isDirect_(state.encOpt->RateMode == kDirectMode) {}

  void Run() {
    EnsureTileComps(state_.map, tile_);
    PlanComponents();
    ReleaseImages();
    EnsureSourceBufs(encoder_);
    ScopeGuard undo([this] { ReleaseImages(); });
    const LockedPlanes locked(encoder_, tile_);
    const WorkPlane work(*options_.GeomParams);
    planes_ = locked.All();
    work_ = work.lock.As<void>();
    if (!Prepare()) return;
    if (ShowsColorsTogether()) ShowColors();
    for (KelLong c = 0; c < NumComps(); ++c) {
      if (IsShown(c) && tile_.comps[c].outputImage == nullptr) ShowAlone(c);
    }
    if (InvertsColors() && !ShowsColorsTogether()) InvertColors();
    for (KelLong c = 0; c < NumComps(); ++c) {
      if (IsShown(c)) Convert(c);
    }
    undo.Disarm();
  }

 private:
  KelLong NumComps() const { return options_.GeomParams->Csiz; }
  const KelTileGeometry& GeometryOf(KelLong c) const { return tile_.comps[c].tileGeom; }
  const PreviewView& ViewFor(KelLong c) const { return plans_[AsIndex(c)].view; }
  PreviewRoute RouteOf(KelLong c) const { return plans_[AsIndex(c)].route; }
  bool IsShown(KelLong c) const {
    return RouteOf(c) != PreviewRoute::kNone && !ViewFor(c).shown.IsEmpty();
  }

  // ---- What to show ----

  KelLong NumColors() const {
    return request_.luminanceOnly ? 1 : std::min(options_.NumColorChannels, NumComps());
  }

  PreviewRoute ChooseRoute(KelLong c) const {
    if (IsRegionMask(options_, c)) return PreviewRoute::kNone;
    if (c < NumColors()) return PreviewRoute::kColor;
    const bool isTransparency = options_.TransparencyPresent && c == options_.TransparencyComponent;
    const bool isWanted = isTransparency ? state_.previewsTransparency
                                         : state_.previewsExtras && IsExtraChannel(options_, c);
    return isWanted ? PreviewRoute::kExtra : PreviewRoute::kNone;
  }

  /// Raises 15 when there is something to show in the tile, and nothing of it in the rectangle.
  void PlanComponents() {
    plans_ = OwnedArray<ComponentPlan>::Make(AsCount(NumComps()));
    bool anyInTile = false, anyShown = false;
    for (KelLong c = 0; c < NumComps(); ++c) {
      const Box full = BoxOf(GeometryOf(c));
      const Box part = PartOfTileComp(GeometryOf(c), request_.canvas);
      plans_[AsIndex(c)] = {ChooseRoute(c), ViewOf(full, part, options_.NumLevels - resolution_)};
      if (RouteOf(c) == PreviewRoute::kNone) continue;
      anyInTile = anyInTile || !ViewFor(c).resolution.IsEmpty();
      anyShown = anyShown || IsShown(c);
    }
    if (anyInTile && !anyShown) Raise(KelErrBadParam, kModulePreview);
  }

  // ---- Samples ----

  /// Whether a region changes what is shown.
  bool UsesRegion() const {
    return options_.RoiEnabled && (!isDirect_ || options_.Irreversible != 0);
  }

  /// Fills the coding planes. Returns false when the host gave no samples.
  bool Prepare() {
    TileSource source(encoder_.reader, tile_.index);
    if (UsesRegion() && !FetchRegion(source, GeometryOf(options_.RoiMaskComponent), region_)) {
      return false;
    }
    if (!PrepareTileComponents(source, options_, NumColors(), planes_)) return false;
    for (KelLong c = 0; c < NumComps(); ++c) {
      if (RouteOf(c) != PreviewRoute::kExtra || !IsShown(c)) continue;
      FetchedSamples samples;
      if (!source.Fetch(c, samples)) return false;
      const Box full = BoxOf(GeometryOf(c));
      PreparePlane(samples.source, planes_[c], {full.Width(), full.Height()}, false);
    }
    return true;
  }

  // ---- Coefficients ----

  template <class Cell>
  ForwardPlanes<Cell> PlanesOf(KelLong c, int numLevels) const {
    return {static_cast<Cell*>(planes_[c].cells), static_cast<Cell*>(work_), planes_[c].strideCells,
            BoxOf(GeometryOf(c)), numLevels};
  }

  static ScratchArray<std::int32_t> ForwardScratch(const Box& box) {
    return ScratchArray<std::int32_t>::Make(ForwardDwtScratchCells(box));
  }

  /// What a decoder of a component would have in hand for the shown part.
  struct Coefficients {
    Box window;
    ScratchArray<std::int32_t> cells;
    float steps[kQuantEntries];  ///< all 1 for the reversible filter
  };

  void MakeCoefficients(KelLong c, Coefficients& made) {
    SubbandRecord records[kMaxSubbands];
    std::fill_n(made.steps, kQuantEntries, 1.0F);
    if (IsCodedIrreversibly(options_, c)) {
      Quantise(c, records, made.steps);
    } else {
      ForwardDwt53(PlanesOf<std::int32_t>(c, options_.NumLevels),
                   ForwardScratch(BoxOf(GeometryOf(c))).Data(), records);
    }
    made.window = WindowOf(ViewFor(c), resolution_);
    made.cells = ScratchArray<std::int32_t>::Make(
        SaturatingMul(AsCount(made.window.Width()), AsCount(made.window.Height())));
    Gather(c, records, made);
  }

  /// Transforms floats and divides them by their steps, which come in as ones. With a region, and
  /// in simulated coding, nothing is divided.
  void Quantise(KelLong c, SubbandRecord* records, float* steps) {
    const Box box = BoxOf(GeometryOf(c));
    const int numLevels = options_.NumLevels;
    ChosenSteps chosen;
    ChooseSteps(QuantTargetOf(state_, GeometryOf(c)), box, numLevels, encoder_.bandWeights, chosen);
    if (isDirect_ && !region_.IsThere()) std::copy_n(chosen.steps, NumSubbands(numLevels), steps);
    ForwardDwt97(PlanesOf<float>(c, numLevels), {steps, AnnouncedDepth(options_), false},
                 ForwardScratch(box).Data(), records);
    if (!isDirect_ || !region_.IsThere()) return;
    RegionSamples fitted;
    CoarsenOutside(RegionFor(GeometryOf(c), region_, fitted), numLevels, chosen.steps, records);
  }

  void Gather(KelLong c, const SubbandRecord* records, const Coefficients& to) {
    const bool areFloats = IsCodedIrreversibly(options_, c);
    if (isDirect_ || !region_.IsThere()) {
      GatherCoefficients(records, areFloats, to.window, resolution_, {}, to.cells.Data());
      return;
    }
    RegionSamples fitted;
    const RegionMarks marks(RegionFor(GeometryOf(c), region_, fitted), options_.NumLevels,
                            areFloats);
    GatherCoefficients(records, areFloats, to.window, resolution_,
                       RegionScaleFor(marks, MaxBitPlanesOfUnitSteps()), to.cells.Data());
  }

  int MaxBitPlanesOfUnitSteps() const {
    std::int32_t exponents[kQuantEntries], mantissas[kQuantEntries];
    const std::int32_t depth = AnnouncedDepth(options_);
    StepsToExpMant(nullptr, depth, {0, options_.NumLevels}, true, exponents, mantissas);
    return MaxBitPlanes(exponents, GuardBits(depth), options_.NumLevels);
  }

  // ---- Samples shown ----

  ComponentBands BandsFor(const Coefficients& of, bool areIndices) const {
    const CoefficientPlane plane = {of.cells.Data(), AsIndex(of.window.Width()), of.window,
                                    resolution_};
    return areIndices ? BandsOfIndices(plane, StepsOfIndices(of.steps)) : BandsOfInts(plane);
  }

  ScratchArray<std::int32_t> InverseScratch(const Box& window, int numPlanes) const {
    return ScratchArray<std::int32_t>::Make(InverseDwtScratchCells(window, resolution_, numPlanes));
  }

  /// Whether the planes of the three colours are a transformed triple. Like the decoder, this does
  /// not ask for equal depths.
  bool InvertsColors() const {
    return !request_.luminanceOnly && ColorTransformApplies(options_) && IsShown(0);
  }

  /// Whether three colours go to bytes in lockstep.
  bool ShowsColorsTogether() const {
    return InvertsColors() && GeometryOf(0).BitDepth == 8 && GeometryOf(1).BitDepth == 8 &&
           GeometryOf(2).BitDepth == 8;
  }

  void ShowColors() {
    Coefficients made[3];
    for (KelLong c = 0; c < 3; ++c) MakeCoefficients(c, made[c]);
    const Box& window = made[0].window;
    WindowPlane bytes[3] = {{window, 1}, {window, 1}, {window, 1}};
    const auto scratch = InverseScratch(window, 3);
    const bool areIndices = options_.Irreversible != 0;
    const ComponentBands bands[3] = {BandsFor(made[0], areIndices), BandsFor(made[1], areIndices),
                                     BandsFor(made[2], areIndices)};
    const Rows<std::uint8_t> out[3] = {bytes[0].RowsOf<std::uint8_t>(),
                                       bytes[1].RowsOf<std::uint8_t>(),
                                       bytes[2].RowsOf<std::uint8_t>()};
    if (areIndices) {
      InverseDwt97IctTo8Bit(bands, scratch.Data(), out);
    } else {
      InverseDwt53RctTo8Bit(bands, scratch.Data(), out);
    }
    for (KelLong c = 0; c < 3; ++c) {
      Install(c, bytes[c].TakePart(ViewFor(c).shown), 1, kIntegerSamples);
    }
  }

  void ShowAlone(KelLong c) {
    if (RouteOf(c) == PreviewRoute::kExtra) {
      ShowExtra(c);
    } else if (GeometryOf(c).BitDepth == 8 && !(c < 3 && InvertsColors())) {
      ShowBytes(c);
    } else {
      ShowCells(c);
    }
  }

  /// 8-bit samples that only have to be shifted and limited.
  void ShowBytes(KelLong c) {
    Coefficients made;
    MakeCoefficients(c, made);
    WindowPlane bytes(made.window, 1);
    const auto scratch = InverseScratch(made.window, 1);
    if (IsCodedIrreversibly(options_, c)) {
      InverseDwt97GeneralTo8Bit(BandsFor(made, true), scratch.Data(), bytes.RowsOf<std::uint8_t>());
    } else {
      InverseDwt53To8Bit(BandsFor(made, false), scratch.Data(), bytes.RowsOf<std::uint8_t>());
    }
    Install(c, bytes.TakePart(ViewFor(c).shown), 1, kIntegerSamples);
  }

  /// Samples of 32 bits, which are still to be converted.
  void ShowCells(KelLong c) {
    Coefficients made;
    MakeCoefficients(c, made);
    WindowPlane samples(made.window, 4);
    const auto scratch = InverseScratch(made.window, 1);
    const bool areFloats = IsCodedIrreversibly(options_, c);
    if (areFloats) {
      InverseDwt97(BandsFor(made, true), scratch.Data(), samples.RowsOf<float>());
    } else {
      InverseDwt53(BandsFor(made, false), scratch.Data(), samples.RowsOf<std::int32_t>());
    }
    Install(c, samples.TakePart(ViewFor(c).shown), 4, areFloats ? kFloatSamples : kIntegerSamples);
  }

  /// A channel that is coded without loss: the low band of the 5/3 filter, or the samples.
  void ShowExtra(KelLong c) {
    SubbandRecord records[kMaxSubbands];
    const int reduction = options_.NumLevels - resolution_;
    ForwardDwt53(PlanesOf<std::int32_t>(c, reduction), ForwardScratch(BoxOf(GeometryOf(c))).Data(),
                 records);
    Install(c,
            CopyPart({records[0].data, records[0].strideCells, 4, ViewFor(c).resolution},
                     ViewFor(c).shown),
            4, kIntegerSamples);
  }

  // ---- Images ----

  void ReleaseImages() noexcept {
    for (KelLong c = 0; c < NumComps(); ++c) ReleaseOutput(tile_.comps[c]);
  }

  /// Makes samples the component's image.
  void Install(KelLong c, OwnedBuffer samples, KelLong sampleBytes, KelLong bufferType) {
    const Box& shown = ViewFor(c).shown;
    TileCompRecord& record = tile_.comps[c];
    record.outputImage = record.progData = NewImage();
    InstallSamples(*record.outputImage, std::move(samples), static_cast<KelLong>(shown.Width()),
                   static_cast<KelLong>(shown.Height()), sampleBytes, bufferType);
  }

  void InvertColors() {
    const auto imageOf = [&](int c) { return tile_.comps[c].outputImage; };
    const BufferLock locks[3] = {BufferLock(imageOf(0)->ImageBuffer),
                                 BufferLock(imageOf(1)->ImageBuffer),
                                 BufferLock(imageOf(2)->ImageBuffer)};
    if (!locks[0] || !locks[1] || !locks[2]) Raise(KelErrNoMemory, kModulePreview);
    InverseComponentTransform({{locks[0].As<void>(), locks[1].As<void>(), locks[2].As<void>()},
                               AsIndex(imageOf(0)->Width),
                               {imageOf(0)->Width, imageOf(0)->Height},
                               imageOf(0)->ImageBufferType == kFloatSamples});
  }

  /// Turns a component's samples, if they are of 32 bits, into those of the preview. An extra
  /// channel at full resolution is shown as it is.
  void Convert(KelLong c) {
    KelImageData& image = *tile_.comps[c].outputImage;
    const KelLong depth = GeometryOf(c).BitDepth;
    if (RouteOf(c) == PreviewRoute::kExtra && resolution_ == options_.NumLevels) {
      RestoreSamples(image, depth);
      return;
    }
    const RecastTarget target = {depth, depth, PreviewMax(depth), 0, KelRecastNominal};
    const KelLong code = Recast(image, target, false, KelOrientation0);
    if (code != KelOK) Raise(code, kModulePreview);
  }

  ImageState& state_;
  const EncoderState& encoder_;
  const KelEncOpt& options_;
  TileRecord& tile_;
  const PreviewRequest& request_;
  int resolution_;
  bool isDirect_;  ///< no simulated coding
  OwnedArray<ComponentPlan> plans_;
  RegionSamples region_;
  const CodingPlane* planes_ = nullptr;
  void* work_ = nullptr;
};

KelLong Preview(ImageState& state, KelLong tile, const PreviewRequest& request) {
  return NamingModule(kModulePreview, [&] {
    TilePreview(state, state.map.tiles[tile], request).Run();
    return KelLong{KelOK};
  });
}

}  // namespace

KelLong GetPreviewData(ImageState& state, KelLong tile) {
  if (tile < 0 || tile >= state.map.numTiles) Raise(KelErrBadParam, kModulePreview);
  return Preview(state, tile, {state.map.tiles[tile].box, state.maxRes, false});
}

KelLong GetPreviewData(ImageState& state, KelLong tile, const Box& canvas, KelLong resolution,
                       bool luminanceOnly) {
  if (tile < 0 || tile >= state.map.numTiles || resolution < 0 || resolution > state.maxRes ||
      Intersection(canvas, state.map.tiles[tile].box).IsEmpty()) {
    Raise(KelErrBadParam, kModulePreview);
  }
  return Preview(state, tile, {canvas, resolution, luminanceOnly});
}

void SetAlphaChannelsForPreview(ImageState& state, bool transparency, bool extraChannels) {
  state.previewsTransparency = transparency;
  state.previewsExtras = extraChannels;
}

Box PartOfTileComp(const KelTileGeometry& t, const Box& canvas) {
  const Box part = {CeilDiv(canvas.x0, t.XRsiz), CeilDiv(canvas.x1, t.XRsiz),
                    CeilDiv(canvas.y0, t.YRsiz), CeilDiv(canvas.y1, t.YRsiz)};
  const Box inside = Intersection(part, BoxOf(t));
  return {inside.x0 - t.X0, inside.x1 - t.X0, inside.y0 - t.Y0, inside.y1 - t.Y0};
}

}  // namespace kel
