// Recognising image files, and what all of their formats have in common.
#include "ImageFile.hpp"

#include <kel/host/convert.hpp>
#include <kel/host/errors.hpp>
#include <kel/host/pnm.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <string_view>
#include <utility>

namespace kel::tool {
namespace {

using host::Error;
using host::Failure;
using host::Image;
using host::PnmKind;

constexpr std::array<std::pair<std::string_view, ImageFormat>, 10> kEndings = {{
    {".png", ImageFormat::kPng},
    {".ppm", ImageFormat::kPnm},
    {".pgm", ImageFormat::kPnm},
    {".pbm", ImageFormat::kPnm},
    {".pnm", ImageFormat::kPnm},
    {".pam", ImageFormat::kPnm},
    {".tif", ImageFormat::kTiff},
    {".tiff", ImageFormat::kTiff},
    {".jpg", ImageFormat::kJpeg},
    {".jpeg", ImageFormat::kJpeg},
}};

constexpr std::size_t kMagicBytes = 16;

std::string EndingOf(const std::string& name) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string::npos) return {};
  std::string ending = name.substr(dot);
  std::ranges::transform(ending, ending.begin(), [](unsigned char c) { return std::tolower(c); });
  return ending;
}

bool BeginsWith(host::ByteView bytes, std::string_view text) {
  return bytes.size() >= text.size() &&
         std::equal(text.begin(), text.end(), bytes.begin(),
                    [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; });
}

bool HasSmallPalette(const Image& image) {
  if (!image.palette || image.planes.size() != 1) return false;
  const host::Plane& indices = image.planes[0];
  return indices.Width() == image.width && indices.Height() == image.height &&
         indices.Depth() <= 8 && image.palette->columns.size() == 3 &&
         !image.palette->columns[0].entries.empty() &&
         std::ranges::all_of(image.palette->columns, [](const auto& column) {
           return column.role == host::ChannelRole::kColour;
         });
}

/// Rows that tell, behind the last one, when other pictures follow.
class FirstPage final : public host::RowSource {
 public:
  FirstPage(std::unique_ptr<host::RowSource> rows, Warn warn)
      : rows_(std::move(rows)), warn_(std::move(warn)) {
    host::CopyDescription(rows_->Description(), description_);
    left_ = description_.height;
  }
  void Read(std::uint32_t count, std::uint8_t* to, std::size_t strideBytes) override {
    rows_->Read(count, to, strideBytes);
    left_ -= count;
    if (left_ == 0 && rows_->HasMore()) {
      warn_("only the first of several pictures is taken; --page takes others");
    }
  }

 private:
  std::unique_ptr<host::RowSource> rows_;
  Warn warn_;
  std::uint32_t left_ = 0;
};

std::unique_ptr<host::RowSource> OpenPnm(host::BufferedSource& source,
                                         const ReadSettings& settings) {
  auto rows = host::OpenPnm(
      source, {.page = std::max(settings.page, 1U), .keepValues = settings.keepValues});
  if (rows == nullptr || settings.page != 0) return rows;
  return std::make_unique<FirstPage>(std::move(rows), settings.warn);
}

}  // namespace

void Complaints::Note(const char* text) noexcept {
  for (std::size_t i = 0; i < count_; ++i) {
    if (std::strncmp(texts_[i], text, kMostLength - 1) == 0) return;
  }
  if (count_ < kMost) std::strncpy(texts_[count_++], text, kMostLength - 1);
}

void Complaints::Tell(const Warn& warn) {
  while (numTold_ < count_) warn(texts_[numTold_++]);
}

std::optional<ImageFormat> RecogniseImage(host::ByteView bytes) {
  using namespace std::string_view_literals;
  if (BeginsWith(bytes, "\x89PNG\r\n\x1A\n"sv)) return ImageFormat::kPng;
  if (BeginsWith(bytes, "\xFF\xD8\xFF"sv)) return ImageFormat::kJpeg;
  if (BeginsWith(bytes, "II*\0"sv) || BeginsWith(bytes, "MM\0*"sv)) return ImageFormat::kTiff;
  if (BeginsWith(bytes, "II+\0"sv) || BeginsWith(bytes, "MM\0+"sv)) return ImageFormat::kTiff;
  const bool magic = bytes.size() > 2 && bytes[0] == 'P' && bytes[1] >= '1' && bytes[1] <= '7';
  if (magic && (std::isspace(bytes[2]) != 0 || bytes[2] == '#')) return ImageFormat::kPnm;
  return std::nullopt;
}

std::optional<ImageFormat> FormatOfName(const std::string& name) {
  const std::string ending = EndingOf(name);
  const auto found =
      std::ranges::find(kEndings, ending, [](const auto& entry) { return entry.first; });
  return found == kEndings.end() ? std::nullopt : std::optional(found->second);
}

std::unique_ptr<host::RowSource> OpenImage(host::BufferedSource& source,
                                           const ReadSettings& settings) {
  const host::ByteView first = source.Peek(kMagicBytes);
  if (first.empty()) throw Error(Failure::kInput, "the file is empty");
  const std::optional<ImageFormat> format = RecogniseImage(first);
  if (!format) throw Error(Failure::kInput, "not a PNG, PNM, TIFF or JPEG image");
  switch (*format) {
    case ImageFormat::kPng:
      return OpenPng(source, settings);
    case ImageFormat::kTiff:
      return OpenTiff(source, settings);
    case ImageFormat::kJpeg:
      return OpenJpeg(source, settings);
    default:
      return OpenPnm(source, settings);
  }
}

std::unique_ptr<host::RowSink> MakeImageFile(const std::string& name, host::Sink& sink) {
  switch (FormatOfName(name).value()) {
    case ImageFormat::kPng:
      return MakePng(sink);
    case ImageFormat::kTiff:
      return MakeTiff(sink);
    case ImageFormat::kJpeg:
      return MakeJpeg(sink);
    default:
      break;
  }
  const std::string ending = EndingOf(name);
  return host::MakePnm(sink, ending == ".pbm"   ? PnmKind::kPbm
                             : ending == ".pam" ? PnmKind::kPam
                                                : PnmKind::kPlainest);
}

bool KeepsPalette(const std::string& name, const Image& description) {
  const ImageFormat format = FormatOfName(name).value();
  const bool has = format == ImageFormat::kPng || format == ImageFormat::kTiff;
  return has && HasSmallPalette(description);
}

Image ReadImage(host::ByteView bytes, const ReadSettings& settings) {
  host::MemorySource memory(bytes);
  host::BufferedSource source(memory);
  const auto rows = OpenImage(source, settings);
  if (rows == nullptr) throw Error(Failure::kInput, "the file has fewer pictures");
  return host::ReadImage(*rows);
}

void WriteImage(const Image& image, const std::string& name, host::Sink& sink) {
  const auto write = [&](const Image& ordinary) {
    const auto file = MakeImageFile(name, sink);
    if (!host::HasPlainRows(ordinary)) file->Begin(ordinary);  // which says what is not held
    host::ImageRowSource rows(ordinary);
    host::CopyRows(rows, *file);
  };
  if (KeepsPalette(name, image)) {
    write(image);
    return;
  }
  const bool isTiff = FormatOfName(name) == ImageFormat::kTiff;
  if (image.palette && image.palette->columns.size() > 4 && !isTiff) {
    throw Error(Failure::kOutput, "a palette of " + std::to_string(image.palette->columns.size()) +
                                      " channels; only TIFF files hold more than four");
  }
  Image ordinary = image;
  host::MakeOrdinary(ordinary);
  write(ordinary);
}

void CheckFits(const Image& image, const FormatLimits& limits) {
  const auto refuse = [&](const std::string& what) {
    throw Error(Failure::kOutput, std::string(limits.format) + " files " + what);
  };
  const unsigned colours = image.palette ? 1 : host::NumColours(image);
  if (colours != 1 && colours != 3) {
    refuse("hold grey or RGB images, not " + std::to_string(colours) + " colours");
  }
  const host::Plane* opacity = image.palette ? nullptr : host::OpacityPlane(image);
  if (opacity != nullptr && !limits.opacity) refuse("cannot hold opacity (an alpha channel)");
  if (opacity != nullptr && !limits.premultiplied &&
      opacity->role == host::ChannelRole::kPremultipliedOpacity) {
    refuse("hold plain opacity, not premultiplied; TIFF files hold both");
  }
  const bool others = image.planes.size() != colours + (opacity != nullptr ? 1U : 0U);
  if (others && (!limits.otherChannels || image.palette)) {
    refuse("cannot hold channels beside colours and opacity; --raw-planes writes any");
  }
  const unsigned depth = image.planes[0].Depth();
  if (depth > limits.mostDepth) {
    const std::string most = std::to_string(limits.mostDepth);
    refuse("hold " + most + " bits per sample, not " + std::to_string(depth) + "; add --bits " +
           most);
  }
  for (const host::Plane& plane : image.planes) {
    if (plane.Width() != image.width || plane.Height() != image.height || plane.Depth() != depth) {
      refuse("hold channels of one size and depth; --bits makes the depth the same");
    }
  }
}

}  // namespace kel::tool
