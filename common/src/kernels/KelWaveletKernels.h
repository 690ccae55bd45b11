// Kernels of the wavelet transforms: lifting and filtering of rows, one direction at a time.
#ifndef KEL_WAVELET_KERNELS_H
#define KEL_WAVELET_KERNELS_H

#include <cstddef>
#include <cstdint>

namespace kel {

struct WaveletKernels {};

/// The scalar reference of every kernel.
void FillScalarWaveletKernels(WaveletKernels& table) noexcept;

}  // namespace kel

#endif
