// Making, restarting and releasing the decoder's records.
#include "KelDecMap.h"

#include "KelPacketWalk.h"
#include "KelTileLayout.h"
#include "KelTilePartStash.h"
#include "base/KelMemFuncDefs.h"
#include "samples/KelImageDataAccess.h"

namespace kel {
namespace {

std::int32_t SampleDepth(const ImageMap& map, std::int32_t c) {
  return map.dec->fileDepths != nullptr ? map.dec->fileDepths[c] + 1 : map.geometry->BitDepths[c];
}

/// Fills the decoder's part of a component. May run again on what a failure left half-built.
void InitDecTileComp(const ImageMap& map, const TileRecord& tile, TileCompRecord& record,
                     std::int32_t c) {
  DecTileComp& comp = *record.dec;
  comp.sampleDepth = SampleDepth(map, c);
  if (record.shown.outputImage == nullptr) record.shown.outputImage = NewImage();
  ReleaseParamSet(comp.params);
  comp.params.style = tile.dec->params.style;
  comp.params.quant = tile.dec->params.quant;
  ApplyComponentSegments(comp.params, c, *map.dec->mainHeader);
  SizeTileComp(map, record);
}

void ReleaseDecTileComp(TileCompRecord& record) noexcept {
  if (record.dec == nullptr) return;
  ReleaseLayout(record);
  ReleaseParamSet(record.dec->params);
}

}  // namespace

DecTile& EnsureDecTile(ImageMap& map, TileRecord& tile) {
  if (tile.dec == nullptr) {
    tile.dec = static_cast<DecTile*>(AllocFromMemPool(map.recordPool, sizeof(DecTile)));
    tile.dec->params = SharedParams(map.dec->mainParams);
  }
  return *tile.dec;
}

const TileProgress& ProgressOf(const TileRecord& tile) {
  static constexpr TileProgress kNotBegun{};
  return tile.dec != nullptr ? tile.dec->progress : kNotBegun;
}

void EnsureDecTileComps(ImageMap& map, TileRecord& tile) {
  EnsureTileComps(map, tile);
  if (map.dec == nullptr || EnsureDecTile(map, tile).compsAreReady) return;
  if (tile.comps[0].dec == nullptr) {
    auto* parts = static_cast<DecTileComp*>(AllocFromMemPool(
        map.recordPool, SaturatingMul(AsCount(map.numComps), sizeof(DecTileComp))));
    for (std::int32_t c = 0; c < map.numComps; ++c) tile.comps[c].dec = &parts[c];
  }
  for (std::int32_t c = 0; c < map.numComps; ++c) InitDecTileComp(map, tile, tile.comps[c], c);
  tile.dec->compsAreReady = true;
}

bool IsWanted(const ImageMap& map, const TileRecord& tile) {
  if (!map.dec->hasRegion) return true;
  const Box& r = map.dec->region;
  const Box& t = tile.box;
  return t.x0 < r.x1 && t.x1 > r.x0 && t.y0 < r.y1 && t.y1 > r.y0;
}

void DescribeTileComp(const ImageMap& map, const TileRecord& tile, std::int32_t c,
                      TileCompRecord& record) {
  record.tileGeom.InitKelTileGeometry(map.geometry, c, tile.index);
  record.dec->sampleDepth = SampleDepth(map, c);
  KelCodingStyle* own = FindComponentStyle(*map.dec->mainHeader, c);
  record.dec->params.style = own != nullptr ? own : map.dec->mainParams.style;
  SizeTileComp(map, record);
}

void ReleaseTileWork(const ImageMap& map, TileRecord& tile) noexcept {
  ReleasePacketWalk(tile.dec->walk);
  for (std::int32_t c = 0; tile.comps != nullptr && c < map.numComps; ++c) {
    if (tile.comps[c].dec != nullptr) ReleaseLayout(tile.comps[c]);
  }
}

void RestartTile(ImageMap& map, TileRecord& tile) noexcept {
  if (tile.dec == nullptr) return;
  ReleaseTileWork(map, tile);
  ReleaseParamSet(tile.dec->params);
  tile.dec->params = SharedParams(map.dec->mainParams);
  tile.dec->progress = {};
  tile.dec->compsAreReady = false;
}

void ApplyTileParams(ImageMap& map, TileRecord& tile, const KelHeaderParams& header,
                     bool onlyProgression) {
  ParamSet& ofTile = tile.dec->params;
  if (header.seenPOC != 0) OwnChanges(ofTile, *header.progressionChanges);
  if (onlyProgression) return;
  if (header.seenCOD != 0) OwnStyle(ofTile, *header.codingStyle);
  if (header.seenQCD != 0) OwnQuant(ofTile, *header.quantisation);
  for (std::int32_t c = 0; c < map.numComps; ++c) {
    ParamSet& set = tile.comps[c].dec->params;
    const bool hadRegion = set.style->hasRegion != 0;
    const std::int32_t shift = set.style->regionShift;
    if (FindComponentStyle(*map.dec->mainHeader, c) == nullptr) ShareStyle(set, ofTile);
    if (FindComponentQuant(*map.dec->mainHeader, c) == nullptr) ShareQuant(set, ofTile);
    if (hadRegion) SetRegion(set, shift);
    ApplyComponentSegments(set, c, header);
  }
}

void ReleaseDecMap(ImageMap& map) noexcept {
  if (map.dec == nullptr) return;
  for (std::int32_t t = 0; map.tiles != nullptr && t < map.numTiles; ++t) {
    TileRecord& tile = map.tiles[t];
    for (std::int32_t c = 0; tile.comps != nullptr && c < map.numComps; ++c) {
      ReleaseDecTileComp(tile.comps[c]);
    }
    if (tile.dec == nullptr) continue;
    ReleasePacketWalk(tile.dec->walk);
    ReleaseStash(tile.dec->early);
    ReleaseParamSet(tile.dec->params);
    tile.dec = nullptr;
  }
  KelFree(map.dec->reductions);
  ReleaseParamSet(map.dec->mainParams);
  KelFree(map.dec);
  map.dec = nullptr;
}

}  // namespace kel
