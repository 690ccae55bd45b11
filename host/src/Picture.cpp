// An opened picture: the index over a cache of byte ranges, and tiles decoded one by one.
//
// A tile is decoded whole at the resolution asked for and kept; a region is copied together from
// the tiles that it touches. Fetching and decoding run side by side; only the index is asked by one
// thread at a time.
#include "kel/host/picture.hpp"

#include <algorithm>
#include <atomic>
#include <list>
#include <mutex>

#include "Describe.hpp"
#include "FrameTarget.hpp"
#include "TilePiece.hpp"
#include "kel/host/parallel.hpp"
#include "kel/host/session.hpp"

namespace kel::host {
namespace {

constexpr unsigned kMostHalvings = 31;

/// The library's stream object over a source of ranges. Positions of streams are 31-bit numbers.
class SourceStream {
 public:
  explicit SourceStream(RangeSource& source) : source_(source) {
    procs_.clientData = this;
    procs_.Read = [](void* self, void* to, KelLong count) {
      return static_cast<SourceStream*>(self)->Read(static_cast<std::uint8_t*>(to), count);
    };
    procs_.Write = [](void*, const void*, KelLong) { return KelLong{-1}; };
    procs_.Seek = [](void* self, KelLong, KelLong offset) {
      static_cast<SourceStream*>(self)->position_ = static_cast<std::uint64_t>(offset);
      return offset;
    };
    stream_.InitKelCodeStm(static_cast<KelLong>(End()), false, true, true, false, &procs_);
  }
  SourceStream(const SourceStream&) = delete;
  SourceStream& operator=(const SourceStream&) = delete;

  KelCodeStm* Stream() { return &stream_; }
  /// Throws what made a read fail, if one did: the library only sees the data end there.
  void Rethrow() {
    if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
  }

 private:
  std::uint64_t End() const { return std::min<std::uint64_t>(source_.Size(), INT32_MAX); }
  KelLong Read(std::uint8_t* to, KelLong count) {
    const std::uint64_t left = End() - std::min(End(), position_);
    const auto taken =
        static_cast<std::size_t>(std::min<std::uint64_t>(left, static_cast<std::uint64_t>(count)));
    if (taken == 0) return 0;
    try {
      source_.Fetch(position_, {to, taken});
    } catch (...) {
      failure_ = std::current_exception();
      return -1;
    }
    position_ += taken;
    return static_cast<KelLong>(taken);
  }

  RangeSource& source_;
  std::uint64_t position_ = 0;
  std::exception_ptr failure_;
  KelStreamProcs procs_;
  KelCodeStm stream_;
};

/// A tile at one resolution.
struct DecodedTile {
  std::vector<ComponentArea> areas;
  std::vector<Plane> planes;
  MemoryReservation room;
  std::uint64_t bytes = 0;
  bool complete = false;
};
using TilePointer = std::shared_ptr<const DecodedTile>;

/// Tiles kept, the last used first.
class TileCache {
 public:
  explicit TileCache(std::uint64_t mostBytes) : mostBytes_(mostBytes) {}

  TilePointer Find(std::uint32_t tile, unsigned reduce) {
    const std::lock_guard lock(mutex_);
    const auto found = std::ranges::find_if(
        entries_, [&](const Entry& entry) { return entry.tile == tile && entry.reduce == reduce; });
    if (found == entries_.end()) return nullptr;
    entries_.splice(entries_.begin(), entries_, found);
    return entries_.front().image;
  }

  void Keep(std::uint32_t tile, unsigned reduce, const TilePointer& image) {
    const std::lock_guard lock(mutex_);
    if (image->bytes > mostBytes_) return;
    entries_.push_front({tile, reduce, image});
    bytes_ += image->bytes;
    while (bytes_ > mostBytes_) {
      bytes_ -= entries_.back().image->bytes;
      entries_.pop_back();
    }
  }

 private:
  struct Entry {
    std::uint32_t tile;
    unsigned reduce;
    TilePointer image;
  };
  const std::uint64_t mostBytes_;
  std::mutex mutex_;
  std::list<Entry> entries_;
  std::uint64_t bytes_ = 0;
};

/// The areas of all components within a rectangle of the canvas, after so many halvings.
std::vector<ComponentArea> AreasWithin(const KelImageGeometry& whole, std::int64_t x0,
                                       std::int64_t y0, std::int64_t x1, std::int64_t y1,
                                       unsigned halvings) {
  std::vector<ComponentArea> areas = ComponentAreas(whole, halvings);
  for (ComponentArea& area : areas) {
    const auto edge = [&](std::int64_t position, std::uint32_t step) {
      return HalvedEdge((position + step - 1) / step, halvings);
    };
    area.x0 = edge(x0, area.xStep);
    area.y0 = edge(y0, area.yStep);
    area.x1 = edge(x1, area.xStep);
    area.y1 = edge(y1, area.yStep);
  }
  return areas;
}

bool AreSame(const std::vector<ComponentArea>& a, const std::vector<ComponentArea>& b) {
  return std::ranges::equal(a, b, [](const ComponentArea& p, const ComponentArea& q) {
    return p.x0 == q.x0 && p.y0 == q.y0 && p.x1 == q.x1 && p.y1 == q.y1 && p.depth == q.depth;
  });
}

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

struct Picture::State {
  State(RangeSource& source, const PictureParams& params)
      : bytes(source), stream(bytes), exact(params.exact), tiles(params.cacheBytes) {}
  ~State() { index.Die(); }

  void Open();
  TilePointer Tile(std::uint32_t tile, unsigned reduce);
  TilePointer DecodeTile(const TileParts& parts, unsigned reduce);
  const KelImageGeometry& Grid() const { return *front.facts->geometry; }

  RangeCache bytes;
  SourceStream stream;
  const bool exact;
  std::mutex indexMutex;
  KelStreamIndex index;
  DataFront front;
  std::vector<KelIndexComponent> components;
  std::vector<ComponentRole> roles;
  Image description;
  TileCache tiles;
};

void Picture::State::Open() {
  RequireSession();
  const KelLong code = index.InitIndex(stream.Stream(), nullptr);
  stream.Rethrow();
  if (code != KelOK) {
    KelException raised = index.GetErrorDetails();
    raised.errCode = code;
    ThrowFailure(raised, Failure::kInput);
  }
  front.facts = index.GetFacts();
  front.bytes.resize(static_cast<std::size_t>(front.facts->firstTilePartOffset));
  bytes.Fetch(0, front.bytes);
  components.assign(front.facts->components, front.facts->components + Grid().Csiz);
  const Bytes data = BuildDescription(front);
  Decoder decoder(data);
  description = DescribeImage(decoder, *front.facts);
  roles = ComponentRoles(decoder.Object());
}

TilePointer Picture::State::DecodeTile(const TileParts& parts, unsigned reduce) {
  auto image = std::make_shared<DecodedTile>();
  image->areas = AreasWithin(Grid(), parts.x0, parts.y0, parts.x1, parts.y1, reduce);
  image->bytes = PlaneBytes(image->areas);
  image->room = MemoryReservation(image->bytes, "a tile of the picture");
  image->planes = MakePlanes(image->areas);
  bytes.Prepare(BytesOfPiece(parts, reduce));
  const Bytes piece = BuildPiece(front, parts, reduce, bytes);
  if (piece.empty()) return image;
  Decoder decoder(piece);
  KelImage& object = decoder.Object();
  const std::vector<ComponentArea> found = ComponentAreas(*object.GetGeometryParams(), 0);
  if (!AreSame(found, image->areas)) {
    throw Error(Failure::kInput, "a tile lies elsewhere than the header says");
  }
  FrameTarget target(image->areas, found, components, decoder.Found().ComponentTransform);
  decoder.SetExact(exact);
  const KelLong code = decoder.DecodeFrame(piece, target.Raw(), target.Frame(image->planes));
  target.FinishPlanes(object, 0, image->planes);
  image->complete = code == KelOK && object.TileIsComplete(0);
  return image;
}

TilePointer Picture::State::Tile(std::uint32_t tile, unsigned reduce) {
  if (TilePointer kept = tiles.Find(tile, reduce)) return kept;
  TileParts parts;
  {
    const std::lock_guard lock(indexMutex);
    parts = CollectTile(index, tile, reduce);
    stream.Rethrow();
  }
  TilePointer image = DecodeTile(parts, reduce);
  tiles.Keep(tile, reduce, image);
  return image;
}

Picture::Picture(RangeSource& source, const PictureParams& params)
    : state_(std::make_unique<State>(source, params)) {
  state_->Open();
}

Picture::~Picture() = default;

const Image& Picture::Description() const {
  return state_->description;
}

Image Picture::Describe(unsigned reduce) const {
  if (reduce > kMostHalvings) {
    throw Error(Failure::kParameter, "at most 31 halvings are possible");
  }
  const KelImageGeometry& grid = state_->Grid();
  Image image = state_->description;
  for (const ComponentArea& area :
       AreasWithin(grid, grid.XOsiz, grid.YOsiz, grid.Xsiz, grid.Ysiz, reduce)) {
    const ComponentRole& role = state_->roles[image.planes.size()];
    Plane& plane = image.planes.emplace_back(
        Plane::WithoutSamples(static_cast<std::uint32_t>(area.x1 - area.x0),
                              static_cast<std::uint32_t>(area.y1 - area.y0), area.depth));
    plane.role = role.role;
    plane.colour = role.colour;
    plane.xStep = area.xStep;
    plane.yStep = area.yStep;
  }
  image.width =
      static_cast<std::uint32_t>(HalvedEdge(grid.Xsiz, reduce) - HalvedEdge(grid.XOsiz, reduce));
  image.height =
      static_cast<std::uint32_t>(HalvedEdge(grid.Ysiz, reduce) - HalvedEdge(grid.YOsiz, reduce));
  return image;
}

std::uint32_t Picture::Width() const {
  return state_->description.width;
}
std::uint32_t Picture::Height() const {
  return state_->description.height;
}
std::uint32_t Picture::TilesAcross() const {
  return static_cast<std::uint32_t>(state_->Grid().NumXTiles);
}
std::uint32_t Picture::TilesDown() const {
  return static_cast<std::uint32_t>(state_->Grid().NumYTiles);
}
unsigned Picture::Levels() const {
  return state_->front.facts->numLevels;
}

Region Picture::TileRegion(std::uint32_t tile) const {
  if (tile >= TilesAcross() * TilesDown()) {
    throw Error(Failure::kParameter, "there is no tile " + std::to_string(tile));
  }
  const KelImageGeometry& grid = state_->Grid();
  KelLong x0 = 0, x1 = 0, y0 = 0, y1 = 0;
  grid.GetTileBoundingBox(grid.GetXIndex(static_cast<KelLong>(tile)),
                          grid.GetYIndex(static_cast<KelLong>(tile)), &x0, &x1, &y0, &y1);
  const auto at = [](KelLong from, KelLong to) {
    return static_cast<std::uint32_t>(std::max(to - from, 0));
  };
  return {at(grid.XOsiz, x0), at(grid.YOsiz, y0), at(x0, x1), at(y0, y1)};
}

std::uint64_t Picture::FrontBytes() const {
  return state_->front.bytes.size();
}

std::vector<ByteRange> Picture::BytesOf(std::uint32_t tile, unsigned reduce) {
  TileRegion(tile);  // which knows the tiles that exist
  State& state = *state_;
  const std::lock_guard lock(state.indexMutex);
  const KelIndexWant want{tile, -1, reduce, 0};
  const KelIndexRanges* found = state.index.GetRanges(&want);
  state.stream.Rethrow();
  if (found == nullptr) ThrowFailure(state.index.GetErrorDetails(), Failure::kMemory);
  std::vector<ByteRange> ranges;
  for (const KelIndexRange& range : std::span(found->ranges, found->count)) {
    ranges.push_back({range.offset, range.offset + range.length});
  }
  return ranges;
}

std::vector<ByteRange> Picture::PlacesOf(std::uint32_t tile) {
  TileRegion(tile);
  State& state = *state_;
  const std::lock_guard lock(state.indexMutex);
  const KelIndexTileParts* found = state.index.GetTileParts();
  state.stream.Rethrow();
  if (found == nullptr) ThrowFailure(state.index.GetErrorDetails(), Failure::kMemory);
  std::vector<ByteRange> places;
  for (const KelIndexTilePart& part : std::span(found->parts, found->count)) {
    if (part.tile == tile) places.push_back({part.offset, part.offset + part.length});
  }
  return places;
}

Image Picture::Decode(const Region& region, unsigned reduce, unsigned threads,
                      DecodeReport* report) {
  State& state = *state_;
  const KelImageGeometry& grid = state.Grid();
  if (region.x >= Width() || region.y >= Height() || region.width == 0 || region.height == 0) {
    throw Error(Failure::kParameter, "the region lies outside the picture");
  }
  if (reduce > kMostHalvings) {
    throw Error(Failure::kParameter, "at most 31 halvings are possible");
  }
  Image image = state.description;
  if (image.palette && reduce != 0) {
    throw Error(Failure::kParameter, "an image with a palette cannot be reduced");
  }
  const std::int64_t x0 = std::int64_t{grid.XOsiz} + region.x;
  const std::int64_t y0 = std::int64_t{grid.YOsiz} + region.y;
  const std::int64_t x1 = std::min<std::int64_t>(x0 + region.width, grid.Xsiz);
  const std::int64_t y1 = std::min<std::int64_t>(y0 + region.height, grid.Ysiz);
  const std::vector<ComponentArea> areas = AreasWithin(grid, x0, y0, x1, y1, reduce);
  const MemoryReservation room(PlaneBytes(areas), "the decoded region");
  image.planes = MakePlanes(areas);
  for (std::size_t c = 0; c < areas.size(); ++c) {
    image.planes[c].role = state.roles[c].role;
    image.planes[c].colour = state.roles[c].colour;
  }
  image.width = static_cast<std::uint32_t>(HalvedEdge(x1, reduce) - HalvedEdge(x0, reduce));
  image.height = static_cast<std::uint32_t>(HalvedEdge(y1, reduce) - HalvedEdge(y0, reduce));

  std::vector<std::uint32_t> touched;
  const auto column = [&](std::int64_t x) { return (x - grid.XTOsiz) / grid.XTsiz; };
  const auto row = [&](std::int64_t y) { return (y - grid.YTOsiz) / grid.YTsiz; };
  for (std::int64_t q = row(y0); q <= row(y1 - 1); ++q) {
    for (std::int64_t p = column(x0); p <= column(x1 - 1); ++p) {
      touched.push_back(static_cast<std::uint32_t>(q * grid.NumXTiles + p));
    }
  }
  std::atomic<std::size_t> numComplete{0};
  ForEachIndex(touched.size(), threads, [&](unsigned, std::size_t i) {
    const TilePointer tile = state.Tile(touched[i], reduce);
    numComplete += tile->complete;
    for (std::size_t c = 0; c < areas.size(); ++c) {
      CopyCommon(tile->planes[c], tile->areas[c], image.planes[c], areas[c]);
    }
  });
  if (report != nullptr) {
    *report = {numComplete == touched.size(), touched.size(), numComplete, {}};
  }
  return image;
}

}  // namespace kel::host
