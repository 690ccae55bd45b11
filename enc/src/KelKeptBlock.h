// A block of memory that is kept from one use to the next, and made anew only when it is too small.
#ifndef KEL_KEPT_BLOCK_H
#define KEL_KEPT_BLOCK_H

#include <cstdint>

#include "base/KelMemFuncDefs.h"

namespace kel {

/// Part of a long-lived record: zero when nothing is held.
struct KeptBlock {
  void* obtained;  ///< owned
  void* bytes;     ///< the first cache line in it
  std::uint64_t numBytes;
};

/// Where a kept block begins is a multiple of this. The host is asked for less, as for scratch.
inline constexpr std::uint64_t kKeptAlignment = 64;

inline void ReleaseKept(KeptBlock& block) noexcept {
  KelAlignedFree(block.obtained);
  block = {};
}

/// Makes the block at least so large and returns its bytes, whose values do not matter any more. A
/// block that is outgrown becomes an eighth larger than was asked for, so that needs that vary a
/// little from use to use soon cause no request. Raises 8 with the block released.
inline void* EnsureKept(KeptBlock& block, std::uint64_t neededBytes) {
  if (block.obtained != nullptr && neededBytes <= block.numBytes) return block.bytes;
  const std::uint64_t spare = block.obtained != nullptr ? neededBytes / 8 : 0;
  ReleaseKept(block);
  const std::uint64_t numBytes = SaturatingAdd(neededBytes, spare);
  block.obtained = KelAlignedMalloc(SaturatingAdd(numBytes, kKeptAlignment));
  const auto address = reinterpret_cast<std::uintptr_t>(block.obtained);
  const std::uintptr_t padding = (~address + 1) & (kKeptAlignment - 1);
  block.bytes = static_cast<std::uint8_t*>(block.obtained) + padding;
  block.numBytes = numBytes;
  return block.bytes;
}

}  // namespace kel

#endif
