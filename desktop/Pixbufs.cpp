// Pictures as pixbufs.
#include "Pixbufs.hpp"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <string>

namespace kel::desktop {

using host::Error;
using host::Failure;
using host::Image;

std::uint64_t MemoryLimit() {
  const long pages = sysconf(_SC_PHYS_PAGES), pageBytes = sysconf(_SC_PAGESIZE);
  if (pages <= 0 || pageBytes <= 0) return std::uint64_t{1} << 30;
  return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageBytes) / 2;
}

PixbufPointer MakePixbuf(const Image& description) {
  const bool hasOpacity = OpacityPlane(description) != nullptr ||
                          (description.palette && description.palette->columns.size() == 4);
  const std::uint64_t stride =
      (std::uint64_t{description.width} * (hasOpacity ? 4 : 3) + 3) / 4 * 4;
  if (description.width > G_MAXINT || description.height > G_MAXINT || stride > G_MAXINT) {
    throw Error(Failure::kMemory, "the picture is too large to be shown whole");
  }
  // Zeroed by the system when it is touched: a header alone takes no memory.
  const host::MemoryReservation room(stride * description.height, "the pixels");
  void* pixels = g_try_malloc0_n(description.height, static_cast<gsize>(stride));
  if (pixels == nullptr) throw Error(Failure::kMemory, "there is not enough memory");
  PixbufPointer pixbuf(gdk_pixbuf_new_from_data(
      static_cast<guchar*>(pixels), GDK_COLORSPACE_RGB, hasOpacity, 8,
      static_cast<int>(description.width), static_cast<int>(description.height),
      static_cast<int>(stride), [](guchar* data, gpointer) { g_free(data); }, nullptr));
  const auto set = [&](const char* key, const std::string& value) {
    gdk_pixbuf_set_option(pixbuf.get(), key, value.c_str());
  };
  const unsigned orientation = OrientationOf(description);
  if (orientation != 1) set("orientation", std::to_string(orientation));
  if (!description.iccProfile.empty()) {
    gchar* text = g_base64_encode(description.iccProfile.data(), description.iccProfile.size());
    set("icc-profile", text);
    g_free(text);
  }
  if (description.resolution) {
    set("x-dpi", std::to_string(std::lround(description.resolution->x)));
    set("y-dpi", std::to_string(std::lround(description.resolution->y)));
  }
  if (!description.comment.empty() &&
      g_utf8_validate(description.comment.data(), static_cast<gssize>(description.comment.size()),
                      nullptr) != FALSE) {
    set("comment", description.comment);
  }
  return pixbuf;
}

void FillPixbuf(Image image, GdkPixbuf* pixbuf) {
  host::PutScreenPixels(std::move(image), gdk_pixbuf_get_has_alpha(pixbuf) != FALSE,
                        gdk_pixbuf_get_pixels(pixbuf),
                        static_cast<std::size_t>(gdk_pixbuf_get_rowstride(pixbuf)));
}

Image DecodeFor(host::RangeSource& source, std::uint32_t width, std::uint32_t height) {
  host::Picture picture(source, {0});
  unsigned reduce = 0;
  const auto isEnough = [&](unsigned halvings) {
    return picture.Width() >> halvings >= std::max(width, 1U) &&
           picture.Height() >> halvings >= std::max(height, 1U);
  };
  while (!picture.Description().palette && reduce < picture.Levels() && isEnough(reduce + 1)) {
    ++reduce;
  }
  const host::Region whole{0, 0, picture.Width(), picture.Height()};
  for (;; --reduce) {
    try {
      return picture.Decode(whole, reduce, host::ThreadCount(0));
    } catch (const Error& error) {
      // Some tile holds fewer resolutions than the header says.
      if (error.Kind() != Failure::kParameter || reduce == 0) throw;
    }
  }
}

}  // namespace kel::desktop
