// Integer helpers: division with a chosen rounding, products that saturate, bit lengths,
// rounding of floating-point values.
//
// Coordinates and positions are signed 64-bit here; byte counts are unsigned 64-bit and saturate
// at the largest value, which the memory layer then refuses as more than it can ask for.
#ifndef KEL_INT_H
#define KEL_INT_H

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace kel {

/// Smallest integer not below a / d, for d > 0.
constexpr std::int64_t CeilDiv(std::int64_t a, std::int64_t d) {
  return a / d + (a % d > 0 ? 1 : 0);
}

/// Largest integer not above a / d, for d > 0.
constexpr std::int64_t FloorDiv(std::int64_t a, std::int64_t d) {
  return a / d - (a % d < 0 ? 1 : 0);
}

/// Smallest integer not below v / 2^shift. Shifts of 62 and more count as 62.
constexpr std::int64_t CeilShift(std::int64_t v, int shift) {
  const int s = shift < 62 ? shift : 62;
  return -((-v) >> s);
}

/// Largest integer not above v / 2^shift.
constexpr std::int64_t FloorShift(std::int64_t v, int shift) {
  return v >> (shift < 62 ? shift : 62);
}

/// v rounded up to a multiple of a power of two.
constexpr std::int64_t RoundUp(std::int64_t v, std::int64_t powerOfTwo) {
  return (v + powerOfTwo - 1) & -powerOfTwo;
}

/// a * b, or the largest value when the product does not fit.
constexpr std::uint64_t SaturatingMul(std::uint64_t a, std::uint64_t b) {
  const std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
  return a != 0 && b > most / a ? most : a * b;
}

/// a + b, or the largest value when the sum does not fit.
constexpr std::uint64_t SaturatingAdd(std::uint64_t a, std::uint64_t b) {
  const std::uint64_t sum = a + b;
  return sum < a ? std::numeric_limits<std::uint64_t>::max() : sum;
}

/// A size that may be negative in a host's hands, as an unsigned count (negative counts as 0).
constexpr std::uint64_t AsCount(std::int64_t v) {
  return v > 0 ? static_cast<std::uint64_t>(v) : 0;
}

/// An index or length in memory that was obtained, which it fits on every machine.
constexpr std::size_t AsIndex(std::int64_t v) {
  return static_cast<std::size_t>(AsCount(v));
}

/// v limited to the range of a signed 32-bit integer.
constexpr std::int32_t SaturateToInt32(std::int64_t v) {
  if (v > std::numeric_limits<std::int32_t>::max()) return std::numeric_limits<std::int32_t>::max();
  if (v < std::numeric_limits<std::int32_t>::min()) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(v);
}

/// Number of bits needed to write v: 0 for 0, 32 for values from 2^31 on.
constexpr int BitLength(std::uint32_t v) {
  return static_cast<int>(std::bit_width(v));
}

/// Nearest integer, halves to even; NaN gives 0, values beyond 32 bits the nearest limit. Relies
/// on the rounding mode that the public boundary sets.
inline std::int32_t RoundToInt32(double v) {
  if (!(v > -2147483648.0)) return v != v ? 0 : std::numeric_limits<std::int32_t>::min();
  if (v >= 2147483647.0) return std::numeric_limits<std::int32_t>::max();
  return static_cast<std::int32_t>(std::nearbyint(v));
}

}  // namespace kel

#endif
