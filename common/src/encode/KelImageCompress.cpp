// The tiles of an encoder: preparing a tile's planes, coding its components, writing what was
// coded; one tile at a time, or all of them for their sizes alone.
//
// A tile's planes are the image's, one per component, locked while the tile is coded. Whatever
// fails, the tile's records are empty again and the encoder can go on.
#include "KelPacketWrite.h"
#include "KelRegion.h"
#include "KelStreamWrite.h"
#include "KelTileCoder.h"
#include "base/KelRaise.h"
#include "encode/KelImageEncode.h"
#include "encode/KelMainStream.h"
#include "encode/KelTilePlanes.h"
#include "format/KelPartition.h"
#include "format/KelTileBox.h"

namespace kel {
namespace {

constexpr std::uint8_t kEndMarker[2] = {0xAB, 0xD9};

/// Drops what an earlier coding of a tile left.
void ForgetTile(EncoderState& e, const TileRecord& tile) noexcept {
  for (KelLong c = 0; tile.comps != nullptr && c < e.settings.GeomParams->Csiz; ++c) {
    ReleaseCoded(tile.comps[c].coded);
  }
  e.extraChannelsSize = e.transparencySize = -1;
}

/// Fills the planes of a tile, and its region when there is one. Returns false when the host gave
/// no samples. What was fetched is given back before the coding begins.
bool PrepareTile(const EncoderState& e, const TileRecord& tile, const CodingPlane* planes,
                 RegionSamples& region) {
  const KelEncOpt& o = e.settings;
  TileSource source(e.reader, tile.index);
  if (o.RoiEnabled && !FetchRegion(source, tile.comps[o.RoiMaskComponent].tileGeom, region)) {
    return false;
  }
  return PrepareTileComponents(source, o, o.GeomParams->Csiz, planes);
}

/// Codes one component of a tile into its record. Raises 8.
void CodeComponent(ImageState& state, TileRecord& tile, KelLong c, const CodingPlane& plane,
                   void* work, const RegionSamples& region) {
  EncoderState& e = *state.encoder;
  const KelEncOpt& o = e.settings;
  TileCompRecord& record = tile.comps[c];
  TileCompJob job = {};
  job.box = BoxOf(record.tileGeom);
  job.numLevels = o.NumLevels;
  job.irreversible = IsCodedIrreversibly(o, c);
  job.source = plane.cells;
  job.work = work;
  job.quant = QuantTargetOf(state, record.tileGeom);
  job.bandWeights = e.bandWeights;
  RegionSamples fitted;
  if (region.IsThere() && job.irreversible) {
    job.region = &RegionFor(record.tileGeom, region, fitted);
  }
  record.coded = CodeTileComp(job);
}

/// Codes a tile, which ends its previews, calling afterComponent with each record that was filled.
/// A tile for which the host gives no samples ends up without coded records. Raises.
template <class AfterComponent>
void CodeTile(ImageState& state, TileRecord& tile, void* work, AfterComponent afterComponent) {
  EncoderState& e = *state.encoder;
  EnsureTileComps(state.map, tile);
  ForgetTile(e, tile);
  for (KelLong c = 0; c < state.map.numComps; ++c) ReleaseOutput(tile.comps[c]);
  EnsureSourceBufs(e);
  ScopeGuard undo([&] { ForgetTile(e, tile); });
  const LockedPlanes planes(e, tile);
  RegionSamples region;
  if (!PrepareTile(e, tile, planes.All(), region)) return;
  for (KelLong c = 0; c < state.map.numComps; ++c) {
    if (IsRegionMask(e.settings, c)) continue;
    CodeComponent(state, tile, c, planes.All()[c], work, region);
    afterComponent(tile.comps[c]);
  }
  if (tile.index == state.map.numTiles - 1) e.isCompressed = true;
  undo.Disarm();
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

/// Writes a coded tile and releases its bytes; returns what it took. Nothing is written for a tile
/// without coded records. Raises 8, 29.
std::uint64_t WriteCodedTile(ImageState& state, TileRecord& tile) {
  EncoderState& e = *state.encoder;
  const KelEncOpt& o = e.settings;
  auto comps = OwnedArray<TileCompToWrite>::Make(AsCount(state.map.numComps));
  std::int32_t numComps = 0;
  for (KelLong c = 0; c < state.map.numComps; ++c) {
    if (!IsInMainStream(o, c)) continue;
    if (tile.comps[c].coded == nullptr) return 0;
    comps[AsIndex(numComps++)] = {tile.comps[c].coded, IsCodedIrreversibly(o, c)};
  }
  const std::uint64_t bytes =
      WriteTile({tile.index, comps.Data(), numComps, o.NumLevels, o.NumLayers, AnnouncedDepth(o),
                 o.ProgressionOrder == KelCPRL},
                *state.codeStm);
  for (KelLong c = 0; c < state.map.numComps; ++c) {
    if (tile.comps[c].coded != nullptr) ReleaseCode(*tile.comps[c].coded);
  }
  return bytes;
}

void ReleaseSourceBufs(const EncoderState& e) noexcept {
  for (KelLong c = 0; c < e.settings.GeomParams->Csiz; ++c) {
    if (e.sourceBufs[c] != nullptr) KelFreeBuf(e.sourceBufs[c]);
    e.sourceBufs[c] = nullptr;
  }
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
  {
    const WorkPlane work(*e.settings.GeomParams);
    CodeTile(state, tile, work.lock.As<void>(), [&](const TileCompRecord&) {
      if (IsAbortRequested(state.progress)) Raise(KelErrAborted, kModuleImage);
    });
  }
  const std::uint64_t written = WriteCodedTile(state, tile);
  if (isLast) {
    WriteOut(*state.codeStm, kEndMarker, sizeof kEndMarker);
    FlushOut(*state.codeStm);
  }
  undo.Disarm();
  StepProgress(state.progress, 1);
  if (isLast) EndProgress(state.progress);
  if (bytes != nullptr) *bytes = static_cast<KelULong>(written + sizeof kEndMarker);
  return KelOK;
}

KelLong CompressImage(ImageState& state) {
  EncoderState& e = *state.encoder;
  const std::int64_t coded = state.map.numComps - (e.settings.RoiEnabled ? 1 : 0);
  BeginProgress(state.progress, SaturateToInt32(coded * state.map.numTiles));
  ScopeGuard undo([&] {
    ReleaseSourceBufs(e);
    if (e.settings.ProgressPerCall) EndProgress(state.progress);
  });
  const WorkPlane work(*e.settings.GeomParams);
  for (std::int32_t t = 0; t < state.map.numTiles; ++t) {
    CodeTile(state, state.map.tiles[t], work.lock.As<void>(), [&](TileCompRecord& record) {
      // Only sizes are asked for: nothing can write these bytes later.
      ReleaseCode(*record.coded);
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
