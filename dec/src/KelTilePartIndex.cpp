// Measuring tile-parts, and walking them. See the header for what is kept.
//
// The walk always moves forward, keeps no more than 256 tile-parts of a tile (an 8-bit number
// counts them), and obtains memory in proportion to the tile-parts met.
#include "KelTilePartIndex.h"

#include <algorithm>

#include "KelDecDataMgr.h"
#include "base/KelInt.h"
#include "base/KelMemFuncDefs.h"
#include "base/KelRaise.h"

namespace kel {
namespace {

void Note(const KelTilePartIndex& index, const KelDamage& damage) {
  if (index.log != nullptr) NoteDamage(*index.log, damage);
}

KelDamage LengthDamage(const KelTilePartEntry& entry) {
  return {KelDamageLength, entry.tile, entry.part, AsCount(entry.position), 0};
}

/// Measures an entry's tile-part. What was searched before is not searched again.
void Measure(KelTilePartIndex& index, KelDecDataMgr& data, KelTilePartEntry& entry) {
  const PartExtent extent = MeasureTilePart(data, entry.position, entry.announced, index.searchedTo,
                                            entry.tile == index.wantedTile);
  KelTilePartEntry measured = entry;
  measured.ending = extent.ending;
  measured.length = extent.ending != PartEnding::kOpen
                        ? static_cast<std::uint32_t>(extent.end - entry.position)
                        : 0;
  // May be refused memory, and then nothing has changed.
  if (extent.isRepaired && entry.announced != 0) Note(index, LengthDamage(measured));
  entry = measured;
  index.searchedTo = extent.searchedTo;
  index.next = extent.ending == PartEnding::kOpen ? extent.searchedTo : extent.end;
}

bool Record(KelTilePartIndex& index, KelTilePartEntry entry) {
  KelTilePartChain& chain = index.tiles[entry.tile];
  if (chain.last != 0) {
    entry.ordinal = static_cast<std::uint16_t>(index.entries[chain.last - 1].ordinal + 1);
  }
  if (entry.ordinal == format::kMostTileParts) return false;
  index.entries[index.numEntries++] = entry;
  (chain.last != 0 ? index.entries[chain.last - 1].next : chain.first) = index.numEntries;
  chain.last = index.numEntries;
  index.lastTile = std::max<std::int32_t>(index.lastTile, entry.tile);
  return true;
}

/// Passes over what is no tile-part, up to the next one. False when none has arrived.
bool FindWay(KelTilePartIndex& index, KelDecDataMgr& data) {
  const SotSearch found = data.SearchSOT(std::max(index.searchedTo, index.next + 1));
  index.searchedTo = found.position;
  if (!found.isFound) return false;
  const std::uint64_t lost = AsCount(found.position - index.next);
  Note(index, {KelDamageNoTilePart, -1, -1, AsCount(index.next), lost});
  index.next = found.position;
  return data.MoveTo(index.next);
}

}  // namespace

PartExtent MeasureTilePart(KelDecDataMgr& data, std::int64_t start, std::uint32_t announced,
                           std::int64_t searchFrom, bool willBeRead) {
  const std::int64_t end = start + announced;
  if (announced >= format::kLeastTilePartBytes && announced <= INT32_MAX) {
    switch (data.LookForBoundary(end, willBeRead)) {
      case Boundary::kMarker:
        return {.end = end, .ending = PartEnding::kKnown, .isRepaired = false, .searchedTo = end};
      case Boundary::kDataEnd:
        return {.end = end,
                .ending = PartEnding::kProvisional,
                .isRepaired = false,
                .searchedTo = searchFrom};
      case Boundary::kNone:
        break;
    }
  }
  const SotSearch found = data.SearchSOT(std::max(searchFrom, start + format::kSotBytes));
  // Past the largest length that a tile-part can have there is another one.
  const bool isEnd = found.isFound && found.position - start <= INT32_MAX;
  return {.end = found.position,
          .ending = isEnd ? PartEnding::kKnown : PartEnding::kOpen,
          .isRepaired = isEnd,
          .searchedTo = found.position};
}

KelTilePartIndex* MakeTilePartIndex(std::uint32_t numTiles, std::int64_t start, DamageLog* log) {
  return NamingModule(kModuleDecDataMgr, [&] {
    auto index = OwnedRecord<KelTilePartIndex>::Make();
    index->tiles = OwnedArray<KelTilePartChain>::Make(numTiles).Release();
    index->numTiles = numTiles;
    index->next = index->searchedTo = start;
    index->lastTile = -1;
    index->log = log;
    return index.Release();
  });
}

bool MoveToNextTilePart(KelTilePartIndex& index, KelDecDataMgr& data, KelTilePartEntry& entry) {
  const bool lastIsOpen =
      index.numEntries != 0 && index.entries[index.numEntries - 1].ending == PartEnding::kOpen;
  if (index.isEnded || lastIsOpen || !data.MoveToPeek(index.next)) return false;
  while (!data.IsValidSOT()) {
    index.isEnded = data.IsEOC();
    if (index.isEnded || !FindWay(index, data)) return false;
  }
  entry = {};
  entry.position = data.GetPosition();
  if (entry.position < index.next) return false;  // a stream that does not move where it says
  entry.tile = static_cast<std::uint16_t>(data.PeekSotIsot());
  entry.part = static_cast<std::uint8_t>(data.PeekSotTPsot());
  entry.announced = data.PeekSotPsot();
  index.searchedTo = entry.position + format::kSotBytes;
  return true;
}

bool AddTilePart(KelTilePartIndex& index, KelDecDataMgr& data, KelTilePartEntry entry) {
  index.isEnded = !data.MoveTo(entry.position);  // a stream that does not go back
  if (index.isEnded) return false;
  // First, since what has been measured is passed: a refusal must leave it to be found again.
  GrowByOne(index.entries, index.numEntries, index.obtainedEntries);
  Measure(index, data, entry);
  return Record(index, entry);
}

bool ExtendTilePartIndex(KelTilePartIndex& index, KelDecDataMgr& data) {
  KelTilePartEntry entry{};
  if (!MoveToNextTilePart(index, data, entry)) return false;
  AddTilePart(index, data, entry);
  return true;
}

void RefreshTilePartIndex(KelTilePartIndex& index, KelDecDataMgr& data) {
  index.isEnded = false;
  if (index.numEntries == 0) return;
  KelTilePartEntry& last = index.entries[index.numEntries - 1];
  // Entries beyond the number kept of a tile are measured again when they are met again.
  if (last.ending == PartEnding::kKnown || !data.MoveTo(last.position)) return;
  index.searchedTo = std::max(index.searchedTo, last.position + format::kSotBytes);
  Measure(index, data, last);
}

const KelTilePartEntry* FindTilePart(const KelTilePartIndex& index, std::int32_t tile,
                                     std::int32_t part) {
  if (tile < 0 || AsCount(tile) >= index.numTiles) return nullptr;
  for (std::uint32_t i = index.tiles[tile].first; i != 0; i = index.entries[i - 1].next) {
    if (index.entries[i - 1].part == part) return &index.entries[i - 1];
  }
  return nullptr;
}

void ReleaseTilePartIndex(KelTilePartIndex* index) noexcept {
  if (index == nullptr) return;
  KelFree(index->tiles);
  KelFree(index->entries);
  KelFree(index);
}

}  // namespace kel
