// Looking at every bit of a packet without keeping what it decodes to: where it ends, and which of
// its bands do not end where their lengths say. The same decisions as when packets are read to be
// delivered (KelPacketRead), in memory for one row of blocks.
#ifndef KEL_PACKET_CHECK_H
#define KEL_PACKET_CHECK_H

#include <cstdint>

#include "KelBlockDecode.h"
#include "KelDecDataMgr.h"
#include "KelDecMap.h"
#include "KelPacketLengths.h"
#include "KelPacketWalk.h"

namespace kel {

/// A band that has bytes.
struct CheckedBand {
  std::int32_t number;   ///< in its tile-component
  std::int64_t start;    ///< of its bytes
  std::int64_t claimed;  ///< bytes, by its length
  std::int64_t found;    ///< bytes up to where its bits end, or cannot be read on
  bool isWhole;          ///< every block of it can be decoded, and it ends where it has to
  /// Its place is sure and its bits are not: what of it is sound can be found.
  bool canMend;
  bool IsSound() const { return isWhole && found == claimed; }
};

struct CheckedPacket {
  bool isThere;          ///< what follows it is known
  std::int64_t start;    ///< of its length field
  std::int64_t claimed;  ///< bytes of the packet by that field, the field included
  std::int64_t end;      ///< where the next packet begins
  int numBands;
  CheckedBand bands[kDetailBands];
};

/// What the checking of a tile's packets shares.
struct CheckRoom {
  OwnedArray<std::int32_t> cells;  ///< of one row of blocks; they hold nothing in between
  /// So many bytes may still be read behind the ends that packets claim, in search of true ones:
  /// every packet might ask for all that follows it.
  std::int64_t bytesToSearch;
};

/// What of a damaged band is sound, as MendBand finds it, in cells without gaps; nothing where that
/// would take too long for its bytes. The read position is lost. Raises 8.
OwnedArray<std::int32_t> MendedCells(KelDecDataMgr& data, const BandPart& part,
                                     const CheckedBand& band, bool isLowest);

/// Checks the packet at the read position of a tile-part that has arrived whole and ends at
/// `partEnd`. The reader is left where the packet ends, or, when that is not known, where it began.
/// Raises 8.
CheckedPacket CheckPacket(KelDecDataMgr& data, TileCompRecord& record, const PacketId& id,
                          std::int64_t partEnd, CheckRoom& room);

}  // namespace kel

#endif
