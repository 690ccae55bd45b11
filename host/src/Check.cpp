// Checking a file: its frame of boxes and tile-parts by the records of the index, its tiles by the
// examination that the index makes of them, one at a time.
#include "kel/host/check.hpp"

#include <algorithm>
#include <map>

#include "LengthLists.hpp"
#include "RangeIndex.hpp"
#include "SegmentEdit.hpp"
#include "kel/host/limits.hpp"

namespace kel::host {
namespace {

/// All packets are read, one after the other: few large pieces, and room for tile-parts in turns.
constexpr std::uint64_t kCacheBytes = std::uint64_t{4} << 20, kBlockBytes = std::uint64_t{1} << 16;
/// Packets of all tiles that are listed as lost, at most: they cost time although no byte stands
/// for them.
constexpr std::uint64_t kMostLost = std::uint64_t{1} << 20;
constexpr std::uint64_t kMostLostOfTile = std::uint64_t{1} << 16;

std::int64_t Signed(std::uint64_t number) {
  return static_cast<std::int64_t>(number);
}

FlawKind KindOf(KelLong damage) {
  switch (damage) {
    case KelDamageHeader:
      return FlawKind::kTilePartHeader;
    case KelDamageExcess:
      return FlawKind::kExcess;
    default:
      return FlawKind::kPackets;
  }
}

class Checker {
 public:
  Checker(RangeSource& source, const CheckParams& params)
      : params_(params), cache_(source, kCacheBytes, kBlockBytes), index_(cache_) {}
  CheckReport Run();

 private:
  void CheckBoxes();
  void CheckTileParts();
  void CheckEnd(std::uint64_t end);
  void CheckPartList();
  void CheckPacketLists(std::uint32_t tile, const KelIndexFindings& found);
  void AddList(const Flaw& flaw);
  void CheckTile(std::uint32_t tile);
  void CheckPartNumbers(std::uint32_t tile, const KelIndexFindings& found);
  void NoteFlaws(std::uint32_t tile, const KelIndexFindings& found);
  void NoteLost(std::uint32_t tile, const KelIndexFindings& found);
  bool IsBare(std::uint32_t tile);
  void NoteMissing(std::uint32_t tile);
  void Add(const Flaw& flaw);
  void Add(const Loss& loss);
  Bytes Fetched(std::uint64_t from, std::uint64_t count);

  const CheckParams& params_;
  RangeCache cache_;
  RangeIndex index_;
  CheckReport report_;
  std::uint64_t mostLost_ = kMostLost;  ///< packets that may still be listed
};

void Checker::Add(const Flaw& flaw) {
  ++report_.numFlaws;
  if (report_.flaws.size() < params_.mostEntries) report_.flaws.push_back(flaw);
}

void Checker::Add(const Loss& loss) {
  ++report_.numLosses;
  if (report_.losses.size() < params_.mostEntries) report_.losses.push_back(loss);
}

/// Up to `count` bytes, fewer at the end of the data.
Bytes Checker::Fetched(std::uint64_t from, std::uint64_t count) {
  Bytes bytes(
      static_cast<std::size_t>(std::min(count, cache_.Size() - std::min(cache_.Size(), from))));
  if (!bytes.empty()) cache_.Fetch(from, bytes);
  return bytes;
}

void Checker::CheckBoxes() {
  const KelIndexFacts& facts = index_.Facts();
  for (const KelIndexBox& box : std::span(facts.boxes, facts.numBoxes)) {
    const std::uint64_t claimed = ClaimedBoxBytes(Fetched(box.offset, box.headerBytes));
    if (claimed <= box.length) continue;
    Add({.kind = FlawKind::kBox, .offset = box.offset, .claimed = claimed, .found = box.length});
  }
}

void Checker::CheckEnd(std::uint64_t end) {
  const KelIndexFacts& facts = index_.Facts();
  const std::uint64_t last = std::min(facts.codeStreamEnd, cache_.Size());
  const Bytes bytes = Fetched(end, 2);
  const bool isThere =
      bytes.size() == 2 && bytes[0] == facts.markerByte && bytes[1] == format::kEOC;
  if (isThere && end + 2 == last) return;
  const std::uint64_t left = last - std::min(last, end);
  Add({.kind = FlawKind::kEnd, .offset = end, .claimed = 2, .found = left});
}

void Checker::CheckTileParts() {
  const KelIndexTileParts& list = index_.TileParts();
  report_.tileParts = list.count;
  std::uint64_t next = index_.Facts().firstTilePartOffset;
  for (KelULong i = 0; i < list.count; ++i) {
    const KelIndexTilePart& part = list.parts[i];
    if (part.offset > next) {
      Add({.kind = FlawKind::kNoTilePart, .offset = next, .found = part.offset - next});
    }
    next = part.offset + part.length;
    if (part.announcedBytes == part.length || (part.announcedBytes == 0 && i + 1 == list.count)) {
      continue;
    }
    Add({.kind = FlawKind::kTilePartLength,
         .tile = part.tile,
         .part = part.part,
         .offset = part.offset,
         .claimed = part.announcedBytes,
         .found = part.length});
  }
  CheckEnd(next);
}

void Checker::AddList(const Flaw& flaw) {
  Flaw of = flaw;
  of.kind = FlawKind::kLengthList;
  Add(of);
}

/// Whether a list of the tile-parts is that of those that are there. One place is told where it is
/// not: what follows is often wrong for the same reason.
void Checker::CheckPartList() {
  const KelIndexFacts& facts = index_.Facts();
  LengthList list;
  Flaw flaw;
  for (const KelIndexSegment& segment : std::span(facts.segments, facts.numSegments)) {
    if (segment.code != format::kTLM) continue;
    if (list.IsEmpty()) flaw.offset = segment.offset;
    list.Add(Fetched(segment.offset, segment.length));
  }
  if (list.IsEmpty()) return;
  const auto listed = list.OfTileParts();
  const KelIndexTileParts& there = index_.TileParts();
  for (std::size_t i = 0; listed && i < std::max<std::size_t>(listed->size(), there.count); ++i) {
    flaw.claimed = i < listed->size() ? (*listed)[i].length : 0;
    flaw.found = i < there.count ? there.parts[i].length : 0;
    if (i < there.count) flaw.tile = there.parts[i].tile;
    if (i < there.count) flaw.part = there.parts[i].part;
    const bool isOfTile =
        i < listed->size() && i < there.count && (*listed)[i].tile == there.parts[i].tile;
    if (!isOfTile || flaw.claimed != flaw.found) return AddList(flaw);
  }
  if (!listed) AddList(flaw);
}

/// The same of the packets of a tile's tile-parts.
void Checker::CheckPacketLists(std::uint32_t tile, const KelIndexFindings& found) {
  const std::span packets(found.packets, found.count);
  for (const KelULong place : index_.PartsOf(tile)) {
    const KelIndexTilePart& part = index_.TileParts().parts[place];
    if (part.headerBytes <= format::kLeastTilePartBytes) continue;
    LengthList list;
    Flaw flaw{.tile = tile, .part = part.part};
    for (const KelIndexSegment& segment : index_.Segments(place)) {
      if (segment.code != format::kPLT) continue;
      if (list.IsEmpty()) flaw.offset = segment.offset;
      list.Add(Fetched(segment.offset, segment.length));
    }
    if (list.IsEmpty()) continue;
    const auto listed = list.OfPackets();
    auto next = std::find_if(packets.begin(), packets.end(), [&](const KelIndexPacket& packet) {
      return packet.part == part.part;
    });
    std::size_t i = 0;
    for (; listed && next != packets.end() && next->part == part.part; ++next, ++i) {
      flaw.claimed = i < listed->size() ? (*listed)[i] : 0;
      flaw.found = next->length;
      if (flaw.claimed != flaw.found) break;
    }
    const bool isRight =
        listed && i == listed->size() && (next == packets.end() || next->part != part.part);
    if (!isRight) AddList(flaw);
  }
}

/// Whether the numbers and counts of a tile's tile-parts fit what is there.
void Checker::CheckPartNumbers(std::uint32_t tile, const KelIndexFindings& found) {
  const KelIndexTilePart* const parts = index_.TileParts().parts;
  const std::span<const KelULong> own = index_.PartsOf(tile);
  KelULong next = 0, announced = 0;
  for (const KelULong i : own) {
    const KelIndexTilePart& part = parts[i];
    announced = std::max(announced, part.numParts);
    const bool isUsed = part.part == next && part.part < found.numParts;
    if (part.part == next) ++next;
    if (isUsed || (part.part == next - 1 && part.length == part.headerBytes)) continue;
    Add({.kind = FlawKind::kUnplaced,
         .tile = tile,
         .part = part.part,
         .offset = part.offset,
         .found = part.length});
  }
  if (announced == 0 || announced == own.size()) return;
  Add({.kind = FlawKind::kTilePartCount,
       .tile = tile,
       .offset = parts[own[0]].offset,
       .claimed = announced,
       .found = own.size()});
}

void Checker::NoteFlaws(std::uint32_t tile, const KelIndexFindings& found) {
  for (const KelIndexFlaw& flaw : std::span(found.flaws, found.numFlaws)) {
    const KelIndexPacket& packet = found.packets[flaw.packet];
    const Flaw at{.tile = tile,
                  .part = packet.part,
                  .component = packet.component,
                  .resolution = packet.resolution,
                  .layer = packet.layer,
                  .precinct = Signed(packet.precinct),
                  .offset = packet.offset,
                  .claimed = flaw.claimedBytes,
                  .found = packet.length};
    const auto add = [&](FlawKind kind) {
      Flaw of = at;
      of.kind = kind;
      Add(of);
    };
    if ((flaw.kinds & KelFlawChecksum) != 0) add(FlawKind::kChecksum);
    if ((flaw.kinds & KelFlawLength) != 0) add(FlawKind::kPacketLength);
    if ((flaw.kinds & KelFlawBand) == 0) continue;
    for (const KelIndexBand& band : std::span(flaw.bands, flaw.numBands)) {
      if (band.isWhole && band.foundBytes == band.claimedBytes) continue;
      Flaw of = at;
      of.kind = FlawKind::kBand;
      of.offset = band.offset;
      of.claimed = band.claimedBytes;
      of.found = band.foundBytes;
      Add(of);
    }
  }
}

/// What the packets that are missing or damaged mean for the picture.
void Checker::NoteLost(std::uint32_t tile, const KelIndexFindings& found) {
  std::map<std::pair<KelULong, KelULong>, Loss> losses;
  const auto at = [&](const KelIndexPacket& packet) -> Loss& {
    Loss& loss = losses[{packet.component, packet.resolution}];
    loss.tile = tile;
    loss.component = packet.component;
    loss.resolution = packet.resolution;
    return loss;
  };
  for (const KelIndexPacket& packet : std::span(found.lost, found.numLost)) ++at(packet).missing;
  for (const KelIndexFlaw& flaw : std::span(found.flaws, found.numFlaws)) {
    if (flaw.kinds != KelFlawLength) ++at(found.packets[flaw.packet]).damaged;
  }
  for (const auto& [key, loss] : losses) Add(loss);
  mostLost_ -= std::min<std::uint64_t>(mostLost_, found.numLost);
  if (!found.lostAreAll) Add(Loss{.tile = tile});
}

void Checker::CheckTile(std::uint32_t tile) {
  const KelIndexFindings& found =
      index_.Examine(tile, static_cast<KelULong>(std::min(mostLost_, kMostLostOfTile)));
  report_.packets += found.count;
  report_.checksums += found.numChecksums;
  CheckPartNumbers(tile, found);
  CheckPacketLists(tile, found);
  bool isTold = false;  // where packets went missing
  for (const KelIndexBreak& broken : std::span(found.breaks, found.numBreaks)) {
    const FlawKind kind = KindOf(broken.kind);
    isTold = isTold || kind == FlawKind::kPackets;
    Add({.kind = kind,
         .tile = tile,
         .part = broken.part,
         .offset = broken.offset,
         .found = broken.bytes,
         .count = kind == FlawKind::kPackets ? found.numLost : 1});
  }
  NoteFlaws(tile, found);
  NoteLost(tile, found);
  if (isTold || (found.numLost == 0 && found.lostAreAll)) return;
  const KelIndexTilePart& last = index_.TileParts().parts[index_.PartsOf(tile).back()];
  Add({.kind = FlawKind::kPackets,
       .tile = tile,
       .part = last.part,
       .offset = last.offset + last.length,
       .count = found.numLost});
}

/// Whether some component has a sample in a tile.
bool HasSamples(const KelImageGeometry& grid, std::uint32_t tile) {
  const auto column = static_cast<std::int64_t>(tile) % grid.NumXTiles;
  const auto row = static_cast<std::int64_t>(tile) / grid.NumXTiles;
  const auto begin = [](std::int64_t origin, std::int64_t span, std::int64_t i, std::int64_t area) {
    return std::max(origin + i * span, area);
  };
  const std::int64_t x0 = begin(grid.XTOsiz, grid.XTsiz, column, grid.XOsiz);
  const std::int64_t y0 = begin(grid.YTOsiz, grid.YTsiz, row, grid.YOsiz);
  const std::int64_t x1 =
      std::min<std::int64_t>(grid.XTOsiz + (column + 1) * std::int64_t{grid.XTsiz}, grid.Xsiz);
  const std::int64_t y1 =
      std::min<std::int64_t>(grid.YTOsiz + (row + 1) * std::int64_t{grid.YTsiz}, grid.Ysiz);
  for (KelLong c = 0; c < grid.Csiz; ++c) {
    const std::int64_t dx = grid.XRsiz[c], dy = grid.YRsiz[c];
    const bool isWide = (x1 + dx - 1) / dx > (x0 + dx - 1) / dx;
    if (isWide && (y1 + dy - 1) / dy > (y0 + dy - 1) / dy) return true;
  }
  return false;
}

/// A tile without a packet: one more of a run of such, or the first.
void Checker::NoteMissing(std::uint32_t tile) {
  if (!HasSamples(*index_.Facts().geometry, tile)) return;
  Loss* const last = report_.losses.empty() ? nullptr : &report_.losses.back();
  const bool goesOn = last != nullptr && last->component < 0 &&
                      last->tile + Signed(last->tiles) == tile && !report_.flaws.empty() &&
                      report_.flaws.back().kind == FlawKind::kTile;
  if (goesOn) {
    ++last->tiles;
    ++report_.flaws.back().count;
    return;
  }
  Add(Flaw{.kind = FlawKind::kTile, .tile = tile});
  Add(Loss{.tile = tile});
}

/// Whether a tile has no more than headers without segments of their own.
bool Checker::IsBare(std::uint32_t tile) {
  const KelIndexTilePart* const parts = index_.TileParts().parts;
  return std::ranges::all_of(index_.PartsOf(tile), [&](KelULong i) {
    return parts[i].length == format::kLeastTilePartBytes;
  });
}

CheckReport Checker::Run() {
  const KelImageGeometry& grid = *index_.Facts().geometry;
  CheckPixels(static_cast<std::uint64_t>(grid.Xsiz - grid.XOsiz),
              static_cast<std::uint64_t>(grid.Ysiz - grid.YOsiz));
  report_.bytes = cache_.Size();
  report_.tiles =
      static_cast<std::uint64_t>(grid.NumXTiles) * static_cast<std::uint64_t>(grid.NumYTiles);
  CheckBoxes();
  CheckTileParts();
  CheckPartList();
  for (std::uint32_t tile = 0; tile < report_.tiles; ++tile) {
    CheckTime();
    if (IsBare(tile)) {
      NoteMissing(tile);
    } else {
      CheckTile(tile);
    }
  }
  return std::move(report_);
}

}  // namespace

std::string_view NameOf(FlawKind kind) {
  switch (kind) {
    case FlawKind::kBox:
      return "box";
    case FlawKind::kNoTilePart:
      return "no-tile-part";
    case FlawKind::kTilePartLength:
      return "tile-part-length";
    case FlawKind::kTilePartHeader:
      return "tile-part-header";
    case FlawKind::kTilePartCount:
      return "tile-part-count";
    case FlawKind::kUnplaced:
      return "unplaced";
    case FlawKind::kTile:
      return "tile";
    case FlawKind::kPackets:
      return "packets";
    case FlawKind::kPacketLength:
      return "packet-length";
    case FlawKind::kBand:
      return "band";
    case FlawKind::kChecksum:
      return "checksum";
    case FlawKind::kExcess:
      return "excess";
    case FlawKind::kEnd:
      return "end";
    case FlawKind::kLengthList:
      return "length-list";
  }
  return "";
}

CheckReport Check(RangeSource& source, const CheckParams& params) {
  return Checker(source, params).Run();
}

}  // namespace kel::host
