// What stands beside the samples, as images carry it: EXIF, IPTC and texts in UUID payloads, XMP as
// XML. Changing it, and telling what of it a format of image files cannot hold.
#ifndef KEL_TOOLS_METADATA_HPP
#define KEL_TOOLS_METADATA_HPP

#include <kel/host/exif.hpp>
#include <kel/host/image.hpp>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ImageFile.hpp"

namespace kel::tool {

/// Adds EXIF data, in the form of a TIFF file without the name that JPEG files put in front.
void AddExif(host::Image& image, host::ByteView exif);
/// The same in place of those that are there; empty data take them away.
void SetExif(host::Image& image, host::ByteView exif);
using host::FindExif;

void AddXmp(host::Image& image, std::string text);
void SetXmp(host::Image& image, std::string text);
/// The first XML payload that is XMP; null when there is none.
const std::string* FindXmp(const host::Image& image);
/// One text out of a packet and the rest of it, which JPEG files hold apart.
std::string JoinXmp(std::string packet, std::string_view extension);
/// A packet that says no more than which extension, by its digest, holds everything.
std::string MakeXmpPointer(std::string_view digest);

/// IPTC data, as records of their own.
void AddIptc(host::Image& image, host::ByteView iptc);
host::ByteView FindIptc(const host::Image& image);
/// The IPTC data among the blocks that Photoshop writes, and such a block of them.
host::ByteView IptcInBlocks(host::ByteView blocks);
host::Bytes MakeIptcBlock(host::ByteView iptc);

/// Keywords and texts in UTF-8, as PNG files have them beside a comment.
using Texts = std::vector<std::pair<std::string, std::string>>;
void SetTexts(host::Image& image, const Texts& texts);
Texts FindTexts(const host::Image& image);

/// How the picture is to be turned when it is shown, 1 to 8; kept in the EXIF data.
using host::OrientationOf;
void SetOrientation(host::Image& image, unsigned orientation);
/// Turns the picture as it is to be shown, after which it needs no more turning.
void MakeUpright(host::Image& image);

enum class Strip { kNothing, kGps, kAll };
/// Takes metadata away: where the picture was taken, or all but what its look needs (profile,
/// orientation, resolution).
void StripMetadata(host::Image& image, Strip what);

/// What a file of that format will lack of the image's metadata, as a sentence; empty when nothing.
std::string LossesIn(const host::Image& image, ImageFormat format);

}  // namespace kel::tool

#endif
