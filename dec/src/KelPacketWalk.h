// The walk over the packets of one tile in its progression order.
//
// A walk stands on the next packet to be handled and is kept between tile-parts and frames, so
// that decoding resumes exactly where it stopped. Without progression changes every packet is met
// once. With several changes a packet can be met again; counters in the tile-components' resolution
// records tell what was handled, and such packets are passed over.
//
// The five orders, outermost loop first (L layer, R resolution, C component, P precinct):
//   LRCP, RLCP  as named
//   RPCL        R, then P up to the precinct count of component 0, then C, L
//   PCRL        by position: precincts of all components and resolutions sorted by the place of
//               their upper left corner on the canvas (y, then x), then C, R; then L
//   CPRL        C, then R, L, with the first precinct of each resolution only
// Resolutions run up to the level count of component 0; a component without precinct at a
// resolution has no packet there.
#ifndef KEL_PACKET_WALK_H
#define KEL_PACKET_WALK_H

#include <cstdint>

#include "KelDecMap.h"

namespace kel {

struct PacketId {
  std::int32_t layer, resolution, component;
  std::int64_t precinct;
};

/// One round of the walk: an order over ranges of layers, resolutions and components, ends
/// exclusive.
struct ProgressionEntry {
  std::int32_t order, layerEnd;
  std::int32_t resolutionStart, resolutionEnd;
  std::int32_t componentStart, componentEnd;
};

/// A precinct waiting for its turn in a walk by position.
struct PositionItem {
  std::int64_t y, x;  ///< its corner on the canvas
  std::int32_t component, resolution;
  std::int64_t precinct;
};

struct PacketWalk {
  TileRecord* tile;
  std::int32_t numComps, maxLevel;
  ProgressionEntry* entries;  ///< owned
  std::int32_t numEntries;
  bool keepsCounters;  ///< a packet can be met twice

  /// Components that have precincts, by resolution: those of resolution r stand from
  /// activeStart[r] up to activeStart[r + 1], ascending.
  std::int32_t* active;       ///< owned
  std::int64_t* activeStart;  ///< owned; maxLevel + 2 entries

  std::int32_t entry;  ///< the current one; numEntries when the walk is over
  bool entryIsBegun;
  bool isOnPacket;  ///< `at` is the next packet to be handled
  PacketId at;
  std::int64_t precinctEnd;  ///< of the loop over precincts, where an order has one
  std::int64_t slot;         ///< index into `active` of at.component, in orders that need it
  PositionItem* heap;        ///< owned; the least item first (PCRL)
  std::int64_t heapCount;
  std::int32_t turn;  ///< CPRL: the component whose turn the next tile-part is
};

/// A walk at the first packet of a tile that has been laid out, by its progression changes or
/// else its coding style. Raises 8. The caller owns it.
PacketWalk* MakePacketWalk(TileRecord& tile, std::int32_t numComps);

/// Frees a walk and clears the pointer. Accepts null.
void ReleasePacketWalk(PacketWalk*& walk) noexcept;

/// The next packet to be handled; null when there is none left. Raises 8.
const PacketId* CurrentPacket(PacketWalk& walk);

/// Goes on behind the current packet. Raises 8, with the walk unchanged.
void PacketHandled(PacketWalk& walk);

/// Goes by the tile's progression changes from here on: their entries run from the first, and
/// packets handled before are passed over. Raises 8.
void ReplaceProgression(PacketWalk& walk);

/// Whether every packet of the tile has been handled. Progression changes may leave some out, which
/// those of a later tile-part bring.
bool WalkIsComplete(PacketWalk& walk);

/// Whether no packet from the current one on is of a resolution up to `highest`, as far as the
/// order alone tells it.
bool IsPastResolution(const PacketWalk& walk, std::int32_t highest);

/// What is left of a tile-part is lost. True when the walk now stands where the next one begins:
/// in CPRL, at the next component. In other orders that cannot be told. Raises 8.
bool PassLostTilePart(PacketWalk& walk);

/// A tile-part ended without a packet. In CPRL it counts as its component's turn.
void PassEmptyTilePart(PacketWalk& walk);

}  // namespace kel

#endif
