// What a decoder found wrong with the data of tile-parts and packets, for hosts that want to tell
// what of a picture was lost, and where. See KelImage::GetDamage.
#ifndef KEL_DAMAGE_H
#define KEL_DAMAGE_H

#include "KelTypes.h"

/// Kinds of damage.
enum KelDamageKind : KelLong {
  /// What stands where a tile-part should begin is none: passed over, up to the next one.
  KelDamageNoTilePart = 1,
  /// A tile-part does not end where its length says; it was taken to end where the next one
  /// begins. By itself this loses nothing.
  KelDamageLength = 2,
  /// The header of a tile-part cannot be read: the tile-part is not decoded.
  KelDamageHeader = 3,
  /// A packet does not fit into its tile-part: it and what follows it there are not decoded.
  KelDamagePacket = 4,
  /// The bits of a band do not end where its length says. Blocks that make no sense were left out,
  /// which blurs the picture there; others of it may be wrong.
  KelDamageBand = 5,
  /// Bytes at the end of a tile-part that belong to no packet.
  KelDamageExcess = 6,
  /// A tile-part whose place among its tile's packets is lost with an earlier one: not decoded.
  KelDamageNoPlace = 7
};

/// One place of damage. Offsets count from the first byte of the data that the decoder was given.
class KEL_API KelDamage {
 public:
  KelLong kind;             ///< KelDamageKind
  KelLong tile;             ///< index of the tile concerned; -1 when it cannot be told
  KelLong tilePart;         ///< number of the tile-part in its tile; -1 when it cannot be told
  std::uint64_t offset;     ///< first byte concerned
  std::uint64_t bytes;      ///< bytes that could not be used from there on, or may be wrong
  KelLong component = -1;   ///< of a band; -1 for other kinds
  KelLong resolution = -1;  ///< likewise; 0 is the lowest
};

#endif
