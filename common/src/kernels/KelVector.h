// Vectors of one instruction set, for the kernels that are written once over the vector length.
//
// A vector source defines KEL_VECTOR_BYTES (16, 32 or 64) and includes this header. Types and
// operations are those of the compilers' vector extensions, so the same text serves SSE2, AVX2,
// AVX-512 and NEON. Everything is local to the including source: a function compiled with extra
// target flags must never become the copy that the linker keeps for everybody.
#ifndef KEL_VECTOR_H
#define KEL_VECTOR_H

#ifndef KEL_VECTOR_BYTES
#error "define KEL_VECTOR_BYTES before including this header"
#endif

#include <cstddef>
#include <cstdint>

namespace kel {
namespace {

typedef std::int32_t VInt __attribute__((vector_size(KEL_VECTOR_BYTES)));
typedef std::uint32_t VUInt __attribute__((vector_size(KEL_VECTOR_BYTES)));
typedef float VFloat __attribute__((vector_size(KEL_VECTOR_BYTES)));
typedef double VDouble __attribute__((vector_size(KEL_VECTOR_BYTES)));

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

}  // namespace
}  // namespace kel

#endif
