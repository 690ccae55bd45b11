// Large pages by mmap and madvise; the heap for small blocks, for other systems, and where a
// sanitizer watches the bounds of heap blocks.
#include "Pages.hpp"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#define KEL_HOST_WATCHED_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer)
#define KEL_HOST_WATCHED_HEAP 1
#endif
#endif

#if defined(__linux__) && !defined(KEL_HOST_WATCHED_HEAP)
#define KEL_HOST_MAPS 1
#include <sys/mman.h>
#endif

namespace kel::host {
namespace {

constexpr std::size_t kAlignment = 64;

#if defined(KEL_HOST_MAPS)
constexpr std::size_t kLargePage = std::size_t{2} << 20;

bool IsMapped(std::size_t bytes) {
  return bytes >= kLargePage && bytes < SIZE_MAX - 2 * kLargePage;
}

/// Maps a large page more than is needed, and gives back what lies in front of the first large
/// page and behind the bytes. The last large page stays small pages unless half of it is used.
void* Map(std::size_t bytes) {
  const std::size_t length = (bytes + kLargePage - 1) / kLargePage * kLargePage;
  void* mapped = mmap(nullptr, length + kLargePage, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) return nullptr;
  auto* first = static_cast<char*>(mapped);
  const std::size_t lead =
      (kLargePage - reinterpret_cast<std::uintptr_t>(first) % kLargePage) % kLargePage;
  if (lead != 0) munmap(first, lead);
  munmap(first + lead + length, kLargePage - lead);
  madvise(first + lead, (bytes + kLargePage / 2) / kLargePage * kLargePage, MADV_HUGEPAGE);
  return first + lead;
}
#endif

}  // namespace

void* TakePages(std::size_t bytes) noexcept {
#if defined(KEL_HOST_MAPS)
  if (IsMapped(bytes)) return Map(bytes);
#endif
  if (bytes > SIZE_MAX - kAlignment) return nullptr;
  const std::size_t rounded = (bytes + kAlignment - 1) / kAlignment * kAlignment;
  void* start = std::aligned_alloc(kAlignment, rounded);
  if (start != nullptr) std::memset(start, 0, bytes);
  return start;
}

void GivePages(void* start, std::size_t bytes) noexcept {
#if defined(KEL_HOST_MAPS)
  if (start != nullptr && IsMapped(bytes)) {
    munmap(start, (bytes + kLargePage - 1) / kLargePage * kLargePage);
    return;
  }
#else
  static_cast<void>(bytes);
#endif
  std::free(start);
}

}  // namespace kel::host
