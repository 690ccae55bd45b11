// Making, laying out and releasing the records of an image.
//
// Relies on the geometry for boxes and on the wavelet's band geometry; leaves the reading of
// headers and packets to the decoder's stages.
#include "image/KelImageMap.h"

#include <algorithm>
#include <new>

#include "KelPacketWalk.h"
#include "KelTileCoder.h"
#include "KelTilePartStash.h"
#include "base/KelMemFuncDefs.h"
#include "base/KelRaise.h"
#include "samples/KelImageDataAccess.h"
#include "transform/KelQuant.h"
#include "transform/KelWavelet.h"

namespace kel {
namespace {

/// Cells of a row are padded to whole cache lines.
constexpr std::int64_t kRowMultiple = 16;

/// Largest code-block exponent that the block coder holds.
constexpr int kMostBlockExp = 3;

Box BoxOf(const KelTileGeometry& t) {
  return {t.X0, t.X1, t.Y0, t.Y1};
}

/// A copy of a record for a level that gets one of its own. Raises what the copy reports.
template <class Record>
OwnedRecord<Record> CopyOf(const Record& source, KelLong (*copy)(Record*, const Record*)) {
  auto made = OwnedRecord<Record>::Make();
  const KelLong code = copy(made.Get(), &source);
  if (code != KelOK) Raise(code, kModuleImageMap);
  return made;
}

/// A set that owns nothing and goes by the records of the level above.
ParamSet SharedParams(const ParamSet& above) {
  return {above.style, above.quant, above.changes, false, false, false};
}

void DropStyle(ParamSet& set) noexcept {
  if (set.ownsStyle) {
    ReleaseCodingStyle(*set.style);
    KelFree(set.style);
  }
  set.ownsStyle = false;
}

void DropQuant(ParamSet& set) noexcept {
  if (set.ownsQuant) {
    ReleaseQuantParams(*set.quant);
    KelFree(set.quant);
  }
  set.ownsQuant = false;
}

void DropChanges(ParamSet& set) noexcept {
  if (set.ownsChanges) {
    ReleaseProgressionChanges(*set.changes);
    KelFree(set.changes);
  }
  set.ownsChanges = false;
}

void OwnStyle(ParamSet& set, const KelCodingStyle& source) {
  auto copy = CopyOf<KelCodingStyle>(source, CopyCodingStyle);
  DropStyle(set);
  set.style = copy.Release();
  set.ownsStyle = true;
}

void OwnQuant(ParamSet& set, const KelQuantParams& source) {
  auto copy = CopyOf<KelQuantParams>(source, CopyQuantParams);
  DropQuant(set);
  set.quant = copy.Release();
  set.ownsQuant = true;
}

void OwnChanges(ParamSet& set, const KelProgressionChanges& source) {
  auto copy = CopyOf<KelProgressionChanges>(source, CopyProgressionChanges);
  DropChanges(set);
  set.changes = copy.Release();
  set.ownsChanges = true;
}

/// Marks a component's parameters as having a region. The shift is stored, and the most bit
/// planes recomputed from exponents and guard bits; the decoding of blocks does not need them.
void SetRegion(ParamSet& set, std::int32_t shift) {
  if (!set.ownsStyle) OwnStyle(set, *set.style);
  if (!set.ownsQuant) OwnQuant(set, *set.quant);
  set.style->hasRegion = set.quant->hasRegion = 1;
  set.style->regionShift = set.quant->regionShift = shift;
  set.style->maxBitPlanes =
      MaxBitPlanes(set.quant->exponents, set.quant->guardBits, set.style->numLevels);
}

/// Gives a component the segments of a header that name it.
void ApplyComponentSegments(ParamSet& set, std::int32_t component, const KelHeaderParams& header) {
  if (const KelCodingStyle* style = FindComponentStyle(header, component)) OwnStyle(set, *style);
  if (const KelQuantParams* quant = FindComponentQuant(header, component)) OwnQuant(set, *quant);
  if (header.seenRGN != 0 && header.regions[component].present != 0) {
    SetRegion(set, header.regions[component].shift);
  }
}

void ReleaseResolutions(TileCompRecord& record) noexcept {
  if (record.resolutions == nullptr) return;
  for (std::int32_t r = 0; r <= record.numLevels; ++r) {
    ResolutionRecord& resolution = record.resolutions[r];
    if (resolution.pages == nullptr) continue;
    const std::int64_t numPages = CeilDiv(resolution.precincts.Count(), kCounterPage);
    for (std::int64_t page = 0; page < numPages; ++page) KelFree(resolution.pages[page]);
    KelFree(resolution.pages);
  }
  KelFree(record.resolutions);
  record.resolutions = nullptr;
}

void ReleaseLayout(TileCompRecord& record) noexcept {
  ReleaseImage(record.waveletData);
  ReleaseResolutions(record);
  if (record.bands != nullptr) KelFree(record.bands);
  record.bands = nullptr;
}

void ReleaseTileComp(TileCompRecord& record) noexcept {
  ReleaseLayout(record);
  ReleaseOutput(record);
  ReleaseParamSet(record.params);
  ReleaseCoded(record.coded);
  TileCompCell*& cell = TileCompRecord::CellOf(record.handle);
  if (cell != nullptr) KelFree(cell);
  cell = nullptr;
}

/// The size of what is decoded of a component, by the style in force.
void SizeTileComp(const ImageMap& map, TileCompRecord& record) {
  record.numLevels = record.params.style->numLevels;
  record.decodeRes = std::max(record.numLevels - map.reductions[record.tileGeom.Component], 0);
  record.resolutionBox = ReduceBox(BoxOf(record.tileGeom), record.numLevels - record.decodeRes);
  record.rowStride = RoundUp(record.resolutionBox.Width(), kRowMultiple);
  DescribeOutput(record);
}

/// Fills one component's record. May run again on a record that a failure left half-built.
void InitTileComp(ImageMap& map, const TileRecord& tile, TileCompRecord& record, std::int32_t c) {
  record.tileGeom.InitKelTileGeometry(map.geometry, c, tile.index);
  record.optShared = !map.isEncoder || c < map.numColorChannels;
  record.extraChannel = map.isEncoder && c >= map.numColorChannels;
  record.encOpt = record.optShared ? map.encOpt : map.extraOptions;
  record.decOpt = map.decOpt;
  if (TileCompRecord::CellOf(record.handle) == nullptr) record.handle.Init(&record);
  if (map.isEncoder) return;

  record.sampleDepth =
      map.fileDepths != nullptr ? map.fileDepths[c] + 1 : map.geometry->BitDepths[c];
  if (record.outputImage == nullptr) record.outputImage = NewImage();
  ReleaseParamSet(record.params);
  record.params.style = tile.params.style;
  record.params.quant = tile.params.quant;
  ApplyComponentSegments(record.params, c, *map.mainHeader);
  SizeTileComp(map, record);
}

/// The bands of a component at the resolution to decode, and where they stand in its plane.
void LayOutBands(TileCompRecord& record) {
  const int numBands = NumSubbands(record.decodeRes);
  record.bands = OwnedArray<BandRecord>::Make(AsCount(numBands)).Release();
  for (int b = 0; b < numBands; ++b) {
    const CellOffset place = MallatOffset(record.resolutionBox, record.decodeRes, b);
    record.bands[b] = {SubbandBox(record.resolutionBox, record.decodeRes, b), place.column,
                       place.row, false};
  }
}

void LayOutTileComp(const ImageMap& map, TileCompRecord& record) {
  ReleaseLayout(record);
  const KelCodingStyle& style = *record.params.style;
  const Box box = BoxOf(record.tileGeom);
  if (HasLargeBlocks(style, box)) Raise(KelErrUnsupported, kModuleImageMap);
  SizeTileComp(map, record);
  LayOutBands(record);

  record.resolutions = OwnedArray<ResolutionRecord>::Make(AsCount(record.numLevels + 1)).Release();
  for (std::int32_t r = 0; r <= record.numLevels; ++r) {
    record.resolutions[r].precincts =
        PartitionBox(ReduceBox(box, record.numLevels - r), style.precinctWidthExps[r],
                     style.precinctHeightExps[r]);
    record.resolutions[r].numAtLeast = record.resolutions[r].precincts.Count();
  }
}

}  // namespace

void InitTileRecords(ImageMap& map) {
  PrepareMemPool(map.recordPool, 16384, 32);
  map.tiles = OwnedArray<TileRecord>::Make(AsCount(map.numTiles)).Release();
  for (std::int32_t t = 0; t < map.numTiles; ++t) {
    TileRecord& tile = map.tiles[t];
    tile.index = t;
    KelLong x0, x1, y0, y1;
    map.geometry->GetTileBoundingBox(map.geometry->GetXIndex(t), map.geometry->GetYIndex(t), &x0,
                                     &x1, &y0, &y1);
    tile.box = {x0, x1, y0, y1};
    tile.params = SharedParams(map.mainParams);
  }
}

void EnsureTileComps(ImageMap& map, TileRecord& tile) {
  if (tile.compsAreReady) return;
  if (tile.comps == nullptr) {
    tile.comps = static_cast<TileCompRecord*>(AllocFromMemPool(
        map.recordPool, SaturatingMul(AsCount(map.numComps), sizeof(TileCompRecord))));
  }
  for (std::int32_t c = 0; c < map.numComps; ++c) InitTileComp(map, tile, tile.comps[c], c);
  tile.compsAreReady = true;
}

bool HasNoSamples(const ImageMap& map, const TileRecord& tile) {
  const KelImageGeometry& g = *map.geometry;
  for (std::int32_t c = 0; c < map.numComps && !tile.box.IsEmpty(); ++c) {
    const bool hasColumns = CeilDiv(tile.box.x0, g.XRsiz[c]) < CeilDiv(tile.box.x1, g.XRsiz[c]);
    const bool hasRows = CeilDiv(tile.box.y0, g.YRsiz[c]) < CeilDiv(tile.box.y1, g.YRsiz[c]);
    if (hasColumns && hasRows) return false;
  }
  return true;
}

void ReleaseParamSet(ParamSet& set) noexcept {
  DropStyle(set);
  DropQuant(set);
  DropChanges(set);
  set = {};
}

void ReleaseImageMap(ImageMap& map) noexcept {
  for (std::int32_t t = 0; map.tiles != nullptr && t < map.numTiles; ++t) {
    TileRecord& tile = map.tiles[t];
    ReleasePacketWalk(tile.walk);
    ReleaseStash(tile.early);
    for (std::int32_t c = 0; tile.comps != nullptr && c < map.numComps; ++c) {
      ReleaseTileComp(tile.comps[c]);
    }
    ReleaseParamSet(tile.params);
  }
  if (map.extraOptions != nullptr) map.extraOptions->Die();
  if (map.tiles != nullptr) KelFree(map.tiles);
  if (map.extraOptions != nullptr) KelFree(map.extraOptions);
  if (map.reductions != nullptr) KelFree(map.reductions);
  map.tiles = nullptr;
  map.extraOptions = nullptr;
  map.reductions = nullptr;
  ReleaseParamSet(map.mainParams);
  ReleaseMemPool(map.recordPool);
}

void ReleaseOutput(TileCompRecord& record) noexcept {
  if (record.progData == record.outputImage) record.progData = nullptr;
  ReleaseImage(record.progData);
  ReleaseImage(record.outputImage);
}

void DescribeOutput(TileCompRecord& record) {
  if (record.outputImage == nullptr || record.outputImage->ImageBuffer != nullptr) return;
  KelImageData& image = *record.outputImage;
  image.Width = SaturateToInt32(record.rowStride);
  image.Height = SaturateToInt32(record.resolutionBox.Height());
  image.SizeOfDataType = 4;
  image.ImageBufferType = record.params.style->irreversible != 0 ? kFloatSamples : kIntegerSamples;
}

bool HasLargeBlocks(const KelCodingStyle& style, const Box& box) {
  for (std::int32_t r = 0; r <= style.numLevels; ++r) {
    const int halving = r == 0 ? 0 : 1;
    const int width = std::min(style.blockWidthExp, style.precinctWidthExps[r] - halving);
    const int height = std::min(style.blockHeightExp, style.precinctHeightExps[r] - halving);
    if (width <= kMostBlockExp && height <= kMostBlockExp) continue;
    const int first = r == 0 ? 0 : 3 * r - 2;
    for (int b = first; b <= 3 * r; ++b) {
      if (!SubbandBox(box, style.numLevels, b).IsEmpty()) return true;
    }
  }
  return false;
}

void LayOutTile(ImageMap& map, TileRecord& tile) {
  for (std::int32_t c = 0; c < map.numComps; ++c) LayOutTileComp(map, tile.comps[c]);
}

void EnsureCoefficients(TileCompRecord& record) {
  const std::int64_t height = record.resolutionBox.Height();
  if (const KelImageData* image = record.waveletData) {
    if (image->Width == record.rowStride && image->Height == height && image->SizeOfDataType == 4 &&
        image->ImageBuffer != nullptr) {
      return;
    }
    // A host has put another image here: start over.
    ReleaseImage(record.waveletData);
  }
  // What was decoded before is lost, if a host has taken the plane away.
  for (int b = 0; b < NumSubbands(record.decodeRes); ++b) record.bands[b].isFilled = false;
  const std::uint64_t bytes = PlaneBytes(record.rowStride, height, 4);
  OwnedBuffer buffer = OwnedBuffer::MakeAligned(bytes);
  if (!BufferLock(buffer.Get())) Raise(KelErrNoMemory, kModuleImageMap);
  KelImageData* image = NewImage();
  InstallSamples(*image, std::move(buffer), static_cast<KelLong>(record.rowStride),
                 static_cast<KelLong>(height), 4, kIntegerSamples);
  record.waveletData = image;
}

void EnsureBandFilled(TileCompRecord& record, std::int32_t b, std::int32_t* cells) {
  BandRecord& band = record.bands[b];
  if (band.isFilled) return;
  band.isFilled = true;
  for (std::int64_t y = 0; y < band.box.Height(); ++y) {
    std::fill_n(cells + (band.row + y) * record.rowStride + band.column,
                std::max<std::int64_t>(band.box.Width(), 0), 0);
  }
}

void ReleaseTileWork(const ImageMap& map, TileRecord& tile) noexcept {
  ReleasePacketWalk(tile.walk);
  for (std::int32_t c = 0; tile.comps != nullptr && c < map.numComps; ++c) {
    ReleaseLayout(tile.comps[c]);
  }
}

void RestartTile(ImageMap& map, TileRecord& tile) noexcept {
  ReleaseTileWork(map, tile);
  ReleaseParamSet(tile.params);
  tile.params = SharedParams(map.mainParams);
  tile.progress = {};
  tile.compsAreReady = false;
}

void ApplyTileParams(ImageMap& map, TileRecord& tile, const KelHeaderParams& header,
                     bool onlyProgression) {
  if (header.seenPOC != 0) OwnChanges(tile.params, *header.progressionChanges);
  if (onlyProgression) return;
  if (header.seenCOD != 0) OwnStyle(tile.params, *header.codingStyle);
  if (header.seenQCD != 0) OwnQuant(tile.params, *header.quantisation);
  for (std::int32_t c = 0; c < map.numComps; ++c) {
    ParamSet& set = tile.comps[c].params;
    const bool hadRegion = set.style->hasRegion != 0;
    const std::int32_t shift = set.style->regionShift;
    if (FindComponentStyle(*map.mainHeader, c) == nullptr) {
      DropStyle(set);
      set.style = tile.params.style;
    }
    if (FindComponentQuant(*map.mainHeader, c) == nullptr) {
      DropQuant(set);
      set.quant = tile.params.quant;
    }
    if (hadRegion) SetRegion(set, shift);
    ApplyComponentSegments(set, c, header);
  }
}

}  // namespace kel
