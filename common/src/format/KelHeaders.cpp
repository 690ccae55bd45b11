// The coding parameters' records: making, copying, releasing, finding. Reading and writing whole
// headers are in files of their own.
//
// Every array comes from the memory layer, zero-filled, with a length that does not depend on the
// data: kQuantEntries for exponents and mantissas, format::kMostLevels + 1 for precinct exponents.
#include "format/KelHeaders.h"

#include <algorithm>

#include "base/KelRaise.h"

namespace kel {
namespace {

template <class T>
void ReleaseArray(T*& array) noexcept {
  KelFree(array);
  array = nullptr;
}

/// A copy of n elements; empty when there is nothing to copy.
template <class T>
OwnedArray<T> CopyOf(const T* source, std::uint64_t n) {
  return source != nullptr && n != 0 ? OwnedArray<T>::CopyOf(source, n) : OwnedArray<T>();
}

/// Calls visit with each array of progression changes.
template <class Visit>
void ForEachArrayOfChanges(Visit visit) {
  using Changes = KelProgressionChanges;
  visit(&Changes::resolutionStart);
  visit(&Changes::componentStart);
  visit(&Changes::layerEnd);
  visit(&Changes::resolutionEnd);
  visit(&Changes::componentEnd);
  visit(&Changes::order);
}

/// A component's record: by the numbers that the reader keeps, since a header may hold as many
/// records as there are components; else by looking at each.
template <class T>
T* FindRecord(T* records, std::uint32_t count, const std::uint32_t* numbers, std::int32_t Csiz,
              std::int32_t component) {
  if (numbers != nullptr) {
    const bool isKnown = component >= 0 && component < Csiz && numbers[component] != 0;
    return isKnown ? records + numbers[component] - 1 : nullptr;
  }
  T* end = records + count;
  T* found =
      std::find_if(records, end, [&](const T& record) { return record.component == component; });
  return found != end ? found : nullptr;
}

}  // namespace

void InitHeaderParams(KelHeaderParams& set, bool mainHeader) {
  ScopeGuard release([&] { ReleaseHeaderParams(&set); });
  set.codingStyle = OwnedRecord<KelCodingStyle>::Make().Release();
  set.quantisation = OwnedRecord<KelQuantParams>::Make().Release();
  set.quantisation->exponents = OwnedArray<std::int32_t>::Make(kQuantEntries).Release();
  set.quantisation->mantissas = OwnedArray<std::int32_t>::Make(kQuantEntries).Release();
  set.progressionChanges = OwnedRecord<KelProgressionChanges>::Make().Release();
  set.sizes = OwnedRecord<KelSizParams>::Make().Release();
  set.inMainHeader = mainHeader ? 1 : 0;
  release.Disarm();
}

void SeedHeaderParams(KelHeaderParams& set, const KelHeaderParams& mainHeader,
                      const KelCodingStyle& style, const KelQuantParams& quant) {
  ReleaseQuantParams(*set.quantisation);
  CopyCodingStyle(*set.codingStyle, style);
  CopyQuantParams(*set.quantisation, quant);
  set.Csiz = mainHeader.Csiz;
  set.numLevels = style.numLevels;
  set.regions = OwnedArray<KelRoiParams>::Make(AsCount(set.Csiz)).Release();
}

void ReleaseHeaderParams(KelHeaderParams* set) noexcept {
  if (set == nullptr) return;
  if (set->codingStyle != nullptr) ReleaseCodingStyle(*set->codingStyle);
  if (set->quantisation != nullptr) ReleaseQuantParams(*set->quantisation);
  if (set->progressionChanges != nullptr) ReleaseProgressionChanges(*set->progressionChanges);
  for (std::uint32_t i = 0; i < set->numComponentStyles; ++i) {
    ReleaseCodingStyle(set->componentStyles[i]);
  }
  for (std::uint32_t i = 0; i < set->numComponentQuants; ++i) {
    ReleaseQuantParams(set->componentQuants[i]);
  }
  KelFree(set->places);
  if (set->sizes != nullptr) {
    KelFree(set->sizes->XRsiz);
    KelFree(set->sizes->YRsiz);
  }
  KelFree(set->codingStyle);
  KelFree(set->quantisation);
  KelFree(set->progressionChanges);
  KelFree(set->componentStyles);
  KelFree(set->styleNumbers);
  KelFree(set->componentQuants);
  KelFree(set->quantNumbers);
  KelFree(set->sizes);
  KelFree(set->regions);
  KelFree(set->isSigned);
  KelFree(set->bitDepths);
  KelFree(set->comment);
  *set = KelHeaderParams{};
}

void ReleaseCodingStyle(KelCodingStyle& style) noexcept {
  ReleaseArray(style.precinctWidthExps);
  ReleaseArray(style.precinctHeightExps);
}

void ReleaseQuantParams(KelQuantParams& quant) noexcept {
  ReleaseArray(quant.exponents);
  ReleaseArray(quant.mantissas);
}

void ReleaseProgressionChanges(KelProgressionChanges& changes) noexcept {
  ForEachArrayOfChanges([&](auto array) { ReleaseArray(changes.*array); });
  changes.count = 0;
}

void CopyCodingStyle(KelCodingStyle& destination, const KelCodingStyle& source) {
  auto widths = CopyOf(source.precinctWidthExps, format::kMostLevels + 1);
  auto heights = CopyOf(source.precinctHeightExps, format::kMostLevels + 1);
  destination = source;
  destination.precinctWidthExps = widths.Release();
  destination.precinctHeightExps = heights.Release();
}

void CopyQuantParams(KelQuantParams& destination, const KelQuantParams& source) {
  auto exponents = CopyOf(source.exponents, kQuantEntries);
  auto mantissas = CopyOf(source.mantissas, kQuantEntries);
  destination = source;
  destination.exponents = exponents.Release();
  destination.mantissas = mantissas.Release();
}

void CopyProgressionChanges(KelProgressionChanges& destination,
                            const KelProgressionChanges& source) {
  const std::uint64_t n = source.present != 0 ? AsCount(source.count) : 0;
  KelProgressionChanges copy = source;
  copy.count = static_cast<std::int32_t>(n);
  ForEachArrayOfChanges([&](auto array) { copy.*array = nullptr; });
  ScopeGuard release([&] { ReleaseProgressionChanges(copy); });
  ForEachArrayOfChanges([&](auto array) { copy.*array = CopyOf(source.*array, n).Release(); });
  release.Disarm();
  destination = copy;
}

void AllocProgressionChanges(KelProgressionChanges& changes, std::int32_t count) {
  KelProgressionChanges made{};
  made.count = count;
  made.present = 1;
  ScopeGuard release([&] { ReleaseProgressionChanges(made); });
  ForEachArrayOfChanges([&]<class T>(T* KelProgressionChanges::*array) {
    made.*array = OwnedArray<T>::Make(AsCount(count)).Release();
  });
  release.Disarm();
  ReleaseProgressionChanges(changes);
  changes = made;
}

KelCodingStyle* FindComponentStyle(const KelHeaderParams& set, std::int32_t component) {
  return FindRecord(set.componentStyles, set.numComponentStyles, set.styleNumbers, set.Csiz,
                    component);
}

KelQuantParams* FindComponentQuant(const KelHeaderParams& set, std::int32_t component) {
  return FindRecord(set.componentQuants, set.numComponentQuants, set.quantNumbers, set.Csiz,
                    component);
}

}  // namespace kel
