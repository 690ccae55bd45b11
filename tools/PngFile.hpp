// What reading and writing of PNG files share: failures and complaints of libpng, profiles in their
// chunks, bytes as digits in a text.
//
// libpng reports failures by longjmp. So every call into it that can fail stands in a function that
// holds nothing with a destructor; what such functions need is in a record that outlives them, and
// memory is obtained between them.
#ifndef KEL_TOOLS_PNGFILE_HPP
#define KEL_TOOLS_PNGFILE_HPP

#include <png.h>
#include <kel/host/rows.hpp>

#include <exception>
#include <string>
#include <string_view>

#include "ImageFile.hpp"
#include "Metadata.hpp"

namespace kel::tool {

constexpr double kInchesPerMetre = 39.37007874015748;  // 1 / 0.0254
constexpr const char* kXmpKeyword = "XML:com.adobe.xmp";
constexpr const char* kCommentKeyword = "Comment";
constexpr std::string_view kHexKeyword = "Raw profile type ";
constexpr png_uint_32 kMostSide = 0x7FFFFFFF;       // of the format
constexpr std::size_t kPngPieceBytes = 256 * 1024;  // of compressed data at once

struct PngFailures {
  char message[200] = {};
  std::exception_ptr thrown;  ///< by a source or sink, behind which libpng stands
  Complaints complaints;
};

/// What libpng calls: OnPngError notes the message and jumps back, OnPngWarning notes it.
[[noreturn]] void OnPngError(png_structp png, png_const_charp message);
void OnPngWarning(png_structp png, png_const_charp message);

/// A profile out of its chunk: a name that ends with a zero byte, a zero byte, compressed data.
host::Bytes ReadProfileChunk(host::ByteView chunk, const Warn& warn);
/// The chunk's data; none for no profile.
host::Bytes MakeProfileChunk(host::ByteView profile);

/// A later picture of an animation, as it is seen; null when there are fewer.
std::unique_ptr<host::RowSource> OpenPngPage(host::BufferedSource& source,
                                             const ReadSettings& settings);

/// Bytes out of text that some programs write: a line feed, a name, a length, and digits.
host::Bytes FromHex(std::string_view text);
std::string ToHex(std::string_view name, host::ByteView bytes);

}  // namespace kel::tool

#endif
