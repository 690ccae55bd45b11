// What all formats of image files have in common.
#include "ImageFile.hpp"

#include <kel/host/convert.hpp>
#include <kel/host/errors.hpp>

#include <algorithm>
#include <cstring>

namespace kel::tool {
namespace {

using host::Error;
using host::Failure;
using host::Image;

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
  if (KeepsPalette(name, image) || (!image.palette && host::IsOrdinary(image))) {
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
