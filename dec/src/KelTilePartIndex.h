// Where the tile-parts of a code stream stand: found by a walk from SOT to SOT that goes only as
// far as it is asked to, and that finds its way again behind lengths that are wrong and bytes that
// are no tile-part.
//
// Relies on the data manager for moving and searching. A tile-part whose end is not known yet,
// because the data end first, is measured again when more has arrived. No byte is searched twice.
#ifndef KEL_TILE_PART_INDEX_H
#define KEL_TILE_PART_INDEX_H

#include <cstdint>

#include "KelDamageLog.h"
#include "kel/KelFormat.h"

namespace kel {

class KelDecDataMgr;

/// How far the end of a tile-part is known.
enum class PartEnding : std::uint8_t {
  kKnown,        ///< another tile-part, EOC or the like follows
  kProvisional,  ///< its length ends with the data
  kOpen          ///< no end has been found
};

/// The extent of a tile-part.
struct PartExtent {
  std::int64_t end;  ///< position behind it, unless it is open
  PartEnding ending;
  bool isRepaired;          ///< its length is wrong
  std::int64_t searchedTo;  ///< of an open one: no tile-part begins before this position
};

/// Measures the tile-part of the given length that begins at `start`; the read position, which
/// comes back, is not behind it. A length is right when a tile-part, EOC or the end of the data
/// follows. Any other is replaced by the distance to the next SOT that can be one, looked for from
/// searchFrom on. What will be read is loaded on the way, if it fits the window; a stream that
/// cannot seek keeps all of the tile-part there. Raises 8.
PartExtent MeasureTilePart(KelDecDataMgr& data, std::int64_t start, std::uint32_t announced,
                           std::int64_t searchFrom, bool willBeRead);

struct KelTilePartEntry {
  std::int64_t position;    ///< of the SOT marker
  std::uint32_t length;     ///< bytes to the next tile-part; 0: to the end of the data
  std::uint32_t announced;  ///< the length that its SOT names
  std::uint32_t next;       ///< of the same tile, as index plus one; 0: none
  std::uint16_t tile;
  std::uint16_t ordinal;  ///< of the entries of its tile
  std::uint8_t part;
  PartEnding ending;

  std::int64_t End() const { return length != 0 ? position + length : INT64_MAX; }
};

/// The entries of one tile: the first and the last, as index plus one.
struct KelTilePartChain {
  std::uint32_t first, last;
};

struct KelTilePartIndex {
  std::uint32_t numTiles;
  KelTilePartChain* tiles;    ///< owned
  KelTilePartEntry* entries;  ///< owned; in the order of the data
  std::uint32_t numEntries, obtainedEntries;
  std::int64_t next;        ///< where the walk goes on
  std::int64_t searchedTo;  ///< no tile-part begins between `next` and here
  bool isEnded;             ///< EOC has been met
  std::int32_t wantedTile;  ///< whose tile-parts will be read
  std::int32_t lastTile;    ///< the highest that has a tile-part; -1 without any
  DamageLog* log;           ///< receives what is wrong; may be null
};

/// An index without entries of the tile-parts from a position on. Raises 8.
KelTilePartIndex* MakeTilePartIndex(std::uint32_t numTiles, std::int64_t start, DamageLog* log);

/// Finds one more tile-part. False when there is none, or none yet. Moves the reader. Raises 8.
bool ExtendTilePartIndex(KelTilePartIndex& index, KelDecDataMgr& data);

// Its two halves, for whoever reads the header between them: so a stream that is far away is looked
// at once for each tile-part.

/// Moves the reader to the SOT of the next tile-part, and stores what it says.
bool MoveToNextTilePart(KelTilePartIndex& index, KelDecDataMgr& data, KelTilePartEntry& entry);
/// Measures that tile-part, from whose SOT or header the reader comes, and adds it. False when it
/// is not kept, as one too many of its tile. Raises 8.
bool AddTilePart(KelTilePartIndex& index, KelDecDataMgr& data, KelTilePartEntry entry);

/// Measures the last tile-part again if its end was not known: more data may have arrived.
void RefreshTilePartIndex(KelTilePartIndex& index, KelDecDataMgr& data);

/// The entry of a tile-part, of several that claim to be it the first one; null when there is none.
const KelTilePartEntry* FindTilePart(const KelTilePartIndex& index, std::int32_t tile,
                                     std::int32_t part);

/// Accepts null.
void ReleaseTilePartIndex(KelTilePartIndex* index) noexcept;

}  // namespace kel

#endif
