// Keeping freed blocks: few and large, so a list that is searched does.
#include "KeptBlocks.hpp"

#include <algorithm>
#include <cstdlib>
#include <span>

#include "Pages.hpp"

namespace kel::host {
namespace {

/// Smaller blocks the heap keeps itself; larger ones come from the system, which zeroes them.
constexpr std::size_t kSmallestKept = 16 * 1024;
constexpr std::size_t kSmallestPages = std::size_t{4} << 20;

void Free(const KeptBlocks::Block& block) {
  if (block.bytes >= kSmallestPages) {
    GivePages(block.start, block.bytes);
  } else {
    std::free(block.start);
  }
}

}  // namespace

KeptBlocks::Block KeptBlocks::Take(std::size_t bytes) {
  if (bytes >= kSmallestKept) {
    const std::lock_guard lock(mutex_);
    Block* best = nullptr;
    for (Block& block : std::span(blocks_).first(numBlocks_)) {
      const bool fits = block.bytes >= bytes && block.bytes - bytes <= bytes / 8;
      if (fits && (best == nullptr || block.bytes < best->bytes)) best = &block;
    }
    if (best != nullptr) {
      const Block found = *best;
      std::move(best + 1, blocks_.data() + numBlocks_, best);
      --numBlocks_;
      return found;
    }
    GiveBackLocked(bytes);
  }
  return {bytes >= kSmallestPages ? TakePages(bytes) : std::malloc(bytes), bytes};
}

void KeptBlocks::Return(const Block& block) {
  if (block.bytes < kSmallestKept) {
    Free(block);
    return;
  }
  const std::lock_guard lock(mutex_);
  if (numBlocks_ == blocks_.size()) GiveBackLocked(1);
  blocks_[numBlocks_++] = block;
}

void KeptBlocks::GiveBack(std::size_t bytes) {
  const std::lock_guard lock(mutex_);
  GiveBackLocked(bytes);
}

void KeptBlocks::GiveBackLocked(std::size_t bytes) {
  std::size_t count = 0;
  for (std::size_t given = 0; count < numBlocks_ && given < bytes; ++count) {
    given += blocks_[count].bytes;
    Free(blocks_[count]);
  }
  std::move(blocks_.begin() + static_cast<std::ptrdiff_t>(count),
            blocks_.begin() + static_cast<std::ptrdiff_t>(numBlocks_), blocks_.begin());
  numBlocks_ -= count;
}

std::uint64_t KeptBlocks::Bytes() const {
  const std::lock_guard lock(mutex_);
  std::uint64_t bytes = 0;
  for (const Block& block : std::span(blocks_).first(numBlocks_)) bytes += block.bytes;
  return bytes;
}

}  // namespace kel::host
