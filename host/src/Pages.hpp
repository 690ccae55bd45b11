// Large blocks of memory, straight from the system: zero without being written, and in large pages
// where the system has them, since the first touch of every small page costs more than what is done
// with its bytes.
#ifndef KEL_HOST_PAGES_HPP
#define KEL_HOST_PAGES_HPP

#include <cstddef>

namespace kel::host {

/// Zeroed bytes, aligned to 64 at least where there are some; null when there is no memory.
void* TakePages(std::size_t bytes) noexcept;
/// Gives back what TakePages gave, with the number of bytes asked for. Accepts null.
void GivePages(void* start, std::size_t bytes) noexcept;

}  // namespace kel::host

#endif
