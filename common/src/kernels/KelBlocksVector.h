// Vector kernels of the the block coder: whole blocks of 8 x 8 coefficients and their magnitudes,
// written once over the vector length.
//
// Included by one source per instruction set, after KelVector.h; everything here is local to that
// source. Same bits as the scalar reference.
#ifndef KEL_BLOCKS_VECTOR_H
#define KEL_BLOCKS_VECTOR_H

#include "KelBlocksKernels.h"
#include "KelVector.h"

namespace kel {
namespace {

void OverwriteWithVector(BlocksKernels&) noexcept {}

}  // namespace
}  // namespace kel

#endif
