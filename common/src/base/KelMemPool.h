// A memory pool: many small records that live equally long, taken from few large blocks.
//
// Records cannot be given back one by one; the pool's release frees all blocks. What it hands
// out is zero-filled.
#ifndef KEL_MEM_POOL_H
#define KEL_MEM_POOL_H

#include <cstdint>

#include "kel/KelTypes.h"

namespace kel {

struct MemPoolBlock;

struct MemPool {
  MemPoolBlock* first;       ///< null when the pool owns no block
  MemPoolBlock* current;     ///< the block that requests are served from
  std::uint64_t blockBytes;  ///< usual size of a block
  std::uint32_t alignment;   ///< of what is handed out; a power of two
};

/// Stores block size and alignment and empties the list, without releasing anything.
void PrepareMemPool(MemPool& pool, std::uint64_t blockBytes, std::uint32_t alignment) noexcept;

/// A zero-filled area. When the current block has no room, the one after it serves, or a block of
/// the usual size, or of the request with its alignment when that is more, is added behind it.
/// Raises 8.
void* AllocFromMemPool(MemPool& pool, std::uint64_t sizeBytes);

/// Frees all blocks; may run twice.
void ReleaseMemPool(MemPool& pool) noexcept;

}  // namespace kel

#endif
