// A picture opened for reading tile by tile: the index over a cache of byte ranges, and tiles
// decoded one by one and kept.
//
// A tile is decoded whole at the resolution asked for, small ones with their neighbours; a region
// is copied together from the tiles that it touches. Fetching and decoding run side by side; only
// the index is asked by one thread at a time.
#ifndef KEL_HOST_TILE_READER_HPP
#define KEL_HOST_TILE_READER_HPP

#include <algorithm>
#include <list>
#include <map>
#include <mutex>
#include <utility>

#include "Describe.hpp"
#include "RegionDecode.hpp"
#include "TilePiece.hpp"
#include "kel/host/picture.hpp"
#include "kel/host/session.hpp"

namespace kel::host {

/// A tile at one resolution, or several beside each other.
struct DecodedTile {
  std::vector<std::uint32_t> tiles;
  std::vector<ComponentArea> areas;
  std::vector<Plane> planes;
  MemoryReservation room;
  std::uint64_t bytes = 0;
  PartResult result;  ///< of each of them
};
using TilePointer = std::shared_ptr<const DecodedTile>;

/// Tiles kept, the last used first.
class TileCache {
 public:
  explicit TileCache(std::uint64_t mostBytes) : mostBytes_(mostBytes) {}

  TilePointer Find(std::uint32_t tile, unsigned reduce) {
    const std::lock_guard lock(mutex_);
    const auto found = places_.find({tile, reduce});
    if (found == places_.end()) return nullptr;
    entries_.splice(entries_.begin(), entries_, found->second);
    return entries_.front().image;
  }

  void Keep(const TilePointer& image, unsigned reduce) {
    const std::lock_guard lock(mutex_);
    const std::uint64_t cost = CostOf(*image);
    const auto isKept = [&](std::uint32_t tile) { return places_.contains({tile, reduce}); };
    if (cost > mostBytes_ || std::ranges::any_of(image->tiles, isKept)) return;
    entries_.push_front({reduce, image});
    for (const std::uint32_t tile : image->tiles) places_[{tile, reduce}] = entries_.begin();
    bytes_ += cost;
    while (bytes_ > mostBytes_) {
      const Entry& last = entries_.back();
      bytes_ -= CostOf(*last.image);
      for (const std::uint32_t tile : last.image->tiles) places_.erase({tile, last.reduce});
      entries_.pop_back();
    }
  }

 private:
  using Name = std::pair<std::uint32_t, unsigned>;  ///< tile, halvings
  struct Entry {
    unsigned reduce = 0;
    TilePointer image;
  };
  /// Of tiny tiles the records are larger than the samples.
  static std::uint64_t CostOf(const DecodedTile& tile) {
    return tile.bytes + sizeof(DecodedTile) + sizeof(Entry) +
           tile.tiles.size() * (sizeof(Name) + 2 * sizeof(void*)) +
           tile.planes.size() * (sizeof(Plane) + sizeof(ComponentArea));
  }
  const std::uint64_t mostBytes_;
  std::mutex mutex_;
  std::list<Entry> entries_;
  std::map<Name, std::list<Entry>::iterator> places_;
  std::uint64_t bytes_ = 0;
};

class TileReader {
 public:
  /// Reads what stands in front of the tiles. source outlives the reader. Throws Error (kInput,
  /// kMemory).
  TileReader(RangeSource& source, const PictureParams& params);

  const KelImageGeometry& Grid() const { return *front_.facts->geometry; }
  const DataFront& Front() const { return front_; }
  const Image& Description() const { return description_; }
  /// Runs work on the index, one at a time.
  template <class Work>
  decltype(auto) WithIndex(Work&& work) {
    const std::lock_guard lock(indexMutex_);
    return std::forward<Work>(work)(index_);
  }

  /// The whole picture after so many halvings, without its samples.
  Image Describe(unsigned reduce) const;
  /// An image for areas of the picture, all samples zero.
  Image EmptyImage(const std::vector<ComponentArea>& areas, const CanvasBox& box,
                   unsigned reduce) const;
  /// The region at a resolution of the wavelet; tally is begun anew with the tiles touched. Throws
  /// Error: kParameter for a region outside and for more halvings than a tile holds; kInput,
  /// kMemory.
  Image Decode(const Region& region, const DecodeParams& params, DecodeTally& tally);

 private:
  /// Tiles beside each other that are fetched and decoded together.
  using Group = std::vector<std::uint32_t>;
  struct Placing;

  std::vector<Group> GroupsOf(const std::vector<std::uint32_t>& tiles, unsigned reduce) const;
  void PlaceGroup(const Group& tiles, const Placing& to);
  void PlaceMissing(const Group& tiles, const Placing& to);
  std::shared_ptr<DecodedTile> MakeTiles(std::span<const TileParts> parts, unsigned reduce);
  TilePointer DecodeTiles(std::span<const TileParts> parts, unsigned reduce);
  TilePointer DecodeDamaged(const TileParts& tile, unsigned reduce);

  const bool exact_, isFar_;
  RangeCache bytes_;
  std::mutex indexMutex_;
  RangeIndex index_;
  DataFront front_;
  std::vector<KelIndexComponent> components_;
  std::vector<ComponentRole> roles_;
  Image description_;
  TileCache tiles_;
};

}  // namespace kel::host

#endif
