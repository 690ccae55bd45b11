// Reading the packets of one tile-part.
//
// Relies on the walk for the order and on the block decoder for the bands; leaves tile-part
// headers and the choice of tile-parts to the decoding flow.
#include "KelPacketRead.h"

#include <algorithm>

#include "KelBandMend.h"
#include "KelPacketLengths.h"
#include "KelPacketWalk.h"
#include "KelTileLayout.h"
#include "base/KelBytes.h"
#include "base/KelRaise.h"

namespace kel {
namespace {

/// Room for a large packet is first obtained for so many bytes.
constexpr std::uint64_t kFirstPieceBytes = std::uint64_t{1} << 20;

/// Finding a packet takes about as long as decoding so many samples, where many are empty.
constexpr std::uint64_t kWorkOfPacket = 1024;

/// Zeros behind the copy of a packet, so that the kernels reach its end.
constexpr std::uint64_t kReadableBehindBand = kMostBlockBytes + kLoadSlackBytes;

enum class Outcome : std::uint8_t { kHandled, kNotArrived, kDamaged };

/// The packet at work.
struct PacketAt {
  const PacketId& id;
  TileCompRecord& record;
  std::int64_t start;   ///< of its length
  std::int64_t length;  ///< as that says

  std::int64_t Body() const { return start + format::kCountBytes; }
  std::int64_t End() const { return Body() + length; }
  bool HasDetails() const { return id.resolution > 0; }
};

void Note(const PartReading& part, KelLong kind, std::int64_t from, std::int64_t to) {
  NoteDamage(part.damages, {kind, part.tile.index, part.part, AsCount(part.basis + from),
                            AsCount(std::max(to, from) - from)});
}

/// Whether the data reach up to a position, which is not before the read position. That stays.
bool HasArrived(KelDecDataMgr& data, std::int64_t position) {
  const std::int64_t here = data.GetPosition();
  const std::uint64_t ahead = AsCount(position - here);
  const int buffered = data.EnsureBuffered(ahead);
  if (buffered != kAboveCapacity || !data.IndexAllowed()) return buffered == kBufferedOk;
  const bool arrived = data.MoveTo(position - 1) && !data.AtEnd();
  data.MoveTo(here);
  return arrived;
}

// ---- Bands ----

/// The first cell of the part of a band that a packet carries.
std::int32_t* FirstCell(const PacketAt& packet, std::int32_t b, const BandPart& part,
                        std::int32_t* cells) {
  const BandRecord& band = packet.record.dec->bands[b];
  return cells + (band.row + part.y0 - band.box.y0) * packet.record.dec->rowStride + band.column +
         part.x0 - band.box.x0;
}

/// How a band was read: where its bits end, and whether they are whole.
struct BandReading {
  bool isWhole;
  std::int64_t end;
};

/// Decodes one band of a packet at the read position, without reading beyond `limit`.
BandReading DecodeBand(const PartReading& part, const PacketAt& packet, std::int32_t* cells,
                       std::int32_t b, std::int64_t limit) {
  TileCompRecord& record = packet.record;
  BandRecord& band = record.dec->bands[b];
  KelDecDataMgr& data = part.data;
  // Decoding fills a band that is one precinct; otherwise it is filled with zeros first.
  if (PrecinctsOf(record, packet.id.resolution).Count() > 1) {
    EnsureBandFilled(record, b, cells);
  }
  BandPart blocks = PartOfBand(record, b, packet.id.precinct);
  blocks.end = limit;
  blocks.work = &part.work;
  std::int32_t* const first = FirstCell(packet, b, blocks, cells);
  const auto stride = static_cast<std::ptrdiff_t>(record.dec->rowStride);
  const std::int64_t start = data.GetPosition();
  BandEnd end = DecodeBandBlocks(data, blocks, first, stride).end;
  if (end != BandEnd::kWhole && !band.isFilled) {
    // Blocks that were not reached must be zero: start again over zeros.
    EnsureBandFilled(record, b, cells);
    if (data.MoveTo(start)) end = DecodeBandBlocks(data, blocks, first, stride).end;
  }
  band.isFilled = true;
  return {end == BandEnd::kWhole, data.GetPosition()};
}

/// Makes the part of a band that a packet carries zero.
void ClearBand(const PacketAt& packet, std::int32_t b, std::int32_t* cells) {
  const BandPart part = PartOfBand(packet.record, b, packet.id.precinct);
  EnsureBandFilled(packet.record, b, cells);
  std::int32_t* row = FirstCell(packet, b, part, cells);
  for (std::int32_t y = part.y0; y < part.y1; ++y, row += packet.record.dec->rowStride) {
    std::fill_n(row, std::max(part.x1 - part.x0, 0), 0);
  }
}

/// Decodes again what of a band is sound, after its damage has shown: its blocks did not end where
/// its length says. Where too much was mended already, what was decoded stays as it is.
void MendDamage(const PartReading& part, const PacketAt& packet, std::int32_t* cells,
                std::int32_t b, std::int64_t start, std::int64_t end) {
  BandPart blocks = PartOfBand(packet.record, b, packet.id.precinct);
  blocks.work = &part.work;
  if (!CanMend(blocks, AsCount(end - start))) return Note(part, KelDamageBand, start, end);
  ClearBand(packet, b, cells);
  part.data.MoveTo(start);
  const GatheredBytes bytes =
      GatherBytes(part.data, AsCount(end - start), kFirstPieceBytes, kMendSlackBytes);
  const MendOutcome mended =
      MendBand({bytes.bytes.Data(), static_cast<std::size_t>(bytes.length)}, blocks,
               !packet.HasDetails(), FirstCell(packet, b, blocks, cells),
               static_cast<std::ptrdiff_t>(packet.record.dec->rowStride));
  const std::int64_t from = start + static_cast<std::int64_t>(mended.firstBad);
  KelDamage damage{KelDamageBand, part.tile.index, part.part, AsCount(part.basis + from),
                   mended.endOfBad - mended.firstBad};
  damage.component = packet.id.component;
  damage.resolution = packet.id.resolution;
  NoteDamage(part.damages, damage);
}

/// What the cells of a band held before a further layer is decoded over them.
OwnedArray<std::int32_t> KeepBand(const PacketAt& packet, std::int32_t b,
                                  const std::int32_t* cells) {
  const BandRecord& band = packet.record.dec->bands[b];
  if (packet.id.layer == 0 || !band.isFilled || band.isDamaged) return {};
  const BandPart part = PartOfBand(packet.record, b, packet.id.precinct);
  if (part.IsEmpty()) return {};
  const std::size_t width = AsIndex(part.x1 - part.x0);
  auto kept = OwnedArray<std::int32_t>::Make(width * AsCount(part.y1 - part.y0));
  const std::int32_t* row = FirstCell(packet, b, part, const_cast<std::int32_t*>(cells));
  for (std::size_t y = 0; y < kept.Size() / width; ++y, row += packet.record.dec->rowStride) {
    std::copy_n(row, width, kept.Data() + y * width);
  }
  return kept;
}

void RestoreBand(const PacketAt& packet, std::int32_t b, const OwnedArray<std::int32_t>& kept,
                 std::int32_t* cells) {
  const BandPart part = PartOfBand(packet.record, b, packet.id.precinct);
  const std::size_t width = AsIndex(part.x1 - part.x0);
  std::int32_t* row = FirstCell(packet, b, part, cells);
  for (std::size_t y = 0; y < kept.Size() / width; ++y, row += packet.record.dec->rowStride) {
    std::copy_n(kept.Data() + y * width, width, row);
  }
}

std::int32_t FirstBand(const PacketAt& packet) {
  return packet.HasDetails() ? 3 * packet.id.resolution - 2 : 0;
}

/// Decodes the detail bands of a packet whose lengths agree: each from where they say.
void DecodeByLengths(const PartReading& part, const PacketAt& packet, std::int64_t packetEnd,
                     std::int32_t* cells) {
  KelDecDataMgr& data = part.data;
  data.MoveTo(packet.Body());
  for (std::int32_t b = FirstBand(packet); b < FirstBand(packet) + kDetailBands; ++b) {
    const std::int64_t bandBytes = data.ReadUInt(format::kCountBytes);
    const std::int64_t start = data.GetPosition();
    const std::int64_t end = std::min(start + bandBytes, packetEnd);
    if (bandBytes == 0) continue;
    const auto kept = KeepBand(packet, b, cells);
    const BandReading band = DecodeBand(part, packet, cells, b, end);
    if (band.isWhole && band.end == end) continue;
    MendDamage(part, packet, cells, b, start, end);
    if (kept) RestoreBand(packet, b, kept, cells);
    packet.record.dec->bands[b].isDamaged = !kept;
    data.MoveTo(end);
  }
}

/// Decodes the detail bands of a packet whose lengths do not agree: one behind the other, as they
/// end by themselves. Returns where the last ends; what is behind a band that does not end within
/// the tile-part is zero.
std::int64_t DecodeByBits(const PartReading& part, const PacketAt& packet, std::int32_t* cells) {
  KelDecDataMgr& data = part.data;
  data.MoveTo(packet.Body());
  bool isWhole = true;
  for (std::int32_t b = FirstBand(packet); b < FirstBand(packet) + kDetailBands; ++b) {
    isWhole = isWhole && data.GetPosition() <= part.end - format::kCountBytes;
    if (isWhole && data.ReadUInt(format::kCountBytes) == 0) continue;
    isWhole = isWhole && DecodeBand(part, packet, cells, b, part.end).isWhole;
    if (!isWhole) ClearBand(packet, b, cells);
  }
  return isWhole ? data.GetPosition() : INT64_MAX;
}

// ---- Taking packets ----

/// Whether the bands of a tile's packets can be taken, to be decoded when the tile is delivered:
/// each band comes once and whole, and its blocks have separate signs.
bool BandsCanBeTaken(const TileRecord& tile) {
  if (tile.dec->walk->keepsCounters || tile.dec->params.style->numLayers != 1) return false;
  for (std::int32_t c = 0; c < tile.dec->walk->numComps; ++c) {
    const TileCompRecord& record = tile.comps[c];
    if (record.dec->params.style->cbInterleavedSigns != 0) return false;
    for (std::int32_t r = 0; r <= record.dec->decodeRes; ++r) {
      if (PrecinctsOf(record, r).Count() > 1) return false;
    }
  }
  return true;
}

/// Notes where the bands of a packet are, whose bytes are given. False when the lengths in it do
/// not fit each other.
bool NoteBands(TileCompRecord& record, std::int32_t resolution, const std::uint8_t* bytes,
               std::uint64_t lengthBytes, std::uint64_t readableBytes) {
  EnsureBands(record);
  const std::int32_t last = 3 * resolution;
  const std::uint8_t* const end = bytes + readableBytes;
  std::uint64_t left = lengthBytes;
  for (std::int32_t b = std::max(last - 2, 0); b <= last; ++b) {
    std::uint64_t bandBytes = left;
    if (resolution != 0) {
      if (left < sizeof(std::uint32_t)) return false;
      bandBytes = LoadBE32(bytes);
      bytes += sizeof(std::uint32_t);
      left -= sizeof(std::uint32_t);
    }
    if (bandBytes > left || bandBytes == 1) return false;
    BandRecord& band = record.dec->bands[b];
    band.coded = bandBytes != 0 ? bytes : nullptr;
    band.codedBytes = bandBytes;
    band.readableBytes = static_cast<std::uint64_t>(end - bytes);
    bytes += bandBytes;
    left -= bandBytes;
  }
  return left == 0;
}

/// Takes a packet whose length, not 0, has been read and which has arrived whole. From memory only
/// the places of its bands are kept, from a stream a copy of its bytes. False when it must be
/// decoded as it is read.
bool TakePacket(KelDecDataMgr& data, TileCompRecord& record, std::int32_t resolution,
                std::uint64_t lengthBytes) {
  if (data.InMemory()) {
    const std::uint8_t* const bytes = data.ReadPointer();
    const std::uint64_t available = data.Available();
    data.SkipForward(lengthBytes);
    return NoteBands(record, resolution, bytes, lengthBytes, available);
  }
  GatheredBytes gathered = GatherBytes(data, lengthBytes, kFirstPieceBytes, kReadableBehindBand);
  if (gathered.length < lengthBytes) return false;
  EnsureResolutions(record);
  std::uint8_t*& copy = record.dec->resolutions[resolution].codedCopy;
  if (copy != nullptr) return false;
  const std::uint64_t readable = gathered.bytes.Size();
  copy = gathered.bytes.Release();
  return NoteBands(record, resolution, copy, lengthBytes, readable);
}

// ---- Packets ----

/// The packet cannot be decoded now: because it is damaged, where all of the tile-part is there.
Outcome Unfit(const PartReading& part) {
  return part.endIsKnown ? Outcome::kDamaged : Outcome::kNotArrived;
}

Outcome DecodeDetails(const PartReading& part, const PacketAt& packet, bool fits,
                      std::int32_t* cells) {
  KelDecDataMgr& data = part.data;
  const std::int64_t byBands = EndByBandLengths(part.data, packet.Body(), part.end);
  if (fits && byBands == packet.End()) {
    DecodeByLengths(part, packet, packet.End(), cells);
    data.MoveTo(packet.End());
    return Outcome::kHandled;
  }
  if (!part.endIsKnown) return Outcome::kNotArrived;
  if (byBands != INT64_MAX && CanFollow(part.data, byBands, part.end)) {
    DecodeByLengths(part, packet, byBands, cells);
    data.MoveTo(byBands);
    return Outcome::kHandled;
  }
  const bool endIsGood = fits && CanFollow(part.data, packet.End(), part.end);
  const std::int64_t byBits = DecodeByBits(part, packet, cells);
  if (endIsGood) {
    if (byBits != packet.End()) Note(part, KelDamageBand, packet.Body(), packet.End());
    data.MoveTo(packet.End());
    return Outcome::kHandled;
  }
  data.MoveTo(packet.start);
  if (byBits != INT64_MAX && CanFollow(part.data, byBits, part.end)) {
    data.MoveTo(byBits);
    return Outcome::kHandled;
  }
  for (std::int32_t b = FirstBand(packet); b < FirstBand(packet) + kDetailBands; ++b) {
    ClearBand(packet, b, cells);
  }
  return Outcome::kDamaged;
}

/// Decodes the lowest band, whose length nothing confirms but its own bits.
Outcome DecodeLowest(const PartReading& part, const PacketAt& packet, bool fits,
                     std::int32_t* cells) {
  KelDecDataMgr& data = part.data;
  if (fits) {
    data.MoveTo(packet.Body());
    const auto kept = KeepBand(packet, 0, cells);
    const BandReading band = DecodeBand(part, packet, cells, 0, packet.End());
    if (band.isWhole && band.end == packet.End()) return Outcome::kHandled;
    data.MoveTo(packet.start);
    if (!part.endIsKnown) {
      // When more has arrived it will show which of the two is right.
      part.tile.dec->progress.isChanged = true;
      return Outcome::kNotArrived;
    }
    if (CanFollow(part.data, packet.End(), part.end)) {
      MendDamage(part, packet, cells, 0, packet.Body(), packet.End());
      if (kept) RestoreBand(packet, 0, kept, cells);
      packet.record.dec->bands[0].isDamaged = !kept;
      data.MoveTo(packet.End());
      return Outcome::kHandled;
    }
  }
  if (!part.endIsKnown) return Outcome::kNotArrived;
  data.MoveTo(packet.Body());
  const BandReading band = DecodeBand(part, packet, cells, 0, part.end);
  data.MoveTo(packet.start);
  if (band.isWhole && CanFollow(part.data, band.end, part.end)) {
    data.MoveTo(band.end);
    return Outcome::kHandled;
  }
  ClearBand(packet, 0, cells);
  return Outcome::kDamaged;
}

/// Handles the packet at the read position. Unless it is handled, the reader stands on it again.
Outcome HandlePacket(const PartReading& part, TileCompRecord& record, const PacketId& id) {
  KelDecDataMgr& data = part.data;
  PacketAt packet{id, record, data.GetPosition(), 0};
  if (packet.start > part.end - format::kCountBytes) return Unfit(part);
  packet.length = PeekLength(data, packet.start);
  if (packet.length == INT64_MAX) return Unfit(part);
  const bool fits = packet.length <= part.end - packet.Body();
  if (fits && !HasArrived(data, packet.End())) return Outcome::kNotArrived;

  const bool isWanted = id.resolution <= record.dec->decodeRes && packet.length != 0;
  Outcome outcome = fits ? Outcome::kHandled : Unfit(part);
  if (isWanted && (fits || part.endIsKnown)) record.dec->hasData = true;
  if (!isWanted) {
    const bool isPassed = part.endIsKnown && PassPacket(data, packet.HasDetails(), part.end);
    if (isPassed) outcome = Outcome::kHandled;
    if (!isPassed && fits) data.SkipForward(AsCount(format::kCountBytes + packet.length));
  } else if (part.tile.dec->progress.takesBands) {
    data.SkipForward(format::kCountBytes);
    const bool isTaken = fits && TakePacket(data, record, id.resolution, AsCount(packet.length));
    part.tile.dec->progress.mustNotTake = !isTaken;
    if (!isTaken) outcome = Outcome::kNotArrived;
  } else if (fits || part.endIsKnown) {
    EnsureCoefficients(record);
    const BufferLock lock(record.shown.waveletData->ImageBuffer);
    if (!lock) Raise(KelErrNoMemory, kModuleImageMap);
    auto* cells = lock.As<std::int32_t>();
    outcome = packet.HasDetails() ? DecodeDetails(part, packet, fits, cells)
                                  : DecodeLowest(part, packet, fits, cells);
  }
  if (outcome == Outcome::kHandled) {
    record.dec->decodedBytes += AsCount(data.GetPosition() - packet.start);
  } else {
    data.MoveTo(packet.start);
  }
  return outcome;
}

/// Whether the read position is at the end of the tile-part's data.
bool AtPartEnd(const PartReading& part) {
  if (part.data.GetPosition() >= part.end) return part.endIsKnown;
  return part.end == INT64_MAX && part.data.IsEOC();
}

/// Closes a tile-part that has been read to where it ends, or as far as it can be.
PartEnd Close(const PartReading& part, PartEnd how) {
  const std::int64_t here = part.data.GetPosition();
  const bool isDamaged = how == PartEnd::kDamaged;
  // What only notes the places of bands is read again when something does not fit.
  const bool isFinal = !isDamaged || !part.tile.dec->progress.takesBands;
  if (part.endIsKnown && here < part.end && isFinal) {
    Note(part, isDamaged ? KelDamagePacket : KelDamageExcess, here, part.end);
  }
  return how;
}

}  // namespace

BandPart PartOfBand(const TileCompRecord& record, std::int32_t b, std::int64_t precinct) {
  const int resolution = (b + 2) / 3;
  const bool isLowest = resolution == 0;
  const int halving = isLowest ? 0 : 1;
  const GridPartition precincts = PrecinctsOf(record, resolution);
  const KelCodingStyle& style = *record.dec->params.style;
  const Box box = PrecinctOfBand(record.dec->bands[b].box, precincts, precinct, isLowest);
  return {
      static_cast<std::int32_t>(box.x0),
      static_cast<std::int32_t>(box.x1),
      static_cast<std::int32_t>(box.y0),
      static_cast<std::int32_t>(box.y1),
      static_cast<std::uint8_t>(std::min(style.blockWidthExp, precincts.widthExp - halving)),
      static_cast<std::uint8_t>(std::min(style.blockHeightExp, precincts.heightExp - halving)),
      style.cbInterleavedSigns != 0 ? SignLayout::kInterleavedSigns : SignLayout::kSeparateSigns};
}

PartEnd ReadTilePartPackets(const PartReading& part) {
  TileRecord& tile = part.tile;
  TileProgress& progress = tile.dec->progress;
  if (progress.takesBands && !BandsCanBeTaken(tile)) progress.mustNotTake = true;
  if (progress.mustNotTake) return PartEnd::kCutOff;
  progress.partIsOpen = true;
  progress.resumePosition = part.data.GetPosition();
  std::int32_t highest = 0;
  for (std::int32_t c = 0; c < tile.dec->walk->numComps; ++c) {
    highest = std::max(highest, tile.comps[c].dec->decodeRes);
  }
  while (const PacketId* at = CurrentPacket(*tile.dec->walk)) {
    if (IsPastResolution(*tile.dec->walk, highest)) {
      progress.isComplete = !progress.hasLosses;
      return PartEnd::kTileComplete;
    }
    if (AtPartEnd(part)) {
      if (progress.partIsEmpty) PassEmptyTilePart(*tile.dec->walk);
      return PartEnd::kPartEnded;
    }
    CountWork(part.work, kWorkOfPacket);
    const Outcome outcome = HandlePacket(part, tile.comps[at->component], *at);
    if (outcome == Outcome::kNotArrived) return PartEnd::kCutOff;
    if (outcome == Outcome::kDamaged) return Close(part, PartEnd::kDamaged);
    PacketHandled(*tile.dec->walk);
    progress.resumePosition = part.data.GetPosition();
    progress.isChanged = true;
    progress.partIsEmpty = false;
  }
  progress.isComplete = WalkIsComplete(*tile.dec->walk) && !progress.hasLosses;
  return Close(part, progress.isComplete ? PartEnd::kTileComplete : PartEnd::kPartEnded);
}

}  // namespace kel
