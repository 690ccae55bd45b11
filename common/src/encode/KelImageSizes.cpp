// Size queries and step counts of an encoder: what rate control's formulas need is gathered from
// the checked options and from the sizes of what has been coded.
#include <algorithm>

#include "KelRate.h"
#include "encode/KelImageEncode.h"
#include "encode/KelMainStream.h"

namespace kel {
namespace {

KelLong Limited(std::int64_t v) {
  return SaturateToInt32(v);
}

/// Uncompressed bytes of the colour channels, the region mask left out. The tiles of a component
/// share out its samples exactly.
std::int64_t RawSize(const KelEncOpt& o) {
  const KelImageGeometry& g = *o.GeomParams;
  std::int64_t bytes = 0;
  for (KelLong c = 0; c < o.NumColorChannels; ++c) {
    if (IsRegionMask(o, c)) continue;
    const std::int64_t samples = std::min<std::int64_t>(
        CeilDiv(g.Xsiz, g.XRsiz[c]) * CeilDiv(g.Ysiz, g.YRsiz[c]), INT32_MAX);
    bytes = std::min<std::int64_t>(bytes + samples * CeilDiv(g.BitDepths[c], 8), INT32_MAX);
  }
  return bytes;
}

bool HasExtraChannelsApart(const KelEncOpt& o) {
  return o.NumColorChannels < o.GeomParams->Csiz && o.ExtraChannelCodingParams;
}

RateInputs RateInputsOf(ImageState& state) {
  const KelEncOpt& o = state.encoder->settings;
  const KelImageGeometry& g = *o.GeomParams;
  RateInputs in = {state.map.numTiles, g.XTsiz,    g.YTsiz, g.BitDepths[0],
                   o.NumColorChannels, RawSize(o), 0};
  // Sizes that are not known yet count as 0.
  if (HasExtraChannelsApart(o)) in.apartSize += std::max(ExtraChannelsSize(state), 0);
  if (o.TransparencyPresent && !o.TransparencyCoded) {
    in.apartSize -= std::max(TransparencySize(state), 0);
  }
  return in;
}

/// What one component takes over all tiles: its packets, and its tile-part headers when it has
/// tile-parts of its own.
std::int64_t SizeOfComponent(const ImageState& state, KelLong component) {
  const KelEncOpt& o = state.encoder->settings;
  std::int64_t bytes = o.ProgressionOrder == KelCPRL
                           ? std::int64_t{format::kLeastTilePartBytes} * state.map.numTiles
                           : 0;
  for (std::int32_t t = 0; t < state.map.numTiles; ++t) {
    const TileRecord& tile = state.map.tiles[t];
    if (tile.comps == nullptr || tile.comps[component].enc == nullptr) continue;
    bytes += static_cast<std::int64_t>(
        std::min<std::uint64_t>(tile.comps[component].enc->codedBytes, INT32_MAX));
  }
  return bytes;
}

KelLong ByteTarget(ImageState& state) {
  EncoderState& e = *state.encoder;
  if (e.byteTarget < 0) {
    const RateInputs in = RateInputsOf(state);
    e.byteTarget = e.settings.RateFlag ? Limited(in.rawSize) : SizeForQuality(in, e.quality);
  }
  return e.byteTarget;
}

/// Tile-parts per tile of an organisation by layers (0), resolutions (1) or components (4); -1 for
/// any other.
KelLong PartsPerTile(const KelEncOpt& o, KelLong organisation) {
  switch (organisation) {
    case KelLRCP:
      return o.NumLayers;
    case KelRLCP:
      return o.NumLevels + 1;
    case KelCPRL:
      return NumInMainStream(o);
    default:
      return -1;
  }
}

}  // namespace

KelLong StepsOfCompressing(const ImageState& state) {
  return Limited(std::int64_t{state.map.numTiles} * state.map.numComps);
}

KelLong ProgressionSteps(const ImageState& state) {
  const KelEncOpt& o = state.encoder->settings;
  const KelLong parts = PartsPerTile(o, o.ProgressionOrder);
  return parts < 0 ? 0 : Limited(std::int64_t{state.map.numTiles} * parts);
}

KelLong NumQualitySteps(const ImageState&) {
  return 0;
}

KelLong* QualitySteps(ImageState& state, KelLong* count) {
  EncoderState& e = *state.encoder;
  if (ByteTarget(state) <= 100) e.qualitySteps[0] = e.quality;
  if (count != nullptr) *count = NumQualitySteps(state);
  return e.qualitySteps;
}

KelLong MinCodeStreamLength(ImageState& state) {
  return state.encoder != nullptr ? MinCodeStreamLength(RateInputsOf(state)) : 0;
}

KelLong MaxCodeStreamLength(ImageState& state) {
  return state.encoder != nullptr ? MaxCodeStreamLength(RateInputsOf(state)) : 0;
}

KelLong ExtraChannelsSize(ImageState& state) {
  EncoderState& e = *state.encoder;
  if (!e.isCompressed) return -1;
  if (e.extraChannelsSize < 0) {
    std::int64_t bytes = 0;
    for (KelLong c = e.settings.NumColorChannels; c < state.map.numComps; ++c) {
      if (!IsRegionMask(e.settings, c)) bytes += SizeOfComponent(state, c);
    }
    e.extraChannelsSize = Limited(bytes);
  }
  return e.extraChannelsSize;
}

KelLong TransparencySize(ImageState& state) {
  if (state.encoder == nullptr) return 0;
  EncoderState& e = *state.encoder;
  if (!e.isCompressed) return -1;
  if (e.transparencySize < 0) {
    const KelEncOpt& o = e.settings;
    e.transparencySize =
        o.TransparencyPresent ? Limited(SizeOfComponent(state, o.TransparencyComponent)) : 0;
  }
  return e.transparencySize;
}

KelLong QualityForTarget(ImageState& state, KelLong targetBytes) {
  if (state.encoder == nullptr) return 0;
  const QualityChoice choice = ChooseQuality(RateInputsOf(state), targetBytes);
  state.encOpt->TargetQuality = static_cast<float>(choice.quality);
  return choice.effectiveTarget;
}

KelLong UpdateCodestreamSize(const ImageState& state, KelLong from, KelLong size, KelLong to) {
  const KelEncOpt& o = state.encoder->settings;
  const KelLong fromParts = PartsPerTile(o, from);
  const KelLong toParts = PartsPerTile(o, to);
  if (fromParts < 0 || toParts < 0) return -1;
  const std::int64_t perPart = std::int64_t{format::kLeastTilePartBytes} * state.map.numTiles;
  return Limited(size + perPart * (std::int64_t{toParts} - fromParts));
}

}  // namespace kel
