// An opened picture: the kit's reader of tiles with the caller's cache.
#include "kel/host/picture.hpp"

#include <algorithm>

#include "TileReader.hpp"

namespace kel::host {

struct Picture::State : TileReader {
  using TileReader::TileReader;
};

Picture::Picture(RangeSource& source, const PictureParams& params)
    : state_(std::make_unique<State>(source, params)) {}

Picture::~Picture() = default;

const Image& Picture::Description() const {
  return state_->Description();
}

Image Picture::Describe(unsigned reduce) const {
  if (reduce > kMostHalvings) {
    throw Error(Failure::kParameter, "at most 31 halvings are possible");
  }
  return state_->Describe(reduce);
}

std::uint32_t Picture::Width() const {
  return state_->Description().width;
}
std::uint32_t Picture::Height() const {
  return state_->Description().height;
}
std::uint32_t Picture::TilesAcross() const {
  return static_cast<std::uint32_t>(state_->Grid().NumXTiles);
}
std::uint32_t Picture::TilesDown() const {
  return static_cast<std::uint32_t>(state_->Grid().NumYTiles);
}
unsigned Picture::Levels() const {
  return state_->Front().facts->numLevels;
}

Region Picture::TileRegion(std::uint32_t tile) const {
  if (tile >= TilesAcross() * TilesDown()) {
    throw Error(Failure::kParameter, "there is no tile " + std::to_string(tile));
  }
  const KelImageGeometry& grid = state_->Grid();
  const CanvasBox box = TileBox(grid, tile);
  const auto at = [](std::int64_t from, std::int64_t to) {
    return static_cast<std::uint32_t>(std::max<std::int64_t>(to - from, 0));
  };
  return {at(grid.XOsiz, box.x0), at(grid.YOsiz, box.y0), at(box.x0, box.x1), at(box.y0, box.y1)};
}

std::uint64_t Picture::FrontBytes() const {
  return state_->Front().bytes.size();
}

std::vector<ByteRange> Picture::BytesOf(std::uint32_t tile, unsigned reduce) {
  TileRegion(tile);  // which knows the tiles that exist
  return state_->WithIndex([&](RangeIndex& index) { return NeededBytes(index, tile, reduce); });
}

std::vector<ByteRange> Picture::PlacesOf(std::uint32_t tile) {
  TileRegion(tile);
  return state_->WithIndex([&](RangeIndex& index) { return PlacesOfTile(index, tile); });
}

Image Picture::Decode(const Region& region, unsigned reduce, unsigned threads,
                      DecodeReport* report) {
  DecodeParams params;
  params.reduce = reduce;
  params.threads = threads;
  DecodeTally tally;
  Image image = state_->Decode(region, params, tally);
  if (report != nullptr) {
    *report = tally.report;
    report->complete = report->numCompleteTiles == report->numTiles;
  }
  return image;
}

}  // namespace kel::host
