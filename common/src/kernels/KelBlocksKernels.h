// Kernels of the the block coder: whole blocks of 8 x 8 coefficients and their magnitudes.
#ifndef KEL_BLOCKS_KERNELS_H
#define KEL_BLOCKS_KERNELS_H

#include <cstddef>
#include <cstdint>

namespace kel {

struct BlocksKernels {};

/// The scalar reference of every kernel.
void FillScalarBlocksKernels(BlocksKernels& table) noexcept;

}  // namespace kel

#endif
