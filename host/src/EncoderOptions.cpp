// From an image and parameters to the library's option set.
#include "EncoderOptions.hpp"

#include <algorithm>

namespace kel::host {
namespace {

/// The tags of a profile begin behind 128 bytes of header and a count; each takes 12 bytes.
constexpr std::size_t kProfileHeader = 128, kTagBytes = 12;

/// The mask of a region is handed over as one byte per sample.
constexpr KelLong kMaskDepth = 8;

/// The library's number for a quality. Its 100 stands for steps of 1 in every band, which for
/// samples of up to 8 bits is coarser than 99, and larger; with a region it is the finest there is.
double LibraryQuality(const Image& image, const EncodeParams& params, double quality) {
  constexpr double kFinest = 99;
  const bool isShallow = image.planes[0].Depth() <= 8;
  return isShallow && params.regionMask == nullptr ? std::min(quality, kFinest) : quality;
}

/// A profile without lookup tables (the tag "A2B0") is one of the restricted kind.
bool IsRestricted(const Bytes& profile) {
  for (std::size_t at = kProfileHeader + 4; at + kTagBytes <= profile.size(); at += kTagBytes) {
    if (std::equal(profile.begin() + static_cast<std::ptrdiff_t>(at),
                   profile.begin() + static_cast<std::ptrdiff_t>(at) + 4, "A2B0")) {
      return false;
    }
    const std::size_t index = (at - kProfileHeader - 4) / kTagBytes;
    const std::size_t count =
        std::size_t{profile[kProfileHeader + 2]} << 8 | profile[kProfileHeader + 3];
    if (index + 1 >= count) break;
  }
  return true;
}

}  // namespace

EncoderOptions::EncoderOptions(const Image& image, const EncodeParams& params, double quality) {
  SetGeometry(image, params);
  SetCoding(image, params, quality);
  SetChannels(image);
  SetColour(image);
  if (image.palette) SetPalette(*image.palette);
  SetPayloads(image);
}

void EncoderOptions::SetGeometry(const Image& image, const EncodeParams& params) {
  std::vector<const Plane*> planes;
  for (const Plane& plane : image.planes) planes.push_back(&plane);
  if (params.regionMask != nullptr) planes.push_back(params.regionMask);
  Raising(Failure::kParameter, [&] {
    options_.InitToDefaults(static_cast<KelLong>(image.width), static_cast<KelLong>(image.height),
                            static_cast<KelLong>(params.tileWidth),
                            static_cast<KelLong>(params.tileHeight),
                            static_cast<KelLong>(planes.size()), kMaskDepth);
  });
  KelImageGeometry& geometry = *options_.GetGeomParams();
  for (std::size_t c = 0; c < planes.size(); ++c) {
    geometry.XRsiz[c] = static_cast<KelLong>(planes[c]->xStep);
    geometry.YRsiz[c] = static_cast<KelLong>(planes[c]->yStep);
    if (planes[c] != params.regionMask) {
      geometry.BitDepths[c] = static_cast<KelLong>(planes[c]->Depth());
    }
  }
}

void EncoderOptions::SetCoding(const Image& image, const EncodeParams& params, double quality) {
  options_.NumLevels = static_cast<KelLong>(params.levels);
  options_.Irreversible = params.lossless ? 0 : 1;
  options_.TargetQuality = static_cast<float>(LibraryQuality(image, params, quality));
  options_.ChooseIndices = params.plain ? 0 : 1;
  options_.Checksums = params.checksums ? 1 : 0;
  options_.NumLayers = static_cast<KelLong>(params.layers);
  options_.ProgressionOrder = params.order == PacketOrder::kComponents ? KelCPRL : KelRLCP;
  options_.ComponentTransform = params.colourTransform;
  if (params.regionMask != nullptr) {
    options_.RoiEnabled = true;
    options_.RoiMaskComponent = static_cast<KelLong>(image.planes.size());
  }
}

void EncoderOptions::SetChannels(const Image& image) {
  options_.NumColorChannels = static_cast<KelLong>(NumColours(image));
  const Plane* opacity = OpacityPlane(image);
  if (opacity == nullptr) return;
  options_.TransparencyPresent = true;
  options_.TransparencyComponent = static_cast<KelLong>(opacity - image.planes.data());
  options_.TransparencyType = opacity->role == ChannelRole::kOpacity ? 1 : 2;
}

void EncoderOptions::SetColour(const Image& image) {
  if (!image.iccProfile.empty()) {
    profile_ = {static_cast<KelULong>(image.iccProfile.size()), image.iccProfile.data()};
    colour_.method = IsRestricted(image.iccProfile) ? 2 : 3;
    colour_.iccProfile = &profile_;
  } else if (image.colourSpace != ColourSpace::kUnspecified) {
    colour_.method = 1;
    colour_.enumeratedSpace = static_cast<KelULong>(image.colourSpace);
    const KelULong depth = image.planes[0].Depth();
    if (image.colourSpace == ColourSpace::kCieLab) {
      InitDefaultCIEParams(format::kKindCIELab, &colour_.cie, depth, depth);
    } else if (image.colourSpace == ColourSpace::kCieJab) {
      InitDefaultCIEParams(format::kKindCIEJab, &colour_.cie, depth, depth);
    }
  } else {
    return;  // the encoder chooses by the number of components
  }
  colours_ = {1, &colour_};
  options_.ColorSpecList = &colours_;
}

void EncoderOptions::SetPalette(const Palette& palette) {
  for (const Palette::Column& column : palette.columns) {
    paletteDepths_.push_back(static_cast<std::uint8_t>(column.depth - 1));
    const unsigned entryBytes = (column.depth - 1 + 7) / 8;  // the format's own rule
    Bytes& entries = paletteColumns_.emplace_back();
    for (const std::uint32_t entry : column.entries) {
      for (unsigned i = entryBytes; i-- > 0;) {
        entries.push_back(static_cast<std::uint8_t>(entry >> 8 * i));
      }
    }
  }
  for (Bytes& column : paletteColumns_) paletteAddresses_.push_back(column.data());
  palette_.numEntries = static_cast<KelULong>(palette.columns[0].entries.size());
  palette_.numColumns = static_cast<KelULong>(palette.columns.size());
  palette_.depths = paletteDepths_.data();
  palette_.columns = paletteAddresses_.data();
  options_.PalettePresent = true;
  options_.Palette = &palette_;
}

void EncoderOptions::SetPayloads(const Image& image) {
  if (!image.comment.empty()) {
    comment_ = {reinterpret_cast<const std::uint8_t*>(image.comment.data()),
                static_cast<KelULong>(image.comment.size())};
    options_.Comment = &comment_;
  }
  for (const std::string& text : image.xml) {
    xml_.push_back(
        {static_cast<KelULong>(text.size()), reinterpret_cast<const std::uint8_t*>(text.data())});
  }
  for (const UuidPayload& payload : image.uuids) {
    __tagKelUUID& uuid = uuids_.emplace_back();
    uuid.length = static_cast<KelULong>(payload.data.size());
    std::ranges::copy(payload.id, uuid.uuid);
    uuid.data = payload.data.data();
  }
  options_.XMLPresent = !xml_.empty();
  options_.NumXMLBoxes = static_cast<KelLong>(xml_.size());
  options_.XMLBoxes = xml_.empty() ? nullptr : xml_.data();
  options_.UUIDPresent = !uuids_.empty();
  options_.NumUUIDBoxes = static_cast<KelLong>(uuids_.size());
  options_.UUIDBoxes = uuids_.empty() ? nullptr : uuids_.data();
  if (image.resolution) {
    options_.ResolutionInfoPresent = true;
    options_.ResolutionX = static_cast<float>(image.resolution->x);
    options_.ResolutionY = static_cast<float>(image.resolution->y);
  }
}

}  // namespace kel::host
