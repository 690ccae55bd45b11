// Building the code stream of one tile or of neighbours.
#include "TilePiece.hpp"

#include <algorithm>
#include <tuple>
#include <utility>

#include "SegmentEdit.hpp"

namespace kel::host {
namespace {

constexpr std::size_t kOrderAt = 5;
constexpr std::uint64_t kMostBytesBehind = 64 << 20;

/// A piece while it is made.
struct Building {
  const DataFront& front;
  std::span<const TileParts> tiles;
  unsigned reduce;
  Bytes data;
  bool seenCod = false;  ///< in the header at work: only the first one holds

  /// Several tiles are only joined when they have all packets.
  bool Reorders() const { return tiles[0].hasAllPackets; }
  void Marker(KelULong second) {
    data.push_back(static_cast<std::uint8_t>(front.facts->markerByte));
    data.push_back(static_cast<std::uint8_t>(second));
  }
  void Append(ByteView bytes) { data.insert(data.end(), bytes.begin(), bytes.end()); }
};

/// One tile is its own grid; the row of several keeps the width of its tiles.
GridFields GridOf(const Building& out) {
  const auto at = [&](std::int64_t edge) { return HalvedCoordinate(edge, out.reduce); };
  const CanvasBox box = BoxOf(out.tiles);
  GridFields grid{at(box.x1), at(box.y1), at(box.x0), at(box.y0), at(box.x1), at(box.y1), 0, 0};
  if (out.tiles.size() > 1) {
    const KelImageGeometry& whole = *out.front.facts->geometry;
    const std::int64_t column = out.tiles[0].tile % static_cast<std::uint32_t>(whole.NumXTiles);
    grid.tileWidth = at(whole.XTsiz);
    grid.tileX0 = at(whole.XTOsiz + column * whole.XTsiz);
  }
  return grid;
}

bool HasPlace(const CanvasBox& box, unsigned reduce) {
  return HalvedCoordinate(box.x0, reduce) < HalvedCoordinate(box.x1, reduce) &&
         HalvedCoordinate(box.y0, reduce) < HalvedCoordinate(box.y1, reduce);
}

void AppendSegment(Building& out, KelULong code, Bytes segment) {
  const auto indexBytes =
      static_cast<std::size_t>(format::ComponentIndexBytes(out.front.facts->geometry->Csiz));
  switch (code) {
    case format::kSIZ:
      SetGrid(segment, GridOf(out));
      break;
    case format::kCOD:
      if (std::exchange(out.seenCod, true)) return;
      LowerLevels(segment, code, indexBytes, out.reduce);
      if (out.Reorders()) segment.at(kOrderAt) = KelLRCP;
      break;
    case format::kCOC:
      LowerLevels(segment, code, indexBytes, out.reduce);
      break;
    case format::kPOC:
      if (out.Reorders()) return;
      break;
    case format::kCOM:
      return;
    default:
      break;
  }
  out.Append(segment);
}

/// The boxes in front of the code stream that bear on its samples.
void AppendBoxes(Building& out) {
  const KelIndexFacts& facts = *out.front.facts;
  if (!facts.isBoxed) return;
  const ByteView bytes(out.front.bytes);
  for (const KelIndexBox& box : std::span(facts.boxes, facts.numBoxes)) {
    if (box.offset + box.headerBytes == facts.codeStreamOffset) {
      const ByteView header = bytes.subspan(box.offset, 8);
      out.Append(Bytes(4));
      out.Append(header.subspan(4));
    } else if (box.isWhole && box.offset + box.length <= facts.codeStreamOffset &&
               box.type != format::BoxType("xml ") && box.type != format::BoxType("uuid")) {
      out.Append(bytes.subspan(box.offset, box.length));
    }
  }
}

Bytes SegmentBytes(ByteView front, const KelIndexSegment& segment) {
  const ByteView bytes = front.subspan(segment.offset, segment.length);
  return Bytes(bytes.begin(), bytes.end());
}

void AppendMainHeader(Building& out) {
  const KelIndexFacts& facts = *out.front.facts;
  for (const KelIndexSegment& segment : std::span(facts.segments, facts.numSegments)) {
    AppendSegment(out, segment.code, SegmentBytes(out.front.bytes, segment));
  }
}

Bytes Fetched(RangeSource& source, std::uint64_t offset, std::size_t length) {
  Bytes bytes(length);
  source.Fetch(offset, bytes);
  return bytes;
}

bool IsKept(const KelIndexPacket& packet, unsigned reduce) {
  return packet.levelsAbove >= reduce;
}

/// A tile-part: the segments of a header and the packets given.
void AppendPart(Building& out, std::size_t tile, KelULong number,
                const std::vector<KelIndexSegment>& segments,
                std::span<const KelIndexPacket> packets, RangeSource& source) {
  const std::size_t start = out.data.size();
  out.seenCod = false;
  out.Marker(format::kSOT);
  out.data.resize(start + format::kSotBytes);
  PutU16(out.data, start + 2, format::kSotBytes - format::kMarkerBytes);
  PutU16(out.data, start + format::kIsotAt, tile);
  out.data[start + format::kTPsotAt] = static_cast<std::uint8_t>(number);
  for (const KelIndexSegment& segment : segments) {
    if (segment.code == format::kSOT || segment.code == format::kSOD) continue;
    AppendSegment(out, segment.code, Fetched(source, segment.offset, segment.length));
  }
  out.Marker(format::kSOD);
  for (std::size_t i = 0; i < packets.size();) {
    const std::uint64_t from = packets[i].offset;
    std::uint64_t to = from;
    for (; i < packets.size() && packets[i].offset == to; ++i) to += packets[i].length;
    const std::size_t at = out.data.size();
    out.data.resize(at + static_cast<std::size_t>(to - from));
    source.Fetch(from, std::span(out.data).subspan(at));
  }
  PutU32(out.data, start + format::kPsotAt, out.data.size() - start);
}

void AppendTile(Building& out, std::size_t number, RangeSource& source) {
  const TileParts& tile = out.tiles[number];
  std::vector<KelIndexPacket> packets;
  std::ranges::copy_if(tile.packets, std::back_inserter(packets),
                       [&](const KelIndexPacket& packet) { return IsKept(packet, out.reduce); });
  if (out.Reorders()) {
    std::ranges::sort(packets, {}, [](const KelIndexPacket& p) {
      return std::tuple(p.layer, p.resolution, p.component, p.precinct);
    });
    AppendPart(out, number, 0, tile.headers[0].segments, packets, source);
    return;
  }
  const std::span all(packets);
  for (std::size_t i = 0, at = 0; i < tile.headers.size(); ++i) {
    std::size_t end = at;
    while (end < all.size() && all[end].part == tile.headers[i].part) ++end;
    AppendPart(out, number, static_cast<KelULong>(i), tile.headers[i].segments,
               all.subspan(at, end - at), source);
    at = end;
  }
}

}  // namespace

CanvasBox TileBox(const KelImageGeometry& grid, std::uint32_t tile) {
  KelLong x0 = 0, x1 = 0, y0 = 0, y1 = 0;
  const auto number = static_cast<KelLong>(tile);
  grid.GetTileBoundingBox(grid.GetXIndex(number), grid.GetYIndex(number), &x0, &x1, &y0, &y1);
  return {x0, y0, x1, y1};
}

std::vector<ByteRange> NeededBytes(RangeIndex& index, std::uint32_t tile, unsigned reduce) {
  const KelIndexRanges& found = index.Ranges({tile, -1, reduce, 0});
  std::vector<ByteRange> ranges;
  for (const KelIndexRange& range : std::span(found.ranges, found.count)) {
    ranges.push_back({range.offset, range.offset + range.length});
  }
  return ranges;
}

std::vector<ByteRange> PlacesOfTile(RangeIndex& index, std::uint32_t tile) {
  std::vector<ByteRange> places;
  for (const KelULong i : index.PartsOf(tile)) {
    const KelIndexTilePart& part = index.TileParts().parts[i];
    places.push_back({part.offset, part.offset + part.length});
  }
  std::ranges::sort(places, {}, &ByteRange::from);
  return places;
}

TileParts CollectTile(RangeIndex& index, std::uint32_t tile, unsigned reduce) {
  TileParts found;
  found.tile = tile;
  found.box = TileBox(*index.Facts().geometry, tile);
  const KelIndexPackets& packets = index.Packets({tile, -1, reduce, 0});
  found.packets.assign(packets.packets, packets.packets + packets.count);
  found.hasAllPackets = packets.areAll;
  for (const KelULong i : index.PartsOf(tile)) {
    const KelIndexTilePart& part = index.TileParts().parts[i];
    if (part.headerBytes == 0) continue;
    // Of a tile that is put in order only the first header counts.
    if (found.hasAllPackets && !found.headers.empty()) break;
    const auto segments = index.Segments(i);
    found.headers.push_back({part.part, {segments.begin(), segments.end()}});
  }
  return found;
}

CanvasBox BoxOf(std::span<const TileParts> tiles) {
  const CanvasBox &first = tiles.front().box, &last = tiles.back().box;
  return {first.x0, first.y0, last.x1, last.y1};
}

bool CanJoin(const KelImageGeometry& grid, std::span<const TileParts> tiles, unsigned reduce) {
  const auto isWhole = [&](std::int64_t edge) {
    return (edge & ((std::int64_t{1} << reduce) - 1)) == 0;
  };
  return isWhole(grid.XTsiz) && isWhole(grid.XTOsiz) &&
         std::ranges::all_of(tiles, [&](const TileParts& tile) {
           return tile.hasAllPackets && !tile.headers.empty() && HasPlace(tile.box, reduce);
         });
}

std::vector<ByteRange> BytesOfPiece(std::span<const TileParts> tiles, unsigned reduce) {
  std::vector<ByteRange> ranges;
  const auto add = [&](std::uint64_t offset, std::uint64_t length) {
    if (!ranges.empty() && ranges.back().to == offset) {
      ranges.back().to += length;
    } else {
      ranges.push_back({offset, offset + length});
    }
  };
  for (const TileParts& tile : tiles) {
    for (const TileParts::Header& header : tile.headers) {
      for (const KelIndexSegment& segment : header.segments) add(segment.offset, segment.length);
    }
    for (const KelIndexPacket& packet : tile.packets) {
      if (IsKept(packet, reduce)) add(packet.offset, packet.length);
    }
  }
  return ranges;
}

Bytes BuildPiece(const DataFront& front, std::span<const TileParts> tiles, unsigned reduce,
                 RangeSource& source) {
  Building out{front, tiles, reduce, {}};
  if (tiles[0].headers.empty() || !HasPlace(tiles[0].box, reduce)) return {};
  AppendBoxes(out);
  AppendMainHeader(out);
  for (std::size_t i = 0; i < tiles.size(); ++i) AppendTile(out, i, source);
  out.Marker(format::kEOC);
  return std::move(out.data);
}

Bytes BuildDescription(const DataFront& front, RangeSource& source) {
  const KelIndexFacts& facts = *front.facts;
  Bytes data = front.bytes;
  data.push_back(static_cast<std::uint8_t>(facts.markerByte));
  data.push_back(format::kEOC);
  const std::uint64_t end = source.Size();
  const bool endsEarlier = facts.codeStreamEnd >= front.bytes.size() && facts.codeStreamEnd < end;
  if (!facts.isBoxed || !endsEarlier || end - facts.codeStreamEnd > kMostBytesBehind) return data;
  for (const KelIndexBox& box : std::span(facts.boxes, facts.numBoxes)) {
    if (box.offset + box.headerBytes != facts.codeStreamOffset) continue;
    // The box of the code stream ends behind the end marker now.
    const auto at = static_cast<std::size_t>(box.offset);
    const bool isLong = box.headerBytes == 16;
    if (isLong) PutU32(data, at + 8, 0);
    PutU32(data, isLong ? at + 12 : at, data.size() - at);
    const std::size_t shortened = data.size();
    data.resize(shortened + static_cast<std::size_t>(end - facts.codeStreamEnd));
    source.Fetch(facts.codeStreamEnd, std::span(data).subspan(shortened));
    break;
  }
  return data;
}

}  // namespace kel::host
