// Decoding with halvings or a region: tile by tile through the index, or, where the tile-parts are
// not where their lengths say, by the decoder that finds its own way.
#include "RegionDecode.hpp"

#include <algorithm>

#include "TileReader.hpp"
#include "kel/host/parallel.hpp"

namespace kel::host {
namespace {

std::unique_ptr<RangeSource> RangesOf(Source& source, Bytes& storage) {
  if (!IsBeyondBlock(source)) {
    if (const auto view = source.View()) return std::make_unique<MemoryRanges>(*view);
  }
  if (source.Size()) return std::make_unique<SourceRanges>(source);
  return std::make_unique<MemoryRanges>(ReadAll(source, storage));
}

/// Averages 2 x 2 samples, at even positions of the component's grid.
Plane Averaged(const Plane& plane, ComponentArea& area) {
  const ComponentArea from = area;
  for (std::int64_t* edge : {&area.x0, &area.y0, &area.x1, &area.y1}) *edge = HalvedEdge(*edge, 1);
  Plane half(static_cast<std::uint32_t>(area.x1 - area.x0),
             static_cast<std::uint32_t>(area.y1 - area.y0), plane.Depth());
  half.xStep = plane.xStep;
  half.yStep = plane.yStep;
  for (std::int64_t y = area.y0; y < area.y1; ++y) {
    for (std::int64_t x = area.x0; x < area.x1; ++x) {
      std::uint64_t sum = 0, count = 0;
      for (std::int64_t v = 2 * y; v < std::min(2 * y + 2, from.y1); ++v) {
        for (std::int64_t u = 2 * x; u < std::min(2 * x + 2, from.x1); ++u, ++count) {
          sum += plane.At(static_cast<std::uint32_t>(u - from.x0),
                          static_cast<std::uint32_t>(v - from.y0));
        }
      }
      half.Set(static_cast<std::uint32_t>(x - area.x0), static_cast<std::uint32_t>(y - area.y0),
               static_cast<std::uint32_t>((sum + count / 2) / count));
    }
  }
  return half;
}

/// What the library's own decoder makes of data whose tile-parts it has to look for.
Image DecodeIrregular(TileReader& reader, RangeSource& source, const Region& region,
                      const DecodeParams& params, DecodeTally& tally) {
  const CanvasBox box = BoxOf(reader.Grid(), region);
  tally.StartAnew(TilesTouching(reader.Grid(), box).size());
  const auto areas = AreasWithin(reader.Grid(), box, params.reduce);
  const MemoryReservation room(PlaneBytes(areas), "the decoded region");
  Image image = reader.EmptyImage(areas, box, params.reduce);
  RangeStream stream(source);
  Decoder decoder(*stream.Stream());
  const PartResult result = reader.WithIndex([&](const RangeIndex& index) {
    return DecodeAllOf(decoder, {areas, index.Components(), params.exact, &box, params.reduce},
                       image.planes);
  });
  stream.Rethrow();
  tally.Add(result);
  return image;
}

/// All halvings that the wavelet has.
Image DecodeResolution(TileReader& reader, RangeSource& source, const Region& region,
                       const DecodeParams& params, DecodeTally& tally) {
  const bool areRegular =
      reader.WithIndex([](RangeIndex& index) { return index.TileParts().areRegular; });
  if (!areRegular) return DecodeIrregular(reader, source, region, params, tally);
  try {
    return reader.Decode(region, params, tally);
  } catch (const Error& error) {
    // Whether an image fits into memory must not depend on the number of threads.
    if (error.Kind() != Failure::kMemory || params.threads == 1) throw;
  }
  DecodeParams alone = params;
  alone.threads = 1;
  return reader.Decode(region, alone, tally);
}

}  // namespace

bool IsPartial(const DecodeParams& params) {
  return params.reduce != 0 || params.region || params.fitWidth != 0 || params.fitHeight != 0;
}

unsigned HalvingsOf(const DecodeParams& params, const CanvasBox& box) {
  const auto fits = [](std::int64_t from, std::int64_t to, std::uint32_t most, unsigned halvings) {
    return most == 0 || HalvedEdge(to, halvings) - HalvedEdge(from, halvings) <= most;
  };
  unsigned halvings = params.reduce;
  while (halvings < kMostHalvings && !(fits(box.x0, box.x1, params.fitWidth, halvings) &&
                                       fits(box.y0, box.y1, params.fitHeight, halvings))) {
    ++halvings;
  }
  return halvings;
}

Image DecodePartly(Source& source, const DecodeParams& params, DecodeReport* report) {
  Bytes storage;
  const std::unique_ptr<RangeSource> ranges = RangesOf(source, storage);
  TileReader reader(*ranges, 0, params.exact);
  const Image& whole = reader.Description();
  const Region region = params.region.value_or(Region{0, 0, whole.width, whole.height});
  const CanvasBox box = BoxOf(reader.Grid(), region);
  const unsigned halvings = HalvingsOf(params, box);
  if (whole.palette && halvings != 0) {
    throw Error(Failure::kParameter, "an image with a palette cannot be reduced");
  }
  reader.WithIndex([](RangeIndex& index) {
    const KelIndexTileParts& found = index.TileParts();
    const auto hasBody = [](const KelIndexTilePart& part) {
      return part.length > part.headerBytes;
    };
    if (!std::any_of(found.parts, found.parts + found.count, hasBody)) {
      throw Error(Failure::kInput, "the data end before the first samples");
    }
  });
  const unsigned levels = reader.WithIndex([](RangeIndex& index) { return index.LeastLevels(); });
  if (params.region && halvings > levels) {
    throw Error(Failure::kParameter, "the picture can be halved " + std::to_string(levels) +
                                         " times, not " + std::to_string(halvings));
  }
  DecodeParams stored = params;
  stored.reduce = std::min(halvings, levels);
  stored.threads = ThreadCount(params.threads);
  DecodeTally tally;
  Image image = DecodeResolution(reader, *ranges, region, stored, tally);
  tally.Settle(params);
  if (stored.reduce < halvings) {
    auto areas = AreasWithin(reader.Grid(), box, stored.reduce);
    for (std::size_t c = 0; c < areas.size(); ++c) {
      for (unsigned i = stored.reduce; i < halvings; ++i) {
        image.planes[c] = Averaged(image.planes[c], areas[c]);
      }
    }
    SetSize(image, box, halvings);
  }
  if (report != nullptr) *report = tally.report;
  return image;
}

}  // namespace kel::host
