// Choosing what is decoded. Tiles keep what they have as long as it serves the new choice.
#include "decode/KelImageRegion.h"

#include <algorithm>

#include "KelTilePartStash.h"
#include "kel/KelFormat.h"

namespace kel {

KelLong SetReduction(ImageState& state, KelLong levels) {
  if (levels < 0 || levels > format::kMostLevels) return KelErrBadParam;
  ImageMap& map = state.map;
  bool isChange = false;
  for (std::int32_t c = 0; c < map.numComps; ++c) {
    isChange = isChange || map.dec->reductions[c] != levels;
    map.dec->reductions[c] = levels;
  }
  // Reading past what is not wanted pays where that is much.
  state.decoder->dataMgr->SetReadsWholeParts(levels == 0);
  for (std::int32_t t = 0; isChange && t < map.numTiles; ++t) RestartTile(map, map.tiles[t]);
  return KelOK;
}

void MoveOutput(ImageMap& map) noexcept {
  for (std::int32_t t = 0; t < map.numTiles; ++t) {
    if (map.tiles[t].dec == nullptr) continue;
    TileProgress& progress = map.tiles[t].dec->progress;
    progress.mustMove = progress.isDelivered;
    progress.isChanged = progress.isChanged || (progress.numParts > 0 && !progress.isDelivered);
  }
}

KelLong SetRegion(ImageState& state, const Box& region) {
  const KelImageGeometry& g = *state.geometry;
  const Box box = {
      std::max<std::int64_t>(region.x0, g.XOsiz), std::min<std::int64_t>(region.x1, g.Xsiz),
      std::max<std::int64_t>(region.y0, g.YOsiz), std::min<std::int64_t>(region.y1, g.Ysiz)};
  if (box.IsEmpty()) return KelErrBadParam;
  DecMap& dec = *state.map.dec;
  if (dec.hasRegion && dec.region == box) return KelOK;
  dec.hasRegion = true;
  dec.region = box;
  MoveOutput(state.map);
  return KelOK;
}

KelLong ReleaseTile(ImageState& state, KelLong index) {
  if (index < 0 || index >= state.map.numTiles) return KelErrBadParam;
  TileRecord& tile = state.map.tiles[index];
  if (tile.dec == nullptr) return KelOK;
  RestartTile(state.map, tile);
  ReleaseStash(tile.dec->early);
  for (std::int32_t c = 0; tile.comps != nullptr && c < state.map.numComps; ++c) {
    TileCompRecord& record = tile.comps[c];
    record.shown.dataReady = record.shown.dataValid = false;
    if (record.shown.outputImage != nullptr) record.shown.outputImage->FreeImageBuffer();
  }
  return KelOK;
}

}  // namespace kel
