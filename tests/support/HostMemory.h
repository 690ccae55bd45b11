// A host's memory for tests: counts what is outstanding, paints fresh blocks, and can refuse the
// n-th request. One instance at a time; it starts the library and stops it again.
#ifndef TESTS_SUPPORT_HOST_MEMORY_H
#define TESTS_SUPPORT_HOST_MEMORY_H

#include <gtest/gtest.h>

#include <cstddef>
#include <unordered_map>

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
  void RefuseRequest(std::size_t n) {
    ledger_.refuseAt = n;
    ledger_.refused = false;
  }
  /// From now on locks count as requests, and are refused in their turn.
  void RefuseLocksToo() { ledger_.refusesLocks = true; }
  /// Whether a request has been refused since RefuseRequest.
  bool HasRefused() const { return ledger_.refused; }
  /// Refuses what would bring the bytes outstanding above a limit; 0 lifts the limit.
  void LimitBytes(std::size_t most) { ledger_.limit = most; }

  std::size_t Outstanding() const { return ledger_.blocks.size(); }  ///< blocks not given back
  std::size_t Bytes() const { return ledger_.bytes; }                ///< their bytes
  std::size_t PeakBytes() const { return ledger_.peak; }             ///< the most since ResetPeak
  void ResetPeak() {
    ledger_.peak = ledger_.bytes;
    ledger_.largest = 0;
  }
  std::size_t Requests() const { return ledger_.requests; }       ///< so far
  std::size_t LargestRequest() const { return ledger_.largest; }  ///< in bytes, since ResetPeak

  struct Ledger {
    std::unordered_map<void*, std::size_t> blocks;
    std::size_t bytes = 0, peak = 0, requests = 0, largest = 0;
    std::size_t refuseAt = 0, limit = 0;
    bool refused = false, refusesLocks = false;
  };

 private:
  Ledger ledger_;
  KelMemFuncs funcs_;
};

/// A test in which the library runs on a host's memory, all of which it must give back.
struct LibraryTest : testing::Test {
  HostMemory memory;
};

/// The record that a call raises; an empty one when it raises nothing.
template <class Call>
KelException RaisedBy(Call call) {
  try {
    call();
    return {};
  } catch (const KelException& failure) {
    return failure;
  }
}

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
    const KelException raised = RaisedBy([&] { code = flow(); });
    if (raised.errCode != KelOK) code = raised.errCode;
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
