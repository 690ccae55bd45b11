// Making and releasing the records that both sides share.
#include "image/KelImageMap.h"

#include "base/KelMemFuncDefs.h"
#include "samples/KelImageDataAccess.h"

namespace kel {
namespace {

/// Records are small and many: blocks of 16 KiB hold those of some tiles.
constexpr std::uint64_t kPoolBlockBytes = 16384;
constexpr std::uint32_t kPoolAlignment = 32;

/// Fills one component's record. May run again on a record that a failure left half-built.
void InitTileComp(const ImageMap& map, const TileRecord& tile, TileCompRecord& record,
                  std::int32_t c) {
  record.tileGeom.InitKelTileGeometry(map.geometry, c, tile.index);
  record.encOpt = c < map.firstExtra ? map.encOpt : map.extraOptions;
  record.decOpt = map.decOpt;
  record.InitHandle();
}

void ReleaseTileComp(TileCompRecord& record) noexcept {
  ReleaseImage(record.shown.waveletData);
  ReleaseOutput(record);
}

}  // namespace

void InitTileRecords(ImageMap& map) {
  PrepareMemPool(map.recordPool, kPoolBlockBytes, kPoolAlignment);
  map.tiles = OwnedArray<TileRecord>::Make(AsCount(map.numTiles)).Release();
  for (std::int32_t t = 0; t < map.numTiles; ++t) {
    TileRecord& tile = map.tiles[t];
    tile.index = t;
    KelLong x0, x1, y0, y1;
    map.geometry->GetTileBoundingBox(map.geometry->GetXIndex(t), map.geometry->GetYIndex(t), &x0,
                                     &x1, &y0, &y1);
    tile.box = {x0, x1, y0, y1};
  }
}

void EnsureTileComps(ImageMap& map, TileRecord& tile) {
  if (tile.compsAreReady) return;
  if (tile.comps == nullptr) {
    tile.comps = static_cast<TileCompRecord*>(AllocFromMemPool(
        map.recordPool, SaturatingMul(AsCount(map.numComps), sizeof(TileCompRecord))));
  }
  for (std::int32_t c = 0; c < map.numComps; ++c) InitTileComp(map, tile, tile.comps[c], c);
  tile.compsAreReady = true;
}

bool HasNoSamples(const ImageMap& map, const TileRecord& tile) {
  const KelImageGeometry& g = *map.geometry;
  for (std::int32_t c = 0; c < map.numComps && !tile.box.IsEmpty(); ++c) {
    const bool hasColumns = CeilDiv(tile.box.x0, g.XRsiz[c]) < CeilDiv(tile.box.x1, g.XRsiz[c]);
    const bool hasRows = CeilDiv(tile.box.y0, g.YRsiz[c]) < CeilDiv(tile.box.y1, g.YRsiz[c]);
    if (hasColumns && hasRows) return false;
  }
  return true;
}

void ReleaseImageMap(ImageMap& map) noexcept {
  for (std::int32_t t = 0; map.tiles != nullptr && t < map.numTiles; ++t) {
    TileRecord& tile = map.tiles[t];
    for (std::int32_t c = 0; tile.comps != nullptr && c < map.numComps; ++c) {
      ReleaseTileComp(tile.comps[c]);
    }
  }
  if (map.extraOptions != nullptr) map.extraOptions->Die();
  KelFree(map.extraOptions);
  KelFree(map.tiles);
  map.extraOptions = nullptr;
  map.tiles = nullptr;
  ReleaseMemPool(map.recordPool);
}

void ReleaseOutput(TileCompRecord& record) noexcept {
  if (record.shown.progData == record.shown.outputImage) record.shown.progData = nullptr;
  ReleaseImage(record.shown.progData);
  ReleaseImage(record.shown.outputImage);
}

}  // namespace kel
