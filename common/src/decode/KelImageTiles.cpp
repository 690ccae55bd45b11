// The tile loop of a frame: which tile-part of a tile comes next, where it stands, and what is
// done when data are missing, out of order or damaged.
//
// Tiles are visited in raster order, and each reads its tile-parts in the order of their numbers.
// Where the data can be moved in, the index of tile-parts knows where they stand; it walks ahead
// only as far as it must. A stream that cannot seek has none, so there every tile-part is dealt
// with as it comes: decoded when it is the next of its tile, kept when those before it have not
// come yet.
//
// What is damaged costs no more than itself: the index finds the next tile-part behind it, and what
// a tile-part has lost keeps no other tile from being read.
#include "decode/KelImageTiles.h"

#include <algorithm>

#include "KelHeadersRead.h"
#include "KelPacketRead.h"
#include "KelPacketWalk.h"
#include "KelTileLayout.h"
#include "KelTilePartIndex.h"
#include "KelTilePartStash.h"
#include "base/KelRaise.h"
#include "format/KelTileBox.h"

namespace kel {
namespace {

/// A tile-part that has been found: where it stands in the reader's data.
struct FoundPart {
  KelDecDataMgr& data;
  std::int32_t number;
  std::int64_t start, end;  ///< `end` is the largest value when it is not known
  bool endIsKnown;
  std::int64_t basis;  ///< offset of the reader's first byte in the data of the image
};

FoundPart PartOf(KelDecDataMgr& data, const KelTilePartEntry& entry) {
  return {data, entry.part, entry.position, entry.End(), entry.ending == PartEnding::kKnown, 0};
}

void NoteLoss(const TilePass& pass, KelLong kind, const TileRecord& tile, const FoundPart& part) {
  const std::int64_t here = part.data.GetPosition();
  const std::int64_t end = part.end != INT64_MAX ? part.end : std::max(here, part.start);
  NoteDamage(pass.decoder.damages, {kind, tile.index, part.number, AsCount(part.basis + part.start),
                                    AsCount(end - part.start)});
}

/// What a tile-part has lost takes the places of those behind it along, unless the order tells
/// them.
void LosePart(TileRecord& tile) {
  TileProgress& progress = tile.dec->progress;
  progress.hasLosses = true;
  progress.isBroken = tile.dec->walk == nullptr || !PassLostTilePart(*tile.dec->walk);
}

/// Whether the tile-part header under the reader is SOT and SOD alone.
bool EndsBehindSOT(KelDecDataMgr& data) {
  constexpr std::uint64_t kSodAt = format::kLeastTilePartBytes - format::kMarkerBytes;
  return data.EnsureBuffered(format::kLeastTilePartBytes) == kBufferedOk &&
         data.PeekByte(kSodAt) == data.MarkerByte() && data.PeekByte(kSodAt + 1) == format::kSOD;
}

bool HasLargeBlocks(const ImageMap& map, const TileRecord& tile) {
  return std::any_of(tile.comps, tile.comps + map.numComps, [](const TileCompRecord& record) {
    return HasLargeBlocks(*record.dec->params.style, BoxOf(record.tileGeom));
  });
}

}  // namespace

HeaderResult ReadTilePartHeader(ImageMap& map, KelDecDataMgr& data, TileRecord& tile) {
  KelHeaderParams header{};
  ScopeGuard release([&] { ReleaseHeaderParams(&header); });
  // Most headers have no segment that would need records to be read into.
  if (!EndsBehindSOT(data)) {
    NamingModule(kModuleImageMap, [&] {
      InitHeaderParams(header, false);
      SeedHeaderParams(header, *map.dec->mainHeader, *tile.dec->params.style,
                       *tile.dec->params.quant);
    });
  }
  std::uint32_t length = 0;
  const HeaderResult result = ReadHeader(header, data, &length);
  if (result.refusal.errCode != KelOK || result.incomplete) return result;

  TileProgress& progress = tile.dec->progress;
  // The tile's first header fixes its parameters. Another that claims to be the first would make
  // the tile be laid out anew, which can cost far more than the few bytes that it takes.
  const bool onlyProgression = header.TPsot != 0 || progress.numParts > 0;
  ScopeGuard restart([&] { RestartTile(map, tile); });
  ApplyTileParams(map, tile, header, onlyProgression);
  if (tile.dec->walk == nullptr || !onlyProgression) {
    if (HasLargeBlocks(map, tile)) {
      return {.refusal = MakeFailure(KelErrUnsupported, kModuleImageMap), .incomplete = false};
    }
    LayOutTile(map, tile);
    ReleasePacketWalk(tile.dec->walk);
    tile.dec->walk = MakePacketWalk(tile, map.numComps);
    for (; progress.numBareParts > 0; --progress.numBareParts) PassEmptyTilePart(*tile.dec->walk);
  } else if (header.seenPOC != 0) {
    ReplaceProgression(*tile.dec->walk);
  }
  restart.Disarm();
  // A tile that has arrived without packets is delivered too, as zeros.
  if (progress.numParts == 0) progress.isChanged = true;
  progress.numParts = static_cast<std::int32_t>(header.TPsot) + 1;
  progress.partIsEmpty = true;
  return result;
}

namespace {

/// Keeps the first refusal of a frame.
void NoteRefusal(DecoderState& d, const Failure& refusal) {
  if (d.refusal.errCode == KelOK) d.refusal = refusal;
}

/// There is nothing of a tile. That is refused when others are there, else it may still come.
bool MissTile(DecoderState& d, bool othersAreThere) {
  if (othersAreThere) NoteRefusal(d, MakeFailure(KelErrBadParam, kModuleImage));
  return !othersAreThere;
}

/// Whether a tile-part is a header without a segment beside SOT, and the tile has not begun: then
/// nothing needs to be made for it yet.
bool IsBare(const TileRecord& tile, const FoundPart& part) {
  return tile.dec->walk == nullptr && part.endIsKnown &&
         part.end - part.start == format::kLeastTilePartBytes;
}

/// Reads a tile-part, or what has arrived of it, into its tile: from its header on, or, when it is
/// open already, from where its reading stopped. False when its header is refused.
bool ReadPart(TilePass& pass, TileRecord& tile, const FoundPart& part) {
  TileProgress& progress = tile.dec->progress;
  KelDecDataMgr& data = part.data;
  if (progress.partIsOpen) {
    if (!data.MoveTo(progress.resumePosition)) return true;
  } else if (IsBare(tile, part)) {
    progress.numParts = part.number + 1;
    ++progress.numBareParts;
    progress.isChanged = true;
    return true;
  } else {
    if (!data.MoveTo(part.start)) return true;
    EnsureDecTileComps(pass.map, tile);
    const HeaderResult header = ReadTilePartHeader(pass.map, data, tile);
    const bool isPast = data.GetPosition() > part.end;
    if (header.incomplete && !part.endIsKnown) return true;
    if (header.refusal.errCode != KelOK || header.incomplete || isPast) {
      progress.numParts = part.number + 1;
      NoteLoss(pass, KelDamageHeader, tile, part);
      LosePart(tile);
      NoteRefusal(pass.decoder, header.refusal);
      return header.refusal.errCode == KelOK;
    }
  }
  const PartEnd end = ReadTilePartPackets({data, tile, part.number, part.end, part.endIsKnown,
                                           part.basis, pass.decoder.damages, pass.decoder.work});
  progress.partIsOpen = end == PartEnd::kCutOff;
  if (end == PartEnd::kDamaged) LosePart(tile);
  return true;
}

// ---- Data that can be moved in ----

/// The tile-part that the tile needs next, or goes on with; null when it is not there.
const KelTilePartEntry* NextPart(KelDecDataMgr& data, const TileRecord& tile) {
  const TileProgress& progress = ProgressOf(tile);
  const std::int32_t number = progress.numParts - (progress.partIsOpen ? 1 : 0);
  if (progress.isBroken || number >= format::kMostTileParts) return nullptr;
  return data.FindTilePart(tile.index, number);
}

/// Notes the tile-parts of a tile whose place is lost.
void NoteUnplaced(const TilePass& pass, const TileRecord& tile) {
  for (std::int32_t number = tile.dec->progress.numParts; number < format::kMostTileParts;
       ++number) {
    const KelTilePartEntry* entry = pass.decoder.dataMgr->FindTilePart(tile.index, number);
    if (entry == nullptr) return;
    NoteLoss(pass, KelDamageNoPlace, tile, PartOf(*pass.decoder.dataMgr, *entry));
  }
}

bool ReadByIndex(TilePass& pass, TileRecord& tile) {
  DecoderState& d = pass.decoder;
  bool isRead = true;
  while (!ProgressOf(tile).isComplete && isRead) {
    const KelTilePartEntry* entry = NextPart(*d.dataMgr, tile);
    if (entry == nullptr) break;
    const TileProgress& progress = EnsureDecTile(pass.map, tile).progress;
    const FoundPart part = PartOf(*d.dataMgr, *entry);
    const std::int32_t partsBefore = progress.numParts;
    const bool wasOpen = progress.partIsOpen;
    isRead = ReadPart(pass, tile, part);
    d.furthest =
        std::max(d.furthest, progress.partIsOpen || part.end == INT64_MAX ? d.dataMgr->GetPosition()
                                                                          : part.end);
    if (progress.partIsOpen || (!wasOpen && progress.numParts == partsBefore)) break;
  }
  if (ProgressOf(tile).isBroken) NoteUnplaced(pass, tile);
  const KelTilePartIndex* index = d.dataMgr->TileParts();
  const bool othersAreThere = index != nullptr && (index->lastTile > tile.index ||
                                                   (index->isEnded && index->lastTile >= 0));
  return isRead && (ProgressOf(tile).numParts != 0 || MissTile(d, othersAreThere));
}

// ---- Streams that cannot seek ----

/// Reads the tile's next tile-part from the stash. False when it is not there.
bool ReadStashedPart(TilePass& pass, TileRecord& tile, bool& isRead) {
  if (tile.dec == nullptr || tile.dec->progress.isBroken) return false;
  StashedPart* stashed = TakeStashedPart(tile.dec->early, tile.dec->progress.numParts);
  if (stashed == nullptr) return false;
  ScopeGuard drop([&] { DropStashedPart(stashed); });
  KelDecDataMgr data{};
  data.InitFromMemory({stashed->bytes, static_cast<KelULong>(stashed->length)},
                      pass.decoder.flavour);
  data.SetTileGrid(pass.map.geometry->NumXTiles, pass.map.geometry->NumYTiles);
  isRead = ReadPart(pass, tile,
                    {.data = data,
                     .number = stashed->part,
                     .start = 0,
                     .end = static_cast<std::int64_t>(stashed->length),
                     .endIsKnown = true,
                     .basis = stashed->position});
  return true;
}

/// Passes over what is no tile-part. False when no more follows.
bool FindWay(TilePass& pass) {
  KelDecDataMgr& data = *pass.decoder.dataMgr;
  if (data.IsValidSOT()) return true;
  if (data.IsEOC() || data.AtEnd()) return false;
  const std::int64_t here = data.GetPosition();
  const SotSearch found = data.SearchSOT(here + 1);
  if (!found.isFound) return false;
  NoteDamage(pass.decoder.damages,
             {KelDamageNoTilePart, -1, -1, AsCount(here), AsCount(found.position - here)});
  return data.MoveTo(found.position);
}

/// Deals with the tile-part under the reader: decodes it when it is the next of its tile, keeps it
/// when it is early, passes over it when it is of no use. False when a header is refused.
bool PassPart(TilePass& pass) {
  KelDecDataMgr& data = *pass.decoder.dataMgr;
  const std::int64_t start = data.GetPosition();
  TileRecord& tile = pass.map.tiles[data.PeekSotIsot()];
  const TileProgress& progress = EnsureDecTile(pass.map, tile).progress;
  const auto number = static_cast<std::int32_t>(data.PeekSotTPsot());
  const std::uint32_t announced = data.PeekSotPsot();
  pass.lastTile = std::max(pass.lastTile, tile.index);
  const PartExtent extent = MeasureTilePart(data, start, announced, start, true);
  const bool isOpen = extent.ending == PartEnding::kOpen;
  const FoundPart part = {
      data, number, start, isOpen ? INT64_MAX : extent.end, extent.ending == PartEnding::kKnown, 0};
  if (extent.isRepaired && announced != 0) {
    NoteDamage(pass.decoder.damages, {KelDamageLength, tile.index, number, AsCount(start), 0});
  }
  const bool isOfUse = !progress.isComplete && !progress.isBroken && !progress.partIsOpen &&
                       number >= progress.numParts && !HasNoSamples(pass.map, tile) &&
                       IsWanted(pass.map, tile);
  bool isRead = true;
  if (isOfUse && number > progress.numParts) {
    StashTilePart(tile.dec->early, data, number, isOpen ? UINT64_MAX : AsCount(extent.end - start));
  } else if (isOfUse) {
    isRead = ReadPart(pass, tile, part);
    while (isRead && !progress.isComplete && ReadStashedPart(pass, tile, isRead)) {
    }
  } else if (progress.isBroken) {
    NoteLoss(pass, KelDamageNoPlace, tile, part);
  }
  pass.decoder.furthest = std::max(pass.decoder.furthest, data.GetPosition());
  // An open one takes all that is left; only the end marker can follow it.
  pass.dataEnded = isOpen ? !data.IsEOC() : !data.MoveTo(extent.end);
  return isRead;
}

bool ReadInPassing(TilePass& pass, TileRecord& tile) {
  bool isRead = true;
  while (isRead && !ProgressOf(tile).isComplete) {
    if (ReadStashedPart(pass, tile, isRead)) continue;
    pass.dataEnded = pass.dataEnded || !FindWay(pass);
    if (pass.dataEnded) break;
    isRead = PassPart(pass);
  }
  KelDecDataMgr& data = *pass.decoder.dataMgr;
  pass.decoder.furthest = std::max(pass.decoder.furthest, data.GetPosition());
  const bool othersAreThere =
      pass.lastTile > tile.index || (pass.dataEnded && pass.lastTile >= 0 && data.IsEOC());
  return isRead && (ProgressOf(tile).numParts != 0 || MissTile(pass.decoder, othersAreThere));
}

}  // namespace

bool ReadTile(TilePass& pass, TileRecord& tile) {
  if (ProgressOf(tile).isComplete) return true;
  return pass.decoder.dataMgr->IndexAllowed() ? ReadByIndex(pass, tile) : ReadInPassing(pass, tile);
}

}  // namespace kel
