// Image files as images and back: PNG, PNM, TIFF, JPEG and NPY, and WebP, GIF and PGX to be read;
// told apart by their first bytes when read and by the ending of their name when written.
//
// Formats that a library reads have a module of their own, ImageFile + its name; PNM is the host
// kit's, NPY and PGX stand in BareSamples. A reader delivers rows as they are
// asked for and throws Error (kInput); a writer takes rows of an ordinary image
// (kel::host::MakeOrdinary; PNG and TIFF take palettes too), throws Error (kOutput) for what its
// format cannot hold, and finishes the sink of bytes. Sources and sinks of bytes outlive them.
#ifndef KEL_TOOLS_IMAGE_FILE_HPP
#define KEL_TOOLS_IMAGE_FILE_HPP

#include <kel/host/row_streams.hpp>
#include <kel/host/streams.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kel::tool {

enum class ImageFormat { kPng, kPnm, kTiff, kJpeg, kWebp, kGif, kNpy, kPgx };

/// The format that a file's first bytes tell; nothing when it is none of these.
std::optional<ImageFormat> RecogniseImage(host::ByteView bytes);
/// The format that the ending of a name stands for.
std::optional<ImageFormat> FormatOfName(const std::string& name);
/// Whether a file of that name can be written as an image, and the endings of such names.
bool IsWrittenName(const std::string& name);
std::vector<std::string> WrittenEndings();
/// The endings of files that can be read.
std::vector<std::string> ReadEndings();

/// Told what is wrong with a file, or lost on the way; may throw to refuse it.
using Warn = std::function<void(const std::string&)>;

/// How samples stand in a file that does not say so itself: pixel after pixel, one, two or four
/// bytes each.
struct BareForm {
  std::uint32_t width = 0, height = 0, channels = 1, depth = 8;
  bool bigEndian = false;
};

/// How an image file is read.
struct ReadSettings {
  Warn warn = [](const std::string&) {};
  unsigned page = 0;        ///< from 1 on; 0 is the first, and a warning when there are more
  bool keepValues = false;  ///< samples of PNM files that do not use their depth are not scaled
  std::optional<BareForm> bare = {};  ///< the file is samples of this form and nothing else
};

/// Opens an image file of any of the formats. Whether its rows come without the picture being held
/// tells RowSource::HoldsPicture. Null when it has fewer pages than asked for.
std::unique_ptr<host::RowSource> OpenImage(host::BufferedSource& source,
                                           const ReadSettings& settings = {});
/// A file in the format of the name's ending, which FormatOfName must know.
std::unique_ptr<host::RowSink> MakeImageFile(const std::string& name, host::Sink& sink);
/// Whether a file of that name keeps the image's palette, which is looked up for others.
bool KeepsPalette(const std::string& name, const host::Image& description);

/// All of an image file, and all of an image, made ordinary for its format.
host::Image ReadImage(host::ByteView bytes, const ReadSettings& settings = {});
void WriteImage(const host::Image& image, const std::string& name, host::Sink& sink);

std::unique_ptr<host::RowSource> OpenPng(host::BufferedSource& source,
                                         const ReadSettings& settings);
std::unique_ptr<host::RowSink> MakePng(host::Sink& sink);
std::unique_ptr<host::RowSource> OpenTiff(host::BufferedSource& source,
                                          const ReadSettings& settings);
std::unique_ptr<host::RowSink> MakeTiff(host::Sink& sink);
std::unique_ptr<host::RowSource> OpenJpeg(host::BufferedSource& source,
                                          const ReadSettings& settings);
std::unique_ptr<host::RowSink> MakeJpeg(host::Sink& sink);
std::unique_ptr<host::RowSource> OpenWebp(host::BufferedSource& source,
                                          const ReadSettings& settings);
std::unique_ptr<host::RowSource> OpenGif(host::BufferedSource& source,
                                         const ReadSettings& settings);
std::unique_ptr<host::RowSource> OpenNpy(host::BufferedSource& source,
                                         const ReadSettings& settings);
std::unique_ptr<host::RowSink> MakeNpy(host::Sink& sink);
std::unique_ptr<host::RowSource> OpenPgx(host::BufferedSource& source,
                                         const ReadSettings& settings);

/// The warning about an animation when no page was named.
inline constexpr const char* kOnlyFirstOfAnimation =
    "only the first picture of an animation is taken; --page takes others";

/// What a library said while it read a file, until it can be passed on: the libraries jump over
/// code that could throw.
class Complaints {
 public:
  void Note(const char* text) noexcept;
  /// Passes on what has not been before.
  void Tell(const Warn& warn);

 private:
  static constexpr std::size_t kMost = 8, kMostLength = 200;
  char texts_[kMost][kMostLength] = {};
  std::size_t count_ = 0, numTold_ = 0;
};

/// What a format can hold beside grey and RGB of one size and depth.
struct FormatLimits {
  const char* format;  ///< completes "FORMAT files hold ..."
  unsigned mostDepth;
  bool opacity = false, premultiplied = false, otherChannels = false;
};
/// Throws Error (kOutput) when an image is beyond the limits.
void CheckFits(const host::Image& image, const FormatLimits& limits);

}  // namespace kel::tool

#endif
