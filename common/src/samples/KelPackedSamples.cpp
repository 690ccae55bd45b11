// Reading and writing of packed samples through 64-bit words.
#include "samples/KelPackedSamples.h"

#include <algorithm>

#include "base/KelBytes.h"

namespace kel {
namespace {

/// The first 8 bytes of some as a big-endian number; bytes that are missing count as zero.
std::uint64_t LoadUpTo(const std::uint8_t* bytes, std::uint64_t lengthBytes) {
  if (lengthBytes >= 8) return LoadBE64(bytes);
  std::uint64_t word = 0;
  for (unsigned i = 0; i < 8; ++i) word = word << 8 | (i < lengthBytes ? bytes[i] : 0U);
  return word;
}

}  // namespace

void UnpackSamples(const PackedSamples& packed, std::uint32_t* out, std::size_t count) {
  // A word is loaded from the byte in which a sample begins. Past the bits of that byte that come
  // first, 57 or more remain: room for one sample of up to 32 bits, or for several.
  const int unused = 64 - packed.bitDepth;
  const std::uint64_t step = packed.stepBits;
  const auto perWord =
      static_cast<std::size_t>(static_cast<unsigned>(57 - packed.bitDepth) / step + 1);
  const int shift = static_cast<int>(std::min<std::uint64_t>(step, 63));
  const std::uint64_t wordsEnd = packed.rowBytes >= 8 ? (packed.rowBytes - 7) * 8 : 0;
  std::uint64_t bit = packed.firstBit;
  std::size_t k = 0;
  for (; k + perWord <= count && bit < wordsEnd; k += perWord, bit += perWord * step) {
    std::uint64_t word = LoadBE64(packed.row + bit / 8) << (bit % 8);
    for (std::size_t i = 0; i < perWord; ++i, word <<= shift) {
      out[k + i] = static_cast<std::uint32_t>(word >> unused);
    }
  }
  for (; k < count; ++k, bit += step) {
    const std::uint64_t word = LoadUpTo(packed.row + bit / 8, packed.rowBytes - bit / 8);
    out[k] = static_cast<std::uint32_t>(word << (bit % 8) >> unused);
  }
}

void PackSamples(const std::int32_t* values, std::size_t count, int numBits, std::uint8_t* out) {
  const std::uint64_t mask = (std::uint64_t{1} << numBits) - 1;
  std::uint64_t pending = 0;  // the low pendingBits bits wait; never more than 31 between samples
  int pendingBits = 0;
  for (std::size_t k = 0; k < count; ++k) {
    pending = pending << numBits | (static_cast<std::uint32_t>(values[k]) & mask);
    pendingBits += numBits;
    if (pendingBits < 32) continue;
    pendingBits -= 32;
    StoreBE32(out, static_cast<std::uint32_t>(pending >> pendingBits));
    out += 4;
  }
  pending <<= 32 - pendingBits;
  for (; pendingBits > 0; pendingBits -= 8) {
    *out++ = static_cast<std::uint8_t>(pending >> 24);
    pending <<= 8;
  }
}

}  // namespace kel
