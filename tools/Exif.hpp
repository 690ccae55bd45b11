// EXIF data: directories of fields in the form of a TIFF file, read from anywhere, laid out anew,
// changed in place, and told to people.
#ifndef KEL_TOOLS_EXIF_HPP
#define KEL_TOOLS_EXIF_HPP

#include <kel/host/streams.hpp>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kel::tool {

/// Types of fields have the numbers of TIFF.
struct ExifField {
  std::uint16_t tag = 0, type = 0;
  std::uint64_t count = 0;
  host::Bytes data;            ///< in the byte order of the tree
  std::uint64_t position = 0;  ///< where they stood; 0 when inside the directory
};

struct ExifTree {
  bool bigEndian = false;
  /// Of the picture, how it was taken, where, and how the second is to be understood.
  std::vector<ExifField> image, photo, gps, interop;
  host::Bytes iptc, blocks;  ///< of a picture: IPTC data, and the blocks that can hold them
  /// Fields that were too large to be taken along.
  std::vector<std::uint16_t> leftOut;
  bool Has(std::uint16_t tag) const;  ///< in the picture's directory
  bool IsEmpty() const { return image.empty() && photo.empty() && gps.empty(); }
  /// Nothing but that the picture is seen as it is stored.
  bool SaysNothing() const;
};

/// Fills as much as there is, from a position of the file on.
using ReadBytes = std::function<std::size_t(std::uint64_t, std::span<std::uint8_t>)>;

/// The tree of a TIFF or BigTIFF file, be it EXIF data or a picture, without the fields that say
/// how samples are stored or that stand elsewhere in an image (profile, XMP, IPTC, resolution).
/// directory: where that of the picture stands; 0 for the first. What is damaged is left out.
ExifTree ReadExif(const ReadBytes& read, std::uint64_t directory = 0);
ExifTree ReadExif(host::ByteView exif);

/// EXIF data.
host::Bytes WriteExif(const ExifTree& tree);

/// The directories below the picture's as they stand in a TIFF file from a position on. A maker
/// note keeps its place where it can, since many hold positions that count from the file's start.
struct ExifPart {
  host::Bytes bytes;
  std::uint64_t photo = 0, gps = 0;  ///< where they stand; 0 for none
};
ExifPart WriteExifPart(const ExifTree& tree, std::uint64_t start, bool isBigTiff);

/// The values of a field as numbers of the machine, each of so many bytes.
host::Bytes NativeValues(const ExifField& field, bool bigEndian, unsigned valueBytes);
/// Bytes of one value of a type; 0 for a type that is none.
unsigned ExifValueBytes(std::uint16_t type);

/// Changes the orientation, 1 to 8; adds it where there is none. Empty data become data.
void SetExifOrientation(host::Bytes& exif, unsigned orientation);
/// Wipes out where the picture was taken.
void RemoveExifGps(host::Bytes& exif);

/// A field's name and its value, for people.
struct ExifLine {
  std::string group, name, value;
};
std::vector<ExifLine> ListExif(host::ByteView exif);

}  // namespace kel::tool

#endif
