// Writing what the encoder makes: a stream that does not take all of it ends the work.
#ifndef KEL_STREAM_WRITE_H
#define KEL_STREAM_WRITE_H

#include <cstdint>

#include "base/KelRaise.h"
#include "kel/KelStream.h"

namespace kel {

/// Writes all of the bytes. Raises 32 when the host does not take them, 8.
inline void WriteOut(KelCodeStm& stream, const std::uint8_t* bytes, std::uint64_t count) {
  const auto wanted = static_cast<KelLong>(count);
  if (stream.write(bytes, wanted) != wanted) Raise(KelErrWriteFailed, kModuleImage);
}

/// Flushes the write buffer. Raises 32 when the host does not take what it held.
inline void FlushOut(KelCodeStm& stream) {
  const KelLong held = stream.wbufFill;
  if (stream.flushWriteBuffer() < held) Raise(KelErrWriteFailed, kModuleImage);
}

}  // namespace kel

#endif
