// The packets of one tile, and the bytes of the stream that a part of it needs.
//
// The tile is laid out and walked as for decoding, but of every packet only the length is read. A
// packet that does not fit into its tile-part ends the walk: where those behind it stand is not
// known. The layout is released with the walk's end.
#include <algorithm>

#include "KelDecMap.h"
#include "KelPacketWalk.h"
#include "base/KelMemFuncDefs.h"
#include "decode/KelImageTiles.h"
#include "decode/KelStreamIndex.h"

namespace kel {
namespace {

constexpr std::uint64_t kLengthBytes = 4;

/// Tile-part numbers are bytes.
constexpr KelULong kMostParts = 256;

void RecordPacket(IndexState& index, const KelIndexPacket& packet) {
  KelIndexPackets& packets = index.packets;
  GrowByOne(index.packetList, packets.count, index.obtainedPackets);
  index.packetList[packets.count++] = packet;
  packets.packets = index.packetList;
}

/// Lists the packets of a tile-part whose header has been read. False when one does not fit, or has
/// not arrived whole.
bool ListPacketsOfPart(IndexState& index, const TileRecord& tile, const KelIndexTilePart& part) {
  KelDecDataMgr& data = *index.image->decoder->dataMgr;
  PacketWalk& walk = *tile.dec->walk;
  const std::uint64_t end = part.offset + part.length;
  bool isEmpty = true;
  for (const PacketId* at = CurrentPacket(walk); at != nullptr; at = CurrentPacket(walk)) {
    const std::uint64_t here = AsCount(data.GetPosition());
    if (here == end) break;
    if (end - std::min(here, end) < kLengthBytes) return false;
    if (data.EnsureBuffered(kLengthBytes) != kBufferedOk) return false;
    const std::uint64_t length = data.ReadUInt(kLengthBytes);
    if (length > end - here - kLengthBytes || data.SkipForward(length) != length) return false;
    const std::int32_t levels = tile.comps[at->component].dec->numLevels;
    RecordPacket(index, {static_cast<KelULong>(at->component),
                         static_cast<KelULong>(at->resolution), static_cast<KelULong>(at->layer),
                         static_cast<KelULong>(levels - at->resolution), AsCount(at->precinct),
                         here, static_cast<KelULong>(kLengthBytes + length), part.part});
    PacketHandled(walk);
    isEmpty = false;
  }
  if (isEmpty) PassEmptyTilePart(walk);
  return true;
}

void ListPackets(IndexState& index, KelULong number) {
  ImageMap& map = index.image->map;
  TileRecord& tile = map.tiles[number];
  KelDecDataMgr& data = *index.image->decoder->dataMgr;
  RestartTile(map, tile);
  ScopeGuard restart([&] { RestartTile(map, tile); });
  EnsureDecTileComps(map, tile);
  for (KelULong k = 0; k < kMostParts; ++k) {
    const KelIndexTilePart* part = FindPartOfTile(index, number, k);
    if (part == nullptr || !data.MoveTo(static_cast<std::int64_t>(part->offset))) return;
    const HeaderResult header = ReadTilePartHeader(map, data, tile);
    if (header.refusal.errCode != KelOK || header.incomplete) return;
    if (!ListPacketsOfPart(index, tile, *part)) return;
    index.packets.areAll = CurrentPacket(*tile.dec->walk) == nullptr;
    if (index.packets.areAll) return;
  }
}

// ---- Ranges ----

bool IsWanted(const KelIndexWant& want, const KelIndexPacket& packet) {
  const bool isOfComponent =
      want.component < 0 || packet.component == static_cast<KelULong>(want.component);
  const bool isOfResolution = packet.resolution == 0 || packet.levelsAbove >= want.reduce;
  const bool isOfLayer = want.numLayers == 0 || packet.layer < want.numLayers;
  return isOfComponent && isOfResolution && isOfLayer;
}

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
void JoinRanges(IndexState& index) {
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
  index.ranges = {begin, used, 0, index.packets.areAll};
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
      RecordRange(index, next->offset, IsWanted(want, *next) ? next->length : kLengthBytes);
    }
  }
}

}  // namespace

void ReleasePackets(IndexState& index) noexcept {
  KelFree(index.packetList);
  KelFree(index.rangeList);
  index.packetList = nullptr;
  index.rangeList = nullptr;
  index.packets = {};
  index.ranges = {};
  index.obtainedPackets = index.obtainedRanges = 0;
  index.hasPackets = false;
}

const KelIndexPackets* PacketsOf(IndexState& index, KelULong tile) {
  if (TilePartsOf(index) == nullptr || tile >= AsCount(index.image->map.numTiles)) return nullptr;
  if (!index.hasPackets || index.packetTile != tile) {
    ReleasePackets(index);
    ScopeGuard release([&] { ReleasePackets(index); });
    ListPackets(index, tile);
    release.Disarm();
    index.packetTile = tile;
    index.hasPackets = true;
  }
  return &index.packets;
}

const KelIndexRanges* RangesOf(IndexState& index, const KelIndexWant& want) {
  if (PacketsOf(index, want.tile) == nullptr || want.component >= index.image->map.numComps) {
    return nullptr;
  }
  index.ranges.count = 0;
  ListRanges(index, want);
  JoinRanges(index);
  return &index.ranges;
}

}  // namespace kel
