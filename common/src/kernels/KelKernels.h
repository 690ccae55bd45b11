// The kernel table: the leaf functions that do the arithmetic on samples and bits, one set of
// them chosen for the machine when the library starts.
//
// A kernel takes pointers, strides in cells and counts, and of the records no more than where bits
// come from and go to; it obtains no memory and does not fail. Every kernel has a scalar reference;
// the other sets give the same bits. A table is filled with the scalar kernels first, then each set
// that the machine offers overwrites what it does better.
#ifndef KEL_KERNELS_H
#define KEL_KERNELS_H

#include <span>

#include "KelBlocksKernels.h"
#include "KelChoiceKernels.h"
#include "KelSamplesKernels.h"
#include "KelWaveletKernels.h"

namespace kel {

struct KernelTable {
  WaveletKernels wavelet;
  SamplesKernels samples;
  BlocksKernels blocks;
  ChoiceKernels choice;
};

/// Kernels for one instruction set.
struct KernelSet {
  const char* name;                                ///< for reports
  bool (*runsHere)() noexcept;                     ///< whether this processor has the instructions
  void (*overwrite)(KernelTable& table) noexcept;  ///< enters what the set does better
};

/// The sets that this build has, the scalar one first, each better than those before it.
std::span<const KernelSet> KernelSets() noexcept;

/// The chosen table; the scalar one before the library starts.
const KernelTable& Kernels() noexcept;

/// Chooses the best table for this machine, of the sets up to the given one. Called when the
/// library starts.
void ChooseKernels(const KernelSet& last = KernelSets().back()) noexcept;

/// Fills the table of a set with what it and those before it do better, for tests and benches.
/// False when the machine does not run it.
bool FillKernelTable(const KernelSet& set, KernelTable& table) noexcept;

}  // namespace kel

#endif
