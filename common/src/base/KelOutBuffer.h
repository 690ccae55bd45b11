// The growing output buffer of the header and box writers: big-endian numbers, and bits packed
// most significant bit first.
//
// The buffer owns its bytes, which come from the memory layer; growing and the first request raise
// 8. Bits gather in an accumulator of fewer than 8 bits; a whole byte is appended at the eighth.
// Bytes and bits may follow each other only where no bits are pending.
#ifndef KEL_OUT_BUFFER_H
#define KEL_OUT_BUFFER_H

#include <cstdint>

#include "base/KelMemFuncDefs.h"

namespace kel {

struct KelOutBuffer {
  std::uint32_t count;       ///< bytes written
  std::uint8_t accumulator;  ///< pending bits, the last one lowest
  std::uint8_t numBits;      ///< their number, 0 to 7 between calls
  OwnedArray<std::uint8_t> bytes;
  std::uint32_t growth;  ///< least number of bytes to grow by

  /// An empty buffer that holds so many bytes, and grows by as many at least.
  static KelOutBuffer Make(std::uint32_t sizeBytes);
};

/// The low 8 bits of a value.
void PutByte(KelOutBuffer& out, std::uint32_t byte);

/// One bit, behind those before it.
void PutBit(KelOutBuffer& out, bool bit);

/// The low n bytes (1 to 4) of a value, most significant first.
void PutUInt(KelOutBuffer& out, std::uint32_t value, int n);

inline void PutU16(KelOutBuffer& out, std::uint32_t value) {
  PutUInt(out, value, 2);
}
inline void PutU32(KelOutBuffer& out, std::uint32_t value) {
  PutUInt(out, value, 4);
}

/// n bytes as they stand.
void PutBytes(KelOutBuffer& out, const void* source, std::uint64_t n);

/// Overwrites four bytes, written before, with a 32-bit value.
void PatchU32(KelOutBuffer& out, std::uint32_t position, std::uint32_t value) noexcept;

}  // namespace kel

#endif
