// Where the tile-parts of a code stream stand: found by one walk from SOT to SOT that repairs wrong
// lengths, kept in order of tile and part.
//
// Relies on the data manager for moving and scanning. What the walk cannot reach, because the data
// name a tile that does not exist or a length of 2 GiB or more, is not in the index.
#ifndef KEL_TILE_PART_INDEX_H
#define KEL_TILE_PART_INDEX_H

#include <cstdint>

namespace kel {

class KelDecDataMgr;

inline constexpr std::uint32_t kSotSegmentBytes = 12;
/// A tile-part holds at least its SOT segment and SOD.
inline constexpr std::uint32_t kLeastTilePartBytes = 14;

struct KelTilePartEntry {
  std::int64_t position;  ///< of the SOT marker
  std::uint32_t length;   ///< bytes to the next tile-part; 0: to the end of the data
  std::uint16_t tile;
  std::uint8_t part;
};

struct KelTilePartIndex {
  std::uint32_t numTiles;
  std::uint16_t* partsOfTile;  ///< entries by tile
  KelTilePartEntry* entries;   ///< sorted by tile, part, and position from the last
  std::uint32_t numEntries, obtainedEntries;
};

/// Walks the tile-parts from saved position B on, where the read position returns afterwards. The
/// index belongs to the caller. Raises 8.
KelTilePartIndex* BuildTilePartIndex(KelDecDataMgr& data, std::uint32_t numTiles);

/// The entry of a tile-part, of several that claim to be it the last one; null when there is none.
const KelTilePartEntry* FindTilePart(const KelTilePartIndex& index, std::int32_t tile,
                                     std::int32_t part);

/// Accepts null.
void ReleaseTilePartIndex(KelTilePartIndex* index) noexcept;

}  // namespace kel

#endif
