// Scalar reference kernels of the wavelet transforms: lifting and filtering of rows, one direction
// at a time.
#include "KelWaveletKernels.h"

namespace kel {

void FillScalarWaveletKernels(WaveletKernels& table) noexcept {
  table = WaveletKernels{};
}

}  // namespace kel
