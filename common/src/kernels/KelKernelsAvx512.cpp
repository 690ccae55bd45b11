// Kernels with vectors of 64 bytes. Compiled for AVX-512 (F, BW, DQ, VL) and BMI2, which every
// processor with these has.
#define KEL_VECTOR_BYTES 64
#include "KelBlocksVector.h"
#include "KelChoiceVector.h"
#include "KelKernels.h"
#include "KelSamplesVector.h"
#include "KelWaveletVector.h"

namespace kel {

void OverwriteWithAvx512(KernelTable& table) noexcept {
  OverwriteWithVector(table.wavelet);
  OverwriteWithVector(table.samples);
  OverwriteWithVector(table.blocks);
  OverwriteWithVector(table.choice);
}

}  // namespace kel
