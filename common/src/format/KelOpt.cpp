// The option sets: defaults, deep copies and teardown.
//
// Geometry and arrays come from the memory layer; failures name this module.
#include "kel/KelOptions.h"

#include <algorithm>
#include <iterator>
#include <new>

#include "base/KelMemFuncDefs.h"
#include "base/KelRaise.h"
#include "kel/KelFormat.h"

namespace {

using kel::NamingModule;
using kel::Raise;

/// A new geometry, initialised by a call of its initialiser with the given arguments.
template <class... Arguments>
KelImageGeometry* NewGeometry(Arguments... arguments) {
  auto memory = kel::OwnedRecord<kel::Storage<KelImageGeometry>>::Make();
  auto* geometry = new (memory.Get()) KelImageGeometry;
  kel::ScopeGuard release([&] { geometry->Die(); });
  geometry->InitImageGeometry(arguments...);
  release.Disarm();
  memory.Release();
  return geometry;
}

KelLong* CopyOfLongs(const KelLong* source, KelLong count) {
  if (source == nullptr) return nullptr;
  return kel::OwnedArray<KelLong>::CopyOf(source, kel::AsCount(count)).Release();
}

/// The defaults of everything but the image group.
void SetDefaults(KelEncOpt& o) {
  o.DebugFileName = nullptr;
  o.Reserved0 = 0;
  o.Reserved1 = nullptr;
  o.RoiEnabled = false;
  o.RoiMaskComponent = -1;
  o.RoiStyle = 1;
  o.QualityScale = 100;

  o.ExtraChannelCodingParams = true;
  o.NumColorChannels = o.NumComponents;
  o.TransparencyPresent = false;
  o.TransparencyCoded = true;
  o.TransparencyComponent = -1;
  o.TransparencyType = 1;
  o.ComponentTransform = false;

  o.Comment = nullptr;
  o.ColorSpecList = nullptr;
  o.XMLPresent = false;
  o.NumXMLBoxes = 0;
  o.XMLBoxes = nullptr;
  o.UUIDPresent = false;
  o.NumUUIDBoxes = 0;
  o.UUIDBoxes = nullptr;
  o.ResolutionInfoPresent = false;
  o.ResolutionX = 0.0F;
  o.ResolutionY = 0.0F;
  o.ChannelDefPresent = false;
  o.ChannelDefs = nullptr;
  o.PalettePresent = false;
  o.Palette = nullptr;

  o.NumLevels = 5;
  o.Irreversible = 1;
  o.RateMode = kel::format::kRateModeUnset;
  o.RateFlag = false;
  o.RateParamA = 0;
  o.RateParamB = 0;
  o.ChooseIndices = 0;
  o.Checksums = 0;
  std::fill(std::begin(o.Reserved2), std::end(o.Reserved2), 0);
  o.RateLimit = -1;
  o.ProgressPerCall = false;
  o.NumLayers = 1;
  o.LayerTargets = nullptr;
  o.ProgressionOrder = KelRLCP;
  o.CodeBlockWidthExp = 5;
  o.CodeBlockHeightExp = 5;
  o.CbBypass = false;
  o.CbReset = false;
  o.CbTermAll = false;
  o.CbVertCausal = false;
  o.CbPredTerm = false;
  o.CbSegSymbols = false;
  o.UseSOP = false;
  o.UseEPH = false;
  o.PrecinctWidthExp = 15;
  o.PrecinctHeightExp = 15;
  o.CoderValue = 0;
  o.TargetQuality = 40.0F;
  o.RateTable = nullptr;
  o.RateTableCount = 0;
}

}  // namespace

KelLong KelEncOpt::InitToDefaults(KelLong width, KelLong height, KelLong tileWidth,
                                  KelLong tileHeight, KelLong numComponents, KelLong bitDepth) {
  GeomParams = nullptr;
  GeomParams = NamingModule(kel::kModuleOpt, [&] {
    auto ones = kel::OwnedArray<KelLong>::Make(kel::AsCount(numComponents));
    auto depths = kel::OwnedArray<KelLong>::Make(kel::AsCount(numComponents));
    std::fill_n(ones.Data(), ones.Size(), 1);
    std::fill_n(depths.Data(), depths.Size(), bitDepth);
    return NewGeometry(width, height, 0, 0, tileWidth, tileHeight, 0, 0, ones.Data(), ones.Data(),
                       numComponents, depths.Data());
  });
  NumComponents = numComponents;
  ImageWidth = width;
  ImageHeight = height;
  TileWidth = tileWidth;
  TileHeight = tileHeight;
  SetDefaults(*this);
  return KelOK;
}

KelLong KelEncOpt::InitToDefaults(KelImageGeometry* geometry) {
  if (geometry == nullptr) Raise(KelErrBadParam, kel::kModuleOpt);
  GeomParams = nullptr;
  GeomParams = NamingModule(kel::kModuleOpt, [&] { return NewGeometry(geometry); });
  NumComponents = GeomParams->Csiz;
  ImageWidth = GeomParams->Xsiz;
  ImageHeight = GeomParams->Ysiz;
  TileWidth = GeomParams->XTsiz;
  TileHeight = GeomParams->YTsiz;
  SetDefaults(*this);
  return KelOK;
}

KelLong KelEncOpt::Clone(KelEncOpt* source) {
  if (source == nullptr || source->GeomParams == nullptr) Raise(KelErrBadParam, kel::kModuleOpt);
  InitToDefaults(source->GeomParams);
  kel::ScopeGuard release([this] { Die(); });

  RoiEnabled = source->RoiEnabled;
  RoiMaskComponent = source->RoiMaskComponent;
  NumColorChannels = source->NumColorChannels;
  ComponentTransform = source->ComponentTransform;
  NumLevels = source->NumLevels;
  Irreversible = source->Irreversible;
  NumLayers = source->NumLayers;
  ProgressionOrder = source->ProgressionOrder;
  CodeBlockWidthExp = source->CodeBlockWidthExp;
  CodeBlockHeightExp = source->CodeBlockHeightExp;
  CbBypass = source->CbBypass;
  CbReset = source->CbReset;
  CbTermAll = source->CbTermAll;
  CbVertCausal = source->CbVertCausal;
  CbPredTerm = source->CbPredTerm;
  CbSegSymbols = source->CbSegSymbols;
  UseSOP = source->UseSOP;
  PrecinctWidthExp = source->PrecinctWidthExp;
  PrecinctHeightExp = source->PrecinctHeightExp;
  RateMode = source->RateMode;
  ChooseIndices = source->ChooseIndices;
  Checksums = source->Checksums;
  CoderValue = source->CoderValue;
  TargetQuality = source->TargetQuality;
  RateTableCount = source->RateTableCount;
  NamingModule(kel::kModuleOpt, [&] {
    LayerTargets = CopyOfLongs(source->LayerTargets, source->NumLayers);
    RateTable = CopyOfLongs(source->RateTable, source->RateTableCount);
    return 0;
  });
  release.Disarm();
  return KelOK;
}

void KelEncOpt::Die() {
  if (GeomParams != nullptr) {
    GeomParams->Die();
    kel::KelFree(GeomParams);
  }
  if (RateTable != nullptr) kel::KelFree(RateTable);
  if (LayerTargets != nullptr) kel::KelFree(LayerTargets);
  GeomParams = nullptr;
  RateTable = nullptr;
  LayerTargets = nullptr;
}

KelLong KelDecOpt::InitToDefaults() {
  EncOpt = nullptr;
  EncOpt =
      NamingModule(kel::kModuleOpt, [] { return kel::OwnedRecord<KelEncOpt>::Make().Release(); });
  return KelOK;
}

KelLong KelDecOpt::Clone(KelDecOpt* source) {
  if (source == nullptr || source->EncOpt == nullptr) Raise(KelErrBadParam, kel::kModuleOpt);
  EncOpt = nullptr;
  auto copy = NamingModule(kel::kModuleOpt, [] { return kel::OwnedRecord<KelEncOpt>::Make(); });
  copy->Clone(source->EncOpt);
  EncOpt = copy.Release();
  ForceComponentTransform = source->ForceComponentTransform;
  std::copy(std::begin(source->Reserved), std::end(source->Reserved), std::begin(Reserved));
  return KelOK;
}

void KelDecOpt::Die() {
  if (EncOpt == nullptr) return;
  EncOpt->Die();
  kel::KelFree(EncOpt);
  EncOpt = nullptr;
}
