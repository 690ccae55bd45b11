// The memory pool. A block is its header followed by its bytes; the header remembers how far the
// bytes are used.
#include "base/KelMemPool.h"

#include <algorithm>

#include "base/KelMemFuncDefs.h"

namespace kel {

struct MemPoolBlock {
  MemPoolBlock* next;
  std::uint8_t* base;
  std::uint8_t* nextFree;
  std::uint64_t sizeBytes;
};

namespace {

/// Where the next area of a block begins, or null when it would not fit.
std::uint8_t* PlaceInBlock(const MemPoolBlock& block, std::uint64_t sizeBytes,
                           std::uint32_t alignment) {
  const auto used = static_cast<std::uint64_t>(block.nextFree - block.base);
  const auto address = reinterpret_cast<std::uintptr_t>(block.nextFree);
  const std::uint64_t padding = (~std::uint64_t{address} + 1) & (alignment - 1);
  const std::uint64_t left = block.sizeBytes - used;
  if (padding > left || sizeBytes > left - padding) return nullptr;
  return block.nextFree + padding;
}

}  // namespace

void PrepareMemPool(MemPool& pool, std::uint64_t blockBytes, std::uint32_t alignment) noexcept {
  pool.first = nullptr;
  pool.current = nullptr;
  pool.blockBytes = blockBytes;
  pool.alignment = alignment;
}

void* AllocFromMemPool(MemPool& pool, std::uint64_t sizeBytes) {
  for (MemPoolBlock* block = pool.current; block != nullptr; block = block->next) {
    pool.current = block;
    if (std::uint8_t* place = PlaceInBlock(*block, sizeBytes, pool.alignment)) {
      block->nextFree = place + sizeBytes;
      return place;
    }
  }
  const std::uint64_t bytes = std::max(pool.blockBytes, SaturatingAdd(sizeBytes, pool.alignment));
  auto* block =
      static_cast<MemPoolBlock*>(KelCalloc(1, SaturatingAdd(sizeof(MemPoolBlock), bytes)));
  block->base = reinterpret_cast<std::uint8_t*>(block + 1);
  block->sizeBytes = bytes;
  block->nextFree = block->base;
  (pool.current != nullptr ? pool.current->next : pool.first) = block;
  pool.current = block;
  std::uint8_t* place = PlaceInBlock(*block, sizeBytes, pool.alignment);
  block->nextFree = place + sizeBytes;
  return place;
}

void ReleaseMemPool(MemPool& pool) noexcept {
  while (pool.first != nullptr) {
    MemPoolBlock* next = pool.first->next;
    KelFree(pool.first);
    pool.first = next;
  }
  pool.current = nullptr;
}

}  // namespace kel
