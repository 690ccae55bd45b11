// Choosing a kernel table: which sets the build has and which of them the processor runs.
#include "KelKernels.h"

#include "KelKernelSets.h"

namespace kel {
namespace {

/// Whether this build has the set's kernels and this processor runs them.
bool SetIsAvailable(KernelSet set) noexcept {
  switch (set) {
    case KernelSet::kScalar:
      return true;
    case KernelSet::kBaseVector:
#if defined(KEL_HAS_BASE_VECTOR)
      return true;
#else
      return false;
#endif
    case KernelSet::kAvx2:
#if defined(KEL_HAS_X86_VECTOR)
      return __builtin_cpu_supports("avx2") != 0;
#else
      return false;
#endif
    case KernelSet::kAvx512:
#if defined(KEL_HAS_X86_VECTOR)
      return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
             __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl") &&
             __builtin_cpu_supports("bmi2");
#else
      return false;
#endif
  }
  return false;
}

/// The scalar kernels, then what each available set up to the named one does better.
KernelTable MakeTable(KernelSet set) noexcept {
  KernelTable table{};
  table.set = set;
  FillScalarWaveletKernels(table.wavelet);
  FillScalarSamplesKernels(table.samples);
  FillScalarBlocksKernels(table.blocks);
  FillScalarChoiceKernels(table.choice);
#if defined(KEL_HAS_BASE_VECTOR)
  if (set >= KernelSet::kBaseVector) OverwriteWithBaseVector(table);
#endif
#if defined(KEL_HAS_X86_VECTOR)
  if (set >= KernelSet::kAvx2) OverwriteWithAvx2(table);
  if (set >= KernelSet::kAvx512) OverwriteWithAvx512(table);
#endif
  return table;
}

KernelTable chosen = MakeTable(KernelSet::kScalar);

}  // namespace

const KernelTable& Kernels() noexcept {
  return chosen;
}

bool FillKernelTable(KernelSet set, KernelTable& table) noexcept {
  if (!SetIsAvailable(set)) return false;
  table = MakeTable(set);
  return true;
}

void ChooseKernels(KernelSet most) noexcept {
  for (const KernelSet set : kAllKernelSets) {
    if (set <= most) FillKernelTable(set, chosen);
  }
}

const char* KernelSetName(KernelSet set) noexcept {
  switch (set) {
    case KernelSet::kScalar:
      return "scalar";
    case KernelSet::kBaseVector:
      return "base vector";
    case KernelSet::kAvx2:
      return "AVX2";
    case KernelSet::kAvx512:
      return "AVX-512";
  }
  return "";
}

}  // namespace kel
