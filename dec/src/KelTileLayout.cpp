// Laying tiles out. Relies on the geometry for boxes and on the wavelet's band geometry; leaves the
// reading of headers and packets to others.
#include "KelTileLayout.h"

#include <algorithm>
#include <utility>

#include "base/KelMemFuncDefs.h"
#include "base/KelRaise.h"
#include "format/KelTileBox.h"
#include "samples/KelImageDataAccess.h"
#include "transform/KelWavelet.h"

namespace kel {
namespace {

/// Cells of a row are padded to whole cache lines.
constexpr std::int64_t kRowMultiple = 16;

/// Largest code-block exponent that the block coder holds.
constexpr int kMostBlockExp = 3;

void ReleaseResolutions(TileCompRecord& record) noexcept {
  DecTileComp& comp = *record.dec;
  if (comp.resolutions == nullptr) return;
  for (std::int32_t r = 0; r <= comp.numLevels; ++r) {
    ResolutionRecord& resolution = comp.resolutions[r];
    if (resolution.codedCopy != nullptr) KelFree(resolution.codedCopy);
    resolution.codedCopy = nullptr;
    if (resolution.pages == nullptr) continue;
    const std::int64_t numPages = CeilDiv(resolution.precincts.Count(), kCounterPage);
    for (std::int64_t page = 0; page < numPages; ++page) KelFree(resolution.pages[page]);
    KelFree(resolution.pages);
  }
  KelFree(comp.resolutions);
  comp.resolutions = nullptr;
}

void LayOutTileComp(const ImageMap& map, TileCompRecord& record) {
  ReleaseLayout(record);
  const KelCodingStyle& style = *record.dec->params.style;
  if (HasLargeBlocks(style, BoxOf(record.tileGeom))) Raise(KelErrUnsupported, kModuleImageMap);
  SizeTileComp(map, record);
}

}  // namespace

void EnsureBands(TileCompRecord& record) {
  DecTileComp& comp = *record.dec;
  if (comp.bands != nullptr) return;
  const int numBands = NumSubbands(comp.decodeRes);
  comp.bands = OwnedArray<BandRecord>::Make(AsCount(numBands)).Release();
  for (int b = 0; b < numBands; ++b) {
    const CellOffset place = MallatOffset(comp.resolutionBox, comp.decodeRes, b);
    BandRecord& band = comp.bands[b];
    band.box = SubbandBox(comp.resolutionBox, comp.decodeRes, b);
    band.column = place.column;
    band.row = place.row;
  }
}

GridPartition PrecinctsOf(const TileCompRecord& record, std::int32_t resolution) {
  const DecTileComp& comp = *record.dec;
  if (comp.resolutions != nullptr) return comp.resolutions[resolution].precincts;
  const KelCodingStyle& style = *comp.params.style;
  return PartitionBox(ReduceBox(BoxOf(record.tileGeom), comp.numLevels - resolution),
                      style.precinctWidthExps[resolution], style.precinctHeightExps[resolution]);
}

void EnsureResolutions(TileCompRecord& record) {
  DecTileComp& comp = *record.dec;
  if (comp.resolutions != nullptr) return;
  auto resolutions = OwnedArray<ResolutionRecord>::Make(AsCount(comp.numLevels + 1));
  for (std::int32_t r = 0; r <= comp.numLevels; ++r) {
    resolutions[AsIndex(r)].precincts = PrecinctsOf(record, r);
    resolutions[AsIndex(r)].numAtLeast = resolutions[AsIndex(r)].precincts.Count();
  }
  comp.resolutions = resolutions.Release();
}

void ReleaseLayout(TileCompRecord& record) noexcept {
  DecTileComp& comp = *record.dec;
  comp.hasData = false;
  ReleaseImage(record.shown.waveletData);
  ReleaseResolutions(record);
  if (comp.bands != nullptr) KelFree(comp.bands);
  comp.bands = nullptr;
}

void SizeTileComp(const ImageMap& map, TileCompRecord& record) {
  DecTileComp& comp = *record.dec;
  comp.numLevels = comp.params.style->numLevels;
  comp.decodeRes = std::max(comp.numLevels - map.dec->reductions[record.tileGeom.Component], 0);
  comp.resolutionBox = ReduceBox(BoxOf(record.tileGeom), comp.numLevels - comp.decodeRes);
  comp.rowStride = RoundUp(comp.resolutionBox.Width(), kRowMultiple);
  DescribeOutput(record);
}

void DescribeOutput(TileCompRecord& record) {
  DecTileComp& comp = *record.dec;
  if (record.shown.outputImage == nullptr || record.shown.outputImage->ImageBuffer != nullptr)
    return;
  KelImageData& image = *record.shown.outputImage;
  image.Width = SaturateToInt32(comp.rowStride);
  image.Height = SaturateToInt32(comp.resolutionBox.Height());
  image.SizeOfDataType = 4;
  image.ImageBufferType = comp.params.style->irreversible != 0 ? kFloatSamples : kIntegerSamples;
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
  EnsureBands(record);
  DecTileComp& comp = *record.dec;
  const std::int64_t height = comp.resolutionBox.Height();
  if (const KelImageData* image = record.shown.waveletData) {
    if (image->Width == comp.rowStride && image->Height == height && image->SizeOfDataType == 4 &&
        image->ImageBuffer != nullptr) {
      return;
    }
    // A host has put another image here: start over.
    ReleaseImage(record.shown.waveletData);
  }
  // What was decoded before is lost, if a host has taken the plane away.
  for (int b = 0; b < NumSubbands(comp.decodeRes); ++b) comp.bands[b].isFilled = false;
  const std::uint64_t bytes = PlaneBytes(comp.rowStride, height, 4);
  OwnedBuffer buffer = OwnedBuffer::MakeAligned(bytes);
  if (!BufferLock(buffer.Get())) Raise(KelErrNoMemory, kModuleImageMap);
  KelImageData* image = NewImage();
  InstallSamples(*image, std::move(buffer), static_cast<KelLong>(comp.rowStride),
                 static_cast<KelLong>(height), 4, kIntegerSamples);
  record.shown.waveletData = image;
}

void EnsureBandFilled(TileCompRecord& record, std::int32_t b, std::int32_t* cells) {
  DecTileComp& comp = *record.dec;
  BandRecord& band = comp.bands[b];
  if (band.isFilled) return;
  band.isFilled = true;
  for (std::int64_t y = 0; y < band.box.Height(); ++y) {
    std::fill_n(cells + (band.row + y) * comp.rowStride + band.column,
                std::max<std::int64_t>(band.box.Width(), 0), 0);
  }
}

}  // namespace kel
