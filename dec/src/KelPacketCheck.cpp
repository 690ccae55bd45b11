// Checking packets.
#include "KelPacketCheck.h"

#include <algorithm>

#include "KelBandMend.h"
#include "KelPacketRead.h"
#include "KelTileLayout.h"
#include "base/KelInt.h"
#include "format/KelBlockGrid.h"

namespace kel {
namespace {

/// Room for a large band is first obtained for so many bytes.
constexpr std::uint64_t kFirstPieceBytes = std::uint64_t{1} << 20;

/// What the checking of a packet goes by.
struct Checking {
  KelDecDataMgr& data;
  TileCompRecord& record;
  const PacketId& id;
  std::int64_t partEnd;
  CheckRoom& room;

  std::int32_t FirstBand() const { return id.resolution > 0 ? 3 * id.resolution - 2 : 0; }
  int NumBands() const { return id.resolution > 0 ? kDetailBands : 1; }
};

std::uint64_t BlocksOf(const BandPart& part) {
  if (part.IsEmpty()) return 0;
  return SaturatingMul(AsCount(CountBlocks(part.x0, part.x1, part.widthExponent)),
                       AsCount(CountBlocks(part.y0, part.y1, part.heightExponent)));
}

/// Decodes the band at the read position, whose bits cannot pass `limit`, over cells that hold one
/// row: all rows of a row of blocks go to the same ones.
CheckedBand CheckBand(const Checking& at, std::int32_t number, std::int64_t claimed,
                      std::int64_t limit) {
  KelDecDataMgr& data = at.data;
  const std::int64_t start = data.GetPosition();
  BandPart part = PartOfBand(at.record, number, at.id.precinct);
  part.end = limit;
  // A block takes a bit at least: a band of fewer is not whole, and what its rows would take is
  // not obtained for it.
  const bool isTooShort = BlocksOf(part) > SaturatingMul(8, AsCount(limit - start));
  const bool goesBeyond = limit - start > claimed;
  if (isTooShort || (goesBeyond && at.room.bytesToSearch <= 0)) {
    return {.number = number,
            .start = start,
            .claimed = claimed,
            .found = std::min(claimed, limit - start),
            .isWhole = false,
            .canMend = false};
  }
  const auto width = part.IsEmpty() ? 0 : AsCount(std::int64_t{part.x1} - part.x0);
  OwnedArray<std::int32_t>& cells = at.room.cells;
  if (cells.Size() < width) cells = OwnedArray<std::int32_t>::Make(width);
  BandDecoder decoder;
  decoder.Begin(data, part, false, 1.0F);
  while (!decoder.IsOver()) decoder.DecodeRow(data, cells.Data(), 0);
  const bool isWhole = decoder.Outcome().end == BandEnd::kWhole;
  const std::int64_t found = data.GetPosition() - start;
  if (goesBeyond) at.room.bytesToSearch -= found;
  return {.number = number,
          .start = start,
          .claimed = claimed,
          .found = found,
          .isWhole = isWhole,
          .canMend = false};
}

void Keep(CheckedPacket& packet, const CheckedBand& band) {
  packet.bands[packet.numBands++] = band;
}

/// What lengths agree on is right: a band that ends elsewhere has damaged bits.
void RequireEnd(CheckedPacket& packet, std::int64_t end) {
  CheckedBand& last = packet.bands[packet.numBands - 1];
  last.isWhole = last.isWhole && last.start + last.found == end;
  last.canMend = !last.isWhole;
}

/// Bands that lie where their lengths say.
void CheckByLengths(const Checking& at, CheckedPacket& packet, std::int64_t end) {
  at.data.MoveTo(packet.start + format::kCountBytes);
  packet.numBands = 0;
  for (std::int32_t b = 0; b < at.NumBands(); ++b) {
    const std::int64_t claimed = at.data.ReadUInt(format::kCountBytes);
    if (claimed == 0) continue;
    const std::int64_t start = at.data.GetPosition();
    const std::int64_t bandEnd = std::min(start + claimed, end);
    Keep(packet, CheckBand(at, at.FirstBand() + b, claimed, bandEnd));
    RequireEnd(packet, bandEnd);
    at.data.MoveTo(bandEnd);
  }
}

/// Bands one behind the other, as they end by themselves. Returns where the last one ends; the
/// largest value where one does not end.
std::int64_t CheckByBits(const Checking& at, CheckedPacket& packet) {
  at.data.MoveTo(packet.start + format::kCountBytes);
  packet.numBands = 0;
  for (std::int32_t b = 0; b < at.NumBands(); ++b) {
    if (at.data.GetPosition() > at.partEnd - format::kCountBytes) return INT64_MAX;
    const std::int64_t claimed = at.data.ReadUInt(format::kCountBytes);
    if (claimed == 0) continue;
    Keep(packet, CheckBand(at, at.FirstBand() + b, claimed, at.partEnd));
    if (!packet.bands[packet.numBands - 1].isWhole) return INT64_MAX;
  }
  return at.data.GetPosition();
}

/// Where a packet of detail bands ends; the largest value where that cannot be told.
std::int64_t EndOfDetails(const Checking& at, CheckedPacket& packet, bool fits) {
  const std::int64_t claimedEnd = packet.start + packet.claimed;
  const std::int64_t byBands =
      EndByBandLengths(at.data, packet.start + format::kCountBytes, at.partEnd);
  const bool bandsLead = byBands != INT64_MAX && ((fits && byBands == claimedEnd) ||
                                                  CanFollow(at.data, byBands, at.partEnd));
  if (bandsLead) {
    CheckByLengths(at, packet, byBands);
    return byBands;
  }
  const bool endIsGood = fits && CanFollow(at.data, claimedEnd, at.partEnd);
  const std::int64_t byBits = CheckByBits(at, packet);
  if (endIsGood) return claimedEnd;
  at.data.MoveTo(packet.start);
  return byBits != INT64_MAX && CanFollow(at.data, byBits, at.partEnd) ? byBits : INT64_MAX;
}

/// The same of the lowest band, whose length nothing confirms but its own bits.
std::int64_t EndOfLowest(const Checking& at, CheckedPacket& packet, bool fits) {
  const std::int64_t claimedEnd = packet.start + packet.claimed;
  const std::int64_t bandBytes = packet.claimed - format::kCountBytes;
  if (fits) {
    at.data.MoveTo(packet.start + format::kCountBytes);
    packet.numBands = 0;
    Keep(packet, CheckBand(at, 0, bandBytes, claimedEnd));
    if (packet.bands[0].IsSound()) return claimedEnd;
    at.data.MoveTo(packet.start);
    RequireEnd(packet, claimedEnd);
    if (CanFollow(at.data, claimedEnd, at.partEnd)) return claimedEnd;
  }
  at.data.MoveTo(packet.start + format::kCountBytes);
  packet.numBands = 0;
  Keep(packet, CheckBand(at, 0, bandBytes, at.partEnd));
  const std::int64_t byBits = at.data.GetPosition();
  at.data.MoveTo(packet.start);
  const bool isEnd = packet.bands[0].isWhole && CanFollow(at.data, byBits, at.partEnd);
  return isEnd ? byBits : INT64_MAX;
}

}  // namespace

OwnedArray<std::int32_t> MendedCells(KelDecDataMgr& data, const BandPart& part,
                                     const CheckedBand& band, bool isLowest) {
  WorkMeter work{};
  BandPart counted = part;
  counted.work = &work;
  const std::uint64_t length = AsCount(band.claimed);
  const bool isTooShort = BlocksOf(part) > SaturatingMul(8, length);
  if (part.IsEmpty() || isTooShort || !CanMend(counted, length)) return {};
  const std::int64_t width = std::int64_t{part.x1} - part.x0;
  auto cells = OwnedArray<std::int32_t>::Make(
      SaturatingMul(AsCount(width), AsCount(std::int64_t{part.y1} - part.y0)));
  if (!data.MoveTo(band.start)) return {};
  const GatheredBytes bytes = GatherBytes(data, length, kFirstPieceBytes, kMendSlackBytes);
  MendBand({bytes.bytes.Data(), static_cast<std::size_t>(bytes.length)}, counted, isLowest,
           cells.Data(), static_cast<std::ptrdiff_t>(width));
  return cells;
}

CheckedPacket CheckPacket(KelDecDataMgr& data, TileCompRecord& record, const PacketId& id,
                          std::int64_t partEnd, CheckRoom& room) {
  CheckedPacket packet{};
  packet.start = data.GetPosition();
  if (packet.start > partEnd - format::kCountBytes) return packet;
  const std::int64_t length = PeekLength(data, packet.start);
  if (length == INT64_MAX) return packet;
  packet.claimed = format::kCountBytes + length;
  packet.end = packet.start + packet.claimed;
  if (length != 0) {
    EnsureBands(record);
    const Checking at{data, record, id, partEnd, room};
    const bool fits = packet.end <= partEnd;
    packet.end = id.resolution > 0 ? EndOfDetails(at, packet, fits) : EndOfLowest(at, packet, fits);
  }
  packet.isThere = packet.end != INT64_MAX;
  data.MoveTo(packet.isThere ? packet.end : packet.start);
  return packet;
}

}  // namespace kel
