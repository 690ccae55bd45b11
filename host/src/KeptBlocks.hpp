// The heap as the session uses it: what is freed is kept for the next request of its size, since
// fresh memory costs more than what is done with it.
//
// Kept blocks never add to the most that was ever held at once: a request that none of them fits
// gives back as many bytes as it takes, the longest kept first.
#ifndef KEL_HOST_KEPT_BLOCKS_HPP
#define KEL_HOST_KEPT_BLOCKS_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace kel::host {

class KeptBlocks {
 public:
  struct Block {
    void* start = nullptr;
    std::size_t bytes = 0;
  };

  ~KeptBlocks() { GiveBack(SIZE_MAX); }
  /// A block of at least so many bytes, at most an eighth more; null when the heap has none.
  Block Take(std::size_t bytes);
  /// Keeps the block, or frees it when it is small: for those the heap itself is quick.
  void Return(const Block& block);
  /// Frees kept blocks, at least so many bytes of them if there are.
  void GiveBack(std::size_t bytes);
  std::uint64_t Bytes() const;

 private:
  void GiveBackLocked(std::size_t bytes);

  mutable std::mutex mutex_;
  std::array<Block, 128> blocks_;  ///< the longest kept first
  std::size_t numBlocks_ = 0;
};

}  // namespace kel::host

#endif
