// CRC-32 as in many file formats: polynomial 0x04C11DB7, bits of a byte from the lowest on, begun
// with ones and complemented at the end. The checksum of "123456789" is 0xCBF43926.
#ifndef KEL_CHECKSUM_H
#define KEL_CHECKSUM_H

#include <cstdint>

namespace kel {

class Checksum {
 public:
  void Add(const std::uint8_t* bytes, std::uint64_t count);
  std::uint32_t Value() const { return ~state_; }

 private:
  std::uint32_t state_ = 0xFFFFFFFF;
};

}  // namespace kel

#endif
