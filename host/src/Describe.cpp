// From the library's queries to the kit's records.
#include "Describe.hpp"

#include <algorithm>

namespace kel::host {
namespace {

constexpr KelLong kMappedThroughPalette = 1;
constexpr std::uint8_t kSignedColumn = 0x80;
constexpr KelULong kMostFreeEntries = 1024;

/// Entries of one column: big-endian numbers of (stored depth + 7) / 8 bytes.
std::vector<std::uint32_t> ReadEntries(const std::uint8_t* entries, KelULong count,
                                       unsigned storedDepth) {
  const unsigned entryBytes = (storedDepth + 7) / 8;
  std::vector<std::uint32_t> values;
  for (KelULong i = 0; i < count; ++i) {
    std::uint32_t value = 0;
    for (unsigned k = 0; k < entryBytes; ++k) value = value << 8 | entries[i * entryBytes + k];
    values.push_back(value);
  }
  return values;
}

ChannelRole RoleOf(KelChannelType type) {
  switch (type) {
    case KelChannelColor:
      return ChannelRole::kColour;
    case KelChannelOpacity:
      return ChannelRole::kOpacity;
    case KelChannelPremultiplied:
      return ChannelRole::kPremultipliedOpacity;
    default:
      return ChannelRole::kOther;
  }
}

/// The first enumerated space that the library itself covers, else the first enumerated one.
ColourSpace SpaceOf(const __tagColorSpecList* list) {
  const KelColorSpec* first = nullptr;
  for (const KelColorSpec* spec = list == nullptr ? nullptr : list->first; spec != nullptr;
       spec = spec->next) {
    if (spec->method != 1) continue;
    if (ColorSpecIsKelCompatibile(spec) != 0)
      return static_cast<ColourSpace>(spec->enumeratedSpace);
    if (first == nullptr) first = spec;
  }
  return first == nullptr ? ColourSpace::kUnspecified
                          : static_cast<ColourSpace>(first->enumeratedSpace);
}

}  // namespace

std::vector<ComponentRole> ComponentRoles(KelImage& image) {
  std::vector<ComponentRole> roles(static_cast<std::size_t>(image.GetNumComponents()));
  for (std::size_t c = 0; c < roles.size(); ++c) {
    roles[c].role = RoleOf(image.GetComponentType(static_cast<KelLong>(c)));
  }
  // Opacity can be announced without channel definitions.
  const KelLong opacity = image.GetGlobalTransparencyChannelNum();
  if (image.TransparencyChannelPresent() && opacity >= 0 && opacity < image.GetNumComponents()) {
    roles[static_cast<std::size_t>(opacity)].role =
        image.GetTransparencyType() == KelOpacityPremultiplied ? ChannelRole::kPremultipliedOpacity
                                                               : ChannelRole::kOpacity;
  }
  // Definitions may announce far more colours than there are components to hold them.
  const KelLong numColours = std::min(image.GetNumColorChannels(), image.GetNumComponents());
  for (KelLong n = 1; n <= numColours; ++n) {
    const KelLong colour = image.GetChannelIndex(n);
    if (colour >= 0 && colour < image.GetNumComponents()) {
      roles[static_cast<std::size_t>(colour)].colour = static_cast<unsigned>(n);
    }
    const KelLong itsOpacity = image.GetTransparencyChannelNum(n);
    if (itsOpacity >= 0 && itsOpacity < image.GetNumComponents() && itsOpacity != opacity) {
      roles[static_cast<std::size_t>(itsOpacity)].colour = static_cast<unsigned>(n);
    }
  }
  return roles;
}

std::optional<Palette> DescribePalette(const KelImage& image, const KelIndexFacts& facts) {
  const __tagKelPalette* found = image.PalettePresent() ? image.GetPalette() : nullptr;
  if (found == nullptr || found->numEntries == 0) return std::nullopt;
  const bool mapped = found->mapComponent != nullptr;
  const KelULong channels =
      mapped ? std::min(found->numColumns, facts.numMappings) : found->numColumns;
  Palette palette;
  std::uint64_t entryBytes = 0;
  for (KelULong i = 0; i < channels; ++i) {
    const KelULong column = mapped ? found->mapColumn[i] : i;
    if (mapped && (found->mapType[i] != kMappedThroughPalette || found->mapComponent[i] != 0)) {
      throw Error(Failure::kInput, "its palette is for some of the components only");
    }
    const std::uint8_t depth = column < found->numColumns ? found->depths[column] : kSignedColumn;
    if ((depth & kSignedColumn) != 0 || depth >= 32) {
      throw Error(Failure::kInput, "its palette has signed, too deep or missing columns");
    }
    // Entries of some columns take no bytes in the file: then there is no end to their number.
    entryBytes += (depth + 7U) / 8U * found->numEntries;
    if (entryBytes == 0 && found->numEntries > kMostFreeEntries) {
      throw Error(Failure::kInput, "its palette has too many entries");
    }
    Palette::Column& described = palette.columns.emplace_back();
    described.depth = depth + 1U;
    // With channel definitions the columns' roles are the channels'.
    const KelChannelType type = image.GetComponentType(static_cast<KelLong>(i));
    const bool opacity = type == KelChannelOpacity || type == KelChannelPremultiplied;
    described.role = opacity ? RoleOf(type) : ChannelRole::kColour;
    described.entries = ReadEntries(found->columns[column], found->numEntries, depth);
  }
  return palette;
}

Image DescribeImage(const Decoder& decoder, const KelIndexFacts& facts) {
  const KelImage& object = decoder.Object();
  const KelImageGeometry& geometry = *object.GetGeometryParams();
  Image image;
  image.width = static_cast<std::uint32_t>(geometry.Xsiz - geometry.XOsiz);
  image.height = static_cast<std::uint32_t>(geometry.Ysiz - geometry.YOsiz);
  image.colourSpace = SpaceOf(object.GetColorSpecList());
  if (const __tagICCProfile* profile = object.GetICCProfile()) {
    image.iccProfile.assign(profile->data, profile->data + profile->size);
  }
  image.palette = DescribePalette(object, facts);
  if (object.ResolutionInfoPresent()) {
    image.resolution = {decoder.Found().ResolutionX, decoder.Found().ResolutionY};
  }
  if (facts.commentLength != 0) {
    image.comment.assign(reinterpret_cast<const char*>(facts.comment), facts.commentLength);
  }
  for (KelLong i = 0; i < object.GetNumXMLBoxes(); ++i) {
    const __tagKelXML& box = object.GetXMLBoxes()[i];
    image.xml.emplace_back(reinterpret_cast<const char*>(box.data), box.length);
  }
  for (KelLong i = 0; i < object.GetNumUUIDBoxes(); ++i) {
    const __tagKelUUID& box = object.GetUUIDBoxes()[i];
    UuidPayload& payload = image.uuids.emplace_back();
    std::ranges::copy(box.uuid, payload.id.begin());
    payload.data.assign(box.data, box.data + box.length);
  }
  return image;
}

}  // namespace kel::host
