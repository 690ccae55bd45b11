// What the lengths in packets say, and what they are worth: those of the bands add up to that of
// the packet, and behind a packet stands another one or the end of its tile-part.
#ifndef KEL_PACKET_LENGTHS_H
#define KEL_PACKET_LENGTHS_H

#include <cstdint>

#include "KelDecDataMgr.h"

namespace kel {

/// Bands of a packet above the lowest resolution.
inline constexpr int kDetailBands = 3;

/// The length that stands at a position, not before the read position, which stays; the largest
/// value where it has not arrived.
std::int64_t PeekLength(KelDecDataMgr& data, std::int64_t position);

/// Where the lengths of a packet's bands, followed from its body on, lead to; the largest value
/// where they leave the tile-part, which ends at `partEnd`, or what has arrived of it.
std::int64_t EndByBandLengths(KelDecDataMgr& data, std::int64_t body, std::int64_t partEnd);

/// Whether what stands at a position can follow a packet: the end of the tile-part, or a packet
/// whose length fits into it.
bool CanFollow(KelDecDataMgr& data, std::int64_t position, std::int64_t partEnd);

/// Passes over the packet at the read position without looking into it, where nothing is wrong: to
/// where its length leads or, should nothing be able to follow there, those of its bands. False,
/// and the reader stays, when neither leads anywhere; to the end of what has arrived both may.
bool PassPacket(KelDecDataMgr& data, bool hasBandLengths, std::int64_t partEnd);

}  // namespace kel

#endif
