// Reads a main header and the tile-part headers behind it from arbitrary data, and checks what
// later stages rely on without looking again.
#include <array>

#include "FuzzSupport.h"
#include "decode/KelHeadersRead.h"

namespace {

using namespace kel;
using fuzz::Require;

void CheckStyle(const KelCodingStyle& style) {
  Require(style.numLevels >= 0 && style.numLevels <= format::kMostLevels);
  Require(style.progressionOrder >= 0 && style.progressionOrder <= 4);
  for (std::int32_t r = 0; style.precinctWidthExps != nullptr && r <= format::kMostLevels; ++r) {
    const std::int32_t least = r > 0 && r <= style.numLevels ? 1 : 0;
    Require(style.precinctWidthExps[r] >= least && style.precinctHeightExps[r] >= least);
  }
}

void CheckSet(const KelHeaderParams& set) {
  CheckStyle(*set.codingStyle);
  for (std::uint32_t i = 0; i < set.numComponentStyles; ++i) CheckStyle(set.componentStyles[i]);
  for (std::uint32_t i = 0; i < set.numComponentQuants; ++i) {
    const KelQuantParams& quant = set.componentQuants[i];
    Require(quant.component < set.Csiz && quant.exponents[kQuantEntries - 1] <= 31);
  }
  const KelProgressionChanges& changes = *set.progressionChanges;
  for (std::int32_t i = 0; i < changes.count; ++i) Require(changes.order[i] <= 4);
}

/// Reads a tile-part header into a set that begins with the main header's records.
HeaderResult ReadTilePart(const KelHeaderParams& main, KelDecDataMgr& data) {
  KelHeaderParams set{};
  ScopeGuard release([&] { ReleaseHeaderParams(&set); });
  InitHeaderParams(set, false);
  SeedHeaderParams(set, main, *main.codingStyle, *main.quantisation);
  const HeaderResult result = ReadHeader(set, data, nullptr);
  if (result.refusal.errCode == KelOK && !result.incomplete) CheckSet(set);
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input{data, size};
  const fuzz::Setting setting(input, kHeaderWindowBytes);
  fuzz::Run(setting.refused, 64 * size + 250000, [&] {
    KelHeaderParams main{};
    ScopeGuard release([&] { ReleaseHeaderParams(&main); });
    test::DataSource source(input.Rest(), setting.flavour, setting.how);
    InitHeaderParams(main, true);
    const HeaderResult result = ReadHeader(main, *source, nullptr);
    Require(!result.incomplete || result.refusal.errCode == KelErrBadMarker);
    if (result.refusal.errCode != KelOK) return;
    CheckSet(main);
    for (int i = 0; i < 16 && source->IsSOT(); ++i) {
      const std::int64_t position = source->GetPosition();
      if (ReadTilePart(main, *source).refusal.errCode != KelOK) break;
      Require(source->GetPosition() > position);
      source->SetTileGrid(UINT16_MAX, 1);
      source->MoveTo(source->SearchSOT(source->GetPosition()).position);
    }
  });
  return 0;
}
