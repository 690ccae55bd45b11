// Early tile-parts of a stream that cannot seek: kept in memory, at their tile's record, until
// those before them have been decoded. Memory is obtained as the bytes arrive.
#ifndef KEL_TILE_PART_STASH_H
#define KEL_TILE_PART_STASH_H

#include <cstdint>

#include "KelDecDataMgr.h"

namespace kel {

/// One tile-part, from its SOT marker to its end, in a tile's list.
struct StashedPart {
  StashedPart* next;
  std::int32_t part;
  std::int64_t position;  ///< of the SOT marker in the data
  std::uint64_t length;
  std::uint8_t* bytes;  ///< owned
};

/// Copies the tile-part under the read position, which is on its SOT, to a list: so many bytes, or
/// as many as there are. One with a number that is there already is left alone. Raises 8.
void StashTilePart(StashedPart*& list, KelDecDataMgr& data, std::int32_t part,
                   std::uint64_t length);

/// Takes the tile-part with that number out of a list; null when it is not there. The caller
/// drops it.
StashedPart* TakeStashedPart(StashedPart*& list, std::int32_t part) noexcept;

/// Frees a tile-part that was taken out. Accepts null.
void DropStashedPart(StashedPart* part) noexcept;

/// Frees a whole list; may run twice.
void ReleaseStash(StashedPart*& list) noexcept;

}  // namespace kel

#endif
