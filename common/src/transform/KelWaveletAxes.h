// The axes of a box, mirroring, and the cutting up of scratch. Internal to the wavelet transform.
#ifndef KEL_WAVELET_AXES_H
#define KEL_WAVELET_AXES_H

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "base/KelInt.h"

namespace kel {

/// First index of a box's low-pass samples (position 2n) or high-pass samples (position 2n + 1),
/// given the box's first position; given its end, their end.
inline std::int64_t BandEdge(std::int64_t position, bool high) {
  return high ? FloorShift(position, 1) : CeilShift(position, 1);
}

/// The position inside [first, end) that periodic symmetric extension shows at a position. The
/// range has at least two positions.
inline std::int64_t Mirror(std::int64_t position, std::int64_t first, std::int64_t end) {
  if (position >= first && position < end) return position;
  const std::int64_t once = position < first ? 2 * first - position : 2 * (end - 1) - position;
  if (once >= first && once < end) return once;  // all but the shortest ranges
  const std::int64_t period = 2 * (end - first - 1);
  std::int64_t m = (position - first) % period;
  if (m < 0) m += period;
  return first + std::min(m, period - m);
}

/// Hands out pieces of a scratch block, each on a cache line.
class ScratchCutter {
 public:
  explicit ScratchCutter(void* block) : next_(static_cast<std::uint8_t*>(block)) {}
  template <class T>
  T* Take(std::int64_t count) {
    T* const taken = reinterpret_cast<T*>(next_);
    next_ += RoundUp(count * static_cast<std::int64_t>(sizeof(T)), 64);
    return taken;
  }

 private:
  std::uint8_t* next_;
};

}  // namespace kel

#endif
