// Kernels of the sample values: component transforms, level shift, output conversion, recasting.
#ifndef KEL_SAMPLES_KERNELS_H
#define KEL_SAMPLES_KERNELS_H

#include <cstddef>
#include <cstdint>

namespace kel {

struct SamplesKernels {};

/// The scalar reference of every kernel.
void FillScalarSamplesKernels(SamplesKernels& table) noexcept;

}  // namespace kel

#endif
