// Images as pixels of 8 bits.
#include "kel/host/screen.hpp"

#include <algorithm>

#include "kel/host/convert.hpp"
#include "kel/host/errors.hpp"

namespace kel::host {
namespace {

/// A colour as it was before it was multiplied by its opacity.
std::uint8_t Divided(unsigned colour, unsigned opacity) {
  if (opacity == 0) return 0;
  return static_cast<std::uint8_t>(std::min(255U, (colour * 255 + opacity / 2) / opacity));
}

bool IsOpacity(ChannelRole role) {
  return role == ChannelRole::kOpacity || role == ChannelRole::kPremultipliedOpacity;
}

/// Leaves three colours and the opacity: a file may announce channels by the thousand, each of
/// which would become as large as the picture.
void DropHidden(Image& image, bool withOpacity) {
  unsigned numColours = 0, numOpacities = withOpacity ? 0 : 1;
  const auto isHidden = [&](ChannelRole role, unsigned colour) {
    if (role == ChannelRole::kColour) return ++numColours > 3;
    return !IsOpacity(role) || colour != 0 || ++numOpacities > 1;
  };
  if (image.palette) {
    std::erase_if(image.palette->columns,
                  [&](const Palette::Column& column) { return isHidden(column.role, 0); });
    return;
  }
  OrderPlanes(image);
  std::erase_if(image.planes,
                [&](const Plane& plane) { return isHidden(plane.role, plane.colour); });
}

}  // namespace

void PutScreenPixels(Image image, bool withOpacity, std::uint8_t* to, std::size_t strideBytes) {
  DropHidden(image, withOpacity);
  MakeOrdinary(image);
  const unsigned numColours = NumColours(image);
  if (numColours == 0) throw Error(Failure::kInput, "the image has no colours");
  ChangeDepth(image, 8);
  const Plane* opacity = withOpacity ? OpacityPlane(image) : nullptr;
  const bool isDivided = opacity != nullptr && opacity->role == ChannelRole::kPremultipliedOpacity;
  const std::size_t pixelBytes = withOpacity ? 4 : 3;
  for (std::uint32_t y = 0; y < image.height; ++y, to += strideBytes) {
    const std::uint8_t* rows[4] = {};
    for (unsigned c = 0; c < 3; ++c) {
      rows[c] = image.planes[numColours < 3 ? 0 : c].Row<std::uint8_t>(y);
    }
    if (opacity != nullptr) rows[3] = opacity->Row<std::uint8_t>(y);
    std::uint8_t* pixel = to;
    for (std::uint32_t x = 0; x < image.width; ++x, pixel += pixelBytes) {
      for (unsigned c = 0; c < 3; ++c) {
        pixel[c] = isDivided ? Divided(rows[c][x], rows[3][x]) : rows[c][x];
      }
      if (withOpacity) pixel[3] = opacity != nullptr ? rows[3][x] : std::uint8_t{255};
    }
  }
}

}  // namespace kel::host
