// A host stream in memory for tests: reads can be short or lie, seeking can be refused, writes
// can fail, and every callback is counted.
#ifndef TESTS_SUPPORT_HOST_STREAM_H
#define TESTS_SUPPORT_HOST_STREAM_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kel/KelStream.h"

namespace test {

class HostStream {
 public:
  explicit HostStream(std::vector<std::uint8_t> content = {}, bool seekable = true);
  /// Flushes what is still held, whose buffer comes from the library.
  ~HostStream() {
    if (stream.wbuf != nullptr) stream.flushWriteBuffer();
  }
  HostStream(const HostStream&) = delete;
  HostStream& operator=(const HostStream&) = delete;

  KelCodeStm* Stream() { return &stream; }

  std::vector<std::uint8_t> bytes;  ///< the content; grows by writing
  std::size_t position = 0;         ///< where the next read or write goes
  std::size_t visible = SIZE_MAX;   ///< reads end here, as if no more had arrived
  KelLong mostPerRead = INT32_MAX;  ///< delivers no more than this at once
  KelLong readResult = INT32_MIN;   ///< unless INT32_MIN: what every read returns
  KelLong writeResult = INT32_MIN;  ///< unless INT32_MIN: what every write returns
  int writesToFail = -1;            ///< number of the write that fails, from 0 on, or -1
  KelLong failedResult = 0;         ///< what that one returns
  bool refuseSeek = false;
  int reads = 0, writes = 0, seeks = 0;
  std::size_t bytesRead = 0;

  KelStreamProcs procs;
  KelCodeStm stream;
};

}  // namespace test

#endif
