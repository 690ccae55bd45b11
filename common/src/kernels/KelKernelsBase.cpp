// Kernels with vectors of 16 bytes: what every processor of the platform has (SSE2 on x86-64,
// NEON on AArch64, and of WebAssembly the engines that take a module with vectors).
#define KEL_VECTOR_BYTES 16
#include "KelBlocksVector.h"
#include "KelKernels.h"
#include "KelSamplesVector.h"
#include "KelWaveletVector.h"

namespace kel {

void OverwriteWithBaseVector(KernelTable& table) noexcept {
  OverwriteWithVector(table.wavelet);
  OverwriteWithVector(table.samples);
  OverwriteWithVector(table.blocks);
}

}  // namespace kel
