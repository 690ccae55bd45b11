// The table of kernel sets, and the choice of kernels among those that the processor runs.
//
// A set is a row here and a line in common/src/CMakeLists.txt, which names its source and flags.
#include "KelKernels.h"

namespace kel {

// Each defined in the set's own source.
void OverwriteWithBaseVector(KernelTable& table) noexcept;
void OverwriteWithAvx2(KernelTable& table) noexcept;
void OverwriteWithAvx512(KernelTable& table) noexcept;

namespace {

bool RunsEverywhere() noexcept {
  return true;
}

void FillWithScalar(KernelTable& table) noexcept {
  FillScalarWaveletKernels(table.wavelet);
  FillScalarSamplesKernels(table.samples);
  FillScalarBlocksKernels(table.blocks);
  FillScalarChoiceKernels(table.choice);
}

constexpr KernelSet kSets[] = {
    {.name = "scalar", .runsHere = RunsEverywhere, .overwrite = FillWithScalar},
#if defined(KEL_HAS_KERNELS_BASE)
    {.name = "base vector", .runsHere = RunsEverywhere, .overwrite = OverwriteWithBaseVector},
#endif
#if defined(KEL_HAS_KERNELS_AVX2)
    {.name = "AVX2",
     .runsHere = []() noexcept { return __builtin_cpu_supports("avx2") != 0; },
     .overwrite = OverwriteWithAvx2},
#endif
#if defined(KEL_HAS_KERNELS_AVX512)
    {.name = "AVX-512",
     .runsHere =
         []() noexcept {
           return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                  __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl") &&
                  __builtin_cpu_supports("bmi2");
         },
     .overwrite = OverwriteWithAvx512},
#endif
};

/// What the sets up to the given one do better, of those that run here.
KernelTable MakeTable(const KernelSet& last) noexcept {
  KernelTable table{};
  for (const KernelSet& set : kSets) {
    if (set.runsHere()) set.overwrite(table);
    if (set.overwrite == last.overwrite) break;
  }
  return table;
}

KernelTable chosen = MakeTable(kSets[0]);

}  // namespace

std::span<const KernelSet> KernelSets() noexcept {
  return kSets;
}

const KernelTable& Kernels() noexcept {
  return chosen;
}

void ChooseKernels(const KernelSet& last) noexcept {
  chosen = MakeTable(last);
}

bool FillKernelTable(const KernelSet& set, KernelTable& table) noexcept {
  if (!set.runsHere()) return false;
  table = MakeTable(set);
  return true;
}

}  // namespace kel
