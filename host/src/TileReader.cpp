// Tiles decoded from ranges of bytes, and regions copied together from them.
#include "TileReader.hpp"

#include <algorithm>
#include <functional>

#include "kel/host/parallel.hpp"

namespace kel::host {
namespace {

/// Samples of a component that tiles which are decoded together have at most.
constexpr std::uint64_t kGroupArea = 512 * 512;
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

/// Where tiles have a tile-part for each resolution, the ones that are needed: over a source that
/// is far away, what would be fetched header by header comes with few requests.
std::vector<ByteRange> LikelyBytes(RangeIndex& index, std::span<const std::uint32_t> tiles,
                                   unsigned reduce) {
  const KelULong numParts = index.Facts().numLevels + 1;
  std::vector<ByteRange> ranges;
  for (const std::uint32_t tile : tiles) {
    const std::span<const KelULong> own = index.PartsOf(tile);
    if (own.size() != numParts || reduce >= numParts) continue;
    for (const KelULong i : own.first(numParts - reduce)) {
      const KelIndexTilePart& part = index.TileParts().parts[i];
      ranges.push_back({part.offset, part.offset + part.length});
    }
  }
  return ranges;
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
      isFar_(!source.IsNear() && params.blockBytes != 0),
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

std::shared_ptr<DecodedTile> TileReader::MakeTiles(std::span<const TileParts> parts,
                                                   unsigned reduce) {
  auto image = std::make_shared<DecodedTile>();
  for (const TileParts& tile : parts) image->tiles.push_back(tile.tile);
  image->areas = AreasWithin(Grid(), BoxOf(parts), reduce);
  image->bytes = PlaneBytes(image->areas);
  image->room = MemoryReservation(image->bytes, "tiles of the picture");
  image->planes = MakePlanes(image->areas);
  return image;
}

/// A tile of which packets are missing, or not what their lengths say: from its tile-parts as they
/// stand the library gets what can be had of it. Where all packets seemed to be there they are not
/// what they seem, and all bytes are looked at, else those that the index names.
TilePointer TileReader::DecodeDamaged(const TileParts& tile, unsigned reduce) {
  auto image = MakeTiles({&tile, 1}, reduce);
  Bytes front = front_.bytes;  // which ends where something has to follow
  front.push_back(static_cast<std::uint8_t>(front_.facts->markerByte));
  front.push_back(format::kEOC);
  const Index header(front);
  const auto across = static_cast<std::uint32_t>(Grid().NumXTiles);
  const TileRun run{tile.tile % across, tile.tile / across, 1, 1, {}};
  const auto [places, needed] = WithIndex([&](RangeIndex& index) {
    const auto stand = PlacesOfTile(index, tile.tile);
    return std::pair(stand, tile.hasAllPackets ? stand : NeededBytes(index, tile.tile, reduce));
  });
  std::vector<Bytes> held;
  std::vector<TilePartBytes> parts;
  for (const ByteRange& place : places) {
    const std::uint64_t end = std::min(place.to, bytes_.Size());
    if (end < place.from + format::kLeastTilePartBytes) continue;
    Bytes& bytes = held.emplace_back(LengthInMemory(end - place.from));
    for (const ByteRange& range : needed) {
      const std::uint64_t from = std::max(range.from, place.from), to = std::min(range.to, end);
      if (from >= to) continue;
      bytes_.Fetch(from, std::span(bytes).subspan(static_cast<std::size_t>(from - place.from),
                                                  static_cast<std::size_t>(to - from)));
    }
    parts.push_back({tile.tile, bytes, place.to - end});
  }
  Bytes data;
  BuildRun(front, header.Facts(), run, parts, data);
  const PartTarget target{image->areas, components_, exact_, &tile.box, reduce};
  image->result = DecodeInto(target, data, nullptr, nullptr, image->planes).value();
  return image;
}

/// Null when of several tiles some came out incomplete: what is missing of each of them only
/// decoding them alone can tell.
TilePointer TileReader::DecodeTiles(std::span<const TileParts> parts, unsigned reduce) {
  const bool canMend = parts.size() == 1 && !parts[0].headers.empty() && CanBeCut(*front_.facts);
  if (canMend && !parts[0].hasAllPackets) return DecodeDamaged(parts[0], reduce);
  auto image = MakeTiles(parts, reduce);
  bytes_.Prepare(BytesOfPiece(parts, reduce));
  Bytes piece = BuildPiece(front_, parts, reduce, bytes_);
  if (piece.empty()) {
    // Where no sample falls into the tile at this resolution, its packets are empty.
    image->result.numTilesWithSamples = !parts[0].headers.empty();
    image->result.numCompleteTiles = parts[0].hasAllPackets;
    return image;
  }
  piece.resize(piece.size() + kBehindPiece);
  image->result =
      DecodeInto({image->areas, components_, exact_}, piece, nullptr, nullptr, image->planes)
          .value();
  const PartResult& all = image->result;
  const bool areWhole = all.failure.errCode == KelOK && all.numCompleteTiles == parts.size() &&
                        all.numTilesWithSamples == parts.size();
  if (!areWhole && canMend) return DecodeDamaged(parts[0], reduce);
  if (parts.size() == 1) return image;
  image->result.numCompleteTiles = image->result.numTilesWithSamples = 1;
  return areWhole ? image : nullptr;
}

/// Where decoded tiles go.
struct TileReader::Placing {
  unsigned reduce;
  std::function<void(const DecodedTile& tiles, std::size_t count)> place;
};

/// Decodes the tiles, together if that is possible.
void TileReader::PlaceMissing(const Group& tiles, const Placing& to) {
  std::vector<TileParts> parts;
  if (isFar_) {
    bytes_.Prepare(
        WithIndex([&](RangeIndex& index) { return LikelyBytes(index, tiles, to.reduce); }));
  }
  {
    const std::lock_guard lock(indexMutex_);
    for (const std::uint32_t tile : tiles) parts.push_back(CollectTile(index_, tile, to.reduce));
  }
  if (parts.size() > 1 && CanJoin(Grid(), parts, to.reduce)) {
    if (const TilePointer image = DecodeTiles(parts, to.reduce)) {
      tiles_.Keep(image, to.reduce);
      return to.place(*image, tiles.size());
    }
  }
  for (const TileParts& tile : parts) {
    const TilePointer image = DecodeTiles({&tile, 1}, to.reduce);
    tiles_.Keep(image, to.reduce);
    to.place(*image, 1);
  }
}

void TileReader::PlaceGroup(const Group& tiles, const Placing& to) {
  Group missing;
  const auto placeMissing = [&] {
    if (!missing.empty()) PlaceMissing(std::exchange(missing, {}), to);
  };
  for (std::size_t i = 0; i < tiles.size();) {
    const TilePointer kept = tiles_.Find(tiles[i], to.reduce);
    if (!kept) {
      missing.push_back(tiles[i++]);
      continue;
    }
    placeMissing();
    std::size_t count = 0;
    while (i < tiles.size() && std::ranges::count(kept->tiles, tiles[i]) != 0) ++count, ++i;
    to.place(*kept, count);
  }
  placeMissing();
}

/// Small tiles, which take as long to set up as to decode, in groups of a row.
std::vector<TileReader::Group> TileReader::GroupsOf(const std::vector<std::uint32_t>& tiles,
                                                    unsigned reduce) const {
  const KelImageGeometry& grid = Grid();
  const auto side = [&](KelLong length) {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(HalvedEdge(length, reduce), 1));
  };
  const std::uint64_t most =
      std::max<std::uint64_t>(kGroupArea / (side(grid.XTsiz) * side(grid.YTsiz)), 1);
  const auto across = static_cast<std::uint32_t>(grid.NumXTiles);
  std::vector<Group> groups;
  for (const std::uint32_t tile : tiles) {
    const bool goesOn = !groups.empty() && groups.back().size() < most &&
                        groups.back().back() + 1 == tile && tile % across != 0;
    if (!goesOn) groups.emplace_back();
    groups.back().push_back(tile);
  }
  return groups;
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
  const Placing placing{params.reduce, [&](const DecodedTile& tiles, std::size_t count) {
                          for (std::size_t c = 0; c < areas.size(); ++c) {
                            CopyCommon(tiles.planes[c], tiles.areas[c], image.planes[c], areas[c]);
                          }
                          const std::lock_guard lock(tallyMutex);
                          for (std::size_t i = 0; i < count; ++i) {
                            tally.Add(tiles.result);
                            if (params.progress) params.progress(++numDone, touched.size());
                          }
                        }};
  const std::vector<Group> groups = GroupsOf(touched, params.reduce);
  ForEachIndex(groups.size(), params.threads,
               [&](unsigned, std::size_t i) { PlaceGroup(groups[i], placing); });
  return image;
}

}  // namespace kel::host
