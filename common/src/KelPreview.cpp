// The flow of a preview: views of the components, preparing, forward transform, quantisation,
// inverse transform, colours, recast.
//
// Everything is computed for the part of each component that is shown; only preparing and the
// forward transform take the whole tile.
#include "KelPreview.h"

#include <algorithm>

#include "KelHeadersWrite.h"
#include "KelImageDataAccess.h"
#include "KelMainStream.h"
#include "KelPreviewPlane.h"
#include "KelRaise.h"
#include "KelRecast.h"
#include "KelTilePlanes.h"

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
    for (KelLong c = 0; c < NumComps(); ++c) {
      if (IsShown(c)) Show(c);
    }
    if (InvertsColors()) InvertColors();
    for (KelLong c = 0; c < NumComps(); ++c) {
      if (IsShown(c)) Convert(c);
    }
    undo.Disarm();
  }

 private:
  KelLong NumComps() const { return options_.GeomParams->Csiz; }
  const KelTileGeometry& GeometryOf(KelLong c) const { return tile_.comps[c].tileGeom; }
  const PreviewView& ViewFor(KelLong c) const { return plans_[AsCount(c)].view; }
  PreviewRoute RouteOf(KelLong c) const { return plans_[AsCount(c)].route; }
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
      plans_[AsCount(c)] = {ChooseRoute(c), ViewOf(full, part, options_.NumLevels - resolution_)};
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

  // ---- Reconstruction ----

  void Show(KelLong c) {
    if (RouteOf(c) == PreviewRoute::kExtra) {
      ShowExtra(c);
    } else if (IsCodedIrreversibly(options_, c)) {
      ShowIrreversible(c);
    } else {
      ShowReversible(c);
    }
  }

  template <class Cell>
  ForwardPlanes<Cell> PlanesOf(KelLong c, int numLevels) const {
    return {static_cast<Cell*>(planes_[c].cells), static_cast<Cell*>(work_), planes_[c].strideCells,
            BoxOf(GeometryOf(c)), numLevels};
  }

  static ScratchArray<std::int32_t> ForwardScratch(const Box& box) {
    return ScratchArray<std::int32_t>::Make(ForwardDwtScratchCells(box));
  }

  void ShowReversible(KelLong c) {
    SubbandRecord records[kMaxSubbands];
    ForwardDwt53(PlanesOf<std::int32_t>(c, options_.NumLevels),
                 ForwardScratch(BoxOf(GeometryOf(c))).Data(), records);
    Rebuild<std::int32_t>(c, records,
                          [](const CoefficientPlane& from, void* scratch, Rows<std::int32_t> out) {
                            InverseDwt53(from, scratch, out);
                          });
  }

  void ShowIrreversible(KelLong c) {
    SubbandRecord records[kMaxSubbands];
    float steps[kQuantEntries];
    std::fill_n(steps, kQuantEntries, 1.0F);
    Quantise(c, records, steps);
    Rebuild<float>(c, records, [&](const CoefficientPlane& from, void* scratch, Rows<float> out) {
      InverseDwt97(from, steps, scratch, out);
    });
  }

  /// Transforms floats and divides them by their steps, which come in as ones. With a region, and
  /// in simulated coding, nothing is divided.
  void Quantise(KelLong c, SubbandRecord* records, float* steps) {
    const Box box = BoxOf(GeometryOf(c));
    const int numLevels = options_.NumLevels;
    ChosenSteps chosen;
    ChooseSteps(QuantTargetOf(state_, tile_.comps[c]), box, numLevels, encoder_.bandWeights,
                chosen);
    if (isDirect_ && !region_.IsThere()) std::copy_n(chosen.steps, NumSubbands(numLevels), steps);
    ForwardDwt97(PlanesOf<float>(c, numLevels), {steps, AnnouncedDepth(options_), false},
                 ForwardScratch(box).Data(), records);
    if (!isDirect_ || !region_.IsThere()) return;
    RegionSamples fitted;
    CoarsenOutside(RegionFor(GeometryOf(c), region_, fitted), numLevels, chosen.steps, records);
  }

  /// Synthesises the shown part of a resolution from the subbands of a whole tile-component, and
  /// installs it. The coding plane is free to take what surrounds the shown part.
  template <class Cell, class Inverse>
  void Rebuild(KelLong c, const SubbandRecord* records, Inverse inverse) {
    const Box window = WindowOf(ViewFor(c), resolution_);
    const std::size_t stride = AsCount(window.Width());
    const auto cells = ScratchArray<std::int32_t>::Make(
        SaturatingMul(AsCount(window.Width()), AsCount(window.Height())));
    Gather(c, records, window, cells.Data());
    const auto scratch =
        ScratchArray<std::int32_t>::Make(InverseDwtScratchCells(window, resolution_));
    inverse({cells.Data(), stride, window, resolution_}, scratch.Data(),
            Rows<Cell>{static_cast<Cell*>(planes_[c].cells), stride});
    InstallRows(c, planes_[c].cells, {window, stride},
                std::is_same_v<Cell, float> ? kFloatSamples : kIntegerSamples);
  }

  void Gather(KelLong c, const SubbandRecord* records, const Box& window, std::int32_t* cells) {
    const bool areFloats = IsCodedIrreversibly(options_, c);
    if (isDirect_ || !region_.IsThere()) {
      GatherCoefficients(records, areFloats, window, resolution_, {}, cells);
      return;
    }
    RegionSamples fitted;
    const RegionMarks marks(RegionFor(GeometryOf(c), region_, fitted), options_.NumLevels,
                            areFloats);
    GatherCoefficients(records, areFloats, window, resolution_,
                       RegionScaleFor(marks, MaxBitPlanesOfUnitSteps()), cells);
  }

  int MaxBitPlanesOfUnitSteps() const {
    std::int32_t exponents[kQuantEntries], mantissas[kQuantEntries];
    const std::int32_t depth = AnnouncedDepth(options_);
    StepsToExpMant(nullptr, depth, {0, options_.NumLevels}, true, exponents, mantissas);
    return MaxBitPlanes(exponents, GuardBits(depth), options_.NumLevels);
  }

  /// A channel that is coded without loss: the low band of the 5/3 filter, or the samples.
  void ShowExtra(KelLong c) {
    SubbandRecord records[kMaxSubbands];
    const int reduction = options_.NumLevels - resolution_;
    ForwardDwt53(PlanesOf<std::int32_t>(c, reduction), ForwardScratch(BoxOf(GeometryOf(c))).Data(),
                 records);
    InstallRows(c, records[0].data, {ViewFor(c).resolution, records[0].strideCells},
                kIntegerSamples);
  }

  // ---- Images ----

  void ReleaseImages() noexcept {
    for (KelLong c = 0; c < NumComps(); ++c) ReleaseOutput(tile_.comps[c]);
  }

  /// The box that a plane of 32-bit cells holds, and its row length.
  struct PlaneLayout {
    const Box& box;
    std::size_t strideCells;
  };

  /// Makes the shown part of a plane the component's image.
  void InstallRows(KelLong c, const void* plane, PlaneLayout layout, KelLong bufferType) {
    const Box& shown = ViewFor(c).shown;
    const auto* cells = static_cast<const std::uint32_t*>(plane) +
                        AsCount(shown.y0 - layout.box.y0) * layout.strideCells +
                        AsCount(shown.x0 - layout.box.x0);
    OwnedBuffer samples = CopyRows(cells, layout.strideCells, {shown.Width(), shown.Height()});
    TileCompRecord& record = tile_.comps[c];
    record.outputImage = record.progData = NewImage();
    InstallSamples(*record.outputImage, std::move(samples), static_cast<KelLong>(shown.Width()),
                   static_cast<KelLong>(shown.Height()), 4, bufferType);
  }

  /// Whether the planes of the three colours are a transformed triple.
  bool InvertsColors() const {
    if (request_.luminanceOnly || !ColorTransformApplies(options_) || !IsShown(0)) return false;
    return GeometryOf(0).BitDepth == GeometryOf(1).BitDepth &&
           GeometryOf(0).BitDepth == GeometryOf(2).BitDepth;
  }

  void InvertColors() {
    const auto imageOf = [&](int c) { return tile_.comps[c].outputImage; };
    const BufferLock locks[3] = {BufferLock(imageOf(0)->ImageBuffer),
                                 BufferLock(imageOf(1)->ImageBuffer),
                                 BufferLock(imageOf(2)->ImageBuffer)};
    if (!locks[0] || !locks[1] || !locks[2]) Raise(KelErrNoMemory, kModulePreview);
    InverseComponentTransform({{locks[0].As<void>(), locks[1].As<void>(), locks[2].As<void>()},
                               AsCount(imageOf(0)->Width),
                               {imageOf(0)->Width, imageOf(0)->Height},
                               imageOf(0)->ImageBufferType == kFloatSamples});
  }

  /// Turns a component's 32-bit samples into those of the preview. An extra channel at full
  /// resolution is shown as it is.
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
