// What the fuzz targets share: how an input begins, and the checks after every run.
#ifndef FUZZ_FUZZ_SUPPORT_H
#define FUZZ_FUZZ_SUPPORT_H

#include <cstdint>
#include <cstdlib>

#include "DataSource.h"
#include "HostMemory.h"
#include "base/KelMemFuncDefs.h"

namespace fuzz {

/// Ends the program, which a fuzzer reports, when something that must hold does not.
inline void Require(bool holds) {
  if (!holds) std::abort();
}

/// The bytes of an input one after another; zeros behind the last.
struct Input {
  const std::uint8_t* next;
  std::size_t left;

  std::uint32_t U8() {
    if (left == 0) return 0;
    --left;
    return *next++;
  }
  test::Bytes Rest() const { return test::Bytes(next, next + left); }
};

/// An input begins with a byte that says the flavour and how the data arrive, and one that says
/// which request for memory is refused (0: none).
struct Setting {
  kel::Flavour flavour;
  test::Delivery how;
  std::uint32_t refused;

  Setting(Input& input, std::uint32_t capacity) {
    const std::uint32_t bits = input.U8();
    flavour = (bits & 1) != 0 ? kel::Flavour::kFF : kel::Flavour::kAB;
    how = {(bits & 2) == 0, (bits & 4) == 0, capacity, (bits & 8) != 0 ? 3 : INT32_MAX};
    refused = input.U8();
  }
};

/// Runs a flow under a host that may refuse a request. Nothing else may be raised, nothing may be
/// left behind, and no more memory may be asked for than `most` bytes at once.
template <class Flow>
void Run(std::uint32_t refused, std::size_t most, Flow flow) {
  test::HostMemory memory;
  memory.RefuseRequest(refused);
  try {
    flow();
  } catch (const KelException& failure) {
    Require(failure.errCode == KelErrNoMemory && memory.HasRefused());
  }
  Require(memory.Outstanding() == 0);
  Require(memory.LargestRequest() <= most);
}

}  // namespace fuzz

#endif
