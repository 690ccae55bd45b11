// The packets of one tile, and the bytes of the stream that a part of it needs.
//
// The tile is laid out and walked as for decoding, but of every packet only the length is read, and
// of one behind which nothing can follow those of its bands. A packet that leads nowhere ends the
// walk: where those behind it stand only their bits tell, and so a decoder reads all of them. The
// layout is released with the walk's end.
#include <algorithm>
#include <iterator>
#include <utility>

#include "KelDecMap.h"
#include "KelPacketLengths.h"
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

/// Passes over a listed packet. Behind the last one of a tile-part, and the last one wanted,
/// nothing is looked at.
bool PassListed(KelDecDataMgr& data, const PacketId& id, std::uint64_t end, bool isLastWanted) {
  const std::uint64_t start = AsCount(data.GetPosition());
  if (end - std::min(start, end) < format::kCountBytes) return false;
  const std::uint64_t body = start + format::kCountBytes;
  if (data.EnsureBuffered(format::kCountBytes) != kBufferedOk) return false;
  const std::uint64_t length = AsCount(PeekLength(data, static_cast<std::int64_t>(start)));
  if (length == end - body) return true;
  if (!isLastWanted || length > end - body) {
    return PassPacket(data, id.resolution != 0, static_cast<std::int64_t>(end));
  }
  return data.SkipForward(format::kCountBytes + length) == format::kCountBytes + length;
}

/// Lists the packets of a tile-part whose header has been read, until `numLeft` wanted ones have
/// been met. False when one leads nowhere, or has not arrived whole; the reader stands on it.
bool ListPacketsOfPart(IndexState& index, const TileRecord& tile, const KelIndexTilePart& part,
                       std::uint64_t& numLeft) {
  KelDecDataMgr& data = *index.image->decoder->dataMgr;
  PacketWalk& walk = *tile.dec->walk;
  const std::uint64_t end = part.offset + part.length;
  bool isEmpty = true, isEnded = false;
  for (const PacketId* at = CurrentPacket(walk); at != nullptr && numLeft != 0 && !isEnded;
       at = CurrentPacket(walk)) {
    const std::uint64_t here = AsCount(data.GetPosition());
    if (here == end) break;
    const auto levels = static_cast<KelULong>(tile.comps[at->component].dec->numLevels);
    const auto resolution = static_cast<KelULong>(at->resolution);
    KelIndexPacket packet = {static_cast<KelULong>(at->component),
                             resolution,
                             static_cast<KelULong>(at->layer),
                             levels - resolution,
                             AsCount(at->precinct),
                             here,
                             0,
                             part.part};
    const bool isWanted = IsWanted(index.wanted, packet);
    if (!PassListed(data, *at, end, isWanted && numLeft == 1)) return false;
    isEnded = AsCount(data.GetPosition()) == here;
    packet.length = static_cast<KelULong>((isEnded ? end : AsCount(data.GetPosition())) - here);
    RecordPacket(index, packet);
    numLeft -= isWanted ? 1 : 0;
    PacketHandled(walk);
    isEmpty = false;
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
    index.brokenPart = k;
    index.brokenOffset = part != nullptr ? part->offset : 0;
    if (part == nullptr || !data.MoveTo(static_cast<std::int64_t>(part->offset))) return;
    const HeaderResult header = ReadTilePartHeader(map, data, tile);
    if (header.refusal.errCode != KelOK || header.incomplete) return;
    if (k == 0) {
      CountPackets(index, tile, map.numComps);
      numLeft = NumWanted(index, index.wanted.reduce);
    }
    if (!ListPacketsOfPart(index, tile, *part, numLeft)) {
      index.brokenOffset = AsCount(data.GetPosition());
      return;
    }
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

/// Whether all that is wanted is in the list, which may have been made for more.
bool AreAllListed(const IndexState& index, const KelIndexWant& want) {
  if (index.packets.areAll || !index.isLaidOut) return index.packets.areAll;
  const KelIndexPacket* begin = index.packetList;
  const auto count = std::count_if(begin, begin + index.packets.count,
                                   [&](const auto& packet) { return IsWanted(want, packet); });
  return AsCount(count) >= NumWanted(index, want.reduce);
}

/// From where the packets could not be told apart on a decoder reads all of the tile's tile-parts.
void ListBroken(IndexState& index, KelULong tile) {
  for (KelULong k = 0; k < format::kMostTileParts; ++k) {
    const KelIndexTilePart* part = FindPartOfTile(index, tile, k);
    if (part == nullptr) break;
    RecordRange(index, part->offset, part->headerBytes);
    if (k < index.brokenPart) continue;
    const std::uint64_t end = std::min(part->offset + part->length, index.dataEnd);
    const std::uint64_t from = k == index.brokenPart ? index.brokenOffset : part->offset;
    RecordRange(index, from, end - std::min(end, from));
  }
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
  if (!AreAllListed(index, want)) ListBroken(index, want.tile);
}

/// Whether what is listed holds what is wanted: the list of a lower reduction has more.
bool HoldsWanted(const IndexState& index, const KelIndexWant& want) {
  const KelIndexWant& held = index.wanted;
  return index.hasPackets && held.tile == want.tile && held.component == want.component &&
         held.reduce <= want.reduce && held.numLayers == want.numLayers;
}

}  // namespace

void BeginTile(IndexState& index, TileRecord& tile) {
  TileRecord* const before = std::exchange(index.tileAtWork, &tile);
  if (before != nullptr && before != &tile) {
    tile.comps = std::exchange(before->comps, nullptr);
    before->compsAreReady = false;
    if (before->dec != nullptr) before->dec->compsAreReady = false;
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
