// Appending to the output buffer, and growing it.
//
// A growth adds half of what there is, so that long payloads are copied a bounded number of times.
#include "base/KelOutBuffer.h"

#include <algorithm>

#include "base/KelBytes.h"

namespace kel {
namespace {

/// Makes room for n more bytes and returns where they go.
std::uint8_t* Extend(KelOutBuffer& out, std::uint64_t n) {
  const std::uint64_t needed = SaturatingAdd(out.count, n);
  const std::uint64_t capacity = out.bytes.Size();
  if (needed > capacity) {
    const std::uint64_t grown = capacity + std::max<std::uint64_t>(out.growth, capacity / 2);
    out.bytes.Grow(std::max(needed, grown), out.count);
  }
  std::uint8_t* end = out.bytes.Data() + out.count;
  out.count = static_cast<std::uint32_t>(needed);
  return end;
}

}  // namespace

KelOutBuffer KelOutBuffer::Make(std::uint32_t sizeBytes) {
  return {0, 0, 0, OwnedArray<std::uint8_t>::Make(sizeBytes), sizeBytes};
}

void PutByte(KelOutBuffer& out, std::uint32_t byte) {
  *Extend(out, 1) = static_cast<std::uint8_t>(byte);
}

void PutBit(KelOutBuffer& out, bool bit) {
  out.accumulator = static_cast<std::uint8_t>(out.accumulator << 1 | (bit ? 1 : 0));
  if (++out.numBits < 8) return;
  PutByte(out, out.accumulator);
  out.accumulator = out.numBits = 0;
}

void PutUInt(KelOutBuffer& out, std::uint32_t value, int n) {
  std::uint8_t* to = Extend(out, static_cast<std::uint64_t>(n));
  for (int i = n - 1; i >= 0; --i) *to++ = static_cast<std::uint8_t>(value >> 8 * i);
}

void PutBytes(KelOutBuffer& out, const void* source, std::uint64_t n) {
  KelMemCopy(Extend(out, n), source, n);
}

void PatchU32(KelOutBuffer& out, std::uint32_t position, std::uint32_t value) noexcept {
  StoreBE32(out.bytes.Data() + position, value);
}

}  // namespace kel
