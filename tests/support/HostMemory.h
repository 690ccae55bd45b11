// A host's memory for tests: counts what is outstanding, paints fresh blocks, and can refuse the
// n-th request. One instance at a time; it starts the library and stops it again.
#ifndef TESTS_SUPPORT_HOST_MEMORY_H
#define TESTS_SUPPORT_HOST_MEMORY_H

#include <gtest/gtest.h>

#include <cstddef>

#include "kel/KelMemory.h"

namespace test {

class HostMemory {
 public:
  HostMemory();
  /// Fails the running test when anything is still outstanding.
  ~HostMemory();
  HostMemory(const HostMemory&) = delete;
  HostMemory& operator=(const HostMemory&) = delete;

  /// Refuses the n-th request from now on (1 = the next one), and only that; 0 refuses none.
  void RefuseRequest(std::size_t n);
  /// Whether a request has been refused since RefuseRequest.
  bool HasRefused() const;
  /// Refuses what would bring the bytes outstanding above a limit; 0 lifts the limit.
  void LimitBytes(std::size_t most);

  std::size_t Outstanding() const;  ///< blocks and buffers not given back
  std::size_t Bytes() const;        ///< their bytes
  std::size_t PeakBytes() const;    ///< the most since ResetPeak
  void ResetPeak();
  std::size_t Requests() const;        ///< so far
  std::size_t LargestRequest() const;  ///< in bytes, since ResetPeak

 private:
  KelMemFuncs funcs_;
};

/// Runs a flow again and again, refusing its first request, then its second, and so on, until a
/// run is refused nothing. A refused run must end with one of the flow's own codes for that (8
/// unless the flow absorbs the refusal, which allowSuccess permits); afterwards nothing may be
/// outstanding. The flow takes nothing and returns a result code. Returns the number of runs.
template <class Flow>
std::size_t SweepRefusals(HostMemory& memory, Flow flow, bool allowSuccess = false) {
  const std::size_t outstandingBefore = memory.Outstanding();
  for (std::size_t n = 1;; ++n) {
    memory.RefuseRequest(n);
    KelLong code = KelOK;
    try {
      code = flow();
    } catch (const KelException& failure) {
      code = failure.errCode;
    }
    const bool refused = memory.HasRefused();
    memory.RefuseRequest(0);
    EXPECT_EQ(memory.Outstanding(), outstandingBefore) << "leaked when request " << n << " failed";
    if (!refused) {
      EXPECT_EQ(code, KelOK);
      return n;
    }
    if (!(allowSuccess && code == KelOK)) {
      EXPECT_EQ(code, KelErrNoMemory) << "request " << n;
    }
    if (testing::Test::HasFailure()) return n;
  }
}

}  // namespace test

#endif
