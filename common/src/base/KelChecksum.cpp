// CRC-32, eight bytes at a time: of eight tables the k-th tells what a byte does that k more bytes
// follow.
#include "base/KelChecksum.h"

#include <array>
#include <cstddef>

namespace kel {
namespace {

/// Of CRC-32 as in Ethernet and PNG, lowest bit first.
constexpr std::uint32_t kReversedPolynomial = 0xEDB88320;
constexpr std::size_t kStep = 8;

using Table = std::array<std::uint32_t, 256>;

constexpr std::array<Table, kStep> MakeTables() {
  std::array<Table, kStep> tables{};
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    std::uint32_t state = byte;
    for (int bit = 0; bit < 8; ++bit) {
      state = state >> 1 ^ ((state & 1) != 0 ? kReversedPolynomial : 0);
    }
    tables[0][byte] = state;
  }
  for (std::size_t k = 1; k < kStep; ++k) {
    for (std::size_t byte = 0; byte < 256; ++byte) {
      const std::uint32_t before = tables[k - 1][byte];
      tables[k][byte] = before >> 8 ^ tables[0][before & 0xFF];
    }
  }
  return tables;
}

constexpr std::array<Table, kStep> kTables = MakeTables();

}  // namespace

void Checksum::Add(const std::uint8_t* bytes, std::uint64_t count) {
  std::uint32_t state = state_;
  for (; count >= kStep; bytes += kStep, count -= kStep) {
    std::uint32_t next = 0;
    for (std::size_t k = 0; k < kStep; ++k) {
      const std::uint32_t mixed = k < 4 ? state >> 8 * k & 0xFF : 0;
      next ^= kTables[kStep - 1 - k][mixed ^ bytes[k]];
    }
    state = next;
  }
  for (; count != 0; ++bytes, --count) state = state >> 8 ^ kTables[0][(state ^ *bytes) & 0xFF];
  state_ = state;
}

}  // namespace kel
