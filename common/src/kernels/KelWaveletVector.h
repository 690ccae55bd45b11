// Vector kernels of the wavelet transforms: lifting and filtering of rows, one direction at a time,
// written once over the vector length.
//
// Included by one source per instruction set, after KelVector.h; everything here is local to that
// source. Same bits as the scalar reference.
#ifndef KEL_WAVELET_VECTOR_H
#define KEL_WAVELET_VECTOR_H

#include "KelVector.h"
#include "KelWaveletKernels.h"

namespace kel {
namespace {

void OverwriteWithVector(WaveletKernels&) noexcept {}

}  // namespace
}  // namespace kel

#endif
