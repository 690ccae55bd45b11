// Repairing: the examination of each tile turned into a plan of what is copied and what is written
// anew, then the writing. What is sound is copied in one piece.
#include "kel/host/repair.hpp"

#include <algorithm>
#include <map>

#include "RangeIndex.hpp"
#include "SegmentEdit.hpp"
#include "kel/host/limits.hpp"

namespace kel::host {
namespace {

/// As for checking: all packets are read, one after the other.
constexpr std::uint64_t kCacheBytes = std::uint64_t{4} << 20, kBlockBytes = std::uint64_t{1} << 16;
/// Lost packets for each byte of the file, and in any case, that are written as empty ones.
constexpr std::uint64_t kLostOfByte = 4, kLostAlways = std::uint64_t{1} << 16;
constexpr std::uint64_t kMostLost = std::uint64_t{1} << 24;

/// Bytes of the source, behind bytes that are written anew.
struct Piece {
  Bytes written;
  ByteRange copied;
};

struct PlannedPart {
  KelULong tile = 0, part = 0, numParts = 0;
  Bytes header;  ///< from SOT to SOD
  std::vector<Piece> pieces;
  std::uint64_t Length() const {
    std::uint64_t length = header.size();
    for (const Piece& piece : pieces) {
      length += piece.written.size() + piece.copied.to - piece.copied.from;
    }
    return length;
  }
};

void AddBytes(std::vector<Piece>& pieces, ByteView bytes) {
  if (pieces.empty() || pieces.back().copied.from != pieces.back().copied.to) pieces.emplace_back();
  Bytes& written = pieces.back().written;
  written.insert(written.end(), bytes.begin(), bytes.end());
}

void AddCount(std::vector<Piece>& pieces, std::uint64_t count) {
  Bytes bytes(format::kCountBytes);
  PutU32(bytes, 0, count);
  AddBytes(pieces, bytes);
}

void AddCopy(std::vector<Piece>& pieces, ByteRange range) {
  if (pieces.empty()) pieces.emplace_back();
  ByteRange& last = pieces.back().copied;
  if (last.from == last.to) {
    last = range;
  } else if (last.to == range.from) {
    last.to = range.to;
  } else {
    pieces.push_back({{}, range});
  }
}

class Repairer {
 public:
  Repairer(RangeSource& source, const RepairParams& params)
      : params_(params),
        source_(source),
        cache_(source, kCacheBytes, kBlockBytes),
        index_(cache_) {}
  void Plan();
  RepairReport Write(Sink& sink);

 private:
  void PlanTile(std::uint32_t tile);
  PlannedPart PlanPart(const KelIndexFindings& found, std::uint32_t tile, KelULong number,
                       std::uint64_t numLost);
  Bytes HeaderOf(const KelIndexTilePart* part, bool isChanged);
  void AddFlawed(const KelIndexFindings& found, const KelIndexFlaw& flaw,
                 std::vector<Piece>& pieces, Loss& loss);
  void Place(std::vector<PlannedPart> planned, std::uint32_t tile);
  void Add(const Loss& loss);
  void NoteLosses(std::uint32_t tile);
  Loss& LossOf(const KelIndexPacket& packet);
  const KelIndexTilePart* PartOf(std::uint32_t tile, KelULong number);
  std::uint64_t EndOfTileParts();

  const RepairParams& params_;
  RangeSource& source_;
  RangeCache cache_;
  RangeIndex index_;
  std::vector<PlannedPart> parts_;  ///< in the order in which they are written
  std::map<std::pair<KelULong, KelULong>, Loss> ofTile_;
  std::uint64_t numLost_ = 0;
  RepairReport report_;
};

/// The tile-part that is decoded under a number: of several that claim it the first one.
const KelIndexTilePart* Repairer::PartOf(std::uint32_t tile, KelULong number) {
  const KelIndexTilePart* const parts = index_.TileParts().parts;
  const std::span<const KelULong> own = index_.PartsOf(tile);
  const auto found = std::ranges::find_if(own, [&](KelULong i) { return parts[i].part == number; });
  return found == own.end() ? nullptr : parts + *found;
}

Loss& Repairer::LossOf(const KelIndexPacket& packet) {
  return ofTile_[{packet.component, packet.resolution}];
}

/// A header for a tile-part, the old one but for what is no longer true; a bare one for a tile-part
/// that has none that can be read.
Bytes Repairer::HeaderOf(const KelIndexTilePart* part, bool isChanged) {
  Bytes header;
  if (part != nullptr && part->headerBytes != 0) {
    const auto place = static_cast<KelULong>(part - index_.TileParts().parts);
    for (const KelIndexSegment& segment : index_.Segments(place)) {
      if (IsListOfLengths(segment.code)) continue;
      const Bytes bytes = FetchBytes(cache_, segment.offset, segment.offset + segment.length);
      if (isChanged && ChecksumsIn(bytes, segment.code)) continue;
      header.insert(header.end(), bytes.begin(), bytes.end());
    }
  }
  if (!header.empty()) return header;
  const auto marker = static_cast<std::uint8_t>(index_.Facts().markerByte);
  header.resize(format::kLeastTilePartBytes);
  header[0] = header[format::kSotBytes] = marker;
  header[1] = format::kSOT;
  header[3] = format::kSotBytes - format::kMarkerBytes;
  header[format::kSotBytes + 1] = format::kSOD;
  return header;
}

/// A packet with the lengths that its bands have. Of those that are not whole what is sound stays.
void Repairer::AddFlawed(const KelIndexFindings& found, const KelIndexFlaw& flaw,
                         std::vector<Piece>& pieces, Loss& loss) {
  const std::span bands(flaw.bands, flaw.numBands);
  const auto bytesOf = [](const KelIndexBand& band) {
    return band.isWhole ? band.foundBytes : band.mendedBytes;
  };
  const auto addBand = [&](KelULong kind) {
    const auto band =
        std::ranges::find_if(bands, [&](const KelIndexBand& b) { return b.band == kind; });
    AddCount(pieces, band != bands.end() ? bytesOf(*band) : 0);
    if (band == bands.end()) return;
    if (band->isWhole) {
      AddCopy(pieces, {band->offset, band->offset + band->foundBytes});
    } else {
      AddBytes(pieces,
               {found.mended + band->mendedAt, static_cast<std::size_t>(band->mendedBytes)});
    }
  };
  std::uint64_t bytes = 0;
  for (const KelIndexBand& band : bands) {
    bytes += bytesOf(band);
    if (band.isWhole) continue;
    loss.damaged = 1;
    ++(band.mendedBytes != 0 ? report_.mended : report_.emptied);
  }
  if (found.packets[flaw.packet].resolution == 0) return addBand(0);
  AddCount(pieces, bytes == 0 ? 0 : bytes + 3 * format::kCountBytes);
  if (bytes == 0) return;
  for (const KelULong kind : {1U, 2U, 3U}) addBand(kind);
}

PlannedPart Repairer::PlanPart(const KelIndexFindings& found, std::uint32_t tile, KelULong number,
                               std::uint64_t numLost) {
  const KelIndexTilePart* const part = PartOf(tile, number);
  const std::span packets(found.packets, found.count);
  const std::span flaws(found.flaws, found.numFlaws);
  const auto isOfPart = [&](const auto& record) { return record.part == number; };
  const bool isFlawed = std::ranges::any_of(
      flaws, [&](const KelIndexFlaw& flaw) { return isOfPart(packets[flaw.packet]); });
  const bool isChanged = numLost != 0 || isFlawed ||
                         std::ranges::any_of(std::span(found.breaks, found.numBreaks), isOfPart);
  PlannedPart planned{tile, number, 0, HeaderOf(part, isChanged), {}};
  if (!isChanged && part != nullptr) {
    AddCopy(planned.pieces, {part->offset + part->headerBytes, part->offset + part->length});
    return planned;
  }
  auto flaw = flaws.begin();
  for (KelULong i = 0; i < found.count; ++i) {
    const KelIndexPacket& packet = packets[i];
    while (flaw != flaws.end() && flaw->packet < i) ++flaw;
    if (packet.part != number) continue;
    const bool hasFlaw = flaw != flaws.end() && flaw->packet == i;
    if (!hasFlaw || flaw->kinds == KelFlawChecksum) {
      AddCopy(planned.pieces, {packet.offset, packet.offset + packet.length});
    } else {
      ++report_.corrected;
      Loss loss;
      AddFlawed(found, *flaw, planned.pieces, loss);
      if (loss.damaged != 0) LossOf(packet).damaged += loss.damaged;
    }
  }
  for (std::uint64_t i = 0; i < numLost; ++i) AddCount(planned.pieces, 0);
  return planned;
}

void Repairer::Add(const Loss& loss) {
  ++report_.numLosses;
  if (report_.losses.size() < params_.mostEntries) report_.losses.push_back(loss);
}

void Repairer::NoteLosses(std::uint32_t tile) {
  for (auto& [key, loss] : ofTile_) {
    loss.tile = tile;
    loss.component = key.first;
    loss.resolution = key.second;
    Add(loss);
  }
  ofTile_.clear();
}

/// Puts a tile's tile-parts where they stood, in the order of their numbers; those of a tile that
/// had none in front of the first one of a later tile.
void Repairer::Place(std::vector<PlannedPart> planned, std::uint32_t tile) {
  const KelIndexTileParts& list = index_.TileParts();
  std::vector<KelULong> places;
  for (PlannedPart& part : planned) {
    if (const KelIndexTilePart* old = PartOf(tile, part.part)) {
      places.push_back(static_cast<KelULong>(old - list.parts));
    }
    part.numParts =
        planned.size() <= format::kMostCountedTileParts ? static_cast<KelULong>(planned.size()) : 0;
  }
  std::ranges::sort(places);
  for (std::size_t i = 0; i < planned.size(); ++i) {
    if (i < places.size()) {
      parts_[places[i]] = std::move(planned[i]);
    } else {
      parts_.push_back(std::move(planned[i]));
    }
  }
}

void Repairer::PlanTile(std::uint32_t tile) {
  const std::uint64_t most = std::min(kMostLost, kLostAlways + kLostOfByte * cache_.Size());
  const KelIndexFindings& found = index_.Mend(tile, static_cast<KelULong>(most - numLost_));
  numLost_ += found.numLost;
  if (!found.lostAreAll && (found.numLost != 0 || numLost_ == most)) {
    throw Error(Failure::kInput, "more packets are missing than can be made up for");
  }
  if (found.numParts == 0 && found.numLost == 0) return;  // without samples
  std::vector<std::uint64_t> lostOf(std::max<KelULong>(found.numParts, 1));
  for (const KelIndexPacket& packet : std::span(found.lost, found.numLost)) {
    ++LossOf(packet).missing;
    if (packet.part < lostOf.size()) ++lostOf[packet.part];
  }
  std::vector<PlannedPart> planned;
  for (KelULong k = 0; k < lostOf.size(); ++k) {
    planned.push_back(PlanPart(found, tile, k, lostOf[k]));
  }
  NoteLosses(tile);
  // Packets that no order of the tile mentions cannot be written as empty ones.
  if (!found.lostAreAll) Add(Loss{.tile = tile});
  Place(std::move(planned), tile);
}

void Repairer::Plan() {
  const KelImageGeometry& grid = *index_.Facts().geometry;
  CheckPixels(static_cast<std::uint64_t>(grid.Xsiz - grid.XOsiz),
              static_cast<std::uint64_t>(grid.Ysiz - grid.YOsiz));
  const KelIndexTileParts& list = index_.TileParts();
  parts_.resize(list.count);
  const auto numTiles =
      static_cast<std::uint32_t>(grid.NumXTiles) * static_cast<std::uint32_t>(grid.NumYTiles);
  for (std::uint32_t tile = 0; tile < numTiles; ++tile) {
    CheckTime();
    PlanTile(tile);
  }
  // Where tiles stood in their order, those that were missing come where they belong.
  std::vector<KelULong> tiles;
  for (KelULong i = 0; i < list.count; ++i) {
    if (!parts_[i].header.empty()) tiles.push_back(parts_[i].tile);
  }
  std::erase_if(parts_, [](const PlannedPart& part) { return part.header.empty(); });
  if (std::ranges::is_sorted(tiles)) std::ranges::stable_sort(parts_, {}, &PlannedPart::tile);
}

std::uint64_t Repairer::EndOfTileParts() {
  const KelIndexTileParts& list = index_.TileParts();
  if (list.count == 0) return index_.Facts().firstTilePartOffset;
  return list.parts[list.count - 1].offset + list.parts[list.count - 1].length;
}

RepairReport Repairer::Write(Sink& sink) {
  const KelIndexFacts& facts = index_.Facts();
  Bytes header;
  for (const KelIndexSegment& segment : std::span(facts.segments, facts.numSegments)) {
    if (IsListOfLengths(segment.code)) continue;
    const Bytes bytes = FetchBytes(cache_, segment.offset, segment.offset + segment.length);
    header.insert(header.end(), bytes.begin(), bytes.end());
  }
  std::uint64_t length = header.size() + format::kMarkerBytes;
  for (const PlannedPart& part : parts_) length += part.Length();
  report_.bytes = length;
  if (facts.isBoxed) {
    const KelIndexBox& box = BoxOfCodeStream(facts);
    Bytes boxes = FetchBytes(cache_, 0, box.offset);
    AppendBoxHeader(boxes, box.type, length);
    report_.bytes += boxes.size();
    sink.Write(boxes);
  }
  sink.Write(header);
  for (PlannedPart& part : parts_) {
    PutU16(part.header, format::kIsotAt, part.tile);
    PutU32(part.header, format::kPsotAt, part.Length());
    part.header.at(format::kTPsotAt) = static_cast<std::uint8_t>(part.part);
    part.header.at(format::kTNsotAt) = static_cast<std::uint8_t>(part.numParts);
    sink.Write(part.header);
    for (const Piece& piece : part.pieces) {
      sink.Write(piece.written);
      CopyBytes(source_, piece.copied, sink);
    }
  }
  const std::uint8_t end[] = {static_cast<std::uint8_t>(facts.markerByte), format::kEOC};
  sink.Write(end);
  // Boxes behind the code stream, unless its box does not say where it ends.
  if (facts.isBoxed && facts.codeStreamEnd >= EndOfTileParts()) {
    const ByteRange behind{facts.codeStreamEnd, std::max(facts.codeStreamEnd, source_.Size())};
    CopyBytes(source_, behind, sink);
    report_.bytes += behind.to - behind.from;
  }
  sink.Finish();
  return std::move(report_);
}

}  // namespace

RepairReport Repair(RangeSource& source, Sink& sink, const RepairParams& params) {
  Repairer repairer(source, params);
  repairer.Plan();
  return repairer.Write(sink);
}

}  // namespace kel::host
