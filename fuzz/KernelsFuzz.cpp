// Runs the kernels of every set that the machine has on the same arbitrary cells: their results
// must be the same bit for bit. An input begins with a byte that says which kernels, and one that
// says how many cells.
#include "FuzzSupport.h"
#include "KernelRuns.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input{data, size};
  const std::uint32_t which = input.U8();
  const std::size_t n = 1 + input.U8() % 80;
  test::Bytes cells = input.Rest();
  if (cells.empty()) cells.push_back(0);
  kel::KernelTable table;
  FillKernelTable(kel::KernelSets().front(), table);
  const test::Result expected = test::RunKernels(table, which, n, cells);
  for (const kel::KernelSet& set : kel::KernelSets()) {
    if (!FillKernelTable(set, table)) continue;
    fuzz::Require(test::RunKernels(table, which, n, cells) == expected);
  }
  return 0;
}
