// Runs a check with each set of kernels that the machine has.
#ifndef TESTS_SUPPORT_KERNEL_SETS_H
#define TESTS_SUPPORT_KERNEL_SETS_H

#include <gtest/gtest.h>

#include "kernels/KelKernels.h"

namespace test {

/// The set is the library's choice during the check, which also gets its table.
template <class Check>
void WithEverySet(Check check) {
  for (const kel::KernelSet& set : kel::KernelSets()) {
    kel::KernelTable table;
    if (!kel::FillKernelTable(set, table)) continue;
    SCOPED_TRACE(set.name);
    kel::ChooseKernels(set);
    check(table);
    if (testing::Test::HasFailure()) break;
  }
  kel::ChooseKernels();
}

}  // namespace test

#endif
