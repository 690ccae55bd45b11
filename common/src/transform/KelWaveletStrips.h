// What the forward and the inverse transform share: the axes of a box, mirroring, strips of
// columns, and the cutting up of scratch. Internal to the wavelet transform.
#ifndef KEL_WAVELET_STRIPS_H
#define KEL_WAVELET_STRIPS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "base/KelInt.h"

namespace kel {

/// Columns of a strip. Wide enough that each row piece feeds the memory well, narrow enough that
/// the dozen rows at work stay near the core. The last strip may be half as wide again, so that
/// no strip of several is narrow and mirroring at an edge never leaves the edge's strip.
inline constexpr std::int64_t kStripColumns = 4096;
inline constexpr std::int64_t kMostStripColumns = kStripColumns + kStripColumns / 2;

/// Where the strip that begins at column c0 ends; an even column, or the end of the box.
inline std::int64_t StripEnd(std::int64_t c0, std::int64_t end) {
  return end - c0 <= kMostStripColumns ? end : c0 - (c0 & 1) + kStripColumns;
}

/// First index of a box's low-pass samples (position 2n) or high-pass samples (position 2n + 1),
/// given the box's first position; given its end, their end.
inline std::int64_t BandEdge(std::int64_t position, bool high) {
  return high ? FloorShift(position, 1) : CeilShift(position, 1);
}

/// The position inside [first, end) that periodic symmetric extension shows at a position. The
/// range has at least two positions.
inline std::int64_t Mirror(std::int64_t position, std::int64_t first, std::int64_t end) {
  if (position >= first && position < end) return position;
  const std::int64_t period = 2 * (end - first - 1);
  std::int64_t m = (position - first) % period;
  if (m < 0) m += period;
  return first + std::min(m, period - m);
}

/// Cells before the first sample of a scratch row, room for its mirrored neighbours; and a row's
/// length for a box of a given width.
inline constexpr std::int64_t kRowLead = 16;
inline std::int64_t ScratchRowCells(std::int64_t width) {
  return RoundUp(std::min(width, kMostStripColumns), 16) + 3 * kRowLead;
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
