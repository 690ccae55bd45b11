// Tiles decoded from ranges of bytes, and regions copied together from them.
#include "TileReader.hpp"

#include <algorithm>

#include "kel/host/parallel.hpp"

namespace kel::host {
namespace {

constexpr std::uint64_t kBytesKept = std::uint64_t{8} << 20;
/// Bytes behind the end of a piece, so that the decoder, which reads words, need not be careful in
/// its last blocks: those of a small tile are nearly all.
constexpr std::size_t kBehindPiece = 1024;

/// Copies what two areas have in common.
void CopyCommon(const Plane& from, const ComponentArea& fromArea, Plane& to,
                const ComponentArea& toArea) {
  const std::int64_t x0 = std::max(fromArea.x0, toArea.x0), x1 = std::min(fromArea.x1, toArea.x1);
  const std::int64_t y0 = std::max(fromArea.y0, toArea.y0), y1 = std::min(fromArea.y1, toArea.y1);
  if (x0 >= x1) return;
  const std::size_t bytes = from.BytesPerSample();
  for (std::int64_t y = y0; y < y1; ++y) {
    const auto* source = from.Row<std::uint8_t>(static_cast<std::uint32_t>(y - fromArea.y0)) +
                         static_cast<std::size_t>(x0 - fromArea.x0) * bytes;
    std::copy_n(source, static_cast<std::size_t>(x1 - x0) * bytes,
                to.Row<std::uint8_t>(static_cast<std::uint32_t>(y - toArea.y0)) +
                    static_cast<std::size_t>(x0 - toArea.x0) * bytes);
  }
}

}  // namespace

CanvasBox BoxOf(const KelImageGeometry& grid, const Region& region) {
  const std::int64_t x0 = std::int64_t{grid.XOsiz} + region.x;
  const std::int64_t y0 = std::int64_t{grid.YOsiz} + region.y;
  if (x0 >= grid.Xsiz || y0 >= grid.Ysiz || region.width == 0 || region.height == 0) {
    throw Error(Failure::kParameter, "the region lies outside the picture");
  }
  return {x0, y0, std::min<std::int64_t>(x0 + region.width, grid.Xsiz),
          std::min<std::int64_t>(y0 + region.height, grid.Ysiz)};
}

std::vector<ComponentArea> AreasWithin(const KelImageGeometry& grid, const CanvasBox& box,
                                       unsigned halvings) {
  std::vector<ComponentArea> areas = ComponentAreas(grid, halvings);
  for (ComponentArea& area : areas) {
    const auto edge = [&](std::int64_t position, std::uint32_t step) {
      return HalvedEdge((position + step - 1) / step, halvings);
    };
    area.x0 = edge(box.x0, area.xStep);
    area.y0 = edge(box.y0, area.yStep);
    area.x1 = edge(box.x1, area.xStep);
    area.y1 = edge(box.y1, area.yStep);
  }
  return areas;
}

void SetSize(Image& image, const CanvasBox& box, unsigned halvings) {
  const auto length = [&](std::int64_t from, std::int64_t to) {
    return static_cast<std::uint32_t>(HalvedEdge(to, halvings) - HalvedEdge(from, halvings));
  };
  image.width = length(box.x0, box.x1);
  image.height = length(box.y0, box.y1);
}

std::vector<std::uint32_t> TilesTouching(const KelImageGeometry& grid, const CanvasBox& box) {
  std::vector<std::uint32_t> touched;
  const auto column = [&](std::int64_t x) { return (x - grid.XTOsiz) / grid.XTsiz; };
  const auto row = [&](std::int64_t y) { return (y - grid.YTOsiz) / grid.YTsiz; };
  for (std::int64_t q = row(box.y0); q <= row(box.y1 - 1); ++q) {
    for (std::int64_t p = column(box.x0); p <= column(box.x1 - 1); ++p) {
      touched.push_back(static_cast<std::uint32_t>(q * grid.NumXTiles + p));
    }
  }
  return touched;
}

TileReader::TileReader(RangeSource& source, const PictureParams& params)
    : exact_(params.exact),
      bytes_(source, kBytesKept, params.blockBytes),
      index_(bytes_),
      tiles_(params.cacheBytes) {
  front_.facts = &index_.Facts();
  front_.bytes.resize(LengthInMemory(front_.facts->firstTilePartOffset));
  bytes_.Fetch(0, front_.bytes);
  components_.assign(index_.Components().begin(), index_.Components().end());
  const Bytes data = BuildDescription(front_, bytes_);
  Decoder decoder(data);
  description_ = DescribeImage(decoder, *front_.facts);
  roles_ = ComponentRoles(decoder.Object());
}

TilePointer TileReader::DecodeTile(const TileParts& parts, unsigned reduce) {
  auto image = std::make_shared<DecodedTile>();
  image->areas = AreasWithin(Grid(), parts.box, reduce);
  image->bytes = PlaneBytes(image->areas);
  image->room = MemoryReservation(image->bytes, "a tile of the picture");
  image->planes = MakePlanes(image->areas);
  bytes_.Prepare(BytesOfPiece(parts, reduce));
  Bytes piece = BuildPiece(front_, parts, reduce, bytes_);
  if (piece.empty()) {
    // Where no sample falls into the tile at this resolution, its packets are empty.
    image->result.numTilesWithSamples = !parts.headers.empty();
    image->result.numCompleteTiles = parts.hasAllPackets;
    return image;
  }
  piece.resize(piece.size() + kBehindPiece);
  image->result =
      DecodeInto({image->areas, components_, exact_}, piece, nullptr, nullptr, image->planes)
          .value();
  return image;
}

TilePointer TileReader::Tile(std::uint32_t tile, unsigned reduce) {
  if (TilePointer kept = tiles_.Find(tile, reduce)) return kept;
  TileParts parts;
  {
    const std::lock_guard lock(indexMutex_);
    parts = CollectTile(index_, tile, reduce);
  }
  TilePointer image = DecodeTile(parts, reduce);
  tiles_.Keep(tile, reduce, image);
  return image;
}

Image TileReader::Describe(unsigned reduce) const {
  const KelImageGeometry& grid = Grid();
  const CanvasBox box{grid.XOsiz, grid.YOsiz, grid.Xsiz, grid.Ysiz};
  Image image = description_;
  for (const ComponentArea& area : AreasWithin(grid, box, reduce)) {
    const ComponentRole& role = roles_[image.planes.size()];
    Plane& plane = image.planes.emplace_back(
        Plane::WithoutSamples(static_cast<std::uint32_t>(area.x1 - area.x0),
                              static_cast<std::uint32_t>(area.y1 - area.y0), area.depth));
    plane.role = role.role;
    plane.colour = role.colour;
    plane.xStep = area.xStep;
    plane.yStep = area.yStep;
  }
  SetSize(image, box, reduce);
  return image;
}

Image TileReader::EmptyImage(const std::vector<ComponentArea>& areas, const CanvasBox& box,
                             unsigned reduce) const {
  Image image = description_;
  image.planes = MakePlanes(areas);
  for (std::size_t c = 0; c < areas.size(); ++c) {
    image.planes[c].role = roles_[c].role;
    image.planes[c].colour = roles_[c].colour;
  }
  SetSize(image, box, reduce);
  return image;
}

Image TileReader::Decode(const Region& region, const DecodeParams& params, DecodeTally& tally) {
  const KelImageGeometry& grid = Grid();
  const CanvasBox box = BoxOf(grid, region);
  if (description_.palette && params.reduce != 0) {
    throw Error(Failure::kParameter, "an image with a palette cannot be reduced");
  }
  const std::vector<ComponentArea> areas = AreasWithin(grid, box, params.reduce);
  const MemoryReservation room(PlaneBytes(areas), "the decoded region");
  Image image = EmptyImage(areas, box, params.reduce);
  const std::vector<std::uint32_t> touched = TilesTouching(grid, box);
  tally.StartAnew(touched.size());
  std::mutex tallyMutex;
  std::size_t numDone = 0;
  ForEachIndex(touched.size(), params.threads, [&](unsigned, std::size_t i) {
    const TilePointer tile = Tile(touched[i], params.reduce);
    for (std::size_t c = 0; c < areas.size(); ++c) {
      CopyCommon(tile->planes[c], tile->areas[c], image.planes[c], areas[c]);
    }
    const std::lock_guard lock(tallyMutex);
    tally.Add(tile->result);
    if (params.progress) params.progress(++numDone, touched.size());
  });
  return image;
}

}  // namespace kel::host
