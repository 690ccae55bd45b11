// Reading the packets of one tile-part: decoding or skipping each in the order of the tile's walk.
//
// A packet is a 4-byte length L and L bytes: for resolution 0 the LL band's data; above, for each
// of the bands HL, LH, HH a 4-byte length and that many bytes. L = 0 is an empty packet, a band
// length of 0 an empty band. A packet is handled when all its bytes have arrived, and once only.
//
// Lengths and bands check each other: the lengths of the bands add up to that of the packet, and a
// band's bits tell themselves where they end. Where one of them is damaged the others show the way;
// where none does, the rest of the tile-part is given up.
#ifndef KEL_PACKET_READ_H
#define KEL_PACKET_READ_H

#include <cstdint>

#include "KelBlockDecode.h"
#include "KelDamageLog.h"
#include "KelDecDataMgr.h"
#include "KelDecMap.h"
#include "image/KelWork.h"

namespace kel {

/// How the reading of a tile-part ended.
enum class PartEnd : std::uint8_t {
  kPartEnded,     ///< at the end of the tile-part's data
  kTileComplete,  ///< behind the tile's last packet
  kCutOff,        ///< the next packet has not arrived whole; the reader stands on it
  kDamaged        ///< a packet does not fit: nothing behind it in this tile-part can be read
};

/// What the reading of a tile-part goes by.
struct PartReading {
  KelDecDataMgr& data;
  TileRecord& tile;
  std::int32_t part;   ///< its number
  std::int64_t end;    ///< position behind it; the largest value when that is not known
  bool endIsKnown;     ///< and not only where the data end so far
  std::int64_t basis;  ///< offset of the reader's first byte in the data of the image
  DamageLog& damages;
  WorkMeter& work;
};

/// Reads the packets of the tile-part from the read position on, and keeps the progress. The tile
/// has been laid out and has a walk. With progress.takesBands, bands are not decoded; when that
/// cannot be done, progress.mustNotTake is set, and the reader stands anywhere. Raises 8 and 28.
PartEnd ReadTilePartPackets(const PartReading& part);

/// The part of a component's band that a precinct holds.
BandPart PartOfBand(const TileCompRecord& record, std::int32_t band, std::int64_t precinct);

}  // namespace kel

#endif
