// Decoding a band whose bits are known to be damaged, so that as little as possible is lost.
//
// A band is one chain of blocks, so what follows a damaged bit reads as noise. But noise shows: no
// encoder writes a column without bits in a plane whose pattern names that column, a first plane
// without any bit, or a plane count beyond the band's. From the first such block on another place
// is looked for where blocks follow each other without contradiction; where these end exactly with
// the band, their number tells which blocks they are. What lies between stays zero.
#ifndef KEL_BAND_MEND_H
#define KEL_BAND_MEND_H

#include <span>

#include "KelBlockDecode.h"

namespace kel {

struct MendOutcome {
  std::uint64_t firstBad, endOfBad;  ///< bytes of the band: from the first damage to the last
  bool isWhole;                      ///< no contradiction was found
};

/// Decodes a band from all its bytes, behind which kMendSlackBytes are readable, into cells that
/// hold zeros. Blocks that were lost stay zero; those of the lowest band are filled with the mean
/// of what surrounds them. The work is bounded by the bytes. Raises 8 and 28.
MendOutcome MendBand(std::span<const std::uint8_t> bytes, const BandPart& part, bool isLowest,
                     std::int32_t* cells, std::ptrdiff_t strideCells);
inline constexpr std::uint64_t kMendSlackBytes = 16;

/// Whether a further band of so many bytes, whose part counts work, may be mended: the work of all
/// together is bounded by their bytes, far lower than that of each, clearing their cells included.
bool CanMend(const BandPart& part, std::uint64_t bytes);

}  // namespace kel

#endif
