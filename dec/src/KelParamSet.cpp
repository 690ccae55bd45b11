// Copy on write for the parameters of tiles and tile-components.
#include "KelParamSet.h"

#include "base/KelMemFuncDefs.h"
#include "base/KelRaise.h"
#include "transform/KelQuant.h"

namespace kel {
namespace {

/// How one kind of record is held by a set, copied and released.
template <class Record>
struct Slot {
  Record* ParamSet::*record;
  bool ParamSet::*isOwned;
  void (*copy)(Record&, const Record&);
  void (*release)(Record&) noexcept;
};

constexpr Slot<KelCodingStyle> kStyle = {&ParamSet::style, &ParamSet::ownsStyle, CopyCodingStyle,
                                         ReleaseCodingStyle};
constexpr Slot<KelQuantParams> kQuant = {&ParamSet::quant, &ParamSet::ownsQuant, CopyQuantParams,
                                         ReleaseQuantParams};
constexpr Slot<KelProgressionChanges> kChanges = {
    &ParamSet::changes, &ParamSet::ownsChanges, CopyProgressionChanges, ReleaseProgressionChanges};

template <class Record>
void Drop(ParamSet& set, const Slot<Record>& slot) noexcept {
  if (set.*slot.isOwned) {
    slot.release(*(set.*slot.record));
    KelFree(set.*slot.record);
  }
  set.*slot.isOwned = false;
}

template <class Record>
void Own(ParamSet& set, const Slot<Record>& slot, const Record& source) {
  auto made = NamingModule(kModuleImageMap, [&] {
    auto copy = OwnedRecord<Record>::Make();
    slot.copy(*copy, source);
    return copy;
  });
  Drop(set, slot);
  set.*slot.record = made.Release();
  set.*slot.isOwned = true;
}

template <class Record>
void Share(ParamSet& set, const Slot<Record>& slot, const ParamSet& above) noexcept {
  Drop(set, slot);
  set.*slot.record = above.*slot.record;
}

}  // namespace

void OwnStyle(ParamSet& set, const KelCodingStyle& source) {
  Own(set, kStyle, source);
}

void OwnQuant(ParamSet& set, const KelQuantParams& source) {
  Own(set, kQuant, source);
}

void OwnChanges(ParamSet& set, const KelProgressionChanges& source) {
  Own(set, kChanges, source);
}

void ShareStyle(ParamSet& set, const ParamSet& above) noexcept {
  Share(set, kStyle, above);
}

void ShareQuant(ParamSet& set, const ParamSet& above) noexcept {
  Share(set, kQuant, above);
}

void SetRegion(ParamSet& set, std::int32_t shift) {
  if (!set.ownsStyle) OwnStyle(set, *set.style);
  if (!set.ownsQuant) OwnQuant(set, *set.quant);
  set.style->hasRegion = set.quant->hasRegion = 1;
  set.style->regionShift = set.quant->regionShift = shift;
  set.style->maxBitPlanes =
      MaxBitPlanes(set.quant->exponents, set.quant->guardBits, set.style->numLevels);
}

void ApplyComponentSegments(ParamSet& set, std::int32_t component, const KelHeaderParams& header) {
  if (const KelCodingStyle* style = FindComponentStyle(header, component)) OwnStyle(set, *style);
  if (const KelQuantParams* quant = FindComponentQuant(header, component)) OwnQuant(set, *quant);
  if (header.seenRGN != 0 && header.regions[component].present != 0) {
    SetRegion(set, header.regions[component].shift);
  }
}

void ReleaseParamSet(ParamSet& set) noexcept {
  Drop(set, kStyle);
  Drop(set, kQuant);
  Drop(set, kChanges);
  set = {};
}

}  // namespace kel
