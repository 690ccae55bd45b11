// Placing tiles in the host's image-wide buffers.
#include "KelHostPlacement.h"

#include <algorithm>

#include "base/KelRaise.h"
#include "samples/KelImageDataAccess.h"
#include "samples/KelRecast.h"

namespace kel {
namespace {

/// The image area in a component's samples, at the resolution being decoded.
Box DecodedImageBox(const ImageMap& map, std::int32_t component) {
  const KelImageGeometry& g = *map.geometry;
  const KelLong xr = g.XRsiz[component];
  const KelLong yr = g.YRsiz[component];
  return ReduceBox(
      {CeilDiv(g.XOsiz, xr), CeilDiv(g.Xsiz, xr), CeilDiv(g.YOsiz, yr), CeilDiv(g.Ysiz, yr)},
      map.dec->reductions[component]);
}

/// The part of it that the host's buffer stands for.
Box DecodedRegionBox(const ImageMap& map, std::int32_t component, const Box& image) {
  if (!map.dec->hasRegion) return image;
  const Box& r = map.dec->region;
  const KelLong xr = map.geometry->XRsiz[component];
  const KelLong yr = map.geometry->YRsiz[component];
  const Box box =
      ReduceBox({CeilDiv(r.x0, xr), CeilDiv(r.x1, xr), CeilDiv(r.y0, yr), CeilDiv(r.y1, yr)},
                map.dec->reductions[component]);
  return {std::max(box.x0, image.x0), std::min(box.x1, image.x1), std::max(box.y0, image.y0),
          std::min(box.y1, image.y1)};
}

/// A box inside an image of the given size, after rotating the image.
Box RotateBox(const Box& b, std::int64_t width, std::int64_t height, KelLong orientation) {
  switch (orientation) {
    case KelOrientation90:
      return {height - b.y1, height - b.y0, b.x0, b.x1};
    case KelOrientation180:
      return {width - b.x1, width - b.x0, height - b.y1, height - b.y0};
    case KelOrientation270:
      return {b.y0, b.y1, width - b.x1, width - b.x0};
    default:
      return b;
  }
}

}  // namespace

HostPlacement PlaceInHostBuffer(const ImageMap& map, const FrameRequest& request,
                                const TileCompRecord& record) {
  const std::int32_t c = record.tileGeom.Component;
  if (static_cast<std::uint32_t>(c) >= request.numChannels) return {};
  const ChannelRequest& channel = request.channels[c];
  const bool isWhole = channel.outBitDepth == 8 || channel.outBitDepth == 16;
  if (channel.buffer == nullptr || !channel.hasFormat || !isWhole) return {};

  const Box image = DecodedImageBox(map, c);
  const Box& box = record.dec->resolutionBox;
  if (box.IsEmpty() || box.x0 < image.x0 || box.x1 > image.x1 || box.y0 < image.y0 ||
      box.y1 > image.y1) {
    return {};
  }
  const Box area = DecodedRegionBox(map, c, image);
  if (area.IsEmpty()) return {};
  const std::int64_t sampleBytes = channel.outBitDepth / 8;
  const Box inside = {box.x0 - area.x0, box.x1 - area.x0, box.y0 - area.y0, box.y1 - area.y0};
  const Box all = RotateBox(inside, area.Width(), area.Height(), request.orientation);
  const bool isTurned =
      request.orientation == KelOrientation90 || request.orientation == KelOrientation270;
  const std::int64_t width = isTurned ? area.Height() : area.Width();
  const std::int64_t height = isTurned ? area.Width() : area.Height();
  if (channel.stride < width * sampleBytes) return {};
  const Box place = {std::max<std::int64_t>(all.x0, 0), std::min(all.x1, width),
                     std::max<std::int64_t>(all.y0, 0), std::min(all.y1, height)};
  if (place.IsEmpty()) return {};
  return {channel.buffer + place.y0 * channel.stride + place.x0 * sampleBytes,
          channel.stride,
          place.Width(),
          place.Height(),
          sampleBytes,
          place.x0 - all.x0,
          place.y0 - all.y0,
          place == all};
}

void CopyToHostBuffer(const ImageMap& map, const FrameRequest& request,
                      const TileCompRecord& record) {
  const HostPlacement place = PlaceInHostBuffer(map, request, record);
  const KelImageData& image = *record.shown.outputImage;
  if (place.address == nullptr || image.SizeOfDataType != place.sampleBytes ||
      image.Width < place.skipX + place.width || image.Height < place.skipY + place.height) {
    return;
  }
  const BufferLock lock(image.ImageBuffer);
  if (!lock) Raise(KelErrNoMemory, kModuleImageMap);
  const std::int64_t rowBytes = image.Width * place.sampleBytes;
  const std::uint8_t* from =
      lock.As<std::uint8_t>() + place.skipY * rowBytes + place.skipX * place.sampleBytes;
  std::uint8_t* to = place.address;
  for (std::int64_t y = 0; y < place.height; ++y, from += rowBytes, to += place.stride) {
    std::copy_n(from, place.width * place.sampleBytes, to);
  }
}

void RecastFor(const ChannelRequest& channel, KelLong sampleDepth, KelLong orientation,
               KelImageData& image) {
  const RecastTarget target = {sampleDepth, channel.outBitDepth, channel.outMax, channel.outMin,
                               KelRecastNominal};
  NamingModule(kModuleImageMap,
               [&] { Recast(image, target, false, KelImageOrientation{orientation}); });
}

bool FillHostBuffer(const ImageMap& map, const FrameRequest& request,
                    const TileCompRecord& record) {
  const HostPlacement place = PlaceInHostBuffer(map, request, record);
  if (place.address == nullptr) return false;
  // The sample is made as all samples are: from a 32-bit one, by the conversion asked for.
  const ChannelRequest& channel = request.channels[record.tileGeom.Component];
  KelImageData zero;
  ScopeGuard release([&] { zero.FreeImageBuffer(); });
  const KelLong code = zero.InitKelImageData(1, 1, sizeof(std::int32_t), kIntegerSamples, nullptr);
  if (code != KelOK) Raise(code, kModuleImageMap);
  RecastFor(channel, record.dec->sampleDepth, KelOrientation0, zero);
  const BufferLock lock(zero.ImageBuffer);
  if (!lock) Raise(KelErrNoMemory, kModuleImageMap);
  const auto* sample = lock.As<std::uint8_t>();
  std::uint8_t* row = place.address;
  for (std::int64_t y = 0; y < place.height; ++y, row += place.stride) {
    if (place.sampleBytes == 1) {
      std::fill_n(row, place.width, *sample);
      continue;
    }
    for (std::int64_t x = 0; x < place.width; ++x) std::copy_n(sample, 2, row + 2 * x);
  }
  return true;
}

}  // namespace kel
