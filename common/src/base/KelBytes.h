// Big-endian loads and stores: the byte order of code streams and boxes on every machine.
#ifndef KEL_BYTES_H
#define KEL_BYTES_H

#include <cstdint>

namespace kel {

inline std::uint32_t LoadBE16(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) << 8 | p[1];
}

inline std::uint32_t LoadBE32(const std::uint8_t* p) {
  return LoadBE16(p) << 16 | LoadBE16(p + 2);
}

/// Compilers turn this into one load and a byte swap.
inline std::uint64_t LoadBE64(const std::uint8_t* p) {
  return static_cast<std::uint64_t>(LoadBE32(p)) << 32 | LoadBE32(p + 4);
}

inline void StoreBE16(std::uint8_t* p, std::uint32_t v) {
  p[0] = static_cast<std::uint8_t>(v >> 8);
  p[1] = static_cast<std::uint8_t>(v);
}

inline void StoreBE32(std::uint8_t* p, std::uint32_t v) {
  StoreBE16(p, v >> 16);
  StoreBE16(p + 2, v);
}

}  // namespace kel

#endif
