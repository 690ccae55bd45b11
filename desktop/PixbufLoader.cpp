// The gdk-pixbuf loader: pictures in every program that shows images through gdk-pixbuf.
//
// Data that arrive are decoded from time to time, ever less often in proportion to them, so that a
// picture refines in the viewer at a small part of the cost of decoding. A program that wants it
// small gets the resolution that it needs, once the data are there.
#define GDK_PIXBUF_ENABLE_BACKEND
#include <gdk-pixbuf/gdk-pixbuf-io.h>

#include <algorithm>
#include <new>
#include <optional>
#include <utility>

#include "Pixbufs.hpp"

namespace {

using namespace kel::desktop;
using namespace kel::host;

/// Bytes before the second look at the data; each later one waits for half as much again as there
/// was.
constexpr std::size_t kFirstStep = 16 * 1024;

class Loading {
 public:
  Loading(GdkPixbufModuleSizeFunc size, GdkPixbufModulePreparedFunc prepared,
          GdkPixbufModuleUpdatedFunc updated, gpointer user)
      : size_(size),
        prepared_(prepared),
        updated_(updated),
        user_(user),
        session_(MemoryLimit()),
        account_(SessionScope::Current()) {
    decoder_.emplace();
  }

  void Take(ByteView more) {
    const SessionScope scope(account_);
    if (isOver_) return;
    bytes_.insert(bytes_.end(), more.begin(), more.end());
    if (!isSmall_ && bytes_.size() - numFed_ >= nextStep_) Look();
  }

  /// Throws also for data of which nothing can be shown.
  void End() {
    const SessionScope scope(account_);
    if (isOver_) return;
    if (!isSmall_ && bytes_.size() != numFed_) Look();
    if (isOver_) return;
    if (isSmall_) {
      MemoryRanges source(bytes_);
      Image image = DecodeFor(source, wantedWidth_, wantedHeight_);
      pixbuf_ = MakePixbuf(image);
      prepared_(pixbuf_.get(), nullptr, user_);
      Show(std::move(image));
    } else if (pixbuf_ == nullptr || !hasSamples_) {
      throw Error(Failure::kIncomplete, "the data end before the first sample");
    }
  }

  /// Nothing more is made of the data.
  void GiveUp() { isOver_ = true; }

 private:
  /// Decodes what has come since the last time.
  void Look() {
    const ProgressiveDecoder::Update update =
        decoder_->Feed(ByteView(bytes_).subspan(std::exchange(numFed_, bytes_.size())));
    nextStep_ = std::max(kFirstStep, numFed_ / 2);
    if (update.headerIsNew) Begin();
    if (isSmall_ || isOver_ || pixbuf_ == nullptr) return;
    if (update.improvedTiles.empty()) return;
    hasSamples_ = true;
    Show(decoder_->GetImage());
  }

  /// The header is there: the program is told the size, and may want another one.
  void Begin() {
    const Image& image = decoder_->Description();
    if (image.width > G_MAXINT || image.height > G_MAXINT) {
      throw Error(Failure::kMemory, "the picture is too large to be shown whole");
    }
    gint width = static_cast<gint>(image.width), height = static_cast<gint>(image.height);
    if (size_ != nullptr) size_(&width, &height, user_);
    if (width <= 0 || height <= 0) {
      isOver_ = true;
      return;
    }
    wantedWidth_ = static_cast<std::uint32_t>(width);
    wantedHeight_ = static_cast<std::uint32_t>(height);
    isSmall_ = wantedWidth_ <= image.width / 2 && wantedHeight_ <= image.height / 2;
    if (isSmall_) {
      decoder_.reset();
      return;
    }
    pixbuf_ = MakePixbuf(image);
    prepared_(pixbuf_.get(), nullptr, user_);
  }

  void Show(Image image) {
    FillPixbuf(std::move(image), pixbuf_.get());
    updated_(pixbuf_.get(), 0, 0, gdk_pixbuf_get_width(pixbuf_.get()),
             gdk_pixbuf_get_height(pixbuf_.get()), user_);
  }

  GdkPixbufModuleSizeFunc size_;
  GdkPixbufModulePreparedFunc prepared_;
  GdkPixbufModuleUpdatedFunc updated_;
  gpointer user_;
  Session session_;
  Account* account_;
  std::optional<ProgressiveDecoder> decoder_;
  Bytes bytes_;
  std::size_t numFed_ = 0, nextStep_ = 1024;
  PixbufPointer pixbuf_;
  bool hasSamples_ = false, isSmall_ = false, isOver_ = false;
  std::uint32_t wantedWidth_ = 0, wantedHeight_ = 0;
};

/// Nothing may be thrown into the caller, which is C. False after a failure, told in *error.
template <class Work>
bool Try(GError** error, Work work) noexcept {
  const auto fail = [error](GdkPixbufError code, const char* text) {
    g_set_error(error, GDK_PIXBUF_ERROR, code, "Kel picture: %s", text);
    return false;
  };
  try {
    work();
    return true;
  } catch (const Error& failure) {
    return fail(failure.Kind() == Failure::kMemory ? GDK_PIXBUF_ERROR_INSUFFICIENT_MEMORY
                                                   : GDK_PIXBUF_ERROR_CORRUPT_IMAGE,
                failure.what());
  } catch (const std::bad_alloc&) {
    return fail(GDK_PIXBUF_ERROR_INSUFFICIENT_MEMORY, "there is not enough memory");
  } catch (const std::exception& failure) {
    return fail(GDK_PIXBUF_ERROR_FAILED, failure.what());
  }
}

gpointer BeginLoad(GdkPixbufModuleSizeFunc size, GdkPixbufModulePreparedFunc prepared,
                   GdkPixbufModuleUpdatedFunc updated, gpointer user, GError** error) {
  Loading* loading = nullptr;
  Try(error, [&] { loading = new Loading(size, prepared, updated, user); });
  return loading;
}

gboolean LoadIncrement(gpointer context, const guchar* bytes, guint length, GError** error) {
  auto* loading = static_cast<Loading*>(context);
  if (Try(error, [&] { loading->Take({bytes, length}); })) return TRUE;
  loading->GiveUp();
  return FALSE;
}

gboolean StopLoad(gpointer context, GError** error) {
  const std::unique_ptr<Loading> loading(static_cast<Loading*>(context));
  return Try(error, [&] { loading->End(); }) ? TRUE : FALSE;
}

/// A whole file at once, on all processors.
GdkPixbuf* Load(FILE* file, GError** error) {
  PixbufPointer pixbuf;
  Try(error, [&] {
    const Session session(MemoryLimit());
    FileSource source(file, "the file");
    DecodeParams params;
    params.acceptIncomplete = true;
    Image image = Decode(source, params);
    PixbufPointer made = MakePixbuf(image);
    FillPixbuf(std::move(image), made.get());
    pixbuf = std::move(made);
  });
  return pixbuf.release();
}

}  // namespace

extern "C" {

G_MODULE_EXPORT void fill_vtable(GdkPixbufModule* module) {
  module->load = Load;
  module->begin_load = BeginLoad;
  module->load_increment = LoadIncrement;
  module->stop_load = StopLoad;
}

G_MODULE_EXPORT void fill_info(GdkPixbufFormat* info) {
  // In a mask a space is a byte that must agree, z is zero, whatever stands in the prefix.
  static gchar boxedPrefix[] = "   \x0Cweabzolt", boxedMask[] = "zzz         ";
  static gchar streamPrefix[] = "\xABO\xABQ", streamMask[] = "    ";
  static GdkPixbufModulePattern signature[] = {
      {boxedPrefix, boxedMask, 100}, {streamPrefix, streamMask, 100}, {nullptr, nullptr, 0}};
  static gchar name[] = "kel", domain[] = "kel", description[] = "Kel wavelet picture";
  static gchar mimeType[] = "image/x-kel", extension[] = "kel", license[] = "MIT";
  static gchar* mimeTypes[] = {mimeType, nullptr};
  static gchar* extensions[] = {extension, nullptr};
  info->name = name;
  info->signature = signature;
  info->domain = domain;
  info->description = description;
  info->mime_types = mimeTypes;
  info->extensions = extensions;
  info->flags = GDK_PIXBUF_FORMAT_THREADSAFE;
  info->license = license;
}

}  // extern "C"
