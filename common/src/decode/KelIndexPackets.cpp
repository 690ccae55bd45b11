// The packets of one tile, and the bytes of the stream that a part of it needs.
//
// The tile is laid out and walked as for decoding, but of every packet only the length is read. A
// packet that does not fit into its tile-part ends the walk: where those behind it stand is not
// known. The layout is released with the walk's end.
#include <algorithm>
#include <iterator>
#include <utility>

#include "KelDecMap.h"
#include "KelPacketWalk.h"
#include "KelTileLayout.h"
#include "base/KelMemFuncDefs.h"
#include "decode/KelImageTiles.h"
#include "decode/KelStreamIndex.h"

namespace kel {
namespace {

bool IsWanted(const KelIndexWant& want, const KelIndexPacket& packet) {
  const bool isOfComponent =
      want.component < 0 || packet.component == static_cast<KelULong>(want.component);
  const bool isOfResolution = packet.resolution == 0 || packet.levelsAbove >= want.reduce;
  const bool isOfLayer = want.numLayers == 0 || packet.layer < want.numLayers;
  return isOfComponent && isOfResolution && isOfLayer;
}

/// Counts the packets of a tile's layout, by the largest reduction of which they are still wanted.
void CountPackets(IndexState& index, const TileRecord& tile, std::int32_t numComps) {
  std::fill(std::begin(index.numLaidOut), std::end(index.numLaidOut), std::uint64_t{0});
  for (std::int32_t c = 0; c < numComps; ++c) {
    if (index.wanted.component >= 0 && c != index.wanted.component) continue;
    const std::int32_t levels = tile.comps[c].dec->numLevels;
    for (std::int32_t r = 0; r <= levels; ++r) {
      std::uint64_t& count = index.numLaidOut[r == 0 ? format::kMostLevels : levels - r];
      count = SaturatingAdd(count, AsCount(PrecinctsOf(tile.comps[c], r).Count()));
    }
  }
  const auto layers = static_cast<std::uint64_t>(tile.dec->params.style->numLayers);
  const std::uint64_t wanted = index.wanted.numLayers;
  for (std::uint64_t& count : index.numLaidOut) {
    count = SaturatingMul(count, wanted == 0 ? layers : std::min(wanted, layers));
  }
  index.isLaidOut = true;
}

/// How many packets of a tile are wanted of a reduction, as far as the layout tells: an order may
/// leave some out.
std::uint64_t NumWanted(const IndexState& index, KelULong reduce) {
  std::uint64_t count = 0;
  for (KelULong r = std::min<KelULong>(reduce, format::kMostLevels); r <= format::kMostLevels;
       ++r) {
    count = SaturatingAdd(count, index.numLaidOut[r]);
  }
  return count;
}

void RecordPacket(IndexState& index, const KelIndexPacket& packet) {
  KelIndexPackets& packets = index.packets;
  GrowByOne(index.packetList, packets.count, index.obtainedPackets);
  index.packetList[packets.count++] = packet;
  packets.packets = index.packetList;
}

/// Lists the packets of a tile-part whose header has been read, until `numLeft` wanted ones have
/// been met. False when one does not fit, or has not arrived whole.
bool ListPacketsOfPart(IndexState& index, const TileRecord& tile, const KelIndexTilePart& part,
                       std::uint64_t& numLeft) {
  KelDecDataMgr& data = *index.image->decoder->dataMgr;
  PacketWalk& walk = *tile.dec->walk;
  const std::uint64_t end = part.offset + part.length;
  bool isEmpty = true;
  for (const PacketId* at = CurrentPacket(walk); at != nullptr && numLeft != 0;
       at = CurrentPacket(walk)) {
    const std::uint64_t here = AsCount(data.GetPosition());
    if (here == end) break;
    if (end - std::min(here, end) < format::kCountBytes) return false;
    if (data.EnsureBuffered(format::kCountBytes) != kBufferedOk) return false;
    const std::uint64_t length = data.ReadUInt(format::kCountBytes);
    const std::uint64_t left = end - here - format::kCountBytes;
    // Behind the last packet nothing is looked at: the tile-part's end is known.
    const bool isLast = length == left;
    if (length > left || (!isLast && data.SkipForward(length) != length)) return false;
    const std::int32_t levels = tile.comps[at->component].dec->numLevels;
    RecordPacket(index, {static_cast<KelULong>(at->component),
                         static_cast<KelULong>(at->resolution), static_cast<KelULong>(at->layer),
                         static_cast<KelULong>(levels - at->resolution), AsCount(at->precinct),
                         here, static_cast<KelULong>(format::kCountBytes + length), part.part});
    numLeft -= IsWanted(index.wanted, index.packetList[index.packets.count - 1]) ? 1 : 0;
    PacketHandled(walk);
    isEmpty = false;
    if (isLast) break;
  }
  if (isEmpty) PassEmptyTilePart(walk);
  return true;
}

void ListPackets(IndexState& index) {
  ImageMap& map = index.image->map;
  const KelULong number = index.wanted.tile;
  TileRecord& tile = map.tiles[number];
  KelDecDataMgr& data = *index.image->decoder->dataMgr;
  RestartTile(map, tile);
  ScopeGuard restart([&] { RestartTile(map, tile); });
  BeginTile(index, tile);
  std::uint64_t numLeft = 0;
  for (KelULong k = 0; k < format::kMostTileParts; ++k) {
    const KelIndexTilePart* part = FindPartOfTile(index, number, k);
    if (part == nullptr || !data.MoveTo(static_cast<std::int64_t>(part->offset))) return;
    const HeaderResult header = ReadTilePartHeader(map, data, tile);
    if (header.refusal.errCode != KelOK || header.incomplete) return;
    if (k == 0) {
      CountPackets(index, tile, map.numComps);
      numLeft = NumWanted(index, index.wanted.reduce);
    }
    if (!ListPacketsOfPart(index, tile, *part, numLeft)) return;
    index.packets.areAll = numLeft == 0 || CurrentPacket(*tile.dec->walk) == nullptr;
    if (index.packets.areAll) return;
  }
}

// ---- Ranges ----

void RecordRange(IndexState& index, std::uint64_t offset, std::uint64_t length) {
  KelIndexRanges& ranges = index.ranges;
  if (length == 0) return;
  if (ranges.count != 0) {
    KelIndexRange& last = index.rangeList[ranges.count - 1];
    if (last.offset + last.length == offset) {
      last.length += length;
      return;
    }
  }
  GrowByOne(index.rangeList, ranges.count, index.obtainedRanges);
  index.rangeList[ranges.count++] = {offset, length};
}

/// Brings ranges into the order of the data and joins those that touch or overlap.
void JoinRanges(IndexState& index, bool areAll) {
  KelIndexRange* begin = index.rangeList;
  KelIndexRange* end = begin + index.ranges.count;
  std::sort(begin, end, [](const auto& a, const auto& b) { return a.offset < b.offset; });
  KelULong used = 0;
  for (KelIndexRange* range = begin; range != end; ++range) {
    KelIndexRange* last = used != 0 ? begin + used - 1 : nullptr;
    if (last != nullptr && range->offset <= last->offset + last->length) {
      last->length = std::max(last->length, range->offset + range->length - last->offset);
    } else {
      begin[used++] = *range;
    }
  }
  index.ranges = {begin, used, 0, areAll};
  for (KelULong i = 0; i < used; ++i) index.ranges.bytes += begin[i].length;
}

void ListRanges(IndexState& index, const KelIndexWant& want) {
  const KelIndexPacket* begin = index.packetList;
  const KelIndexPacket* end = begin + index.packets.count;
  while (end != begin && !IsWanted(want, end[-1])) --end;  // nothing behind the last is read
  const KelULong lastPart = end != begin ? end[-1].part : 0;
  const KelIndexPacket* next = begin;
  for (KelULong k = 0; k <= lastPart; ++k) {
    const KelIndexTilePart* part = FindPartOfTile(index, want.tile, k);
    if (part == nullptr) break;
    RecordRange(index, part->offset, part->headerBytes);
    for (; next != end && next->part == k; ++next) {
      RecordRange(index, next->offset, IsWanted(want, *next) ? next->length : format::kCountBytes);
    }
  }
}

/// Whether what is listed holds what is wanted: the list of a lower reduction has more.
bool HoldsWanted(const IndexState& index, const KelIndexWant& want) {
  const KelIndexWant& held = index.wanted;
  return index.hasPackets && held.tile == want.tile && held.component == want.component &&
         held.reduce <= want.reduce && held.numLayers == want.numLayers;
}

/// Whether all that is wanted is in the list, which may have been made for more.
bool AreAllListed(const IndexState& index, const KelIndexWant& want) {
  if (index.packets.areAll || !index.isLaidOut) return index.packets.areAll;
  const KelIndexPacket* begin = index.packetList;
  const auto count = std::count_if(begin, begin + index.packets.count,
                                   [&](const auto& packet) { return IsWanted(want, packet); });
  return AsCount(count) >= NumWanted(index, want.reduce);
}

}  // namespace

void BeginTile(IndexState& index, TileRecord& tile) {
  TileRecord* const before = std::exchange(index.tileAtWork, &tile);
  if (before != nullptr && before != &tile) {
    tile.comps = std::exchange(before->comps, nullptr);
    before->compsAreReady = before->dec->compsAreReady = false;
  }
  EnsureDecTileComps(index.image->map, tile);
}

void ReleasePackets(IndexState& index) noexcept {
  KelFree(index.packetList);
  KelFree(index.rangeList);
  index.packetList = nullptr;
  index.rangeList = nullptr;
  index.packets = {};
  index.ranges = {};
  index.obtainedPackets = index.obtainedRanges = 0;
  index.hasPackets = index.isLaidOut = false;
}

const KelIndexPackets* PacketsOf(IndexState& index, const KelIndexWant& want) {
  if (TilePartsOf(index) == nullptr || want.tile >= AsCount(index.image->map.numTiles) ||
      want.component >= index.image->map.numComps) {
    return nullptr;
  }
  if (!HoldsWanted(index, want) || index.wanted.reduce != want.reduce) {
    ReleasePackets(index);
    ScopeGuard release([&] { ReleasePackets(index); });
    index.wanted = want;
    ListPackets(index);
    RefuseFailedReads(index);
    release.Disarm();
    index.hasPackets = true;
  }
  return &index.packets;
}

// Whoever asks for one reduction after the other has the tile laid out and walked once.
const KelIndexRanges* RangesOf(IndexState& index, const KelIndexWant& want) {
  if (!HoldsWanted(index, want) && PacketsOf(index, want) == nullptr) return nullptr;
  index.ranges.count = 0;
  ListRanges(index, want);
  JoinRanges(index, AreAllListed(index, want));
  return &index.ranges;
}

}  // namespace kel
