// What a file or code stream says about itself.
#include "kel/host/probe.hpp"

#include <algorithm>

#include "Describe.hpp"
#include "FrameTarget.hpp"
#include "RangeIndex.hpp"
#include "TilePiece.hpp"

namespace kel::host {
namespace {

template <class AnyIndex>
void DescribeComponents(Decoder& decoder, const AnyIndex& index, Info& info) {
  KelImage& object = decoder.Object();
  const auto areas = ComponentAreas(*object.GetGeometryParams(), 0);
  const auto roles = ComponentRoles(object);
  for (std::size_t c = 0; c < areas.size(); ++c) {
    const ComponentArea& area = areas[c];
    info.components.push_back({static_cast<std::uint32_t>(area.x1 - area.x0),
                               static_cast<std::uint32_t>(area.y1 - area.y0), area.depth,
                               area.xStep, area.yStep, roles[c].role, roles[c].colour,
                               index.Components()[c].boxDepth, index.Components()[c].boxIsSigned});
  }
}

std::optional<Info::CieParameters> DescribeCie(const KelColorSpec& spec) {
  const auto space = static_cast<ColourSpace>(spec.enumeratedSpace);
  const bool isCie = space == ColourSpace::kCieLab || space == ColourSpace::kCieJab;
  if (spec.method != 1 || !isCie) return std::nullopt;
  const KelCIEParams& cie = spec.cie;
  Info::CieParameters parameters{{cie.rangeL, cie.rangeA, cie.rangeB},
                                 {cie.offsetL, cie.offsetA, cie.offsetB}};
  if (cie.illuminantKind == format::kIlluminantCode) parameters.illuminant = cie.illuminant;
  if (cie.illuminantKind == format::kIlluminantTemperature)
    parameters.temperature = cie.temperature;
  return parameters;
}

void DescribeColour(const KelImage& object, Info& info) {
  const __tagColorSpecList* list = object.GetColorSpecList();
  for (const KelColorSpec* spec = list == nullptr ? nullptr : list->first; spec != nullptr;
       spec = spec->next) {
    info.colours.push_back({spec->method, spec->precedence, spec->approximation,
                            spec->method == 1 ? spec->enumeratedSpace : 0, DescribeCie(*spec),
                            spec->iccProfile == nullptr ? 0U : spec->iccProfile->size});
  }
}

void DescribeChannels(const Decoder& decoder, Info& info) {
  const KelEncOpt& found = decoder.Found();
  if (found.ChannelDefPresent && found.ChannelDefs != nullptr) {
    const KelChannelDefinition& list = *found.ChannelDefs;
    for (KelULong i = 0; i < list.N; ++i) {
      info.channels.push_back({list.Cn[i], list.Typ[i], list.Asoc[i]});
    }
  }
  if (const KelChromaKey* key = decoder.Object().GetChromaKey()) {
    for (KelULong i = 0; i < key->numChannels; ++i) {
      info.chromaKey.push_back(static_cast<std::uint32_t>(key->values[i]));
    }
  }
}

void DescribeTiling(const Decoder& decoder, Info& info) {
  const KelImageGeometry& geometry = *decoder.Object().GetGeometryParams();
  const auto positive = [](KelLong value) { return static_cast<std::uint32_t>(value); };
  info.width = positive(geometry.Xsiz - geometry.XOsiz);
  info.height = positive(geometry.Ysiz - geometry.YOsiz);
  info.originX = positive(geometry.XOsiz);
  info.originY = positive(geometry.YOsiz);
  info.tileWidth = positive(geometry.XTsiz);
  info.tileHeight = positive(geometry.YTsiz);
  info.tilesAcross = positive(geometry.NumXTiles);
  info.tilesDown = positive(geometry.NumYTiles);
}

template <class AnyIndex>
Info Describe(Decoder& decoder, AnyIndex& index, std::uint64_t numBytes) {
  const KelIndexFacts& facts = index.Facts();
  const KelEncOpt& found = decoder.Found();

  Info info;
  info.bytes = numBytes;
  info.flavour = facts.markerByte;
  info.boxed = facts.isBoxed;
  info.codeStreamOffset = facts.codeStreamOffset;
  DescribeTiling(decoder, info);
  DescribeComponents(decoder, index, info);
  info.levels = static_cast<unsigned>(found.NumLevels);
  info.layers = static_cast<unsigned>(found.NumLayers);
  info.order = static_cast<unsigned>(found.ProgressionOrder);
  info.lossless = found.Irreversible == 0;
  info.colourTransform = found.ComponentTransform;
  DescribeColour(decoder.Object(), info);
  DescribeChannels(decoder, info);

  Image image = DescribeImage(decoder, facts);
  info.palette = std::move(image.palette);
  info.resolution = image.resolution;
  info.comment = std::move(image.comment);
  for (const std::string& text : image.xml) info.xmlBytes.push_back(text.size());
  for (const UuidPayload& payload : image.uuids) {
    info.uuids.push_back({payload.id, payload.data.size()});
  }
  const KelIndexTileParts& tileParts = index.TileParts();
  for (const KelIndexTilePart& part : std::span(tileParts.parts, tileParts.count)) {
    info.tileParts.push_back(
        {part.tile, part.part, part.offset - facts.codeStreamOffset, part.length});
  }
  info.tilePartsRegular = tileParts.areRegular;
  return info;
}

/// By the index of a file of which headers are read, and no more.
Info ProbeRanges(RangeSource& source) {
  // Headers are short and far from each other.
  constexpr std::uint64_t kCacheBytes = 1 << 20, kBlockBytes = 512;
  RangeCache cache(source, kCacheBytes, kBlockBytes);
  RangeIndex index(cache);
  DataFront front;
  front.facts = &index.Facts();
  front.bytes.resize(LengthInMemory(front.facts->firstTilePartOffset));
  cache.Fetch(0, front.bytes);
  const Bytes data = BuildDescription(front, cache);
  Decoder decoder(data);
  return Describe(decoder, index, source.Size());
}

}  // namespace

Info Probe(Source& source) {
  Bytes storage;
  const bool isLarge = IsBeyondBlock(source);
  const std::optional<ByteView> view = isLarge ? std::nullopt : source.View();
  if (isLarge || (!view && source.Size())) {
    SourceRanges ranges(source);
    return ProbeRanges(ranges);
  }
  const ByteView bytes = view ? *view : ReadAll(source, storage);
  Decoder decoder(bytes);
  Index index(bytes);
  return Describe(decoder, index, bytes.size());
}

}  // namespace kel::host
