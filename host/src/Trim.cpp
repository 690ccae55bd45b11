// Leaving out resolutions and tiles without decoding.
//
// Every order of packets stays what it is when the resolutions above are left out: none compares
// places on the canvas that halving would make equal. A tile-part of which nothing is left goes,
// unless its place in the sequence has a meaning.
#include "kel/host/trim.hpp"

#include <algorithm>

#include "RangeIndex.hpp"
#include "RegionDecode.hpp"
#include "SegmentEdit.hpp"
#include "kel/host/session.hpp"

namespace kel::host {
namespace {

/// Copied at once: large beside the cost of a call, small beside the memory that trimming takes.
constexpr std::size_t kCopyBytes = std::size_t{1} << 20;
/// Bytes between what is copied that are fetched along.
constexpr std::uint64_t kJoinedGap = 4096;

/// One axis of the tile grid: which tiles stay, and where their edges lie afterwards.
struct Axis {
  std::int64_t first = 0, count = 0;  ///< columns or rows of the old grid
  std::int64_t begin = 0, end = 0;    ///< of the image area
  std::int64_t tileOrigin = 0, tileSpan = 0;
};

/// tiles: those from `from` to before `to` are wanted, of the grid that begins at origin.
Axis PlanAxis(std::int64_t origin, std::int64_t span, std::int64_t begin, std::int64_t end,
              std::int64_t from, std::int64_t to, unsigned reduce) {
  const auto edge = [&](std::int64_t p) { return origin + p * span; };
  const auto halved = [&](std::int64_t x) { return HalvedCoordinate(x, reduce); };
  Axis axis;
  axis.begin = halved(std::max(begin, edge(from)));
  axis.end = halved(std::min(end, edge(to)));
  // Tiles at the borders in which no sample of the resolution lies go.
  while (from < to && halved(edge(from + 1)) <= axis.begin) ++from;
  while (to > from && halved(edge(to - 1)) >= axis.end) --to;
  if (from >= to) throw Error(Failure::kParameter, "nothing of the picture would be left");
  axis.first = from;
  axis.count = to - from;
  axis.tileOrigin = std::min(halved(edge(from)), axis.begin);
  axis.tileSpan = (axis.count == 1 ? axis.end : halved(edge(from + 1))) - axis.tileOrigin;
  bool isGrid = axis.tileSpan > 0 && axis.tileOrigin + axis.count * axis.tileSpan >= axis.end;
  for (std::int64_t p = 1; p < axis.count; ++p) {
    isGrid = isGrid && halved(edge(from + p)) == axis.tileOrigin + p * axis.tileSpan;
  }
  if (!isGrid) {
    throw Error(Failure::kParameter,
                "tiles of " + std::to_string(span) + " samples do not stay a grid when halved " +
                    std::to_string(reduce) + " times; decode and encode instead");
  }
  return axis;
}

/// What is copied of a tile-part.
struct PlannedPart {
  KelULong tile = 0;                ///< its number in the new grid
  KelULong part = 0, numParts = 0;  ///< TPsot and TNsot
  Bytes header;                     ///< from SOT to SOD
  std::vector<ByteRange> packets;
  std::vector<std::uint32_t> checksums;  ///< of the packets
  std::uint64_t Length() const {
    std::uint64_t length = header.size();
    for (const ByteRange& range : packets) length += range.to - range.from;
    return length;
  }
};

class Trimmer {
 public:
  Trimmer(RangeSource& source, const TrimParams& params)
      : source_(source), cache_(source), index_(cache_), params_(params) {}
  void Plan();
  void Write(Sink& sink);

 private:
  void PlanGrid();
  void PlanTile(std::uint32_t tile, KelULong newNumber);
  void TakePackets(std::uint32_t tile, std::vector<PlannedPart*> ofPart);
  Bytes Header(std::span<const KelIndexSegment> segments);
  Bytes Edited(const KelIndexSegment& place, Bytes segment);
  Bytes FrontBoxes() const;
  void LoadWindow(std::uint64_t from);
  void Copy(const ByteRange& range, Sink& sink);
  void Append(ByteView bytes, Sink& sink);

  RangeSource& source_;
  RangeCache cache_;
  RangeIndex index_;
  const TrimParams& params_;
  Axis across_, down_;
  /// By the place of the tile-part in the data; those without a header go.
  std::vector<PlannedPart> parts_;
  bool hasSeenCod_ = false;               ///< in the header at work: only the first one holds
  std::vector<std::uint32_t> checksums_;  ///< in the header at work
  std::vector<ByteRange> copied_;         ///< all that is copied, in its order
  std::size_t nextCopied_ = 0;            ///< the first of it that was not fetched whole
  Bytes window_;                          ///< what was fetched
  std::uint64_t windowStart_ = 0;
  Bytes gathered_;  ///< what waits to be written
};

void Trimmer::PlanGrid() {
  const KelImageGeometry& grid = *index_.Facts().geometry;
  const Region all{0, 0, UINT32_MAX, UINT32_MAX};
  const CanvasBox box = BoxOf(grid, params_.region.value_or(all));
  const auto first = [](std::int64_t at, std::int64_t origin, std::int64_t span) {
    return (at - origin) / span;
  };
  const auto last = [](std::int64_t at, std::int64_t origin, std::int64_t span) {
    return (at - 1 - origin) / span + 1;
  };
  across_ = PlanAxis(grid.XTOsiz, grid.XTsiz, grid.XOsiz, grid.Xsiz,
                     first(box.x0, grid.XTOsiz, grid.XTsiz), last(box.x1, grid.XTOsiz, grid.XTsiz),
                     params_.reduce);
  down_ = PlanAxis(grid.YTOsiz, grid.YTsiz, grid.YOsiz, grid.Ysiz,
                   first(box.y0, grid.YTOsiz, grid.YTsiz), last(box.y1, grid.YTOsiz, grid.YTsiz),
                   params_.reduce);
}

Bytes Trimmer::Edited(const KelIndexSegment& place, Bytes segment) {
  if (IsListOfLengths(place.code)) return {};  // no longer true
  const auto componentBytes =
      static_cast<std::size_t>(format::ComponentIndexBytes(index_.Facts().geometry->Csiz));
  switch (place.code) {
    case format::kSIZ:
      SetGrid(segment, {across_.end, down_.end, across_.begin, down_.begin, across_.tileSpan,
                        down_.tileSpan, across_.tileOrigin, down_.tileOrigin});
      break;
    case format::kCOD:
      if (hasSeenCod_) return {};
      hasSeenCod_ = true;
      LowerLevels(segment, place.code, componentBytes, params_.reduce);
      break;
    case format::kCOC:
      LowerLevels(segment, place.code, componentBytes, params_.reduce);
      break;
    case format::kQCD:
    case format::kQCC:
      LowerSteps(segment, place.code, componentBytes, params_.reduce);
      break;
    case format::kCOM:
      if (const auto found = ChecksumsIn(segment, place.code); found && params_.reduce != 0) {
        checksums_.insert(checksums_.end(), found->begin(), found->end() - 1);
        return {};
      }
      break;
    default:
      break;
  }
  return segment;
}

Bytes Trimmer::Header(std::span<const KelIndexSegment> segments) {
  Bytes header;
  hasSeenCod_ = false;
  checksums_.clear();
  if (segments.empty()) return header;
  const std::uint64_t start = segments.front().offset;
  const Bytes all = FetchBytes(source_, start, segments.back().offset + segments.back().length);
  for (const KelIndexSegment& segment : segments) {
    const auto from = all.begin() + static_cast<std::ptrdiff_t>(segment.offset - start);
    const Bytes edited = Edited(segment, Bytes(from, from + segment.length));
    header.insert(header.end(), edited.begin(), edited.end());
  }
  return header;
}

/// Gives the packets that stay to their tile-parts, with their checksums.
void Trimmer::TakePackets(std::uint32_t tile, std::vector<PlannedPart*> ofPart) {
  const KelIndexPackets& found = index_.Packets({tile, -1, params_.reduce, 0});
  if (!found.areAll) {
    throw Error(Failure::kInput,
                "packets of tile " + std::to_string(tile) + " are missing or damaged");
  }
  std::vector<std::size_t> numPackets(ofPart.size(), 0);
  std::vector<std::vector<std::uint32_t>> kept(ofPart.size());
  for (const KelIndexPacket& packet : std::span(found.packets, found.count)) {
    PlannedPart* part = packet.part < ofPart.size() ? ofPart[packet.part] : nullptr;
    if (part == nullptr) continue;
    const std::size_t number = numPackets[packet.part]++;
    if (packet.levelsAbove < params_.reduce) continue;
    if (number < part->checksums.size()) kept[packet.part].push_back(part->checksums[number]);
    const ByteRange range{packet.offset, packet.offset + packet.length};
    if (!part->packets.empty() && part->packets.back().to == range.from) {
      part->packets.back().to = range.to;
    } else {
      part->packets.push_back(range);
    }
  }
  for (std::size_t i = 0; i < ofPart.size(); ++i) {
    if (ofPart[i] != nullptr) InsertChecksums(ofPart[i]->header, kept[i]);
  }
}

void Trimmer::PlanTile(std::uint32_t tile, KelULong newNumber) {
  const KelIndexTilePart* found = index_.TileParts().parts;
  const auto numbers = index_.PartsOf(tile);
  std::vector<PlannedPart*> ofPart(format::kMostTileParts, nullptr);
  // In component order an empty tile-part is a component's turn.
  bool mayDrop = index_.Facts().progressionOrder != KelCPRL;
  for (const KelULong i : numbers) {
    PlannedPart& part = parts_[i];
    if (ofPart[found[i].part] != nullptr) continue;  // claimed twice: the first one is decoded
    const auto segments = index_.Segments(i);
    part.tile = newNumber;
    part.part = found[i].part;
    part.numParts = found[i].numParts;
    part.header = Header(segments);
    part.checksums = checksums_;
    ofPart[found[i].part] = &part;
    mayDrop = mayDrop && std::ranges::none_of(segments, [](const KelIndexSegment& segment) {
                return segment.code == format::kCOD || segment.code == format::kPOC;
              });
    if (params_.reduce == 0) {
      part.packets = {{found[i].offset + found[i].headerBytes, found[i].offset + found[i].length}};
    }
  }
  if (params_.reduce == 0) return;
  TakePackets(tile, ofPart);
  KelULong count = 0;
  for (const KelULong i : numbers) {
    PlannedPart& part = parts_[i];
    if (part.header.empty()) continue;
    const bool wasEmpty = found[i].length == found[i].headerBytes;
    const bool isBare = part.header.size() == format::kLeastTilePartBytes;
    if (mayDrop && count != 0 && part.packets.empty() && !wasEmpty && isBare) {
      part.header.clear();
    } else {
      part.part = count++;
    }
  }
  for (const KelULong i : numbers) {
    if (parts_[i].numParts != 0) parts_[i].numParts = count;
  }
}

void Trimmer::Plan() {
  const KelIndexFacts& facts = index_.Facts();
  if (params_.reduce > kMostHalvings) {
    throw Error(Failure::kParameter, "at most 31 halvings are possible");
  }
  if (params_.reduce != 0 && facts.numMappings != 0) {
    throw Error(Failure::kParameter, "an image with a palette cannot be reduced");
  }
  if (!index_.TileParts().areRegular) {
    throw Error(Failure::kInput, "its tile-parts are not where their lengths say");
  }
  PlanGrid();
  parts_.resize(index_.TileParts().count);
  const std::int64_t oldAcross = facts.geometry->NumXTiles;
  for (std::int64_t q = 0; q < down_.count; ++q) {
    for (std::int64_t p = 0; p < across_.count; ++p) {
      PlanTile(static_cast<std::uint32_t>((q + down_.first) * oldAcross + p + across_.first),
               static_cast<KelULong>(q * across_.count + p));
    }
  }
}

/// The boxes up to the code stream's, with the picture's new size.
Bytes Trimmer::FrontBoxes() const {
  const KelIndexFacts& facts = index_.Facts();
  const std::span boxes(facts.boxes, facts.numBoxes);
  Bytes bytes = FetchBytes(source_, 0, BoxOfCodeStream(facts).offset);
  const auto number = [&](std::uint64_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
      value = value << 8 | bytes.at(static_cast<std::size_t>(at) + i);
    return value;
  };
  for (const KelIndexBox& box : boxes) {
    if (box.type != format::BoxType("jp2h") && box.type != format::BoxType("vrmh")) continue;
    const std::uint64_t end = std::min<std::uint64_t>(box.offset + box.length, bytes.size());
    for (std::uint64_t at = box.offset + box.headerBytes; at + 16 <= end;) {
      if (number(at + 4) == format::BoxType("ihdr")) {
        PutU32(bytes, static_cast<std::size_t>(at) + 8,
               static_cast<std::uint64_t>(down_.end - down_.begin));
        PutU32(bytes, static_cast<std::size_t>(at) + 12,
               static_cast<std::uint64_t>(across_.end - across_.begin));
      }
      at += std::max<std::uint32_t>(number(at), 8);
    }
  }
  return bytes;
}

/// Fetches the bytes from a place on, and with them what is copied next if it lies near.
void Trimmer::LoadWindow(std::uint64_t from) {
  std::uint64_t to = from;
  for (; nextCopied_ < copied_.size(); ++nextCopied_) {
    const ByteRange& range = copied_[nextCopied_];
    if (to != from && (range.from < to || range.from - to > kJoinedGap)) break;
    to = std::min(range.to, from + kCopyBytes);
    if (to != range.to) break;
  }
  window_.resize(static_cast<std::size_t>(to - from));
  windowStart_ = from;
  source_.Fetch(from, window_);
}

/// Copies the next range of those that are copied.
void Trimmer::Copy(const ByteRange& range, Sink& sink) {
  for (std::uint64_t from = range.from; from < range.to;) {
    if (from < windowStart_ || from >= windowStart_ + window_.size()) LoadWindow(from);
    const auto at = static_cast<std::size_t>(from - windowStart_);
    const auto count =
        static_cast<std::size_t>(std::min<std::uint64_t>(range.to - from, window_.size() - at));
    Append(ByteView(window_).subspan(at, count), sink);
    from += count;
  }
}

/// Writes in large pieces.
void Trimmer::Append(ByteView bytes, Sink& sink) {
  if (gathered_.size() + bytes.size() > kCopyBytes) {
    sink.Write(gathered_);
    gathered_.clear();
  }
  if (bytes.size() > kCopyBytes / 2) return sink.Write(bytes);
  gathered_.insert(gathered_.end(), bytes.begin(), bytes.end());
}

void Trimmer::Write(Sink& sink) {
  const KelIndexFacts& facts = index_.Facts();
  const Bytes header = Header(std::span(facts.segments, facts.numSegments));
  std::uint64_t length = header.size() + format::kMarkerBytes;
  const ByteRange behind = {facts.codeStreamEnd, facts.isBoxed ? source_.Size() : 0};
  for (const PlannedPart& part : parts_) {
    length += part.Length();
    if (part.header.empty()) continue;
    copied_.insert(copied_.end(), part.packets.begin(), part.packets.end());
  }
  if (behind.from < behind.to) copied_.push_back(behind);
  if (facts.isBoxed) {
    Bytes boxes = FrontBoxes();
    AppendBoxHeader(boxes, BoxOfCodeStream(facts).type, length);
    Append(boxes, sink);
  }
  Append(header, sink);
  for (PlannedPart& part : parts_) {
    if (part.header.empty()) continue;
    PutU16(part.header, format::kIsotAt, part.tile);
    PutU32(part.header, format::kPsotAt, part.Length());
    part.header.at(format::kTPsotAt) = static_cast<std::uint8_t>(part.part);
    part.header.at(format::kTNsotAt) = static_cast<std::uint8_t>(part.numParts);
    Append(part.header, sink);
    for (const ByteRange& range : part.packets) Copy(range, sink);
  }
  const std::uint8_t end[] = {static_cast<std::uint8_t>(facts.markerByte), format::kEOC};
  Append(end, sink);
  if (behind.from < behind.to) Copy(behind, sink);
  sink.Write(gathered_);
  sink.Finish();
}

}  // namespace

void Trim(RangeSource& source, const TrimParams& params, Sink& sink) {
  Trimmer trimmer(source, params);
  trimmer.Plan();
  trimmer.Write(sink);
}

}  // namespace kel::host
