// The tiles of an encoder: transforming a tile's rows, coding its components, writing what was
// coded; one tile at a time, or all of them for their sizes alone.
//
// Every component has a coder whose memory serves all tiles. Whatever fails, no tile counts as
// coded and the encoder can go on.
#include "KelPacketWrite.h"
#include "KelRegion.h"
#include "KelStreamWrite.h"
#include "base/KelRaise.h"
#include "encode/KelImageEncode.h"
#include "encode/KelMainStream.h"
#include "encode/KelTileRows.h"
#include "format/KelPartition.h"
#include "format/KelSignature.h"
#include "format/KelTileBox.h"

namespace kel {
namespace {

/// Tile-parts with less than this hold more header than is worth their being apart.
constexpr std::uint64_t kMostJoinedBytes = 1024;

constexpr std::uint8_t kEndMarker[format::kMarkerBytes] = {MarkerByteOf(Flavour::kAB),
                                                           format::kEOC};

/// Makes the encoder's records of a tile's components, unless they exist. Raises 8.
void EnsureEncTileComps(ImageMap& map, TileRecord& tile) {
  EnsureTileComps(map, tile);
  if (tile.comps[0].enc != nullptr) return;
  auto* parts = static_cast<EncTileComp*>(
      AllocFromMemPool(map.recordPool, SaturatingMul(AsCount(map.numComps), sizeof(EncTileComp))));
  for (std::int32_t c = 0; c < map.numComps; ++c) tile.comps[c].enc = &parts[c];
}

/// Drops what an earlier coding of a tile left.
void ForgetTile(EncoderState& e, const TileRecord& tile) noexcept {
  const bool wasCoded = tile.comps != nullptr && tile.comps[0].enc != nullptr;
  for (KelLong c = 0; wasCoded && c < e.settings.GeomParams->Csiz; ++c) {
    tile.comps[c].enc->codedBytes = 0;
  }
  e.extraChannelsSize = e.transparencySize = -1;
}

Layers LayersOf(const KelEncOpt& o) {
  return {.count = o.NumLayers, .repeat = o.ChooseIndices == 0};
}

TileCompCoder& EnsureCoder(const EncoderState& e, KelLong component) {
  TileCompCoder*& coder = e.coders[component];
  if (coder == nullptr) coder = MakeTileCompCoder(e.settings.NumLevels);
  return *coder;
}

/// Begins a component of a tile in its coder. The marks are made when a region shapes it, and must
/// live as long as its rows go through the transform. Raises 8.
ForwardJob BeginComponent(const ImageState& state, const TileCompRecord& record,
                          const RegionSamples& region, RegionMarks& marks) {
  const EncoderState& e = *state.encoder;
  const KelEncOpt& o = e.settings;
  const KelLong c = record.tileGeom.Component;
  const RowKind kind = RowKindOf(o, c, o.NumLevels);
  TileCompJob job = {};
  job.box = BoxOf(record.tileGeom);
  job.cells = kind.cells;
  job.sampleBits = kind.sampleBits;
  job.dropsEmpty = o.ChooseIndices != 0;
  job.quant = QuantTargetOf(state, record.tileGeom);
  job.bandWeights = e.bandWeights;
  if (region.IsThere() && kind.cells == CellKind::kFloats) {
    RegionSamples fitted;
    marks = RegionMarks(RegionFor(record.tileGeom, region, fitted), o.NumLevels, true);
    job.regionMarks = marks.All();
  }
  return BeginTileComp(job, EnsureCoder(e, c));
}

/// Transforms the rows of all components of a tile. Returns false when the host gave no samples.
/// What was fetched is given back before the coding begins. Raises.
bool TransformTile(const ImageState& state, const TileRecord& tile) {
  EncoderState& e = *state.encoder;
  const KelEncOpt& o = e.settings;
  TileSource source(e.reader, tile.index);
  RegionSamples region;
  if (o.RoiEnabled && !FetchRegion(source, tile.comps[o.RoiMaskComponent].tileGeom, region)) {
    return false;
  }
  for (KelLong first = 0; first < state.map.numComps;) {
    const KelLong count = NumTogether(o, first);
    ForwardJob jobs[kMostTogether] = {};
    RegionMarks marks[kMostTogether];
    for (KelLong i = 0; i < count; ++i) {
      if (IsRegionMask(o, first + i)) continue;
      jobs[i] = BeginComponent(state, tile.comps[first + i], region, marks[i]);
    }
    if (!TransformTogether(source, first, count, jobs, e.rowsMemory, true)) return false;
    first += count;
  }
  return true;
}

/// Codes a tile, which ends its previews, calling afterComponent for each component. Returns
/// whether the host gave samples for it. Raises.
template <class AfterComponent>
bool CodeTile(ImageState& state, TileRecord& tile, AfterComponent afterComponent) {
  EncoderState& e = *state.encoder;
  EnsureEncTileComps(state.map, tile);
  ForgetTile(e, tile);
  for (KelLong c = 0; c < state.map.numComps; ++c) ReleaseOutput(tile.comps[c]);
  ScopeGuard undo([&] { ForgetTile(e, tile); });
  if (!TransformTile(state, tile)) return false;
  for (KelLong c = 0; c < state.map.numComps; ++c) {
    if (IsRegionMask(e.settings, c)) continue;
    FinishTileComp(*e.coders[c]);
    tile.comps[c].enc->codedBytes = TileCompBytes(e.coders[c]->coded, LayersOf(e.settings));
    afterComponent();
  }
  if (tile.index == state.map.numTiles - 1) e.isCompressed = true;
  undo.Disarm();
  return true;
}

/// Whether every resolution of a component is a single precinct, which is how packets are written.
bool IsOnePrecinctEach(const KelEncOpt& o, const Box& box) {
  for (int r = 0; r <= o.NumLevels; ++r) {
    const Box resolution = ReduceBox(box, o.NumLevels - r);
    if (resolution.IsEmpty()) continue;
    if (PartitionBox(resolution, o.PrecinctWidthExp, o.PrecinctHeightExp).Count() > 1) return false;
  }
  return true;
}

/// Whether a tile can be written at all: in an order that has tile-parts, and in whole precincts.
bool TileCanBeWritten(const KelEncOpt& o, KelLong tile) {
  if (o.ProgressionOrder != KelRLCP && o.ProgressionOrder != KelCPRL) return false;
  // Bands above resolution 0 have half the precinct's size, which must not be half a sample. The
  // main header announces that size even when no component goes by it.
  if (o.NumLevels > 0 && (o.PrecinctWidthExp == 0 || o.PrecinctHeightExp == 0)) return false;
  for (KelLong c = 0; c < o.NumColorChannels; ++c) {
    if (!IsInMainStream(o, c)) continue;
    KelTileGeometry component;
    component.InitKelTileGeometry(o.GeomParams, c, tile);
    if (!IsOnePrecinctEach(o, BoxOf(component))) return false;
  }
  return true;
}

/// Writes the tile that stands in the coders; returns what it took. Raises 8, 29.
std::uint64_t WriteCodedTile(const ImageState& state, const TileRecord& tile) {
  const EncoderState& e = *state.encoder;
  const KelEncOpt& o = e.settings;
  KelLong numComps = 0;
  for (KelLong c = 0; c < state.map.numComps; ++c) {
    if (!IsInMainStream(o, c)) continue;
    e.toWrite[numComps++] = {&e.coders[c]->coded, IsCodedIrreversibly(o, c),
                             AnnouncedStepsOf(e, c)};
  }
  return WriteTile({.index = tile.index,
                    .comps = e.toWrite,
                    .numComps = numComps,
                    .numLevels = o.NumLevels,
                    .layers = LayersOf(o),
                    .announcedDepth = AnnouncedDepth(o),
                    .isByComponent = o.ProgressionOrder == KelCPRL,
                    .mostJoinedBytes = o.ChooseIndices != 0 ? kMostJoinedBytes : 0,
                    .hasChecksums = o.Checksums != 0},
                   *state.codeStm);
}

bool IsAbortRequested(const ProgressState& progress) {
  return progress.actions != nullptr && progress.actions->AbortRequested != nullptr &&
         progress.actions->AbortRequested() != 0;
}

}  // namespace

KelLong CompressAndWriteTile(ImageState& state, KelLong t, KelULong* bytes) {
  if (bytes != nullptr) *bytes = 0;
  EncoderState& e = *state.encoder;
  if (t < 0 || t >= state.map.numTiles || !TileCanBeWritten(e.settings, t)) {
    Raise(KelErrBadParam, kModuleImage);
  }
  TileRecord& tile = state.map.tiles[t];
  const bool isLast = t == state.map.numTiles - 1;
  ScopeGuard undo([&] { ForgetTile(e, tile); });
  const bool hasSamples = CodeTile(state, tile, [&] {
    if (IsAbortRequested(state.progress)) Raise(KelErrAborted, kModuleImage);
  });
  const std::uint64_t written = hasSamples ? WriteCodedTile(state, tile) : 0;
  if (isLast) {
    WriteOut(*state.codeStm, kEndMarker, sizeof kEndMarker);
    FlushOut(*state.codeStm);
  }
  undo.Disarm();
  StepProgress(state.progress, 1);
  if (isLast) EndProgress(state.progress);
  if (bytes != nullptr)
    *bytes =
        static_cast<KelULong>(std::min<std::uint64_t>(written + sizeof kEndMarker, UINT32_MAX));
  return KelOK;
}

KelLong CompressImage(ImageState& state) {
  EncoderState& e = *state.encoder;
  const std::int64_t coded = state.map.numComps - (e.settings.RoiEnabled ? 1 : 0);
  BeginProgress(state.progress, SaturateToInt32(coded * state.map.numTiles));
  ScopeGuard undo([&] {
    ReleaseCoders(state);
    if (e.settings.ProgressPerCall) EndProgress(state.progress);
  });
  for (std::int32_t t = 0; t < state.map.numTiles; ++t) {
    CodeTile(state, state.map.tiles[t], [&] {
      if (IsAbortRequested(state.progress)) {
        EndProgress(state.progress);
        Raise(KelErrAborted, kModuleImage);
      }
      StepProgress(state.progress, 1);
    });
  }
  e.isCompressed = true;
  undo.Disarm();
  StepProgress(state.progress, 1);
  if (e.settings.ProgressPerCall) EndProgress(state.progress);
  return KelOK;
}

}  // namespace kel
