// The sets of vector kernels that a build can have. Each overwrites in a table what it does
// better than the sets before it.
#ifndef KEL_KERNEL_SETS_H
#define KEL_KERNEL_SETS_H

#include "KelKernels.h"

namespace kel {

void OverwriteWithBaseVector(KernelTable& table) noexcept;
void OverwriteWithAvx2(KernelTable& table) noexcept;
void OverwriteWithAvx512(KernelTable& table) noexcept;

}  // namespace kel

#endif
