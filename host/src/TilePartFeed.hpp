// The tile-parts of data that are read once, from front to back, each kept until its tile is
// decoded. What stands where, the library's index tells, of a window over the data at a time.
// Tile-parts stay where they were read; only what a window cuts off is copied to the next one.
#ifndef KEL_HOST_TILE_PART_FEED_HPP
#define KEL_HOST_TILE_PART_FEED_HPP

#include <map>
#include <memory>

#include "KeptBlocks.hpp"
#include "Library.hpp"
#include "TileRuns.hpp"

namespace kel::host {

class TilePartFeed {
 public:
  /// first: bytes taken from the source already, which outlive this. Reads everything before the
  /// first tile-part. Throws Error (kInput, kMemory).
  TilePartFeed(Source& source, ByteView first, std::size_t windowBytes = std::size_t{4} << 20);
  /// Of data in memory, which outlive this.
  explicit TilePartFeed(ByteView all);

  const KelIndexFacts& Facts() const { return header_->Facts(); }
  Index& Header() { return *header_; }
  /// Everything before the first tile-part, and more.
  ByteView HeaderBytes() const { return headers_; }

  /// Reads until all tile-parts of the tiles from first to last - 1 are there, or the data end.
  void Fetch(std::uint32_t first, std::uint32_t last);
  /// A tile-part, and what keeps its bytes there; the feed must outlive it.
  struct Part {
    std::shared_ptr<const void> holder;
    ByteView bytes;
    std::uint64_t numMissing = 0;  ///< bytes that its length promises and the data lack
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
  KeptBlocks blocks_;  ///< those of windows that nobody holds any more
  /// The header's bytes up to the first tile-part, and what was read last, of which tile-parts up
  /// to taken_ have been taken.
  ByteView window_;
  std::shared_ptr<const void> holder_;  ///< of the window; null for the first bytes
  std::size_t taken_ = 0;
  std::size_t windowBytes_ = 0, grow_ = 0;
  std::map<std::uint32_t, Tile> tiles_;
};

}  // namespace kel::host

#endif
