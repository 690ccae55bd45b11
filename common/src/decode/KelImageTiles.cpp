// The tile loop of a frame: which tile-part of a tile comes next, where it stands, and what is
// done when data are missing, out of order or damaged.
//
// Tiles are visited in raster order, each from where its decoding stands. Tile-parts that follow
// each other in the data are simply read on. Others are reached through the tile-part index; a
// stream that cannot seek has none, so there a tile-part of another tile is decoded in passing,
// or kept when those before it have not come yet.
#include "decode/KelImageTiles.h"

#include <algorithm>

#include "KelPacketRead.h"
#include "KelPacketWalk.h"
#include "KelTileLayout.h"
#include "KelTilePartStash.h"
#include "base/KelRaise.h"
#include "decode/KelHeadersRead.h"

namespace kel {
namespace {

/// Tile-part numbers are bytes; a tile with more tile-parts is damaged or hostile.
constexpr std::int32_t kMostParts = 256;

/// Bytes of an SOT segment up to SOD: no tile-part is shorter.
constexpr std::uint32_t kLeastPartLength = 14;

enum class Search : std::uint8_t { kFound, kNothing, kMissing };

/// Seeds the parameters of a tile-part header with those in force, reads it, and gives them to the
/// tile. The reader stands on SOT. Nothing happens to the tile when the header is incomplete.
HeaderResult ReadTilePartHeader(ImageMap& map, KelDecDataMgr& data, TileRecord& tile) {
  KelHeaderParams header{};
  ScopeGuard release([&] { ReleaseHeaderParams(&header); });
  const std::int64_t start = data.GetPosition();
  NamingModule(kModuleImageMap, [&] {
    InitHeaderParams(header, false);
    SeedHeaderParams(header, *map.dec->mainHeader, *tile.dec->params.style,
                     *tile.dec->params.quant);
  });
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
    LayOutTile(map, tile);
    ReleasePacketWalk(tile.dec->walk);
    tile.dec->walk = MakePacketWalk(tile, map.numComps);
  } else if (header.seenPOC != 0) {
    ReplaceProgression(*tile.dec->walk);
  }
  restart.Disarm();
  // A tile that has arrived without packets is delivered too, as zeros.
  if (progress.numParts == 0) progress.isChanged = true;
  progress.numParts = std::max<std::int32_t>(progress.numParts, header.TPsot) + 1;
  progress.partStart = start;
  progress.partLength = length < kLeastPartLength ? 0 : length;
  progress.partIsOpen = false;
  return result;
}

/// Keeps what the first refused header of a frame was refused with; returns the result's code.
KelLong NoteRefusal(DecoderState& d, const HeaderResult& header) {
  if (d.refusal.errCode == KelOK) d.refusal = header.refusal;
  return header.refusal.errCode;
}

/// Moves to where a tile-part's length says that it ends, when a boundary stands there.
bool MoveToPartEnd(KelDecDataMgr& data, const TileProgress& progress) {
  if (progress.partLength == 0) return false;
  const std::int64_t end = progress.partStart + progress.partLength;
  const std::int64_t here = data.GetPosition();
  if (here <= end) {
    return CheckBoundary(data, end) == BoundaryCheck::kIsBoundary && data.MoveTo(end);
  }
  // The packets ran past it.
  if (data.MoveTo(end) && data.AtTilePartBoundary()) return true;
  data.MoveTo(here);
  return false;
}

/// Moves the reader behind a tile-part that has been read, when it does not stand on a boundary:
/// to where the length points if that is one, else to the next marker that can begin a tile-part.
/// False when nothing follows.
bool LeavePart(KelDecDataMgr& data, const TileProgress& progress) {
  if (data.AtTilePartBoundary() || MoveToPartEnd(data, progress)) return true;
  data.MoveTo(progress.partStart + 2);
  return data.FindPlausibleSOT();
}

/// Reads the packets of the tile-part that has been opened, and closes it if it has arrived whole.
/// False when the end of the data cuts it off.
bool ReadOpenPart(KelDecDataMgr& data, TileRecord& tile) {
  TileProgress& progress = tile.dec->progress;
  const PartEnd end = ReadTilePartPackets(data, tile);
  if (end == PartEnd::kCutOff) {
    // Data behind the tile-part mean that it is damaged, not cut off.
    const bool isDamaged = MoveToPartEnd(data, progress) && data.EnsureBuffered(2) == kBufferedOk;
    if (!isDamaged) return false;
  }
  progress.partIsOpen = false;
  return true;
}

/// Reads the packets of the tile-part that has been opened, and leaves it.
void ContinuePart(TilePass& pass, TileRecord& tile) {
  DecoderState& d = pass.decoder;
  KelDecDataMgr& data = *d.dataMgr;
  if (!ReadOpenPart(data, tile)) {
    d.furthest = std::max(d.furthest, tile.dec->progress.resumePosition);
    pass.dataEnded = true;
    return;
  }
  const bool more = LeavePart(data, tile.dec->progress);
  if (!more) pass.dataEnded = true;
  tile.dec->progress.resumePosition = data.GetPosition();
  d.furthest = std::max(d.furthest, data.GetPosition());
  if (!d.hasGaps) d.visitedUpTo = data.GetPosition();
}

/// Reads the tile-part under the reader into its tile.
KelLong ReadPart(TilePass& pass, TileRecord& tile) {
  DecoderState& d = pass.decoder;
  KelDecDataMgr& data = *d.dataMgr;
  EnsureDecTileComps(pass.map, tile);
  const std::int64_t start = data.GetPosition();
  const HeaderResult header = ReadTilePartHeader(pass.map, data, tile);
  if (header.refusal.errCode != KelOK) return NoteRefusal(d, header);
  if (header.incomplete) {
    pass.dataEnded = true;
    return KelOK;
  }
  if (start != d.visitedUpTo) d.hasGaps = true;
  ContinuePart(pass, tile);
  return KelOK;
}

/// Reads the tile's next tile-part from the stash. False when it is not there. The code is that of
/// its header.
bool ReadStashedPart(TilePass& pass, TileRecord& tile, KelLong& code) {
  StashedPart* stashed = TakeStashedPart(tile.dec->early, tile.dec->progress.numParts);
  if (stashed == nullptr) return false;
  ScopeGuard drop([&] { DropStashedPart(stashed); });
  KelDecDataMgr part{};
  part.InitFromMemory({stashed->bytes, static_cast<KelULong>(stashed->length)},
                      pass.decoder.flavour);
  part.SetTileGrid(pass.map.geometry->NumXTiles, pass.map.geometry->NumYTiles);
  EnsureDecTileComps(pass.map, tile);
  const HeaderResult header = ReadTilePartHeader(pass.map, part, tile);
  code = NoteRefusal(pass.decoder, header);
  if (code == KelOK && !header.incomplete) ReadOpenPart(part, tile);
  tile.dec->progress.partIsOpen = false;
  tile.dec->progress.resumePosition = pass.decoder.dataMgr->GetPosition();
  return true;
}

/// Deals with a tile-part in passing, on a stream that cannot come back to it: decodes it when it
/// is the next of its tile, keeps it when it is early, drops it when it is of no use.
KelLong PassPart(TilePass& pass) {
  KelDecDataMgr& data = *pass.decoder.dataMgr;
  const auto tileIndex = static_cast<std::int32_t>(data.PeekSotIsot());
  const auto part = static_cast<std::int32_t>(data.PeekSotTPsot());
  if (tileIndex >= pass.map.numTiles) {
    data.SkipForward(2);
    pass.dataEnded = !data.FindPlausibleSOT();
    return KelOK;
  }
  TileRecord& tile = pass.map.tiles[tileIndex];
  if (tile.dec->progress.isComplete || HasNoSamples(pass.map, tile)) {
    const std::uint32_t length = data.PeekSotPsot();
    data.SkipForward(std::max(length, kLeastPartLength));
    if (!data.AtTilePartBoundary()) pass.dataEnded = !data.FindPlausibleSOT();
    return KelOK;
  }
  if (part > tile.dec->progress.numParts) {
    StashTilePart(tile.dec->early, data);
    if (!data.AtTilePartBoundary()) pass.dataEnded = !data.FindPlausibleSOT();
    return KelOK;
  }
  KelLong code = ReadPart(pass, tile);
  while (code == KelOK && !tile.dec->progress.isComplete && ReadStashedPart(pass, tile, code)) {
  }
  return code;
}

/// Moves to the tile's next tile-part by the index; stays when it is not there.
bool FindByIndex(TilePass& pass, const TileRecord& tile) {
  KelDecDataMgr& data = *pass.decoder.dataMgr;
  if (!data.IndexAllowed()) return false;
  const std::int64_t here = data.GetPosition();
  if (data.GoToTilePart(tile.index, tile.dec->progress.numParts)) return true;
  data.MoveTo(here);
  return false;
}

/// Puts the reader on the tile's next tile-part. kNothing: none has arrived; kMissing: data of
/// other tiles are there, but none of this one.
Search FindPart(TilePass& pass, TileRecord& tile, KelLong& code) {
  KelDecDataMgr& data = *pass.decoder.dataMgr;
  if (tile.dec->progress.numParts >= kMostParts) return Search::kNothing;
  bool isForeign = false;
  while (!pass.dataEnded && code == KelOK && !tile.dec->progress.isComplete) {
    if (!data.IsSOT()) {
      // A boundary without a whole SOT segment is the end of what has arrived.
      const bool isEnd = data.AtTilePartBoundary();
      if (isEnd || !data.FindPlausibleSOT()) {
        isForeign = !isEnd;
        pass.dataEnded = true;
        break;
      }
    }
    const auto sotTile = static_cast<std::int32_t>(data.PeekSotIsot());
    const auto sotPart = static_cast<std::int32_t>(data.PeekSotTPsot());
    const bool isOwn = sotTile == tile.index;
    if (data.IndexAllowed()) {
      if (isOwn && sotPart == tile.dec->progress.numParts) return Search::kFound;
      if (FindByIndex(pass, tile)) return Search::kFound;
      // Tile-parts may be numbered badly: one that lies ahead with a number that was read already
      // counts as the next. One with a later number must wait for those before it.
      const bool isRepeated = sotPart < tile.dec->progress.numParts;
      if (isOwn && isRepeated && data.GetPosition() > tile.dec->progress.partStart) {
        return Search::kFound;
      }
      isForeign = !isOwn;
      break;
    }
    if (isOwn && sotPart <= tile.dec->progress.numParts) return Search::kFound;
    code = PassPart(pass);
  }
  if (code != KelOK || tile.dec->progress.isComplete) return Search::kNothing;
  if (pass.dataEnded && pass.decoder.hasGaps && FindByIndex(pass, tile)) {
    pass.dataEnded = false;
    return Search::kFound;
  }
  return isForeign && tile.dec->progress.numParts == 0 ? Search::kMissing : Search::kNothing;
}

}  // namespace

KelLong ReadTile(TilePass& pass, TileRecord& tile) {
  TileProgress& progress = tile.dec->progress;
  KelDecDataMgr& data = *pass.decoder.dataMgr;
  if (progress.isComplete) {
    if (data.IndexAllowed()) pass.position = progress.resumePosition;
    return KelOK;
  }
  const std::int64_t from = progress.numParts > 0 ? progress.resumePosition : pass.position;
  if (data.IndexAllowed() && data.GetPosition() != from && data.MoveTo(from)) {
    pass.dataEnded = false;
  }
  if (progress.partIsOpen) ContinuePart(pass, tile);

  KelLong code = KelOK;
  while (code == KelOK && !progress.isComplete && !progress.partIsOpen) {
    if (ReadStashedPart(pass, tile, code)) continue;
    const Search found = FindPart(pass, tile, code);
    if (found == Search::kMissing) code = KelErrBadParam;
    if (found != Search::kFound) break;
    const std::int32_t partsBefore = progress.numParts;
    code = ReadPart(pass, tile);
    if (progress.numParts == partsBefore) break;
  }
  pass.position = data.GetPosition();
  return code;
}

}  // namespace kel
