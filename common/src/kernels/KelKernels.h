// The kernel table: the leaf functions that do the arithmetic on samples and bits, one set of
// them chosen for the machine when the library starts.
//
// A kernel takes pointers, strides in cells and counts; no records, no memory, no failure. Every
// kernel has a scalar reference; the other sets give the same bits. A table is filled with the
// scalar kernels first, then each set that the machine offers overwrites what it does better.
#ifndef KEL_KERNELS_H
#define KEL_KERNELS_H

#include <cstdint>

#include "KelBlocksKernels.h"
#include "KelChoiceKernels.h"
#include "KelSamplesKernels.h"
#include "KelWaveletKernels.h"

namespace kel {

/// Sets of kernels, each including those before it on its kind of processor.
enum class KernelSet : std::uint8_t { kScalar, kBaseVector, kAvx2, kAvx512 };

inline constexpr KernelSet kAllKernelSets[] = {KernelSet::kScalar, KernelSet::kBaseVector,
                                               KernelSet::kAvx2, KernelSet::kAvx512};

struct KernelTable {
  KernelSet set;  ///< the best set that the table holds kernels of
  WaveletKernels wavelet;
  SamplesKernels samples;
  BlocksKernels blocks;
  ChoiceKernels choice;
};

/// The chosen table; the scalar one before the library starts.
const KernelTable& Kernels() noexcept;

/// Chooses the best table for this machine, of the sets up to the named one. Called when the
/// library starts.
void ChooseKernels(KernelSet most = KernelSet::kAvx512) noexcept;

/// Fills the table of a named set, for tests and benches. False when the machine or the build
/// does not offer it.
bool FillKernelTable(KernelSet set, KernelTable& table) noexcept;

/// Name of a set, for reports.
const char* KernelSetName(KernelSet set) noexcept;

}  // namespace kel

#endif
