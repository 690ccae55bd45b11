// Reading the packets of one tile-part.
//
// Relies on the walk for the order and on the block decoder for the bands; leaves tile-part
// headers and the choice of tile-parts to the decoding flow.
#include "KelPacketRead.h"

#include <algorithm>

#include "KelBlockDecode.h"
#include "KelPacketWalk.h"
#include "KelTileLayout.h"
#include "base/KelRaise.h"

namespace kel {
namespace {

constexpr std::uint64_t kLengthBytes = 4;

/// Large packets are gathered in steps of this many bytes at most while they really arrive.
constexpr std::uint64_t kGatherBytes = std::uint64_t{1} << 20;

/// Zeros behind the copy of a packet, so that the kernels reach its end.
constexpr std::uint64_t kReadableBehindBand = kMostBlockBytes + kLoadSlackBytes;

/// The tile-part being read, and where its length says that it ends.
struct PartReading {
  KelDecDataMgr& data;
  TileRecord& tile;
  std::int64_t end;     ///< position behind the tile-part, when its length can be trusted
  bool endIsChecked;    ///< a boundary stands at `end`
  bool endIsDismissed;  ///< none does, or the length does not tell
};

/// End of the tile-part's data: a marker that ends it, the end of the data, or the place that its
/// length names, once that has come into view and turned out to be a boundary.
bool AtPartEnd(PartReading& part) {
  if (part.data.AtTilePartBoundary()) return true;
  if (!part.endIsChecked && !part.endIsDismissed) {
    const BoundaryCheck check = CheckBoundary(part.data, part.end);
    part.endIsChecked = check == BoundaryCheck::kIsBoundary;
    part.endIsDismissed = check == BoundaryCheck::kIsNone;
  }
  return part.endIsChecked && part.data.GetPosition() >= part.end;
}

/// Decodes one band of a precinct at the read position. Its data are said to end at bandEnd. False
/// when it needs bytes behind the end of the data.
bool DecodeBand(KelDecDataMgr& data, TileCompRecord& record, std::int32_t* cells, std::int32_t b,
                const PacketId& at, std::int64_t bandEnd) {
  BandRecord& band = record.dec->bands[b];
  // Decoding fills a band that is one precinct; otherwise it is filled with zeros first.
  if (record.dec->resolutions[at.resolution].precincts.Count() > 1)
    EnsureBandFilled(record, b, cells);

  const BandPart part = PartOfBand(record, b, at.precinct);
  std::int32_t* const first = cells + (band.row + part.y0 - band.box.y0) * record.dec->rowStride +
                              band.column + part.x0 - band.box.x0;
  const auto stride = static_cast<std::ptrdiff_t>(record.dec->rowStride);
  const std::int64_t start = data.GetPosition();
  BandEnd end = DecodeBandBlocks(data, part, first, stride).end;
  if (end != BandEnd::kWhole && !band.isFilled) {
    // Blocks that were not reached must be zero: start again over zeros.
    EnsureBandFilled(record, b, cells);
    if (data.MoveTo(start)) end = DecodeBandBlocks(data, part, first, stride).end;
  }
  band.isFilled = true;
  if (end == BandEnd::kOutOfRange) data.MoveTo(bandEnd);
  return end != BandEnd::kCutOff;
}

/// Decodes the bands of a packet whose length, not 0, has been read. False when the data end before
/// they do.
bool DecodePacketBands(KelDecDataMgr& data, TileCompRecord& record, const PacketId& at,
                       std::uint64_t lengthBytes) {
  EnsureCoefficients(record);
  const BufferLock lock(record.waveletData->ImageBuffer);
  if (!lock) Raise(KelErrNoMemory, kModuleImageMap);
  auto* cells = lock.As<std::int32_t>();
  const std::int64_t packetEnd = data.GetPosition() + static_cast<std::int64_t>(lengthBytes);
  if (at.resolution == 0) {
    return DecodeBand(data, record, cells, 0, at, packetEnd);
  }
  for (std::int32_t b = 3 * at.resolution - 2; b <= 3 * at.resolution; ++b) {
    const std::int64_t bandBytes = data.ReadUInt(kLengthBytes);
    const std::int64_t bandEnd = std::min(data.GetPosition() + bandBytes, packetEnd);
    if (data.ReadPastEnd()) return false;
    if (bandBytes != 0 && !DecodeBand(data, record, cells, b, at, bandEnd)) return false;
  }
  return true;
}

/// A copy of the bytes of a packet, with room behind them, or nothing when they have not all
/// arrived. Memory is obtained as they arrive, so that a length alone obtains little.
OwnedArray<std::uint8_t> GatherPacket(KelDecDataMgr& data, std::uint64_t lengthBytes,
                                      std::uint64_t roomBytes) {
  OwnedArray<std::uint8_t> bytes;
  std::uint64_t filled = 0;
  while (filled < lengthBytes) {
    const std::uint64_t room = std::min(lengthBytes, filled + std::max(filled, kGatherBytes));
    auto larger = OwnedArray<std::uint8_t>::Make(room + roomBytes);
    KelMemCopy(larger.Data(), bytes.Data(), filled);
    bytes = std::move(larger);
    const std::uint64_t got = data.ReadBytes(bytes.Data() + filled, room - filled);
    if (got != room - filled) return {};
    filled = room;
  }
  return bytes;
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
      if (record.dec->resolutions[r].precincts.Count() > 1) return false;
    }
  }
  return true;
}

/// Notes where the bands of a packet are, whose bytes are given. False when the lengths in it do
/// not fit each other.
bool NoteBands(TileCompRecord& record, std::int32_t resolution, const std::uint8_t* bytes,
               std::uint64_t lengthBytes, std::uint64_t readableBytes) {
  const std::int32_t last = 3 * resolution;
  const std::uint8_t* const end = bytes + readableBytes;
  std::uint64_t left = lengthBytes;
  for (std::int32_t b = std::max(last - 2, 0); b <= last; ++b) {
    std::uint64_t bandBytes = left;
    if (resolution != 0) {
      if (left < kLengthBytes) return false;
      bandBytes = LoadBE32(bytes);
      bytes += kLengthBytes;
      left -= kLengthBytes;
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
  auto bytes = GatherPacket(data, lengthBytes, kReadableBehindBand);
  if (!bytes) return false;
  std::uint8_t*& copy = record.dec->resolutions[resolution].codedCopy;
  if (copy != nullptr) return false;
  const std::uint64_t readable = bytes.Size();
  copy = bytes.Release();
  return NoteBands(record, resolution, copy, lengthBytes, readable);
}

/// Handles a packet that does not fit the window of a stream. False when it has not arrived whole.
bool HandleLargePacket(const PartReading& part, TileCompRecord& record, const PacketId& at,
                       std::uint64_t lengthBytes, bool isWanted) {
  KelDecDataMgr& data = part.data;
  const std::int64_t start = data.GetPosition();
  bool isWhole;
  if (isWanted && part.tile.dec->progress.takesBands) {
    data.SkipForward(kLengthBytes);
    isWhole = TakePacket(data, record, at.resolution, lengthBytes);
    part.tile.dec->progress.mustNotTake = !isWhole;
  } else if (isWanted) {
    data.SkipForward(kLengthBytes);
    const auto bytes = GatherPacket(data, lengthBytes, 0);
    isWhole = static_cast<bool>(bytes);
    if (isWhole) {
      KelDecDataMgr packet{};
      packet.InitFromMemory({bytes.Data(), static_cast<KelULong>(lengthBytes)}, data.GetFlavour());
      DecodePacketBands(packet, record, at, lengthBytes);
    }
  } else {
    isWhole = data.SkipForward(kLengthBytes + lengthBytes) == kLengthBytes + lengthBytes;
  }
  if (!isWhole) data.MoveTo(start);
  return isWhole;
}

/// Handles the packet at the read position. False when it has not arrived whole; the reader then
/// stands on it again, if the stream can move back. Bands that run past the end of the data can be
/// read again when more has arrived, unless the tile-part is known to have arrived.
bool HandlePacket(const PartReading& part, TileCompRecord& record, const PacketId& at) {
  KelDecDataMgr& data = part.data;
  if (data.EnsureBuffered(kLengthBytes) != kBufferedOk) return false;
  std::uint64_t lengthBytes = 0;
  for (std::uint64_t k = 0; k < kLengthBytes; ++k) {
    lengthBytes = lengthBytes << 8 | data.PeekByte(k);
  }
  const bool isWanted = at.resolution <= record.dec->decodeRes && lengthBytes != 0;
  // A length that points behind the tile-part is damaged. The bands need not be: they tell
  // themselves where they end.
  const std::uint64_t left = AsCount(part.end - data.GetPosition() - std::int64_t{kLengthBytes});
  if (part.endIsChecked && lengthBytes > left) {
    if (!isWanted || left == 0) return false;
    lengthBytes = left;
  }
  const std::uint64_t packetBytes = kLengthBytes + lengthBytes;

  const int buffered = data.EnsureBuffered(packetBytes);
  if (buffered == kAboveCapacity) {
    if (!HandleLargePacket(part, record, at, lengthBytes, isWanted)) return false;
  } else if (buffered != kBufferedOk) {
    return false;
  } else if (isWanted) {
    const std::int64_t start = data.GetPosition();
    data.SkipForward(kLengthBytes);
    if (part.tile.dec->progress.takesBands) {
      part.tile.dec->progress.mustNotTake = !TakePacket(data, record, at.resolution, lengthBytes);
      if (part.tile.dec->progress.mustNotTake) return false;
      record.dec->decodedBytes += packetBytes;
      return true;
    }
    const bool isWhole = DecodePacketBands(data, record, at, lengthBytes);
    if (!isWhole && !part.endIsChecked) {
      part.tile.dec->progress.isChanged = true;
      data.MoveTo(start);
      return false;
    }
  } else {
    data.SkipForward(packetBytes);
  }
  record.dec->decodedBytes += packetBytes;
  return true;
}

}  // namespace

BandPart PartOfBand(const TileCompRecord& record, std::int32_t b, std::int64_t precinct) {
  const int resolution = (b + 2) / 3;
  const bool isLowest = resolution == 0;
  const int halving = isLowest ? 0 : 1;
  const GridPartition& precincts = record.dec->resolutions[resolution].precincts;
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

BoundaryCheck CheckBoundary(KelDecDataMgr& data, std::int64_t position) {
  const std::int64_t distance = position - data.GetPosition();
  if (distance < 0) return BoundaryCheck::kIsNone;
  const std::uint64_t ahead = AsCount(distance);
  const int buffered = data.EnsureBuffered(ahead + 2);
  if (buffered == kAboveCapacity) return BoundaryCheck::kTooFar;
  const std::uint64_t available = data.Available();
  if (available < ahead) return BoundaryCheck::kIsNone;
  if (available < ahead + 2) return BoundaryCheck::kIsBoundary;
  const std::uint32_t second = data.PeekByte(ahead + 1);
  const bool isMarker =
      data.PeekByte(ahead) == data.MarkerByte() && (second == 0x90 || second == 0xD9);
  return isMarker ? BoundaryCheck::kIsBoundary : BoundaryCheck::kIsNone;
}

PartEnd ReadTilePartPackets(KelDecDataMgr& data, TileRecord& tile) {
  TileProgress& progress = tile.dec->progress;
  PartReading part{data, tile, progress.partStart + progress.partLength, false,
                   progress.partLength == 0};
  if (progress.takesBands && !BandsCanBeTaken(tile)) progress.mustNotTake = true;
  if (progress.mustNotTake) return PartEnd::kCutOff;
  bool isEmpty = !progress.partIsOpen;
  progress.partIsOpen = true;
  progress.resumePosition = data.GetPosition();
  while (const PacketId* at = CurrentPacket(*tile.dec->walk)) {
    if (AtPartEnd(part)) {
      // The end of the data ends the tile-part only where its length says so.
      const bool dataEnded = data.EnsureBuffered(2) != kBufferedOk;
      if (dataEnded && (progress.partLength == 0 || data.GetPosition() != part.end)) {
        return PartEnd::kCutOff;
      }
      if (isEmpty) PassEmptyTilePart(*tile.dec->walk);
      return PartEnd::kPartEnded;
    }
    if (!HandlePacket(part, tile.comps[at->component], *at)) return PartEnd::kCutOff;
    PacketHandled(*tile.dec->walk);
    progress.resumePosition = data.GetPosition();
    progress.isChanged = true;
    isEmpty = false;
  }
  progress.isComplete = true;
  return PartEnd::kTileComplete;
}

}  // namespace kel
