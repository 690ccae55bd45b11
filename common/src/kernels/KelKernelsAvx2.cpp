// Kernels with vectors of 32 bytes. Compiled for AVX2.
#define KEL_VECTOR_BYTES 32
#include "KelBlocksVector.h"
#include "KelChoiceVector.h"
#include "KelKernels.h"
#include "KelSamplesVector.h"
#include "KelWaveletVector.h"

namespace kel {

void OverwriteWithAvx2(KernelTable& table) noexcept {
  OverwriteWithVector(table.wavelet);
  OverwriteWithVector(table.samples);
  OverwriteWithVector(table.blocks);
  OverwriteWithVector(table.choice);
}

}  // namespace kel
