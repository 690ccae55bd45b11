// A box of samples: the half-open rectangle [x0, x1) x [y0, y1).
#ifndef KEL_BOX_H
#define KEL_BOX_H

#include <algorithm>
#include <cstdint>

#include "base/KelInt.h"

namespace kel {

struct Box {
  std::int64_t x0, x1, y0, y1;

  std::int64_t Width() const { return x1 - x0; }
  std::int64_t Height() const { return y1 - y0; }
  bool IsEmpty() const { return x0 >= x1 || y0 >= y1; }
  bool operator==(const Box&) const = default;
};

/// The samples that two boxes share; empty, of any edges, when there are none.
constexpr Box Intersection(const Box& a, const Box& b) {
  return {std::max(a.x0, b.x0), std::min(a.x1, b.x1), std::max(a.y0, b.y0), std::min(a.y1, b.y1)};
}

/// Every edge divided by 2^levels, rounded up: the box of a lower resolution.
constexpr Box ReduceBox(const Box& box, int levels) {
  return {CeilShift(box.x0, levels), CeilShift(box.x1, levels), CeilShift(box.y0, levels),
          CeilShift(box.y1, levels)};
}

}  // namespace kel

#endif
