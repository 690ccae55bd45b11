// Decoding with halvings or a region: tile by tile through the index, or, where the tile-parts are
// not where their lengths say, by the decoder that finds its own way.
#include "RegionDecode.hpp"

#include <algorithm>

#include "TileReader.hpp"
#include "WholeData.hpp"
#include "kel/host/parallel.hpp"

namespace kel::host {
namespace {

std::unique_ptr<RangeSource> RangesOf(Source& source, WholeData& storage) {
  if (!IsBeyondBlock(source)) {
    if (const auto view = source.View()) return std::make_unique<MemoryRanges>(*view);
  }
  if (source.Size()) return std::make_unique<SourceRanges>(source);
  storage = WholeData(source);
  return std::make_unique<MemoryRanges>(storage.View());
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

/// All halvings that the wavelet has, of tile-parts that are where their lengths say.
Image DecodeTiles(TileReader& reader, const Region& region, const DecodeParams& params,
                  DecodeTally& tally) {
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

namespace {

/// A part that is asked for, in opened data.
struct OpenedPart {
  OpenedPart(Source& source, const DecodeParams& params);

  bool AreRegular() {
    return reader.WithIndex([](RangeIndex& index) { return index.TileParts().areRegular; });
  }
  bool NeedsAverages() const { return stored.reduce < halvings; }

  WholeData storage;
  const std::unique_ptr<RangeSource> ranges;
  TileReader reader;
  const Region region;
  const CanvasBox box;
  const unsigned halvings;
  DecodeParams stored;  ///< with no more halvings than the wavelet has
};

OpenedPart::OpenedPart(Source& source, const DecodeParams& params)
    : ranges(RangesOf(source, storage)),
      reader(*ranges, {.cacheBytes = 0, .exact = params.exact}),
      region(params.region.value_or(
          Region{0, 0, reader.Description().width, reader.Description().height})),
      box(BoxOf(reader.Grid(), region)),
      halvings(HalvingsOf(params, box)),
      stored(params) {
  if (reader.Description().palette && halvings != 0) {
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
  stored.reduce = std::min(halvings, levels);
  stored.threads = ThreadCount(params.threads);
}

/// The rows of a part, of which one row of tiles is decoded at a time.
class PartRows final : public PartRowSource {
 public:
  PartRows(std::unique_ptr<OpenedPart> part, const Image& description)
      : part_(std::move(part)),
        top_(part_->box.y0),
        numTiles_(TilesTouching(part_->reader.Grid(), part_->box).size()) {
    CopyDescription(description, description_);
    if (part_->stored.progress) {
      part_->stored.progress = [this, whole = part_->stored.progress](std::size_t done,
                                                                      std::size_t) {
        whole(tally_.report.numTiles + done, numTiles_);
      };
    }
  }

  void Read(std::uint32_t count, std::uint8_t* to, std::size_t strideBytes) override {
    while (count > 0) {
      if (!rows_ || nextRow_ == band_.height) DecodeBand();
      const std::uint32_t taken = std::min(count, band_.height - nextRow_);
      rows_->Read(taken, to, strideBytes);
      nextRow_ += taken;
      count -= taken;
      to += taken * strideBytes;
    }
  }
  DecodeReport Report() override {
    // Tiles in which no sample of the resolution lies were not asked for.
    tally_.report.numCompleteTiles += numTiles_ - tally_.report.numTiles;
    tally_.report.numTiles = numTiles_;
    tally_.Settle(part_->stored);
    return tally_.report;
  }

 private:
  void DecodeBand();

  const std::unique_ptr<OpenedPart> part_;
  std::int64_t top_;  ///< of what is left, on the canvas
  const std::size_t numTiles_;
  DecodeTally tally_;
  Image band_;
  std::optional<ImageRowSource> rows_;
  std::uint32_t nextRow_ = 0;
};

/// The next row of tiles in which samples of the resolution lie.
void PartRows::DecodeBand() {
  const KelImageGeometry& grid = part_->reader.Grid();
  const unsigned reduce = part_->stored.reduce;
  std::int64_t bottom = top_;
  do {
    top_ = bottom;
    const std::int64_t row = (top_ - grid.YTOsiz) / grid.YTsiz;
    bottom = std::min(part_->box.y1, grid.YTOsiz + (row + 1) * grid.YTsiz);
  } while (HalvedEdge(bottom, reduce) == HalvedEdge(top_, reduce));
  const Region region{part_->region.x, static_cast<std::uint32_t>(top_ - grid.YOsiz),
                      part_->region.width, static_cast<std::uint32_t>(bottom - top_)};
  rows_.reset();
  DecodeTally tally;
  band_ = DecodeTiles(part_->reader, region, part_->stored, tally);
  rows_.emplace(band_);
  nextRow_ = 0;
  top_ = bottom;
  tally_.Add(tally);
}

}  // namespace

std::unique_ptr<PartRowSource> OpenPartRows(Source& source, const DecodeParams& params,
                                            const Image& description) {
  if (!source.Size() || !HasPlainRows(description)) return nullptr;
  auto part = std::make_unique<OpenedPart>(source, params);
  if (!part->AreRegular() || part->NeedsAverages()) return nullptr;
  return std::make_unique<PartRows>(std::move(part), description);
}

Image DecodePartly(Source& source, const DecodeParams& params, DecodeReport* report) {
  OpenedPart part(source, params);
  DecodeTally tally;
  Image image = part.AreRegular()
                    ? DecodeTiles(part.reader, part.region, part.stored, tally)
                    : DecodeIrregular(part.reader, *part.ranges, part.region, part.stored, tally);
  tally.Settle(params);
  if (part.NeedsAverages()) {
    auto areas = AreasWithin(part.reader.Grid(), part.box, part.stored.reduce);
    for (std::size_t c = 0; c < areas.size(); ++c) {
      for (unsigned i = part.stored.reduce; i < part.halvings; ++i) {
        image.planes[c] = Averaged(image.planes[c], areas[c]);
      }
    }
    SetSize(image, part.box, part.halvings);
  }
  if (report != nullptr) *report = tally.report;
  return image;
}

}  // namespace kel::host
