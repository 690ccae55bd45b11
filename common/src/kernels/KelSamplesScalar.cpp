// Scalar reference kernels of the sample values: component transforms, level shift, output
// conversion, recasting.
#include "KelSamplesKernels.h"

namespace kel {

void FillScalarSamplesKernels(SamplesKernels& table) noexcept {
  table = SamplesKernels{};
}

}  // namespace kel
