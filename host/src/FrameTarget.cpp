// Rectangles of planes as the library's frame requests.
#include "FrameTarget.hpp"

#include <algorithm>
#include <cmath>

#include "kel/host/limits.hpp"

namespace kel::host {
namespace {

/// Everything is placed by the areas of the part, in planes that have those of the whole.
void RequireInside(const std::vector<ComponentArea>& whole,
                   const std::vector<ComponentArea>& part) {
  bool isInside = whole.size() == part.size();
  for (std::size_t c = 0; c < part.size() && isInside; ++c) {
    const ComponentArea &outer = whole[c], &inner = part[c];
    const bool isEmpty = inner.x1 <= inner.x0 || inner.y1 <= inner.y0;
    isInside = inner.depth == outer.depth && inner.xStep == outer.xStep &&
               inner.yStep == outer.yStep &&
               (isEmpty || (inner.x0 >= outer.x0 && inner.x1 <= outer.x1 && inner.y0 >= outer.y0 &&
                            inner.y1 <= outer.y1));
  }
  if (!isInside) throw Error(Failure::kInput, "a part of the image lies outside the whole");
}

/// A rectangle inside a plane.
struct Region {
  std::uint32_t x = 0, y = 0, width = 0, height = 0;
};

Region RegionOf(const ComponentArea& whole, const ComponentArea& part) {
  if (part.x1 <= part.x0 || part.y1 <= part.y0) return {};
  return {static_cast<std::uint32_t>(part.x0 - whole.x0),
          static_cast<std::uint32_t>(part.y0 - whole.y0),
          static_cast<std::uint32_t>(part.x1 - part.x0),
          static_cast<std::uint32_t>(part.y1 - part.y0)};
}

std::int64_t CeilDiv(std::int64_t a, std::int64_t b) {
  return (a + b - 1) / b;
}

/// Words that the library leaves shifted up, as a Plane has them; from may be the plane itself.
void ShiftDown(const Plane& from, const Region& region, Plane& plane) {
  const unsigned shift = 16 - plane.Depth();
  for (std::uint32_t y = 0; y < region.height; ++y) {
    const auto* source = from.Row<std::uint16_t>(region.y + y) + region.x;
    auto* row = plane.Row<std::uint16_t>(region.y + y) + region.x;
    for (std::uint32_t x = 0; x < region.width; ++x) {
      row[x] = static_cast<std::uint16_t>(source[x] >> shift);
    }
  }
}

void CopyRegion(const Plane& from, const Region& region, Plane& to) {
  const std::size_t bytes = from.BytesPerSample();
  for (std::uint32_t y = region.y; y < region.y + region.height; ++y) {
    std::copy_n(from.Row<std::uint8_t>(y) + region.x * bytes, region.width * bytes,
                to.Row<std::uint8_t>(y) + region.x * bytes);
  }
}

/// A sample as the library leaves it, centred on zero, as an unsigned one of the plane's depth.
template <class Cell>
std::uint32_t FromRaw(Cell cell, std::uint32_t most) {
  const double value = std::nearbyint(static_cast<double>(cell)) + std::floor(most / 2.0) + 1;
  return static_cast<std::uint32_t>(std::clamp(value, 0.0, static_cast<double>(most)));
}

/// Copies what lies inside the plane of one component of a tile out of the library's plane, whose
/// rows can be padded.
void CopyRawTile(const KelTileComponent& component, const ComponentArea& whole, unsigned halvings,
                 Plane& plane) {
  const KelImageData* data = component.GetOutputImage();
  if (data == nullptr || data->GetImageBuffer() == nullptr) return;
  const KelTileGeometry& place = *component.GetTileGeometryParams();
  const std::int64_t x0 = HalvedEdge(place.X0, halvings), x1 = HalvedEdge(place.X1, halvings);
  const std::int64_t y0 = HalvedEdge(place.Y0, halvings), y1 = HalvedEdge(place.Y1, halvings);
  const bool isInside = x1 - x0 <= data->GetWidth() && y1 - y0 <= data->GetHeight();
  const std::int64_t left = std::max(x0, whole.x0), right = std::min(x1, whole.x1);
  const std::int64_t top = std::max(y0, whole.y0), bottom = std::min(y1, whole.y1);
  if (!isInside || right <= left || bottom <= top) return;
  KelMemFuncs& memory = *KelGetMemObj();
  const auto* cells = static_cast<const std::uint8_t*>(memory.LockBuf(data->GetImageBuffer()));
  if (cells == nullptr) throw Error(Failure::kMemory, std::string(CodeSentence(KelErrNoMemory)));
  const auto copy = [&](auto cell) {
    using Cell = decltype(cell);
    const auto* from = reinterpret_cast<const Cell*>(cells);
    const std::uint32_t most = plane.MaxValue();
    from += (top - y0) * data->GetWidth();
    for (std::int64_t y = top; y < bottom; ++y, from += data->GetWidth()) {
      for (std::int64_t x = left; x < right; ++x) {
        plane.Set(static_cast<std::uint32_t>(x - whole.x0),
                  static_cast<std::uint32_t>(y - whole.y0), FromRaw(from[x - x0], most));
      }
    }
  };
  if (data->GetSizeofImageDataType() == 4 && data->ImageBufferType == 1) copy(float{});
  if (data->GetSizeofImageDataType() == 4 && data->ImageBufferType == 0) copy(std::int32_t{});
  memory.UnlockBuf(data->GetImageBuffer());
}

}  // namespace

std::int64_t HalvedEdge(std::int64_t edge, unsigned times) {
  return CeilDiv(edge, std::int64_t{1} << times);
}

std::vector<ComponentArea> ComponentAreas(const KelImageGeometry& geometry, unsigned halvings) {
  std::vector<ComponentArea> areas(static_cast<std::size_t>(geometry.Csiz));
  for (std::size_t c = 0; c < areas.size(); ++c) {
    const auto edge = [&](KelLong position, KelLong step) {
      return HalvedEdge(CeilDiv(position, step), halvings);
    };
    const KelLong xStep = geometry.XRsiz[c], yStep = geometry.YRsiz[c];
    areas[c] = {edge(geometry.XOsiz, xStep),
                edge(geometry.YOsiz, yStep),
                edge(geometry.Xsiz, xStep),
                edge(geometry.Ysiz, yStep),
                static_cast<std::uint32_t>(xStep),
                static_cast<std::uint32_t>(yStep),
                static_cast<unsigned>(geometry.BitDepths[c])};
  }
  return areas;
}

std::uint64_t PlaneBytes(const std::vector<ComponentArea>& areas) {
  std::uint64_t bytes = 0;
  for (const ComponentArea& area : areas) {
    const std::uint64_t plane =
        SampleBytes(static_cast<std::uint32_t>(area.x1 - area.x0),
                    static_cast<std::uint32_t>(area.y1 - area.y0), 1, area.depth);
    bytes = plane > UINT64_MAX - bytes ? UINT64_MAX : bytes + plane;
  }
  return bytes;
}

namespace {

template <class Make>
std::vector<Plane> PlanesOf(const std::vector<ComponentArea>& areas, Make make) {
  std::vector<Plane> planes;
  for (const ComponentArea& area : areas) {
    if (area.depth > 32) throw Error(Failure::kInput, "samples of more than 32 bits");
    Plane& plane =
        planes.emplace_back(make(static_cast<std::uint32_t>(area.x1 - area.x0),
                                 static_cast<std::uint32_t>(area.y1 - area.y0), area.depth));
    plane.xStep = area.xStep;
    plane.yStep = area.yStep;
  }
  return planes;
}

}  // namespace

std::vector<Plane> DescribePlanes(const std::vector<ComponentArea>& areas) {
  return PlanesOf(areas, [](std::uint32_t width, std::uint32_t height, unsigned depth) {
    CheckPixels(width, height);
    return Plane::WithoutSamples(width, height, depth);
  });
}

std::vector<Plane> MakePlanes(const std::vector<ComponentArea>& areas) {
  return PlanesOf(areas, [](auto... shape) { return Plane(shape...); });
}

FrameTarget::FrameTarget(const std::vector<ComponentArea>& whole,
                         const std::vector<ComponentArea>& part,
                         std::span<const KelIndexComponent> components, bool colourTransform)
    : whole_(whole), part_(part) {
  RequireInside(whole, part);
  // The library's fast paths to bytes, where they give the same samples as the general one: for a
  // transformed colour triple. (For single planes of the 9/7 filter they do not quite.)
  const auto isByte = [](const ComponentArea& area) { return area.depth == 8; };
  const bool fast = colourTransform && std::ranges::all_of(part, isByte);
  for (std::size_t c = 0; c < part.size(); ++c) {
    const ComponentArea& area = part[c];
    const unsigned boxDepth = c < components.size() ? components[c].boxDepth : 0;
    raw_ = raw_ || area.depth > 16 || (boxDepth != 0 && boxDepth != area.depth);
    inDepths_.push_back(fast ? 8 : 0);
    outDepths_.push_back(area.depth <= 8 ? 8 : 16);
    most_.push_back(std::ldexp(1.0, static_cast<int>(area.depth)) - 1);
  }
  buffers_.resize(part.size());
  strides_.resize(part.size());
  signs_.resize(part.size());
  least_.resize(part.size());
}

KelFrameData* FrameTarget::Frame(std::vector<Plane>& planes) {
  for (std::size_t c = 0; c < planes.size(); ++c) {
    Plane& plane = planes[c];
    const Region region = RegionOf(whole_[c], part_[c]);
    const bool usable = !raw_ && region.width != 0;
    buffers_[c] =
        usable ? plane.Row<std::uint8_t>(region.y) + region.x * plane.BytesPerSample() : nullptr;
    strides_[c] = static_cast<KelLong>(plane.StrideBytes());
  }
  frame_.NumChannels = static_cast<KelLong>(part_.size());
  frame_.OutBuffers = buffers_.data();
  frame_.OutStrides = strides_.data();
  frame_.InBitDepths = inDepths_.data();
  frame_.OutBitDepths = outDepths_.data();
  frame_.OutSigned = signs_.data();
  frame_.OutMax = most_.data();
  frame_.OutMin = least_.data();
  return &frame_;
}

void FrameTarget::FinishPlanes(const KelImage& object, unsigned halvings,
                               std::vector<Plane>& planes) const {
  for (std::size_t c = 0; c < planes.size(); ++c) {
    const unsigned depth = part_[c].depth;
    if (!raw_) {
      if (depth > 8 && depth < 16) {
        ShiftDown(planes[c], RegionOf(whole_[c], part_[c]), planes[c]);
      }
      continue;
    }
    const auto numTiles = static_cast<std::size_t>(object.GetNumTiles());
    for (std::size_t tile = 0; tile < numTiles; ++tile) {
      if (object.TileIsUntouched(static_cast<KelLong>(tile))) continue;
      CopyRawTile(TileComponent(object, tile, c), whole_[c], halvings, planes[c]);
    }
  }
}

bool FrameTarget::NeedsFinish() const {
  return raw_ || std::ranges::any_of(part_, [](const ComponentArea& area) {
           return area.depth > 8 && area.depth < 16;
         });
}

void FrameTarget::FinishTile(const KelImage& object, std::size_t tile, unsigned halvings,
                             const std::vector<ComponentArea>& part, const std::vector<Plane>& from,
                             std::vector<Plane>& to) const {
  for (std::size_t c = 0; c < to.size(); ++c) {
    const unsigned depth = part[c].depth;
    if (raw_) {
      CopyRawTile(TileComponent(object, tile, c), whole_[c], halvings, to[c]);
    } else if (depth > 8 && depth < 16) {
      ShiftDown(from[c], RegionOf(whole_[c], part[c]), to[c]);
    } else {
      CopyRegion(from[c], RegionOf(whole_[c], part[c]), to[c]);
    }
  }
}

}  // namespace kel::host
