// The encoder's bit writer: a block of memory of a size fixed beforehand, and the sink that the
// block kernels put bits into, most significant bit first.
//
// The caller knows how much can come at most and never puts more: nothing is checked here. The
// writer owns the bytes until they are taken from it. Between calls 0 to 7 bits are pending; one
// call puts up to 56. Bytes behind the whole ones may hold anything.
#ifndef KEL_BIT_WRITER_H
#define KEL_BIT_WRITER_H

#include <cstdint>
#include <utility>

#include "base/KelMemFuncDefs.h"
#include "kernels/KelBlocksPut.h"

namespace kel {

class BitWriter {
 public:
  /// Obtains room for so many bytes; raises 8.
  explicit BitWriter(std::uint64_t mostBytes)
      : obtainedBytes_(SaturatingAdd(mostBytes, kStoreSlackBytes)),
        bytes_(static_cast<std::uint8_t*>(KelMalloc(obtainedBytes_))) {
    sink.next = bytes_;
  }
  BitWriter(const BitWriter&) = delete;
  BitWriter& operator=(const BitWriter&) = delete;
  ~BitWriter() { KelFree(bytes_); }

  /// Puts the low n = 1 to 56 bits of a value below 2^n.
  void Put(std::uint64_t value, unsigned n) { PutValue(sink, value, n); }
  /// Fills the last byte up with zero bits.
  void Flush() { PutBits(sink, 0, (8 - sink.numPending) & 7); }
  /// Whole bytes so far.
  std::uint64_t NumBytes() const { return static_cast<std::uint64_t>(sink.next - bytes_); }
  std::uint64_t ObtainedBytes() const { return obtainedBytes_; }
  /// Hands the bytes to a longer-lived owner.
  std::uint8_t* Release() { return std::exchange(bytes_, nullptr); }

  BlockSink sink{};

 private:
  std::uint64_t obtainedBytes_;
  std::uint8_t* bytes_;
};

}  // namespace kel

#endif
