// The encoder's bit writer: memory of the caller's, and the sink that the block kernels put bits
// into, most significant bit first.
//
// The caller knows how much can come at most, has room for that and for kStoreSlackBytes more, and
// never puts more: nothing is checked here. Between calls 0 to 7 bits are pending; one call puts
// up to 56. Bytes behind the whole ones may hold anything.
#ifndef KEL_BIT_WRITER_H
#define KEL_BIT_WRITER_H

#include <cstdint>

#include "kernels/KelBlocksPut.h"

namespace kel {

class BitWriter {
 public:
  explicit BitWriter(std::uint8_t* bytes) : bytes_(bytes) { sink.next = bytes; }

  /// Puts the low n = 1 to 56 bits of a value below 2^n.
  void Put(std::uint64_t value, unsigned n) { PutValue(sink, value, n); }
  /// Fills the last byte up with zero bits.
  void Flush() { PutBits(sink, 0, (8 - sink.numPending) & 7); }
  /// Whole bytes so far.
  std::uint64_t NumBytes() const { return static_cast<std::uint64_t>(sink.next - bytes_); }

  BlockSink sink{};

 private:
  std::uint8_t* bytes_;
};

}  // namespace kel

#endif
