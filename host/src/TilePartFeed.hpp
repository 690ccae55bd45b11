// The tile-parts of data that are read once, from front to back, each kept until its tile is
// decoded. What stands where, the library's index tells, of a window over the data at a time.
#ifndef KEL_HOST_TILE_PART_FEED_HPP
#define KEL_HOST_TILE_PART_FEED_HPP

#include <map>
#include <memory>

#include "Library.hpp"
#include "TileRuns.hpp"

namespace kel::host {

class TilePartFeed {
 public:
  /// first: bytes taken from the source already. Reads everything before the first tile-part.
  /// Throws Error (kInput, kMemory).
  TilePartFeed(Source& source, Bytes first, std::size_t windowBytes = std::size_t{4} << 20);
  /// Of data in memory, which outlive this.
  explicit TilePartFeed(ByteView all);

  const KelIndexFacts& Facts() const { return header_->Facts(); }
  Index& Header() { return *header_; }
  /// Everything before the first tile-part, and more.
  ByteView HeaderBytes() const { return headers_; }

  /// Reads until all tile-parts of the tiles from first to last - 1 are there, or the data end.
  void Fetch(std::uint32_t first, std::uint32_t last);
  /// A tile-part that is the caller's.
  struct Part {
    Bytes owned;
    ByteView inMemory;             ///< where it is not owned
    std::uint64_t numMissing = 0;  ///< bytes that its length promises and the data lack
    ByteView Get() const { return owned.empty() ? inMemory : ByteView(owned); }
  };
  /// What of a tile is there, in the order of the data; nothing the next time.
  std::vector<Part> Take(std::uint32_t tile);

 private:
  struct Tile {
    std::vector<Part> parts;
    std::size_t numParts = 0;  ///< that it has; 0 while nothing says it
    bool IsWhole() const { return numParts != 0 && parts.size() >= numParts; }
  };

  bool ReadMore();
  void TakeParts();
  void Keep(const KelIndexTilePart& part);

  Source* source_ = nullptr;  ///< null for data in memory
  bool ended_ = false;        ///< nothing more can be read
  bool done_ = false;         ///< all tile-parts have been taken
  Bytes headerBytes_;         ///< a copy, unless in memory
  ByteView headers_;
  std::unique_ptr<Index> header_;
  Bytes
      window_;  ///< the header's bytes up to the first tile-part, then what was read and not taken
  std::size_t windowBytes_ = 0, grow_ = 0;
  std::map<std::uint32_t, Tile> tiles_;
};

}  // namespace kel::host

#endif
