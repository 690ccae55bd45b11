// Reading the main header or a tile-part header, in either flavour.
#ifndef KEL_HEADERS_READ_H
#define KEL_HEADERS_READ_H

#include "KelDecDataMgr.h"
#include "base/KelRaise.h"
#include "format/KelHeaders.h"

namespace kel {

/// Bytes that the window of a stream must be able to hold: the segment of the most components.
inline constexpr std::uint32_t kHeaderWindowBytes = 3 * format::kMostSegmentBytes;

/// How the reading of a header ended.
struct [[nodiscard]] HeaderResult {
  Failure refusal;  ///< code 0; 10, 18 or 29 with the line that refused the header
  bool incomplete;  ///< the end of the data cuts the header off (code 0; a main header's is 10)
};

/// Reads a header into a set made by InitHeaderParams, in the flavour of the data.
///
/// A main header ends before its first SOT, which stays unread; it must have brought SIZ, COD and
/// QCD. A tile-part header starts at its SOT and ends behind SOD; `set` must have been seeded with
/// the tile's current records, Csiz and region records, unless SOD follows SOT at once, and
/// *tilePartLength receives Psot. Where the data end inside a tile-part header, the reader is moved
/// to the end and the result is incomplete; in a main header that is 10. On a failure what was
/// filled stays in the set. Memory that cannot be obtained raises 8.
HeaderResult ReadHeader(KelHeaderParams& set, KelDecDataMgr& data, std::uint32_t* tilePartLength);

}  // namespace kel

#endif
