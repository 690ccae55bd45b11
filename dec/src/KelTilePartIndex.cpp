// Building and searching the tile-part index. See the header for what it holds.
//
// The walk always moves forward by 12 bytes at least, keeps no more than 256 tile-parts of a tile
// (an 8-bit number counts them), and obtains memory in proportion to the tile-parts met.
#include "KelTilePartIndex.h"

#include <algorithm>
#include <tuple>

#include "KelDecDataMgr.h"
#include "base/KelMemFuncDefs.h"
#include "base/KelRaise.h"

namespace kel {
namespace {

constexpr std::uint32_t kMostPartsOfTile = 256;

/// Order of the index. A tile-part claimed twice is taken from the later place.
bool Precedes(const KelTilePartEntry& a, const KelTilePartEntry& b) {
  return std::tuple(a.tile, a.part, b.position) < std::tuple(b.tile, b.part, a.position);
}

void Record(KelTilePartIndex& index, const KelTilePartEntry& entry) {
  if (index.partsOfTile[entry.tile] == kMostPartsOfTile) return;
  GrowByOne(index.entries, index.numEntries, index.obtainedEntries);
  index.entries[index.numEntries++] = entry;
  ++index.partsOfTile[entry.tile];
}

/// The length of the tile-part whose SOT stands at `position`, where the read position is, and
/// leaves the latter behind the tile-part. A length is right when another tile-part, EOC or the
/// end of the data follows it exactly. Any other is replaced by the distance to the next SOT that
/// can be one; 0 when there is none.
std::uint32_t MeasureTilePart(KelDecDataMgr& data, std::int64_t position) {
  const std::uint32_t announced = data.PeekSotPsot();
  if (announced >= kLeastTilePartBytes) {
    const bool isWhole = data.SkipForward(announced) == announced;
    if (isWhole && data.AtTilePartBoundary()) return announced;
    if (!data.MoveTo(position)) return 0;
  }
  data.SkipForward(kSotSegmentBytes);
  if (!data.FindPlausibleSOT()) return 0;
  return static_cast<std::uint32_t>(data.GetPosition() - position);
}

void WalkTileParts(KelTilePartIndex& index, KelDecDataMgr& data) {
  std::int64_t lastPosition = -1;
  while (data.IsSOT()) {
    KelTilePartEntry entry{};
    entry.position = data.GetPosition();
    if (entry.position <= lastPosition) return;  // a stream that does not move where it says
    lastPosition = entry.position;
    const std::uint32_t tile = data.PeekSotIsot();
    if (tile >= index.numTiles || data.PeekSotPsot() > INT32_MAX) return;
    entry.tile = static_cast<std::uint16_t>(tile);
    entry.part = static_cast<std::uint8_t>(data.PeekSotTPsot());
    entry.length = MeasureTilePart(data, entry.position);
    Record(index, entry);
    if (entry.length == 0) return;
  }
}

}  // namespace

KelTilePartIndex* BuildTilePartIndex(KelDecDataMgr& data, std::uint32_t numTiles) {
  return NamingModule(kModuleDecDataMgr, [&] {
    KelTilePartIndex* index = OwnedRecord<KelTilePartIndex>::Make().Release();
    ScopeGuard release([&] { ReleaseTilePartIndex(index); });
    index->partsOfTile = OwnedArray<std::uint16_t>::Make(numTiles).Release();
    index->numTiles = numTiles;
    data.ReturnToPositionB();
    ScopeGuard returning([&] { data.ReturnToPositionB(); });
    WalkTileParts(*index, data);
    std::sort(index->entries, index->entries + index->numEntries, Precedes);
    release.Disarm();
    return index;
  });
}

const KelTilePartEntry* FindTilePart(const KelTilePartIndex& index, std::int32_t tile,
                                     std::int32_t part) {
  if (tile < 0 || part < 0 || part > UINT8_MAX || AsCount(tile) >= index.numTiles) return nullptr;
  const KelTilePartEntry wanted = {INT64_MAX, 0, static_cast<std::uint16_t>(tile),
                                   static_cast<std::uint8_t>(part)};
  const KelTilePartEntry* first = index.entries;
  const KelTilePartEntry* end = first + index.numEntries;
  const KelTilePartEntry* found = std::lower_bound(first, end, wanted, Precedes);
  const bool isIt = found != end && found->tile == wanted.tile && found->part == wanted.part;
  return isIt ? found : nullptr;
}

void ReleaseTilePartIndex(KelTilePartIndex* index) noexcept {
  if (index == nullptr) return;
  KelFree(index->partsOfTile);
  KelFree(index->entries);
  KelFree(index);
}

}  // namespace kel
