// Exported operations of the image object: queries.
#include "api/KelApiGlueImage.h"
#include "base/KelMemFuncDefs.h"
#include "decode/KelImageQuery.h"
#include "kel/KelImage.h"

namespace {

using kel::Guarded;
using kel::ImageState;
using kel::kTheCode;
using kel::Neutral;
using kel::Query;
using kel::QueryOptions;
using kel::Side;

}  // namespace

KelLong KelImage::GetNumTiles() const {
  return Query(handle_, KelLong{0}, [](ImageState& state) { return state.map.numTiles; });
}

KelLong KelImage::GetNumTileComps() const {
  return Query(handle_, KelLong{0}, [](ImageState& state) {
    return kel::SaturateToInt32(std::int64_t{state.map.numTiles} * state.map.numComps);
  });
}

KelLong KelImage::GetNumComponents() const {
  return Query(handle_, KelLong{0}, [](ImageState& state) { return state.map.numComps; });
}

KelLong KelImage::GetMaxRes() const {
  return Query(handle_, KelLong{0}, [](ImageState& state) { return state.maxRes; });
}

KelLong KelImage::GetMaxRes(KelLong tile) const {
  return Guarded(
      handle_, Side::kEither, [&](ImageState& state) { return kel::LevelsOfTile(state, tile); },
      Neutral(KelLong{-1}));
}

KelImageGeometry* KelImage::GetGeometryParams() const {
  return Query(handle_, static_cast<KelImageGeometry*>(nullptr),
               [](ImageState& state) { return state.geometry; });
}

KelLong* KelImage::GetBitDepths() const {
  return Query(handle_, static_cast<KelLong*>(nullptr), [](ImageState& state) {
    return state.geometry != nullptr ? state.geometry->BitDepths : nullptr;
  });
}

KelCodeStm* KelImage::GetCodeStream() const {
  return Query(handle_, static_cast<KelCodeStm*>(nullptr),
               [](ImageState& state) { return state.codeStm; });
}

KelEncOpt* KelImage::GetEncodeOptions() const {
  return Query(handle_, static_cast<KelEncOpt*>(nullptr), [](ImageState& state) {
    return state.decOpt != nullptr ? state.decOpt->EncOpt : state.encOpt;
  });
}

KelDecOpt* KelImage::GetDecodeOptions() const {
  return Query(handle_, static_cast<KelDecOpt*>(nullptr),
               [](ImageState& state) { return state.decOpt; });
}

KelClientData* KelImage::GetClientData() const {
  return Query(handle_, static_cast<KelClientData*>(nullptr),
               [](ImageState& state) { return state.clientData; });
}

KelTileComponent* KelImage::GetTileComponent(KelLong tile, KelLong component) const {
  return Guarded(
      handle_, Side::kEither,
      [&](ImageState& state) { return kel::TileComponentOf(state, tile, component); },
      Neutral<KelTileComponent*>(nullptr));
}

__tagICCProfile* KelImage::GetICCProfile() const {
  return Query(handle_, static_cast<__tagICCProfile*>(nullptr),
               [](ImageState& state) { return kel::ICCProfileOf(state); });
}

__tagColorSpecList* KelImage::GetColorSpecList() const {
  return QueryOptions(handle_, static_cast<__tagColorSpecList*>(nullptr),
                      [](const KelEncOpt& o) { return o.ColorSpecList; });
}

bool KelImage::UUIDPresent() const {
  return QueryOptions(handle_, false, [](const KelEncOpt& o) { return o.UUIDPresent; });
}

KelLong KelImage::GetNumUUIDBoxes() const {
  return QueryOptions(handle_, KelLong{0}, [](const KelEncOpt& o) { return o.NumUUIDBoxes; });
}

__tagKelUUID* KelImage::GetUUIDBoxes() const {
  return QueryOptions(handle_, static_cast<__tagKelUUID*>(nullptr),
                      [](const KelEncOpt& o) { return o.UUIDBoxes; });
}

bool KelImage::XMLPresent() const {
  return QueryOptions(handle_, false, [](const KelEncOpt& o) { return o.XMLPresent; });
}

KelLong KelImage::GetNumXMLBoxes() const {
  return QueryOptions(handle_, KelLong{0}, [](const KelEncOpt& o) { return o.NumXMLBoxes; });
}

__tagKelXML* KelImage::GetXMLBoxes() const {
  return QueryOptions(handle_, static_cast<__tagKelXML*>(nullptr),
                      [](const KelEncOpt& o) { return o.XMLBoxes; });
}

bool KelImage::ResolutionInfoPresent() const {
  return QueryOptions(handle_, false, [](const KelEncOpt& o) { return o.ResolutionInfoPresent; });
}

bool KelImage::PalettePresent() const {
  return QueryOptions(handle_, false, [](const KelEncOpt& o) { return o.PalettePresent; });
}

__tagKelPalette* KelImage::GetPalette() const {
  return QueryOptions(handle_, static_cast<__tagKelPalette*>(nullptr),
                      [](const KelEncOpt& o) { return o.Palette; });
}

KelLong KelImage::GetNumColorChannels() const {
  return Query(handle_, KelLong{0},
               [](ImageState& state) { return kel::NumColorChannelsOf(state); });
}

KelChannelType KelImage::GetComponentType(KelLong component) const {
  return Query(handle_, KelChannelUnspecified,
               [&](ImageState& state) { return kel::ComponentTypeOf(state, component); });
}

KelLong KelImage::GetChannelIndex(KelLong n) {
  return Guarded(
      handle_, Side::kEither, [&](ImageState& state) { return kel::ChannelIndexOf(state, n); },
      kTheCode);
}

bool KelImage::TransparencyChannelPresent() const {
  return Query(handle_, false,
               [](ImageState& state) { return kel::HasTransparencyChannel(state); });
}

KelOpacityType KelImage::GetTransparencyType() const {
  return Query(handle_, KelOpacityNone,
               [](ImageState& state) { return kel::TransparencyTypeOf(state); });
}

KelChromaKey* KelImage::GetChromaKey() const {
  return Query(handle_, static_cast<KelChromaKey*>(nullptr),
               [](ImageState& state) { return kel::ChromaKeyOf(state); });
}

KelLong KelImage::GetTransparencyChannelNum(KelLong n) const {
  return Query(handle_, KelLong{-1},
               [&](ImageState& state) { return kel::TransparencyChannelOf(state, n); });
}

KelLong KelImage::GetGlobalTransparencyChannelNum() const {
  return Query(handle_, KelLong{-1},
               [](ImageState& state) { return kel::GlobalTransparencyChannelOf(state); });
}
