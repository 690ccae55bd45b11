// Reading the packets of one tile-part: decoding or skipping each in the order of the tile's walk.
//
// A packet is a 4-byte length L and L bytes: for resolution 0 the LL band's data; above, for each
// of the bands HL, LH, HH a 4-byte length and that many bytes. L = 0 is an empty packet, a band
// length of 0 an empty band. A packet is handled when all its bytes have arrived, and once only.
#ifndef KEL_PACKET_READ_H
#define KEL_PACKET_READ_H

#include <cstdint>

#include "KelBlockDecode.h"
#include "KelDecMap.h"

namespace kel {

/// How the reading of a tile-part ended.
enum class PartEnd : std::uint8_t {
  kPartEnded,     ///< at the end of the tile-part's data
  kTileComplete,  ///< behind the tile's last packet
  kCutOff         ///< the next packet has not arrived whole; the reader stands on it if it can
};

/// Reads the packets of the tile-part that tile.dec->progress describes, from the read position on,
/// and keeps the progress. The tile has been laid out and has a walk. With progress.takesBands,
/// bands are not decoded; when that cannot be done, progress.mustNotTake is set, and the reader
/// stands anywhere. Raises 8.
PartEnd ReadTilePartPackets(KelDecDataMgr& data, TileRecord& tile);

/// The part of a component's band that a precinct holds.
BandPart PartOfBand(const TileCompRecord& record, std::int32_t band, std::int64_t precinct);

/// Whether a position is where a tile-part may end: on SOT, EOC or the end of the data. Looks only
/// at what the window can hold; the read position stays. Nothing when that is too far away.
enum class BoundaryCheck : std::uint8_t { kIsBoundary, kIsNone, kTooFar };
BoundaryCheck CheckBoundary(KelDecDataMgr& data, std::int64_t position);

}  // namespace kel

#endif
