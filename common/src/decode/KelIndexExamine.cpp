// What stands of a tile in the data and what does not: its packets, bit by bit.
//
// Tile-parts are gone through as the tile loop of a decoder does, and each packet as when it is
// decoded, so that what is found here to be lost is what a picture lacks. What a tile-part has lost
// takes the packets behind it along, unless the order tells where the next tile-part goes on.
#include <algorithm>

#include "KelDecMap.h"
#include "KelPacketCheck.h"
#include "KelPacketRead.h"
#include "KelPacketWalk.h"
#include "KelTileLayout.h"
#include "base/KelBytes.h"
#include "base/KelChecksum.h"
#include "base/KelMemFuncDefs.h"
#include "decode/KelImageTiles.h"
#include "decode/KelStreamIndex.h"
#include "format/KelBlockGrid.h"

namespace kel {
namespace {

/// How often over the bytes of a tile may be searched for true ends of packets.
constexpr std::int64_t kSearchesOfTile = 4;

struct Examination {
  IndexState& index;
  TileRecord& tile;
  KelULong mostLost;
  BandEncoder encode;  ///< may be null
  CheckRoom room;

  ExaminedTile& Found() const { return index.examined; }
  KelDecDataMgr& Data() const { return *index.image->decoder->dataMgr; }
  PacketWalk& Walk() const { return *tile.dec->walk; }
};

KelIndexPacket PacketRecord(const Examination& at, const PacketId& id, KelULong part) {
  const std::int32_t levels = at.tile.comps[id.component].dec->numLevels;
  return {static_cast<KelULong>(id.component),
          static_cast<KelULong>(id.resolution),
          static_cast<KelULong>(id.layer),
          static_cast<KelULong>(levels - id.resolution),
          AsCount(id.precinct),
          0,
          0,
          part};
}

// ---- What is found ----

void Break(const Examination& at, KelLong kind, const KelIndexTilePart& part, std::int64_t from) {
  ExaminedTile& found = at.Found();
  const std::uint64_t end = part.offset + part.length;
  GrowByOne(found.breaks, found.findings.numBreaks, found.obtainedBreaks);
  found.breaks[found.findings.numBreaks++] = {kind, part.part, AsCount(from),
                                              end - std::min(end, AsCount(from))};
}

KelIndexBand BandOf(const CheckedBand& band) {
  const auto kind = static_cast<KelULong>(band.number == 0 ? 0 : (band.number - 1) % 3 + 1);
  return {kind, AsCount(band.start), AsCount(band.claimed), AsCount(band.found), band.isWhole, 0,
          0};
}

// ---- Mending ----

/// Makes bytes of what is sound of a band that is not whole. Further layers repeat what the first
/// one has, so that only this one is worth it; and blocks must be such as the encoder makes.
void Mend(const Examination& at, const PacketId& id, const CheckedBand& band, KelIndexBand& to) {
  const TileCompRecord& record = at.tile.comps[id.component];
  const BandPart part = PartOfBand(record, band.number, id.precinct);
  const bool isOfEncoder = part.layout == SignLayout::kSeparateSigns &&
                           part.widthExponent == kBlockExponent &&
                           part.heightExponent == kBlockExponent;
  if (at.encode == nullptr || !band.canMend || id.layer != 0 || !isOfEncoder) return;
  const auto cells = MendedCells(at.Data(), part, band, id.resolution == 0);
  if (!cells) return;
  const auto bytes = at.encode({part.x0, part.x1, part.y0, part.y1}, cells.Data());
  ExaminedTile& found = at.Found();
  if (found.obtainedMended - found.numMended < bytes.Size()) {
    const std::uint64_t wanted = SaturatingAdd(2 * found.obtainedMended, bytes.Size());
    auto larger = OwnedArray<std::uint8_t>::Make(wanted);
    KelMemCopy(larger.Data(), found.mended, found.numMended);
    KelFree(found.mended);
    found.mended = larger.Release();
    found.obtainedMended = wanted;
  }
  KelMemCopy(found.mended + found.numMended, bytes.Data(), bytes.Size());
  to.mendedAt = found.numMended;
  to.mendedBytes = bytes.Size();
  found.numMended += bytes.Size();
}

// ---- Packets ----

/// Records a packet; the read position is lost.
void Record(const Examination& at, const PacketId& id, const KelIndexPacket& packet,
            const CheckedPacket& checked, bool isRight) {
  ExaminedTile& found = at.Found();
  KelIndexFindings& findings = found.findings;
  GrowByOne(found.packets, findings.count, found.obtainedPackets);
  found.packets[findings.count++] = packet;
  const CheckedBand* const bandsEnd = checked.bands + checked.numBands;
  KelIndexFlaw flaw{
      findings.count - 1, 0, AsCount(checked.claimed), static_cast<KelULong>(checked.numBands), {}};
  if (!isRight) flaw.kinds |= KelFlawChecksum;
  if (checked.end != checked.start + checked.claimed) flaw.kinds |= KelFlawLength;
  if (!std::all_of(checked.bands, bandsEnd, [](const CheckedBand& b) { return b.IsSound(); })) {
    flaw.kinds |= KelFlawBand;
  }
  if (flaw.kinds == 0) return;
  std::transform(checked.bands, bandsEnd, flaw.bands, BandOf);
  for (int b = 0; b < checked.numBands; ++b) Mend(at, id, checked.bands[b], flaw.bands[b]);
  GrowByOne(found.flaws, findings.numFlaws, found.obtainedFlaws);
  found.flaws[findings.numFlaws++] = flaw;
}

// ---- What is lost ----

/// Notes the packet under the walk as lost. False when no more may be noted.
bool LosePacket(const Examination& at, KelULong part) {
  ExaminedTile& found = at.Found();
  if (found.findings.numLost >= at.mostLost) {
    found.findings.lostAreAll = false;
    return false;
  }
  GrowByOne(found.lost, found.findings.numLost, found.obtainedLost);
  found.lost[found.findings.numLost++] = PacketRecord(at, *CurrentPacket(at.Walk()), part);
  PacketHandled(at.Walk());
  return true;
}

void LoseTheRest(const Examination& at, KelULong part) {
  while (CurrentPacket(at.Walk()) != nullptr && LosePacket(at, part)) {
  }
}

/// What is left of a tile-part is lost. False when the packets behind it are lost as well.
bool LosePart(const Examination& at, KelULong part) {
  PacketWalk& walk = at.Walk();
  const auto isByComponent = [&] {
    return CurrentPacket(walk) != nullptr && walk.entries[walk.entry].order == KelCPRL;
  };
  if (!isByComponent()) return false;
  const std::int32_t component = walk.at.component;
  while (isByComponent() && walk.at.component <= component) {
    if (!LosePacket(at, part)) return PassLostTilePart(walk);
  }
  return true;
}

// ---- Checksums ----

/// Bytes that are looked at at once.
constexpr std::uint64_t kPieceBytes = 65536;

std::uint32_t ChecksumOf(KelDecDataMgr& data, std::int64_t start, std::int64_t end) {
  Checksum sum;
  if (!data.MoveTo(start)) return 0;
  for (std::uint64_t left = AsCount(end - start); left != 0;) {
    const std::uint64_t piece = std::min(left, kPieceBytes);
    if (data.EnsureBuffered(piece) != kBufferedOk) return 0;
    sum.Add(data.ReadPointer(), piece);
    data.SkipForward(piece);
    left -= piece;
  }
  return sum.Value();
}

/// The contents of a segment of checksums; empty for another one.
GatheredBytes ReadChecksumSegment(KelDecDataMgr& data, const KelIndexSegment& segment) {
  constexpr std::uint32_t kBehind = format::kMarkerBytes + 2;
  if (segment.code != format::kCOM || segment.length < format::kChecksumSegmentBytes) return {};
  if (!data.MoveTo(static_cast<std::int64_t>(segment.offset + kBehind))) return {};
  if (data.EnsureBuffered(segment.length - kBehind) != kBufferedOk || data.ReadUInt(2) != 0)
    return {};
  const std::uint64_t length = segment.length - kBehind - 2;
  GatheredBytes bytes = GatherBytes(data, length, length, 0);
  const bool isOne = bytes.length == length && LoadBE32(bytes.bytes.Data()) == format::kChecksumTag;
  return isOne ? std::move(bytes) : GatheredBytes{};
}

/// The checksums of a tile-part's packets, from its first one on: as many as sound segments say.
OwnedArray<std::uint32_t> ReadChecksums(Examination& at, const KelIndexTilePart& part) {
  OwnedArray<std::uint32_t> sums;
  KelULong count = 0;
  const KelIndexSegment* const segments =
      SegmentsOf(at.index, static_cast<KelULong>(&part - at.index.parts), count);
  std::uint64_t used = 0;
  for (KelULong s = 0; s < count; ++s) {
    const GatheredBytes bytes = ReadChecksumSegment(at.Data(), segments[s]);
    if (bytes.length == 0) continue;
    Checksum own;
    const std::uint64_t last = bytes.length - format::kChecksumBytes;
    own.Add(bytes.bytes.Data(), last);
    if (own.Value() != LoadBE32(bytes.bytes.Data() + last)) {
      KelIndexTilePart damaged = part;
      damaged.length = segments[s].offset + segments[s].length - part.offset;
      Break(at, KelDamageHeader, damaged, static_cast<std::int64_t>(segments[s].offset));
      break;
    }
    const std::uint64_t numSums = last / format::kChecksumBytes - 1;
    sums.Grow(used + numSums, used);
    for (std::uint64_t i = 0; i < numSums; ++i) {
      sums[static_cast<std::size_t>(used++)] =
          LoadBE32(bytes.bytes.Data() + (i + 1) * format::kChecksumBytes);
    }
  }
  return sums;
}

// ---- Tile-parts ----

/// Goes through the packets of a tile-part whose header has been read. False when one does not fit.
bool ExaminePackets(Examination& at, const KelIndexTilePart& part) {
  KelDecDataMgr& data = at.Data();
  const auto start = data.GetPosition();
  const OwnedArray<std::uint32_t> sums = ReadChecksums(at, part);
  data.MoveTo(start);
  std::size_t number = 0;
  const auto end = static_cast<std::int64_t>(part.offset + part.length);
  while (const PacketId* id = CurrentPacket(at.Walk())) {
    if (data.GetPosition() >= end) break;
    const CheckedPacket checked =
        CheckPacket(data, at.tile.comps[id->component], *id, end, at.room);
    if (!checked.isThere) {
      Break(at, KelDamagePacket, part, checked.start);
      return false;
    }
    KelIndexPacket packet = PacketRecord(at, *id, part.part);
    packet.offset = AsCount(checked.start);
    packet.length = static_cast<KelULong>(checked.end - checked.start);
    bool isRight = true;
    if (number < sums.Size()) {
      isRight = ChecksumOf(data, checked.start, checked.end) == sums[number];
      ++at.Found().findings.numChecksums;
    }
    ++number;
    Record(at, *id, packet, checked, isRight);
    data.MoveTo(checked.end);
    PacketHandled(at.Walk());
  }
  if (number == 0) PassEmptyTilePart(at.Walk());
  if (data.GetPosition() < end) Break(at, KelDamageExcess, part, data.GetPosition());
  return true;
}

/// Reads a tile-part. False when nothing behind it can be placed.
bool ExaminePart(Examination& at, const KelIndexTilePart& part) {
  KelDecDataMgr& data = at.Data();
  if (!data.MoveTo(static_cast<std::int64_t>(part.offset))) return false;
  const HeaderResult header = ReadTilePartHeader(at.index.image->map, data, at.tile);
  const bool isPast = AsCount(data.GetPosition()) > part.offset + part.length;
  if (header.refusal.errCode == KelOK && !header.incomplete && !isPast) {
    at.room.bytesToSearch += kSearchesOfTile * static_cast<std::int64_t>(part.length);
    return ExaminePackets(at, part) || LosePart(at, part.part);
  }
  Break(at, KelDamageHeader, part, static_cast<std::int64_t>(part.offset));
  return at.tile.dec->walk != nullptr && LosePart(at, part.part);
}

/// A tile of which no header could be read: its packets are those of the main header's style.
bool LayOutByMainHeader(const Examination& at) {
  ImageMap& map = at.index.image->map;
  if (RefusalBy([&] { LayOutTile(map, at.tile); }).errCode != KelOK) return false;
  at.tile.dec->walk = MakePacketWalk(at.tile, map.numComps);
  return true;
}

void Examine(Examination& at) {
  ImageMap& map = at.index.image->map;
  KelIndexFindings& findings = at.Found().findings;
  const auto number = static_cast<KelULong>(at.tile.index);
  RestartTile(map, at.tile);
  ScopeGuard restart([&] { RestartTile(map, at.tile); });
  BeginTile(at.index, at.tile);
  bool goesOn = true;
  for (KelULong k = 0; k < format::kMostTileParts && goesOn; ++k) {
    const KelIndexTilePart* part = FindPartOfTile(at.index, number, k);
    if (part == nullptr || (k != 0 && WalkIsComplete(at.Walk()))) break;
    findings.numParts = k + 1;
    goesOn = ExaminePart(at, *part);
  }
  findings.lostAreAll =
      findings.lostAreAll && (at.tile.dec->walk != nullptr || LayOutByMainHeader(at));
  if (at.tile.dec->walk == nullptr) return;
  LoseTheRest(at, findings.numParts != 0 ? findings.numParts - 1 : 0);
  // Changes of the order may leave packets out that no tile-part has brought.
  if (findings.numLost == 0 && !WalkIsComplete(at.Walk())) findings.lostAreAll = false;
}

}  // namespace

void ReleaseExamined(ExaminedTile& found) noexcept {
  KelFree(found.packets);
  KelFree(found.flaws);
  KelFree(found.lost);
  KelFree(found.breaks);
  KelFree(found.mended);
  found = {};
}

const KelIndexFindings* FindingsOf(IndexState& index, KelULong tile, KelULong mostLost,
                                   BandEncoder encode) {
  if (TilePartsOf(index) == nullptr || tile >= AsCount(index.image->map.numTiles)) return nullptr;
  ReleaseExamined(index.examined);
  ScopeGuard release([&] { ReleaseExamined(index.examined); });
  index.examined.findings.lostAreAll = true;
  Examination at{index, index.image->map.tiles[tile], mostLost, encode, {{}, 0}};
  Examine(at);
  release.Disarm();
  KelIndexFindings& findings = index.examined.findings;
  findings.packets = index.examined.packets;
  findings.flaws = index.examined.flaws;
  findings.lost = index.examined.lost;
  findings.breaks = index.examined.breaks;
  findings.mended = index.examined.mended;
  return &findings;
}

}  // namespace kel
