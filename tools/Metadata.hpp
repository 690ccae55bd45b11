// EXIF and XMP data as images carry them: EXIF in a UUID payload, XMP as XML.
#ifndef KEL_TOOLS_METADATA_HPP
#define KEL_TOOLS_METADATA_HPP

#include <kel/host/exif.hpp>
#include <kel/host/image.hpp>

#include <string>

namespace kel::tool {

/// Adds EXIF data, in the form of a TIFF file without the name that JPEG files put in front.
void AddExif(host::Image& image, host::ByteView exif);
using host::FindExif;

void AddXmp(host::Image& image, std::string text);
/// The first XML payload that is XMP; null when there is none.
const std::string* FindXmp(const host::Image& image);

}  // namespace kel::tool

#endif
