// Writing the main header and tile-part headers, in the flavour whose markers begin with 0xAB.
#ifndef KEL_HEADERS_WRITE_H
#define KEL_HEADERS_WRITE_H

#include "base/KelOutBuffer.h"
#include "format/KelHeaders.h"

namespace kel {

/// Bytes that a header's buffer holds at first, and grows by.
inline constexpr std::uint32_t kHeaderBufferBytes = 2048;

/// Guard bits that go with a bit depth.
constexpr std::uint8_t GuardBits(std::int32_t bitDepth) {
  return bitDepth == 1 ? 3 : 2;
}

/// Writes the header that a set describes: a main header from SOC to before the first SOT, or a
/// tile-part header from SOT to SOD, whose Psot counts dataLength packet bytes behind it. Only the
/// first tile-part of a tile carries segments of coding style, quantisation and region. The set
/// is only read; what a flag does not announce may be null. Raises 8.
void WriteHeader(const KelHeaderParams& set, KelOutBuffer& out);

}  // namespace kel

#endif
