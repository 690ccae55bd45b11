// The pipeline of one tile-component, from prepared samples to coded bytes.
//
// The steps that divide the coefficients are those that the exponents and mantissas in the stream
// stand for, never the ones they were derived from: every decoder multiplies by the same numbers.
// Relies on the transform for bands that stand in either plane, and on the block coder to read
// them there; no third plane is needed.
#include "KelTileCoder.h"

#include <algorithm>

#include "KelRegion.h"
#include "base/KelMemFuncDefs.h"
#include "transform/KelWavelet.h"

namespace kel {
namespace {

struct Bands {
  SubbandRecord records[kMaxSubbands];
};

template <class Cell>
ForwardPlanes<Cell> PlanesOf(const TileCompJob& job) {
  return {static_cast<Cell*>(job.source), static_cast<Cell*>(job.work),
          static_cast<std::size_t>(job.box.Width()), job.box, job.numLevels};
}

std::int32_t* CopyOf(const std::int32_t* list, int numLevels) {
  const auto count = static_cast<std::size_t>(NumSubbands(numLevels));
  auto copy = OwnedArray<std::int32_t>::Make(count);
  std::copy_n(list, count, copy.Data());
  return copy.Release();
}

/// Transforms floats and divides them by their steps. With a region nothing is divided: steps of 1
/// stand, and what lies outside is made coarse.
void TransformFloats(const TileCompJob& job, void* scratch, Bands& bands, CodedTileComp& coded) {
  ChosenSteps chosen;
  ChooseSteps(job.quant, job.box, job.numLevels, job.bandWeights, chosen);
  const float* divisors = job.region != nullptr ? nullptr : chosen.steps;
  ForwardDwt97(PlanesOf<float>(job), {divisors, job.quant.bitDepth, false}, scratch, bands.records);
  if (job.region != nullptr) {
    CoarsenOutside(*job.region, job.numLevels, chosen.steps, bands.records);
    return;
  }
  coded.exponents = CopyOf(chosen.exponents, job.numLevels);
  coded.mantissas = CopyOf(chosen.mantissas, job.numLevels);
}

void EncodeBands(const TileCompJob& job, const Bands& bands, CodedTileComponent& code) {
  EncodeBand toEncode[kMaxSubbands] = {};
  for (int b = 0; b < NumSubbands(job.numLevels); ++b) {
    const SubbandRecord& from = bands.records[b];
    EncodeBand& band = toEncode[b];
    band.x0 = static_cast<std::int32_t>(from.box.x0);
    band.x1 = static_cast<std::int32_t>(from.box.x1);
    band.y0 = static_cast<std::int32_t>(from.box.y0);
    band.y1 = static_cast<std::int32_t>(from.box.y1);
    band.data = from.data;
    band.strideCells = static_cast<std::ptrdiff_t>(from.strideCells);
  }
  EncodeTileComponent(toEncode, job.numLevels,
                      job.irreversible ? CoefficientKind::kFloats : CoefficientKind::kIntegers,
                      false, code);
}

}  // namespace

CodedTileComp* CodeTileComp(const TileCompJob& job) {
  auto coded = OwnedRecord<CodedTileComp>::Make();
  coded->box = job.box;
  if (job.box.IsEmpty()) return coded.Release();
  ScopeGuard undo([&] { ReleaseCode(*coded); });
  Bands bands;
  {
    const auto scratch = ScratchArray<std::int32_t>::Make(ForwardDwtScratchCells(job.box));
    if (job.irreversible) {
      TransformFloats(job, scratch.Data(), bands, *coded);
    } else {
      ForwardDwt53(PlanesOf<std::int32_t>(job), scratch.Data(), bands.records);
    }
  }
  EncodeBands(job, bands, coded->code);
  for (int r = 0; r <= job.numLevels; ++r) coded->layerBytes += PacketBytes(*coded, r);
  undo.Disarm();
  return coded.Release();
}

std::uint64_t PacketBytes(const CodedTileComp& coded, int r) {
  if (coded.box.IsEmpty() || ReduceBox(coded.box, coded.code.numLevels - r).IsEmpty()) return 0;
  return coded.code.resSize[r] + (r == 0 ? kLowestCountBytes : kPacketCountBytes);
}

void ReleaseCode(CodedTileComp& coded) noexcept {
  ReleaseCodedTileComponent(coded.code);
  KelFree(coded.exponents);
  KelFree(coded.mantissas);
  coded.exponents = coded.mantissas = nullptr;
}

void ReleaseCoded(CodedTileComp*& coded) noexcept {
  if (coded == nullptr) return;
  ReleaseCode(*coded);
  KelFree(coded);
  coded = nullptr;
}

}  // namespace kel
