// The flow of a preview: views of the components, preparing, forward transform, quantisation,
// inverse transform, colours, recast.
//
// Everything is computed for the part of each component that is shown; only preparing and the
// forward transform take the whole tile, whose rows come and go.
#include "encode/KelPreview.h"

#include <algorithm>

#include "base/KelRaise.h"
#include "encode/KelMainStream.h"
#include "encode/KelPreviewPlane.h"
#include "encode/KelTileRows.h"
#include "format/KelHeadersWrite.h"
#include "kernels/KelChoiceKernels.h"
#include "samples/KelImageDataAccess.h"
#include "samples/KelRecast.h"

namespace kel {
namespace {

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
        isDirect_(state.encOpt->RateMode == format::kRateModeEncoder) {}

  void Run() {
    EnsureTileComps(state_.map, tile_);
    PlanComponents();
    ReleaseImages();
    ScopeGuard undo([this] { ReleaseImages(); });
    if (!ShowComponents()) return;
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

  // ---- From samples to coefficients ----

  /// Whether a region changes what is shown.
  bool UsesRegion() const {
    return options_.RoiEnabled && (!isDirect_ || options_.Irreversible != 0);
  }

  /// Makes the images of all components that are shown, colours first. Returns false when the host
  /// gave no samples.
  bool ShowComponents() {
    TileSource source(encoder_.reader, tile_.index);
    if (UsesRegion() && !FetchRegion(source, GeometryOf(options_.RoiMaskComponent), region_)) {
      return false;
    }
    for (KelLong first = 0; first < NumColors();) {
      const KelLong count = NumTogether(options_, first);
      if (!ShowTogether(source, first, count)) return false;
      first += count;
    }
    for (KelLong c = 0; c < NumComps(); ++c) {
      if (RouteOf(c) != PreviewRoute::kExtra || !IsShown(c)) continue;
      if (!ShowExtra(source, c)) return false;
    }
    return true;
  }

  /// What a decoder of a component would have in hand for the shown part.
  struct Coefficients {
    GatheredWindow gathered;
    ScratchArray<std::int32_t> cells;
    float steps[kQuantEntries];  ///< all 1 for the reversible filter
    float coarseSteps[kQuantEntries];
    RegionMarks marks;
    // Where indices are chosen, which takes whole bands.
    float parts[kQuantEntries];  ///< of the steps
    ScratchArray<std::uint8_t> bands;
    EncodeBand bandRecords[kMaxSubbands];
    WaitingBands waiting;
  };

  /// Components that are transformed together, and then shown.
  bool ShowTogether(TileSource& source, KelLong first, KelLong count) {
    Coefficients made[kMostTogether];
    ForwardJob jobs[kMostTogether] = {};
    for (KelLong i = 0; i < count; ++i) {
      if (RouteOf(first + i) != PreviewRoute::kColor || !IsShown(first + i)) continue;
      jobs[i] = BeginCoefficients(first + i, made[i]);
    }
    if (!TransformTogether(source, first, count, jobs, encoder_.rowsMemory)) return false;
    for (KelLong i = 0; i < count; ++i) {
      if (made[i].bands.Data() == nullptr) continue;
      NarrowAllPlaneCounts(made[i].waiting);
      GatherFromBands(made[i].waiting, made[i].gathered);
    }
    if (count == kMostTogether && ShowsColorsTogether()) {
      ShowColors(made);
      return true;
    }
    for (KelLong i = 0; i < count; ++i) {
      if (!jobs[i].box.IsEmpty()) ShowAlone(first + i, made[i]);
    }
    return true;
  }

  /// How a component's rows are transformed into coefficients. Floats are divided by their steps;
  /// with a region, and in simulated coding, by nothing.
  ForwardJob BeginCoefficients(KelLong c, Coefficients& made) {
    const int numLevels = options_.NumLevels;
    const Box box = BoxOf(GeometryOf(c));
    const CellKind cells = RowKindOf(options_, c, numLevels).cells;
    std::fill_n(made.steps, kQuantEntries, 1.0F);
    GatheredWindow& to = made.gathered;
    to = {box, numLevels, cells, {}, WindowOf(ViewFor(c), resolution_), resolution_, {}, nullptr};
    made.cells = ScratchArray<std::int32_t>::Make(
        SaturatingMul(AsCount(to.window.Width()), AsCount(to.window.Height())));
    to.cells = made.cells.Data();
    const bool areFloats = cells == CellKind::kFloats;
    if (region_.IsThere() && (areFloats || !isDirect_)) {
      RegionSamples fitted;
      made.marks = RegionMarks(RegionFor(GeometryOf(c), region_, fitted), numLevels, areFloats);
    }
    if (isDirect_ && areFloats) {
      ChosenSteps chosen;
      const QuantTarget target = QuantTargetOf(state_, GeometryOf(c));
      ChooseSteps(target, box, numLevels, encoder_.bandWeights, chosen);
      float* const steps = region_.IsThere() ? made.coarseSteps : made.steps;
      std::copy_n(chosen.steps, NumSubbands(numLevels), steps);
      to.outside = {made.marks.All(), made.coarseSteps};
      if (target.areEven) return BeginChoice(c, made);
    }
    if (!isDirect_ && region_.IsThere()) {
      to.scale = RegionScaleFor(made.marks, MaxBitPlanesOfUnitSteps());
    }
    return {box, numLevels, cells, areFloats ? made.steps : nullptr, {&to, GatherBandRow}};
  }

  /// The same for a component whose indices are chosen. The steps are there.
  ForwardJob BeginChoice(KelLong c, Coefficients& made) {
    const GatheredWindow& to = made.gathered;
    std::transform(made.steps, made.steps + kQuantEntries, made.parts,
                   [](float step) { return step / kPartsPerStep; });
    const RowKind kind = RowKindOf(options_, c, to.numLevels);
    const WaitingJob job = {.box = to.box,
                            .numLevels = to.numLevels,
                            .cells = kind.cells,
                            .sampleBits = kind.sampleBits,
                            .steps = made.parts,
                            .choosesIndices = true};
    made.bands = ScratchArray<std::uint8_t>::Make(WaitingBytes(job));
    made.waiting.bands = made.bandRecords;
    BeginWaiting(job, made.bands.Data(), made.waiting);
    return {to.box, to.numLevels, to.rowCells, made.parts, {&made.waiting, TakeBandRow}};
  }

  int MaxBitPlanesOfUnitSteps() const {
    std::int32_t exponents[kQuantEntries], mantissas[kQuantEntries];
    const std::int32_t depth = AnnouncedDepth(options_);
    StepsToExpMant(nullptr, depth, {0, options_.NumLevels}, true, exponents, mantissas);
    return MaxBitPlanes(exponents, GuardBits(depth), options_.NumLevels);
  }

  // ---- Samples shown ----

  ComponentBands BandsFor(const Coefficients& of, bool areIndices) const {
    const Box& window = of.gathered.window;
    const CoefficientPlane plane = {of.cells.Data(), AsIndex(window.Width()), window, resolution_};
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

  void ShowColors(const Coefficients (&made)[3]) {
    const Box& window = made[0].gathered.window;
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

  void ShowAlone(KelLong c, const Coefficients& made) {
    if (GeometryOf(c).BitDepth == 8 && !(c < 3 && InvertsColors())) {
      ShowBytes(c, made);
    } else {
      ShowCells(c, made);
    }
  }

  /// 8-bit samples that only have to be shifted and limited.
  void ShowBytes(KelLong c, const Coefficients& made) {
    WindowPlane bytes(made.gathered.window, 1);
    const auto scratch = InverseScratch(made.gathered.window, 1);
    if (IsCodedIrreversibly(options_, c)) {
      InverseDwt97GeneralTo8Bit(BandsFor(made, true), scratch.Data(), bytes.RowsOf<std::uint8_t>());
    } else {
      InverseDwt53To8Bit(BandsFor(made, false), scratch.Data(), bytes.RowsOf<std::uint8_t>());
    }
    Install(c, bytes.TakePart(ViewFor(c).shown), 1, kIntegerSamples);
  }

  /// Samples of 32 bits, which are still to be converted.
  void ShowCells(KelLong c, const Coefficients& made) {
    WindowPlane samples(made.gathered.window, 4);
    const auto scratch = InverseScratch(made.gathered.window, 1);
    const bool areFloats = IsCodedIrreversibly(options_, c);
    if (areFloats) {
      InverseDwt97(BandsFor(made, true), scratch.Data(), samples.RowsOf<float>());
    } else {
      InverseDwt53(BandsFor(made, false), scratch.Data(), samples.RowsOf<std::int32_t>());
    }
    Install(c, samples.TakePart(ViewFor(c).shown), 4, areFloats ? kFloatSamples : kIntegerSamples);
  }

  /// A channel that is coded without loss: the low band of the 5/3 filter, or the samples. Returns
  /// false when the host gave none.
  bool ShowExtra(TileSource& source, KelLong c) {
    struct Shown {
      const PreviewView& view;
      CellKind cells;
      std::int32_t* samples;
    };
    const auto take = [](void* context, int subband, std::int64_t row, void* cells) {
      const auto& [view, kind, samples] = *static_cast<Shown*>(context);
      const std::int64_t y = view.resolution.y0 + row - view.shown.y0;
      if (subband != 0 || y < 0 || y >= view.shown.Height()) return;
      StoreIntegers(kind, cells, view.shown.x0 - view.resolution.x0,
                    samples + y * view.shown.Width(), AsIndex(view.shown.Width()));
    };
    const int reduction = options_.NumLevels - resolution_;
    const CellKind cells = RowKindAlone(GeometryOf(c).BitDepth, reduction).cells;
    WindowPlane plane(ViewFor(c).shown, 4);
    Shown shown = {ViewFor(c), cells, plane.RowsOf<std::int32_t>().data};
    const ForwardJob job = {BoxOf(GeometryOf(c)), reduction, cells, nullptr, {&shown, take}};
    if (!TransformTogether(source, c, 1, &job, encoder_.rowsMemory)) return false;
    Install(c, plane.TakePart(ViewFor(c).shown), 4, kIntegerSamples);
    return true;
  }

  // ---- Images ----

  void ReleaseImages() noexcept {
    for (KelLong c = 0; c < NumComps(); ++c) ReleaseOutput(tile_.comps[c]);
  }

  /// Makes samples the component's image.
  void Install(KelLong c, OwnedBuffer samples, KelLong sampleBytes, KelLong bufferType) {
    const Box& shown = ViewFor(c).shown;
    TileCompRecord& record = tile_.comps[c];
    record.shown.outputImage = record.shown.progData = NewImage();
    InstallSamples(*record.shown.outputImage, std::move(samples),
                   static_cast<KelLong>(shown.Width()), static_cast<KelLong>(shown.Height()),
                   sampleBytes, bufferType);
  }

  void InvertColors() {
    const auto imageOf = [&](int c) { return tile_.comps[c].shown.outputImage; };
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
    KelImageData& image = *tile_.comps[c].shown.outputImage;
    const KelLong depth = GeometryOf(c).BitDepth;
    if (RouteOf(c) == PreviewRoute::kExtra && resolution_ == options_.NumLevels) {
      RestoreSamples(image, depth);
      return;
    }
    const RecastTarget target = {depth, depth, PreviewMax(depth), 0, KelRecastNominal};
    Recast(image, target, false, KelOrientation0);
  }

  ImageState& state_;
  EncoderState& encoder_;
  const KelEncOpt& options_;
  TileRecord& tile_;
  const PreviewRequest& request_;
  int resolution_;
  bool isDirect_;  ///< no simulated coding
  OwnedArray<ComponentPlan> plans_;
  RegionSamples region_;
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
  return Preview(
      state, tile,
      {.canvas = state.map.tiles[tile].box, .resolution = state.maxRes, .luminanceOnly = false});
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
