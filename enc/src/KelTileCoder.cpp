// The pipeline of one tile-component, from the transform's rows to coded bytes.
//
// The steps that divide the coefficients are those that the exponents and mantissas in the stream
// stand for, never the ones they were derived from: every decoder multiplies by the same numbers.
#include "KelTileCoder.h"

#include <algorithm>

#include "KelRegion.h"
#include "base/KelMemFuncDefs.h"
#include "kernels/KelChoiceKernels.h"
#include "transform/KelWavelet.h"

namespace kel {
namespace {

/// Chooses the steps of floats. With a region nothing is divided: steps of 1 stand, and what lies
/// outside is made coarse.
void ChooseStepsOf(const TileCompJob& job, TileCompCoder& coder) {
  ChosenSteps chosen;
  const int numLevels = coder.waiting.numLevels;
  ChooseSteps(job.quant, job.box, numLevels, job.bandWeights, chosen);
  CodedTileComp& coded = coder.coded;
  coded.hasSteps = job.regionMarks == nullptr;
  std::copy_n(chosen.steps, NumSubbands(numLevels), coder.steps);
  std::copy_n(chosen.exponents, NumSubbands(numLevels), coded.exponents);
  std::copy_n(chosen.mantissas, NumSubbands(numLevels), coded.mantissas);
}

}  // namespace

TileCompCoder* MakeTileCompCoder(int numLevels) {
  const auto numBands = static_cast<std::uint64_t>(NumSubbands(numLevels));
  const std::uint64_t tableBytes = numBands * (sizeof(EncodeBand) + 4 * sizeof(std::int32_t)) +
                                   CountSizes(numLevels) * sizeof(std::uint32_t);
  void* const block = KelCalloc(1, sizeof(TileCompCoder) + tableBytes);
  auto& coder = *static_cast<TileCompCoder*>(block);
  void* next = &coder + 1;
  // Each table is a multiple of the size of those behind it.
  const auto take = [&]<class T>(T*& table, std::uint64_t count) {
    table = static_cast<T*>(next);
    next = table + count;
  };
  take(coder.waiting.bands, numBands);
  take(coder.steps, numBands);
  take(coder.divisors, numBands);
  take(coder.coded.exponents, numBands);
  take(coder.coded.mantissas, numBands);
  std::uint32_t* sizes = nullptr;
  take(sizes, CountSizes(numLevels));
  PlaceSizes(numLevels, sizes, coder.coded.code);
  coder.waiting.numLevels = numLevels;
  return &coder;
}

void ReleaseTileCompCoder(TileCompCoder*& coder) noexcept {
  if (coder == nullptr) return;
  ReleaseKept(coder->memory);
  ReleaseCodedTileComponent(coder->coded.code);
  KelFree(coder);
  coder = nullptr;
}

ForwardJob BeginTileComp(const TileCompJob& job, TileCompCoder& coder) {
  CodedTileComp& coded = coder.coded;
  const int numLevels = coder.waiting.numLevels;
  coded.box = job.box;
  coded.hasSteps = false;
  if (job.box.IsEmpty()) return {};
  const bool areFloats = job.cells == CellKind::kFloats;
  if (areFloats) ChooseStepsOf(job, coder);
  coder.dropsEmpty = job.dropsEmpty;
  const bool choosesIndices = coded.hasSteps && job.quant.areEven;
  for (int b = 0; b < NumSubbands(numLevels); ++b) {
    coder.divisors[b] = choosesIndices ? coder.steps[b] / kPartsPerStep : coder.steps[b];
  }
  const float* const divisors = coded.hasSteps ? coder.divisors : nullptr;
  const WaitingJob waiting = {.box = job.box,
                              .numLevels = numLevels,
                              .cells = job.cells,
                              .sampleBits = job.sampleBits,
                              .steps = divisors,
                              .choosesIndices = choosesIndices};
  BeginWaiting(waiting, EnsureKept(coder.memory, WaitingBytes(waiting)), coder.waiting);
  if (areFloats) coder.waiting.outside = {job.regionMarks, coder.steps};
  return {job.box, numLevels, job.cells, divisors, {&coder.waiting, TakeBandRow, PlaceBandRow}};
}

void FinishTileComp(TileCompCoder& coder) {
  CodedTileComp& coded = coder.coded;
  if (coded.box.IsEmpty()) return;
  if (coder.waiting.choosesIndices) NarrowAllPlaneCounts(coder.waiting);
  EncodeTileComponent(coder.waiting.bands, false, coder.dropsEmpty, coded.code);
}

std::uint64_t PacketBytes(const CodedTileComp& coded, int r) {
  if (coded.box.IsEmpty() || ReduceBox(coded.box, coded.code.numLevels - r).IsEmpty()) return 0;
  // A band that is not dropped has a header.
  if (coded.code.resSize[r] == 0) return kEmptyPacketBytes;
  return coded.code.resSize[r] + (r == 0 ? format::kCountBytes : kPacketCountBytes);
}

}  // namespace kel
