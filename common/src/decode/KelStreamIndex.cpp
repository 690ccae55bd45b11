// Making the records of an index from what the decoder's readers found.
#include "decode/KelStreamIndex.h"

#include <algorithm>
#include <new>
#include <numeric>
#include <tuple>
#include <utility>

#include "KelDecDataMgr.h"
#include "KelTilePartIndex.h"
#include "base/KelRaise.h"
#include "decode/KelHeadersRead.h"
#include "decode/KelImageDecode.h"
#include "format/KelStreamPosition.h"

namespace kel {
namespace {

ImageState& Image(const IndexState& index) {
  return *index.image;
}

std::uint64_t AsOffset(std::int64_t position) {
  return static_cast<std::uint64_t>(position);
}

KelULong AsULong(std::int32_t v) {
  return static_cast<KelULong>(v);
}

// ---- Facts ----

void ListBoxes(IndexState& index, const KelFileInfo& file) {
  index.boxes = OwnedArray<KelIndexBox>::Make(file.numBoxes).Release();
  for (KelULong i = 0; i < file.numBoxes; ++i) {
    const KelBoxRecord& from = file.boxes[i];
    const std::uint64_t offset = AsOffset(from.position);
    const std::uint64_t left = index.dataEnd - std::min(index.dataEnd, offset);
    const std::uint64_t length = SaturatingAdd(from.bodyLength, from.headerBytes);
    const bool isWhole = from.bodyLength != UINT64_MAX && length <= left;
    index.boxes[i] = {from.type, from.headerBytes, offset, std::min(length, left), isWhole};
  }
  index.facts.boxes = index.boxes;
  index.facts.numBoxes = file.numBoxes;
}

void ListMappings(IndexState& index, const KelFileInfo& file) {
  if (file.numMappings == 0) return;
  const __tagKelPalette& palette = *file.Palette;
  index.mappings = OwnedArray<KelIndexMapping>::Make(file.numMappings).Release();
  for (KelULong i = 0; i < file.numMappings; ++i) {
    index.mappings[i] = {palette.mapComponent[i], palette.mapType[i], palette.mapColumn[i]};
  }
  index.facts.mappings = index.mappings;
  index.facts.numMappings = file.numMappings;
}

void ListComponents(IndexState& index, const KelFileInfo* file) {
  const KelImageGeometry& geometry = *index.facts.geometry;
  const auto count = static_cast<KelULong>(geometry.Csiz);
  index.components = OwnedArray<KelIndexComponent>::Make(count).Release();
  for (KelULong c = 0; c < count; ++c) {
    index.components[c] = {.depth = AsULong(geometry.BitDepths[c]),
                           .xStep = AsULong(geometry.XRsiz[c]),
                           .yStep = AsULong(geometry.YRsiz[c]),
                           .boxDepth = 0,
                           .boxIsSigned = false};
    if (file == nullptr || c >= file->imageHeader->numDepths) continue;
    index.components[c].boxDepth = file->imageHeader->bitDepths[c] + 1U;
    index.components[c].boxIsSigned = file->imageHeader->isSigned[c] != 0;
  }
  index.facts.components = index.components;
}

/// The end of the first code stream's box; of the data, where it has no length or there is none.
std::uint64_t EndOfCodeStream(const IndexState& index, const KelFileInfo* file) {
  const std::uint64_t length = file != nullptr ? file->codeStreamLength : 0;
  if (length == 0) return index.dataEnd;
  return std::min(index.dataEnd, SaturatingAdd(index.facts.codeStreamOffset, length));
}

KelIndexSegment* ListSegments(const KelHeaderParams& header) {
  auto segments = OwnedArray<KelIndexSegment>::Make(header.numPlaces);
  std::transform(header.places, header.places + header.numPlaces, segments.Data(),
                 [](const KelSegmentPlace& place) {
                   return KelIndexSegment{place.code, place.length, AsOffset(place.position)};
                 });
  return segments.Release();
}

void CollectFacts(IndexState& index) {
  const ImageState& image = Image(index);
  const DecoderState& decoder = *image.decoder;
  const KelHeaderParams& header = decoder.mainHeader;
  const KelFileInfo* file = decoder.fileInfo;
  KelIndexFacts& facts = index.facts;
  facts.isBoxed = file != nullptr;
  facts.markerByte = decoder.dataMgr->MarkerByte();
  facts.codeStreamOffset = AsOffset(decoder.codeStreamStart);
  facts.codeStreamEnd = EndOfCodeStream(index, file);
  facts.sizOffset = AsOffset(header.sizPosition);
  facts.firstTilePartOffset = AsOffset(decoder.dataMgr->PositionB());
  facts.geometry = image.geometry;
  facts.numLevels = AsULong(header.numLevels);
  facts.numLayers = AsULong(header.numLayers);
  facts.progressionOrder = AsULong(header.progressionOrder);
  facts.isIrreversible = header.irreversible != 0;
  facts.hasComponentTransform = header.componentTransform != 0;
  facts.comment = header.comment;
  facts.commentLength = header.commentLength;
  facts.segments = index.mainSegments = ListSegments(header);
  facts.numSegments = header.numPlaces;
  ListComponents(index, file);
  if (file == nullptr) return;
  ListBoxes(index, *file);
  ListMappings(index, *file);
}

// ---- Tile-parts ----

/// Reads the header of the tile-part under the reader into a set that the caller releases.
void ReadPartHeader(const DecoderState& decoder, KelIndexTilePart& part, KelHeaderParams& header) {
  const KelHeaderParams& main = decoder.mainHeader;
  KelDecDataMgr& data = *decoder.dataMgr;
  InitHeaderParams(header, false);
  SeedHeaderParams(header, main, *main.codingStyle, *main.quantisation);
  const HeaderResult result = ReadHeader(header, data, &part.announcedBytes);
  if (result.refusal.errCode != KelOK || result.incomplete) return;
  part.headerBytes = static_cast<KelULong>(AsOffset(data.GetPosition()) - part.offset);
  part.hasCodingStyle = header.seenCOD != 0 || header.seenCOC != 0;
}

/// Whether EOC stands at a position.
bool HasEndMarker(KelDecDataMgr& data, std::uint64_t offset) {
  if (offset > INT64_MAX || !data.MoveTo(static_cast<std::int64_t>(offset))) return false;
  return data.EnsureBuffered(2) == kBufferedOk && data.PeekByte(0) == data.MarkerByte() &&
         data.PeekByte(1) == format::kEOC;
}

/// Where the packets end when the last tile-part does not say so.
std::uint64_t EndOfPackets(KelDecDataMgr& data, std::uint64_t codeStreamEnd) {
  if (codeStreamEnd == UINT64_MAX || codeStreamEnd < 2) return codeStreamEnd;
  return HasEndMarker(data, codeStreamEnd - 2) ? codeStreamEnd - 2 : codeStreamEnd;
}

/// Whether a tile-part, whose SOT is under the reader, has no other segment.
bool IsBare(KelDecDataMgr& data) {
  return data.EnsureBuffered(format::kLeastTilePartBytes) == kBufferedOk &&
         data.PeekByte(format::kSotBytes) == data.MarkerByte() &&
         data.PeekByte(format::kSotBytes + 1) == format::kSOD;
}

/// What a tile-part says of itself, whose SOT is under the reader.
KelIndexTilePart DescribePart(const DecoderState& decoder, const KelTilePartEntry& entry) {
  KelIndexTilePart part{};
  part.tile = entry.tile;
  part.part = entry.part;
  part.offset = AsOffset(entry.position);
  part.numParts = decoder.dataMgr->PeekSotTNsot();
  if (IsBare(*decoder.dataMgr)) {
    part.announcedBytes = entry.announced;
    part.headerBytes = format::kLeastTilePartBytes;
    return part;
  }
  KelHeaderParams header{};
  ScopeGuard release([&] { ReleaseHeaderParams(&header); });
  ReadPartHeader(decoder, part, header);
  return part;
}

/// Adds how far it reaches, which has been found out since.
void MeasurePart(const IndexState& index, const KelTilePartEntry& entry, KelIndexTilePart& part) {
  part.length = entry.length;
  if (entry.length == 0) {
    const std::uint64_t end =
        EndOfPackets(*Image(index).decoder->dataMgr, index.facts.codeStreamEnd);
    part.length = std::max(end, part.offset) - part.offset;
  }
  const bool isAsAnnounced = part.announcedBytes == entry.length;
  part.isRegular = isAsAnnounced && part.headerBytes != 0 && part.headerBytes <= part.length;
}

/// Whether the tile-parts, in the order of the data, leave nothing out.
bool FormAWhole(const IndexState& index) {
  std::uint64_t next = index.facts.firstTilePartOffset;
  for (KelULong i = 0; i < index.tileParts.count; ++i) {
    const KelIndexTilePart& part = index.parts[i];
    if (!part.isRegular || part.offset != next) return false;
    next += part.length;
  }
  return next == index.facts.codeStreamEnd || HasEndMarker(*Image(index).decoder->dataMgr, next);
}

/// A tile-part claimed twice is taken from the first place.
bool PrecedesByTile(const KelIndexTilePart& a, const KelIndexTilePart& b) {
  return std::tie(a.tile, a.part, a.offset) < std::tie(b.tile, b.part, b.offset);
}

/// Goes from one tile-part to the next, and reads their headers on the way.
void WalkTileParts(IndexState& index, KelTilePartIndex& found) {
  const DecoderState& decoder = *Image(index).decoder;
  KelDecDataMgr& data = *decoder.dataMgr;
  KelTilePartEntry entry{};
  KelULong count = 0, obtained = 0;
  ScopeGuard forget([&] { KelFree(std::exchange(index.parts, nullptr)); });
  while (MoveToNextTilePart(found, data, entry)) {
    const KelIndexTilePart part = DescribePart(decoder, entry);
    if (!AddTilePart(found, data, entry)) continue;
    GrowByOne(index.parts, count, obtained);
    index.parts[count++] = part;
  }
  for (KelULong i = 0; i < count; ++i) MeasurePart(index, found.entries[i], index.parts[i]);
  forget.Disarm();
}

void ListTileParts(IndexState& index) {
  const ImageState& image = Image(index);
  KelDecDataMgr& data = *image.decoder->dataMgr;
  KelTilePartIndex* found =
      MakeTilePartIndex(AsULong(image.map.numTiles), data.PositionB(), nullptr);
  ScopeGuard release([&] { ReleaseTilePartIndex(found); });
  found->wantedTile = -1;  // nothing is read of what stands between
  KelFree(std::exchange(index.parts, nullptr));
  WalkTileParts(index, *found);
  const KelIndexTilePart* parts = index.parts;
  auto byTile = OwnedArray<KelULong>::Make(found->numEntries);
  std::iota(byTile.Data(), byTile.Data() + byTile.Size(), KelULong{0});
  std::sort(byTile.Data(), byTile.Data() + byTile.Size(),
            [&](KelULong a, KelULong b) { return PrecedesByTile(parts[a], parts[b]); });
  KelFree(std::exchange(index.byTile, byTile.Release()));
  index.tileParts = {index.parts, found->numEntries, false};
  index.tileParts.areRegular = FormAWhole(index);
  RefuseFailedReads(index);
  index.hasTileParts = true;
}

}  // namespace

void RefuseFailedReads(const IndexState& index) {
  if (Image(index).decoder->dataMgr->TakeReadFailure()) Raise(KelErrNothingRead, kModuleImage);
}

IndexState* MakeIndex() {
  auto made = OwnedRecord<IndexState>::Make();
  new (&made->options) KelDecOpt;
  made->failure.Clear();
  return made.Release();
}

void ReleaseIndex(IndexState*& index) noexcept {
  if (index == nullptr) return;
  if (index->image != nullptr) ReleaseDecoder(*index->image);
  KelFree(index->image);
  index->options.Die();
  KelFree(index->boxes);
  KelFree(index->components);
  KelFree(index->mappings);
  KelFree(index->parts);
  KelFree(index->byTile);
  KelFree(index->mainSegments);
  KelFree(index->partSegments);
  ReleasePackets(*index);
  ReleaseExamined(index->examined);
  KelFree(index);
  index = nullptr;
}

KelLong OpenIndex(IndexState& index, KelCodeStm* stream, const KelCompressedData* data) {
  if (data == nullptr && (stream == nullptr || !stream->IsSeekable())) return KelErrBadParam;
  index.options.InitToDefaults();
  index.image = OwnedRecord<ImageState>::Make().Release();
  ImageState& image = *index.image;
  image.failure.Clear();
  image.servesIndex = true;
  if (data != nullptr) index.block = *data;
  index.dataEnd = UINT64_MAX;
  if (data != nullptr) {
    index.dataEnd = data->length;
  } else if (!stream->StmLengthUnknown()) {
    index.dataEnd = AsCount(TotalLengthOf(*stream));
  }
  const KelLong code = InitDecoder(image, stream, data != nullptr ? &index.block : nullptr,
                                   &index.options, nullptr, nullptr, KelAspectFull);
  if (code != KelOK) {
    index.failure = image.failure;
    return code;
  }
  CollectFacts(index);
  image.decoder->dataMgr->TakeReadFailure();  // of what was not needed
  index.isReady = true;
  return KelOK;
}

const KelIndexSegment* SegmentsOf(IndexState& index, KelULong i, KelULong& count) {
  if (TilePartsOf(index) == nullptr || i >= index.tileParts.count) return nullptr;
  const DecoderState& decoder = *Image(index).decoder;
  KelIndexTilePart part = index.parts[i];
  part.headerBytes = 0;
  KelHeaderParams header{};
  ScopeGuard release([&] { ReleaseHeaderParams(&header); });
  header.keepsPlaces = true;
  if (!decoder.dataMgr->MoveTo(static_cast<std::int64_t>(part.offset))) return nullptr;
  ReadPartHeader(decoder, part, header);
  RefuseFailedReads(index);
  if (part.headerBytes == 0) return nullptr;
  KelFree(std::exchange(index.partSegments, nullptr));
  index.partSegments = ListSegments(header);
  count = header.numPlaces;
  return index.partSegments;
}

const KelIndexTilePart* FindPartOfTile(const IndexState& index, KelULong tile, KelULong part) {
  KelIndexTilePart wanted{};
  wanted.tile = tile;
  wanted.part = part;
  const KelULong* begin = index.byTile;
  const KelULong* end = begin + index.tileParts.count;
  const KelULong* found = std::lower_bound(
      begin, end, wanted,
      [&](KelULong i, const KelIndexTilePart& w) { return PrecedesByTile(index.parts[i], w); });
  if (found == end) return nullptr;
  const KelIndexTilePart& it = index.parts[*found];
  return it.tile == tile && it.part == part ? &it : nullptr;
}

const KelIndexTileParts* TilePartsOf(IndexState& index) {
  if (!index.isReady) return nullptr;
  if (!index.hasTileParts) ListTileParts(index);
  return &index.tileParts;
}

}  // namespace kel
