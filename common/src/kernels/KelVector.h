// Vectors of one instruction set, for the kernels that are written once over the vector length.
//
// A vector source defines KEL_VECTOR_BYTES (16, 32 or 64) and includes this header. Types and
// operations are those of the compilers' vector extensions, so the same text serves SSE2, AVX2,
// AVX-512, NEON and WebAssembly. Everything is local to the including source: a function compiled
// with extra target flags must never become the copy that the linker keeps for everybody.
#ifndef KEL_VECTOR_H
#define KEL_VECTOR_H

#ifndef KEL_VECTOR_BYTES
#error "define KEL_VECTOR_BYTES before including this header"
#endif

#include <cstddef>
#include <cstdint>
#include <utility>

#if defined(__SSE2__)
#include <immintrin.h>
#endif

namespace kel {
namespace {

typedef std::int32_t VInt __attribute__((vector_size(KEL_VECTOR_BYTES)));
typedef std::uint32_t VUInt __attribute__((vector_size(KEL_VECTOR_BYTES)));
typedef float VFloat __attribute__((vector_size(KEL_VECTOR_BYTES)));
typedef double VDouble __attribute__((vector_size(KEL_VECTOR_BYTES)));
/// As many floats as a vector has doubles.
typedef float VHalfFloat __attribute__((vector_size(KEL_VECTOR_BYTES / 2)));

/// 32-bit and 64-bit lanes of a vector.
inline constexpr int kLanes = KEL_VECTOR_BYTES / 4;
inline constexpr int kWideLanes = KEL_VECTOR_BYTES / 8;

/// Loads a vector from an address of any alignment.
template <class V>
[[maybe_unused]] inline V Load(const void* address) {
  V v;
  __builtin_memcpy(&v, address, sizeof v);
  return v;
}

/// Stores a vector to an address of any alignment.
template <class V>
[[maybe_unused]] inline void Store(void* address, V v) {
  __builtin_memcpy(address, &v, sizeof v);
}

/// Floats as doubles. With intrinsics because g++ 12 splits the general conversion into halves,
/// which made double-precision kernels half as slow again.
[[maybe_unused]] inline VDouble Widen(VHalfFloat v) {
#if KEL_VECTOR_BYTES == 64 && defined(__AVX512F__)
  return _mm512_maskz_cvtps_pd(0xFF, v);
#elif KEL_VECTOR_BYTES == 32 && defined(__AVX__)
  return _mm256_cvtps_pd(v);
#elif KEL_VECTOR_BYTES == 16 && defined(__SSE2__)
  return _mm_cvtps_pd(_mm_castpd_ps(_mm_set_sd(__builtin_bit_cast(double, v))));
#else
  return __builtin_convertvector(v, VDouble);
#endif
}

// Two vectors a, b of n lanes as one sequence of 2n values.

template <class V, int... kLane>
inline V InterleaveLowLanes(V a, V b, std::integer_sequence<int, kLane...>) {
  constexpr int n = sizeof...(kLane);
  return __builtin_shufflevector(a, b, (kLane / 2 + (kLane % 2) * n)...);
}

template <class V, int... kLane>
inline V InterleaveHighLanes(V a, V b, std::integer_sequence<int, kLane...>) {
  constexpr int n = sizeof...(kLane);
  return __builtin_shufflevector(a, b, (n / 2 + kLane / 2 + (kLane % 2) * n)...);
}

template <class V, int... kLane>
inline V EvenOfLanes(V a, V b, std::integer_sequence<int, kLane...>) {
  return __builtin_shufflevector(a, b, (2 * kLane)...);
}

template <class V, int... kLane>
inline V OddOfLanes(V a, V b, std::integer_sequence<int, kLane...>) {
  return __builtin_shufflevector(a, b, (2 * kLane + 1)...);
}

template <class V>
using LaneNumbers = std::make_integer_sequence<int, sizeof(V) / sizeof(V{}[0])>;

/// The first half of a0 b0 a1 b1 ..., and the second.
template <class V>
[[maybe_unused]] inline V InterleaveLow(V a, V b) {
  return InterleaveLowLanes(a, b, LaneNumbers<V>{});
}
template <class V>
[[maybe_unused]] inline V InterleaveHigh(V a, V b) {
  return InterleaveHighLanes(a, b, LaneNumbers<V>{});
}

/// Values at the even places of a0 a1 ... b0 b1 ..., and at the odd ones.
template <class V>
[[maybe_unused]] inline V EvenOf(V a, V b) {
  return EvenOfLanes(a, b, LaneNumbers<V>{});
}
template <class V>
[[maybe_unused]] inline V OddOf(V a, V b) {
  return OddOfLanes(a, b, LaneNumbers<V>{});
}

}  // namespace
}  // namespace kel

#endif
