// Where EXIF and XMP stand in an image.
#include "Metadata.hpp"

#include <algorithm>

namespace kel::tool {
namespace {

/// The identifier that says "EXIF data as a TIFF file": the characters JpgTiffExif->JP2.
constexpr std::array<std::uint8_t, 16> kExifId = {'J', 'p', 'g', 'T', 'i', 'f', 'f', 'E',
                                                  'x', 'i', 'f', '-', '>', 'J', 'P', '2'};

}  // namespace

void AddExif(host::Image& image, host::ByteView exif) {
  if (exif.empty()) return;
  image.uuids.push_back({kExifId, host::Bytes(exif.begin(), exif.end())});
}

host::ByteView FindExif(const host::Image& image) {
  const auto found = std::ranges::find(image.uuids, kExifId, &host::UuidPayload::id);
  return found == image.uuids.end() ? host::ByteView() : host::ByteView(found->data);
}

void AddXmp(host::Image& image, std::string text) {
  if (!text.empty()) image.xml.push_back(std::move(text));
}

const std::string* FindXmp(const host::Image& image) {
  const auto isXmp = [](const std::string& text) {
    return text.find("<x:xmpmeta") != std::string::npos ||
           text.find("<rdf:RDF") != std::string::npos;
  };
  const auto found = std::ranges::find_if(image.xml, isXmp);
  return found == image.xml.end() ? nullptr : &*found;
}

}  // namespace kel::tool
