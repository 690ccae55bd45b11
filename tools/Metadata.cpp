// Where EXIF and XMP stand in an image.
#include "Metadata.hpp"

#include <kel/host/exif.hpp>

#include <algorithm>

namespace kel::tool {

void AddExif(host::Image& image, host::ByteView exif) {
  if (exif.empty()) return;
  image.uuids.push_back({host::kExifId, host::Bytes(exif.begin(), exif.end())});
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
