// kel-thumbnailer: a small PNG of a Kel file, for file managers. Of a picture of several
// resolutions it reads the bytes of those that the thumbnail needs.
//
//   kel-thumbnailer [-s SIZE] FILE THUMBNAIL
#include <glib/gprintf.h>

#include <algorithm>
#include <cstdlib>

#include "Pixbufs.hpp"

namespace {

using namespace kel::desktop;
using namespace kel::host;

constexpr gint kLargestSize = 4096;

/// A file that counts what is read of it.
class CountedFile : public RangeSource {
 public:
  explicit CountedFile(const std::string& path) : file_(path) {}
  std::uint64_t Size() const override { return file_.Size(); }
  void Fetch(std::uint64_t from, std::span<std::uint8_t> to) override {
    file_.Fetch(from, to);
    read_ += to.size();
  }
  std::uint64_t Read() const { return read_; }

 private:
  FileRanges file_;
  std::uint64_t read_ = 0;
};

/// Sides that fit into a square; a picture that fits already stays as it is.
std::pair<int, int> Fitted(std::uint32_t width, std::uint32_t height, int side) {
  const double scale = std::min(1.0, double(side) / std::max(width, height));
  const auto scaled = [&](std::uint32_t v) {
    return std::max(1, static_cast<int>(v * scale + 0.5));
  };
  return {scaled(width), scaled(height)};
}

void MakeThumbnail(const char* from, const char* to, int side, bool isVerbose) {
  const Session session(MemoryLimit());
  CountedFile file(from);
  std::uint32_t width = 0, height = 0;
  {
    const Picture picture(file, {0});
    width = picture.Width();
    height = picture.Height();
  }
  const auto [columns, rows] = Fitted(width, height, side);
  Image image =
      DecodeFor(file, static_cast<std::uint32_t>(columns), static_cast<std::uint32_t>(rows));
  const PixbufPointer decoded = MakePixbuf(image);
  FillPixbuf(std::move(image), decoded.get());
  const PixbufPointer scaled(
      gdk_pixbuf_scale_simple(decoded.get(), columns, rows, GDK_INTERP_BILINEAR));
  if (scaled == nullptr) throw Error(Failure::kMemory, "there is not enough memory");
  gdk_pixbuf_copy_options(decoded.get(), scaled.get());
  const PixbufPointer upright(gdk_pixbuf_apply_embedded_orientation(scaled.get()));
  GError* error = nullptr;
  if (upright == nullptr || gdk_pixbuf_save(upright.get(), to, "png", &error, nullptr) == FALSE) {
    const std::string text = error != nullptr ? error->message : "cannot be written";
    g_clear_error(&error);
    throw Error(Failure::kOutput, to, text);
  }
  if (isVerbose) {
    g_print("%d x %d from %" G_GUINT64_FORMAT " of %" G_GUINT64_FORMAT " bytes\n", columns, rows,
            file.Read(), file.Size());
  }
}

}  // namespace

int main(int argc, char** argv) {
  gint side = 128;
  gboolean isVerbose = FALSE;
  gchar** files = nullptr;
  const GOptionEntry entries[] = {
      {"size", 's', 0, G_OPTION_ARG_INT, &side, "longer side in pixels; 128", "SIZE"},
      {"verbose", 'v', 0, G_OPTION_ARG_NONE, &isVerbose, "tell how much was read", nullptr},
      {G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &files, nullptr, "FILE THUMBNAIL"},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr}};
  GOptionContext* context = g_option_context_new(nullptr);
  g_option_context_add_main_entries(context, entries, nullptr);
  const bool isParsed = g_option_context_parse(context, &argc, &argv, nullptr) != FALSE;
  g_option_context_free(context);
  int result = EXIT_FAILURE;
  if (!isParsed || files == nullptr || g_strv_length(files) != 2 || side < 1 ||
      side > kLargestSize) {
    g_printerr("usage: kel-thumbnailer [-s SIZE] FILE THUMBNAIL\n");
  } else {
    try {
      MakeThumbnail(files[0], files[1], side, isVerbose != FALSE);
      result = EXIT_SUCCESS;
    } catch (const std::exception& failure) {
      g_printerr("kel-thumbnailer: %s\n", failure.what());
    }
  }
  g_strfreev(files);
  return result;
}
