// What the cells of rows hold, on both sides of the wavelet transforms.
#ifndef KEL_CELL_KIND_H
#define KEL_CELL_KIND_H

#include <cstddef>
#include <cstdint>

namespace kel {

/// Integers of 32 or 16 bits, for the 5/3 filter, or floats, for the 9/7 filter.
enum class CellKind : std::uint8_t { kInts, kShorts, kFloats };

constexpr std::size_t CellBytes(CellKind kind) {
  return kind == CellKind::kShorts ? 2 : 4;
}

}  // namespace kel

#endif
