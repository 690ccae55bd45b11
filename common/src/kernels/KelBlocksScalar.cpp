// Scalar reference kernels of the the block coder: whole blocks of 8 x 8 coefficients and their
// magnitudes.
#include "KelBlocksKernels.h"

namespace kel {

void FillScalarBlocksKernels(BlocksKernels& table) noexcept {
  table = BlocksKernels{};
}

}  // namespace kel
