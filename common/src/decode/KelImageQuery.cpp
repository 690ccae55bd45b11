// The image object's queries: what channels, colours and transparency the options and the file
// tell.
#include "decode/KelImageQuery.h"

#include <algorithm>
#include <cstring>

#include "decode/KelImageDecode.h"

namespace kel {
namespace {

/// The channel definitions in force, or null.
const KelChannelDefinition* DefinitionsOf(const ImageState& state) {
  if (state.encOpt == nullptr || !state.encOpt->ChannelDefPresent) return nullptr;
  return state.encOpt->ChannelDefs;
}

/// The file's opacity record, or null.
const KelOpacityInfo* OpacityOf(const ImageState& state) {
  const KelFileInfo* file = state.decoder != nullptr ? state.decoder->fileInfo : nullptr;
  return file != nullptr && file->opacityPresent ? file->opacity : nullptr;
}

/// Whether the last component carries the opacity of the image, by the file's opacity record. A
/// chroma key is not a channel.
bool LastComponentIsOpacity(const ImageState& state) {
  const KelOpacityInfo* opacity = OpacityOf(state);
  return opacity != nullptr && opacity->Otyp <= 1;
}

bool IsOpacity(KelLong type) {
  return type == KelChannelOpacity || type == KelChannelPremultiplied;
}

/// The first entry that satisfies a condition on its index, or -1.
template <class Condition>
KelLong FindEntry(const KelChannelDefinition& definitions, Condition condition) {
  for (KelULong i = 0; i < definitions.N; ++i) {
    if (condition(i)) return static_cast<KelLong>(i);
  }
  return -1;
}

/// The first opacity entry, whatever it applies to, or -1.
KelLong FirstOpacityEntry(const ImageState& state) {
  const KelChannelDefinition* definitions = DefinitionsOf(state);
  if (definitions == nullptr) return -1;
  return FindEntry(*definitions, [&](KelULong i) { return IsOpacity(definitions->Typ[i]); });
}

/// Colours of an ICC profile, by the colour space in its header.
KelLong ColorsOfProfile(const __tagICCProfile& profile) {
  constexpr KelULong kSpaceAt = 16;
  if (profile.data == nullptr || profile.size < kSpaceAt + 4) return 3;
  const auto is = [&](const char* space) {
    return std::memcmp(profile.data + kSpaceAt, space, 4) == 0;
  };
  if (is("GRAY")) return 1;
  return is("CMYK") ? 4 : 3;
}

/// Colours that the colour descriptions imply for an image of numComps components.
KelLong ColorsOfSpecification(const __tagColorSpecList* list, KelLong numComps) {
  const KelColorSpec* entry = list != nullptr ? list->first : nullptr;
  for (; entry != nullptr; entry = entry->next) {
    if (entry->iccProfile != nullptr) return ColorsOfProfile(*entry->iccProfile);
    if (entry->method != 1) continue;
    switch (entry->enumeratedSpace) {
      case format::kSpaceGrey:
        return 1;
      case format::kSpaceCIELab:
      case format::kSpaceSRGB:
      case format::kSpaceSYCC:
      case format::kSpaceCIEJab:
        return 3;
      case format::kSpaceCMYK:
        return 4;
      default:
        break;
    }
  }
  return numComps >= 3 ? 3 : 1;
}

}  // namespace

KelLong LevelsOfTile(ImageState& state, KelLong t) {
  if (t < 0 || t >= state.map.numTiles) return -1;
  if (state.isEncoder) return state.maxRes;
  TileRecord& tile = state.map.tiles[t];
  EnsureDecTileComps(state.map, tile);
  const KelLong levels = tile.comps[0].dec->params.style->numLevels;
  for (KelLong c = 1; c < state.map.numComps; ++c) {
    if (tile.comps[c].dec->params.style->numLevels != levels) return -1;
  }
  return levels;
}

KelTileComponent* TileComponentOf(ImageState& state, KelLong t, KelLong component) {
  if (t < 0 || t >= state.map.numTiles || component < 0 || component >= state.map.numComps) {
    return nullptr;
  }
  TileRecord& tile = state.map.tiles[t];
  EnsureDecTileComps(state.map, tile);
  return &tile.comps[component].handle;
}

bool TileIsComplete(const ImageState& state, KelLong t) {
  if (state.isEncoder || t < 0 || t >= state.map.numTiles) return false;
  const TileRecord& tile = state.map.tiles[t];
  return ProgressOf(tile).isComplete || HasNoSamples(state.map, tile);
}

bool TileIsUntouched(const ImageState& state, KelLong t) {
  return t < 0 || t >= state.map.numTiles || state.map.tiles[t].comps == nullptr;
}

__tagICCProfile* ICCProfileOf(const ImageState& state) {
  if (state.isEncoder || state.encOpt == nullptr) return nullptr;
  return ChooseICCProfile(state.encOpt->ColorSpecList);
}

KelLong NumColorChannelsOf(const ImageState& state) {
  if (state.encOpt == nullptr) return 0;
  if (state.isEncoder) return state.encOpt->NumColorChannels;
  if (const KelChannelDefinition* definitions = DefinitionsOf(state)) {
    return static_cast<KelLong>(
        std::count(definitions->Typ, definitions->Typ + definitions->N, KelChannelColor));
  }
  return std::min(ColorsOfSpecification(state.encOpt->ColorSpecList, state.map.numComps),
                  state.map.numComps);
}

KelChannelType ComponentTypeOf(const ImageState& state, KelLong component) {
  if (const KelChannelDefinition* definitions = DefinitionsOf(state)) {
    const KelLong entry =
        FindEntry(*definitions, [&](KelULong i) { return definitions->Cn[i] == component; });
    return entry < 0 ? KelChannelUnspecified : KelChannelType{definitions->Typ[entry]};
  }
  const bool isColor = !state.isEncoder && component >= 0 && component < NumColorChannelsOf(state);
  return isColor ? KelChannelColor : KelChannelUnspecified;
}

KelLong ChannelIndexOf(const ImageState& state, KelLong n) {
  const KelChannelDefinition* definitions = DefinitionsOf(state);
  if (definitions == nullptr) return n < 1 ? -1 : n - 1;
  if (!state.isEncoder) {
    const bool isListed = n >= 1 && static_cast<KelULong>(n) <= definitions->N;
    return isListed && definitions->order != nullptr ? definitions->order[n - 1] : -1;
  }
  const KelLong entry = FindEntry(*definitions, [&](KelULong i) {
    return definitions->Typ[i] == KelChannelColor && definitions->Asoc[i] == n;
  });
  return entry < 0 ? -1 : definitions->Cn[entry];
}

bool HasTransparencyChannel(const ImageState& state) {
  if (state.isEncoder && state.encOpt != nullptr && state.encOpt->TransparencyPresent) return true;
  if (DefinitionsOf(state) != nullptr) return FirstOpacityEntry(state) >= 0;
  return LastComponentIsOpacity(state);
}

KelOpacityType TransparencyTypeOf(const ImageState& state) {
  if (state.isEncoder && state.encOpt != nullptr && state.encOpt->TransparencyPresent) {
    switch (state.encOpt->TransparencyType) {
      case 1:
        return KelOpacityPlain;
      case 2:
        return KelOpacityPremultiplied;
      default:
        return KelOpacityOther;
    }
  }
  const KelLong entry = FirstOpacityEntry(state);
  if (entry >= 0) {
    return DefinitionsOf(state)->Typ[entry] == KelChannelOpacity ? KelOpacityPlain
                                                                 : KelOpacityPremultiplied;
  }
  const KelOpacityInfo* opacity = OpacityOf(state);
  if (opacity == nullptr) return KelOpacityNone;
  switch (opacity->Otyp) {
    case 0:
      return KelOpacityPlain;
    case 1:
      return KelOpacityPremultiplied;
    case 2:
      return KelOpacityChromaKey;
    default:
      return KelOpacityNone;
  }
}

KelChromaKey* ChromaKeyOf(const ImageState& state) {
  const KelOpacityInfo* opacity = OpacityOf(state);
  return opacity != nullptr && opacity->Otyp == 2 ? opacity->chromaKey : nullptr;
}

KelLong TransparencyChannelOf(const ImageState& state, KelLong n) {
  const KelChannelDefinition* definitions = DefinitionsOf(state);
  if (definitions == nullptr || n < 0 || static_cast<KelULong>(n) > definitions->N) return -1;
  return FindEntry(*definitions, [&](KelULong i) {
    return IsOpacity(definitions->Typ[i]) && definitions->Asoc[i] == n;
  });
}

KelLong GlobalTransparencyChannelOf(const ImageState& state) {
  if (DefinitionsOf(state) != nullptr) return TransparencyChannelOf(state, 0);
  return LastComponentIsOpacity(state) ? state.map.numComps - 1 : -1;
}

}  // namespace kel
