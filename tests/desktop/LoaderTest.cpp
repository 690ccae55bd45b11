// The gdk-pixbuf loader as programs meet it: found by the picture's first bytes, fed in pieces.
//
// Run by check_desktop.sh, which makes gdk-pixbuf see the loader that has been built.
#include <gdk-pixbuf/gdk-pixbuf.h>

#include "DesktopPlaces.h"
#include "TestImages.hpp"

namespace {

using namespace kel::host;
using test::NoiseImage;

Bytes Encoded(const Image& image, bool lossless = true, std::uint32_t tileSide = 0) {
  EncodeParams params;
  params.lossless = lossless;
  params.tileWidth = params.tileHeight = tileSide;
  MemorySink sink;
  Encode(image, params, sink);
  return sink.bytes;
}

/// Of larger pictures a program wants nothing.
constexpr std::int64_t kMostPixels = 4'000'000;

/// What a program sees of a load.
struct Load {
  explicit Load(ByteView bytes, std::size_t piece = 4096, int wantedSide = 0) : side(wantedSide) {
    GdkPixbufLoader* loader = gdk_pixbuf_loader_new();
    g_signal_connect(loader, "size-prepared",
                     G_CALLBACK(+[](GdkPixbufLoader* it, gint width, gint height, Load* self) {
                       self->isTooLarge = std::int64_t{width} * height > kMostPixels;
                       if (self->isTooLarge) {
                         gdk_pixbuf_loader_set_size(it, 0, 0);
                       } else if (self->side > 0) {
                         gdk_pixbuf_loader_set_size(it, self->side, self->side);
                       }
                     }),
                     this);
    g_signal_connect(
        loader, "area-updated",
        G_CALLBACK(+[](GdkPixbufLoader*, gint, gint, gint, gint, Load* self) { ++self->updates; }),
        this);
    GError* error = nullptr;
    bool isFine = true;
    for (std::size_t at = 0; isFine && at < bytes.size(); at += piece) {
      const ByteView part = bytes.subspan(at, std::min(piece, bytes.size() - at));
      isFine = gdk_pixbuf_loader_write(loader, part.data(), part.size(), &error) != FALSE;
    }
    isWhole = gdk_pixbuf_loader_close(loader, isFine ? &error : nullptr) != FALSE && isFine;
    if (error != nullptr) sentence = error->message;
    g_clear_error(&error);
    pixbuf = gdk_pixbuf_loader_get_pixbuf(loader);
    if (pixbuf != nullptr) g_object_ref(pixbuf);
    g_object_unref(loader);
  }
  ~Load() { g_clear_object(&pixbuf); }
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  const char* Option(const char* key) const { return gdk_pixbuf_get_option(pixbuf, key); }
  /// How many samples differ from an image of as many channels, 8 bits deep.
  std::size_t NumDifferent(const Image& image) const {
    const int channels = gdk_pixbuf_get_n_channels(pixbuf);
    const int stride = gdk_pixbuf_get_rowstride(pixbuf);
    const guchar* pixels = gdk_pixbuf_read_pixels(pixbuf);
    std::size_t count = 0;
    for (std::uint32_t y = 0; y < image.height; ++y) {
      for (std::uint32_t x = 0; x < image.width; ++x) {
        for (int c = 0; c < channels; ++c) {
          const auto& plane = image.planes.at(static_cast<std::size_t>(c));
          count +=
              pixels[y * static_cast<std::size_t>(stride) + x * static_cast<std::size_t>(channels) +
                     static_cast<std::size_t>(c)] != plane.At(x, y);
        }
      }
    }
    return count;
  }

  int side;
  int updates = 0;
  bool isWhole = false, isTooLarge = false;
  std::string sentence;
  GdkPixbuf* pixbuf = nullptr;
};

TEST(PixbufLoader, RefinesWhileDataArrive) {
  const Session session;
  const Image image = NoiseImage(300, 200, 3, 8, true);
  const Load load(Encoded(image, true, 100), 1000);
  ASSERT_TRUE(load.isWhole) << load.sentence;
  EXPECT_EQ(load.NumDifferent(image), 0U);
  EXPECT_GE(load.updates, 4);
  EXPECT_LE(load.updates, 30) << "decoding at every piece costs too much";
}

TEST(PixbufLoader, SmallPicturesComeFromTheirResolution) {
  const Session session;
  const Image image = NoiseImage(512, 512, 3, 8);
  const Bytes file = Encoded(image);
  const Load load(file, 4096, 128);
  ASSERT_TRUE(load.isWhole) << load.sentence;
  ASSERT_EQ(gdk_pixbuf_get_width(load.pixbuf), 128);
  MemoryRanges source(file);
  Picture picture(source);
  EXPECT_EQ(load.NumDifferent(picture.Decode({0, 0, 512, 512}, 2)), 0U);
}

TEST(PixbufLoader, SaysWhatThePictureSays) {
  const Session session;
  Image image = NoiseImage(40, 30, 3, 8);
  image.iccProfile = test::MakeProfile("RGB ");
  image.resolution = Resolution{300, 150};
  // One entry, big endian: orientation, a short, 6.
  image.uuids.push_back({kExifId, {'M', 'M', 0, 42, 0, 0, 0, 8, 0, 1, 1, 0x12, 0,
                                   3,   0,   0, 0,  1, 0, 6, 0, 0, 0, 0, 0,    0}});
  const Load load(Encoded(image));
  ASSERT_TRUE(load.isWhole) << load.sentence;
  EXPECT_STREQ(load.Option("orientation"), "6");
  EXPECT_STREQ(load.Option("x-dpi"), "300");
  EXPECT_STREQ(load.Option("y-dpi"), "150");
  gchar* profile = g_base64_encode(image.iccProfile.data(), image.iccProfile.size());
  EXPECT_STREQ(load.Option("icc-profile"), profile);
  g_free(profile);
  for (std::size_t length = 0; length < image.uuids[0].data.size(); ++length) {
    Image cut = NoiseImage(1, 1, 1, 8);
    cut.uuids.push_back(
        {kExifId, Bytes(image.uuids[0].data.begin(),
                        image.uuids[0].data.begin() + static_cast<std::ptrdiff_t>(length))});
    EXPECT_EQ(OrientationOf(cut), length >= 20 ? 6U : 1U) << length;
  }
}

TEST(PixbufLoader, ShowsWhatHasArrivedAndSaysWhatIsWrong) {
  const Session session;
  const Bytes file = Encoded(NoiseImage(200, 200, 1, 16), true, 50);
  const ByteView all(file);
  for (std::size_t length = 1; length < all.size(); length += 997) {
    const Load load(all.first(length), 64);
    EXPECT_TRUE(load.isWhole || !load.sentence.empty()) << length;
    EXPECT_TRUE(length < all.size() / 2 || (load.isWhole && load.updates > 0)) << length;
  }
}

TEST(PixbufLoader, HostileAndTruncatedFilesDoNoHarm) {
  for (const auto& entry : std::filesystem::directory_iterator(KEL_HOSTILE)) {
    if (entry.path().extension() != ".kel") continue;
    const Session session;
    FileSource source(entry.path().string());
    Bytes storage;
    const ByteView bytes = ReadAll(source, storage);
    const ByteView cut = bytes.first(bytes.size() * 2 / 3);
    for (const Load& load : {Load(bytes, 509), Load(bytes, 65536, 16), Load(cut, 4096)}) {
      EXPECT_TRUE(load.isTooLarge ||
                  (load.isWhole ? load.pixbuf != nullptr : !load.sentence.empty()))
          << entry.path();
    }
  }
}

}  // namespace
