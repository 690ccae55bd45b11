// Image files as images and back: PNG, PNM, TIFF and JPEG, told apart by their first bytes when
// read and by the ending of their name when written.
//
// Every format has a module of its own, ImageFile + its name. A reader takes a whole file in
// memory and throws Error (kInput); a writer takes an ordinary image (kel::host::MakeOrdinary;
// PNG and TIFF take palettes too) and throws Error (kOutput) for what its format cannot hold.
#ifndef KEL_TOOLS_IMAGE_FILE_HPP
#define KEL_TOOLS_IMAGE_FILE_HPP

#include <kel/host/image.hpp>

#include <optional>
#include <string>

namespace kel::tool {

enum class ImageFormat { kPng, kPnm, kTiff, kJpeg };

/// The format that a file's first bytes tell; nothing when it is none of these.
std::optional<ImageFormat> RecogniseImage(host::ByteView bytes);
/// The format that the ending of a name stands for.
std::optional<ImageFormat> FormatOfName(const std::string& name);

/// Reads an image file of any of the formats.
host::Image ReadImage(host::ByteView bytes);
/// Writes an image in the format of the name's ending, which FormatOfName must know, and finishes
/// the sink.
void WriteImage(const host::Image& image, const std::string& name, host::Sink& sink);

host::Image ReadPng(host::ByteView bytes);
void WritePng(const host::Image& image, host::Sink& sink);
host::Image ReadTiff(host::ByteView bytes);
void WriteTiff(const host::Image& image, host::Sink& sink);
host::Image ReadJpeg(host::ByteView bytes);
void WriteJpeg(const host::Image& image, host::Sink& sink);

/// What a format can hold beside grey and RGB of one size and depth.
struct FormatLimits {
  const char* format;  ///< completes "FORMAT files hold ..."
  unsigned mostDepth;
  bool opacity, premultiplied, otherChannels;
};
/// Throws Error (kOutput) when an image is beyond the limits.
void CheckFits(const host::Image& image, const FormatLimits& limits);

}  // namespace kel::tool

#endif
