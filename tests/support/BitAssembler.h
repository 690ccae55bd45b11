// Assembles byte strings for tests, independently of the library's own writers: big-endian
// numbers, bits most significant first, hexadecimal text.
#ifndef TESTS_SUPPORT_BIT_ASSEMBLER_H
#define TESTS_SUPPORT_BIT_ASSEMBLER_H

#include <bit>
#include <cstdint>
#include <string_view>
#include <vector>

namespace test {

using Bytes = std::vector<std::uint8_t>;

class BitAssembler {
 public:
  /// The low n bits of value, most significant first.
  BitAssembler& Bits(std::uint64_t value, int n) {
    for (int i = n - 1; i >= 0; --i) {
      if (used_ == 0) bytes_.push_back(0);
      bytes_.back() = static_cast<std::uint8_t>(bytes_.back() | (value >> i & 1) << (7 - used_));
      used_ = (used_ + 1) % 8;
    }
    return *this;
  }
  /// A sample of n bits; those of 16 stand in the order of the host's own words.
  BitAssembler& Sample(std::uint64_t value, int n) {
    const bool isSwapped = n == 16 && std::endian::native == std::endian::little;
    return Bits(isSwapped ? (value & 0xFF) << 8 | (value >> 8 & 0xFF) : value, n);
  }
  BitAssembler& U8(std::uint64_t value) { return Align().Bits(value, 8); }
  BitAssembler& U16(std::uint64_t value) { return Align().Bits(value, 16); }
  BitAssembler& U32(std::uint64_t value) { return Align().Bits(value, 32); }
  /// Fills the current byte up with zero bits.
  BitAssembler& Align() {
    used_ = 0;
    return *this;
  }
  BitAssembler& Append(const Bytes& more) {
    Align();
    bytes_.insert(bytes_.end(), more.begin(), more.end());
    return *this;
  }
  BitAssembler& Text(std::string_view text) { return Append(Bytes(text.begin(), text.end())); }
  const Bytes& Result() const { return bytes_; }
  std::size_t NumBits() const {
    return 8 * bytes_.size() - (used_ != 0 ? 8U - unsigned(used_) : 0);
  }

 private:
  Bytes bytes_;
  int used_ = 0;
};

/// Bytes from hexadecimal digits; blanks are passed over.
inline Bytes Hex(std::string_view digits) {
  BitAssembler result;
  for (const char c : digits) {
    if (c == ' ' || c == '\n') continue;
    result.Bits(static_cast<std::uint64_t>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10), 4);
  }
  return result.Result();
}

}  // namespace test

#endif
