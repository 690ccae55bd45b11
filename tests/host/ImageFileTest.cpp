// Image files of every format: what goes in comes out, and what cannot be held is refused.
#include "ImageFile.hpp"

#include <png.h>
#include <tiffio.h>
#include <kel/host.hpp>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string_view>

#include <jpeglib.h>

#include "Metadata.hpp"
#include "TestImages.hpp"

namespace {

using namespace kel::host;
using namespace kel::tool;
using test::ErrorOf;
using test::ExpectSamePlanes;
using test::MakeProfile;
using test::NoiseImage;

Bytes Written(const Image& image, const std::string& name) {
  MemorySink sink;
  WriteImage(image, name, sink);
  return sink.bytes;
}

Image Trip(const Image& image, const std::string& name) {
  return ReadImage(Written(image, name));
}

Bytes AsBytes(std::string_view text) {
  return {text.begin(), text.end()};
}

// Row padding, packing, byte order, scaling of depths and order of channels, in every format that
// promises to lose nothing.
TEST(ImageFile, EveryShapeSurvivesEveryLosslessFormat) {
  struct Shape {
    std::uint32_t width, height;
  };
  for (const Shape shape : {Shape{1, 1}, Shape{7, 5}, Shape{300, 70}}) {
    for (const unsigned colours : {1U, 3U}) {
      for (unsigned depth = 1; depth <= 16; ++depth) {
        for (const bool opacity : {false, true}) {
          const Image image = NoiseImage(shape.width, shape.height, colours, depth, opacity);
          for (const char* name : {"x.png", "x.pam", "x.PNM", "x.tif"}) {
            SCOPED_TRACE(std::string(name) + " " + std::to_string(depth) + " bits");
            ExpectSamePlanes(image, Trip(image, name));
          }
        }
      }
    }
  }
  const Image bits = NoiseImage(13, 4, 1, 1);
  ExpectSamePlanes(bits, Trip(bits, "x.pbm"));
}

TEST(ImageFile, TiffKeepsFurtherChannelsAndPremultipliedOpacity) {
  Image image = NoiseImage(6, 6, 3, 8, true);
  image.planes[3].role = ChannelRole::kPremultipliedOpacity;
  image.planes.push_back(image.planes[0]);
  image.planes[4].role = ChannelRole::kOther;
  image.planes[4].colour = 0;
  ExpectSamePlanes(image, Trip(image, "x.tiff"));
  EXPECT_EQ(ErrorOf([&] { Written(image, "x.png"); }).Kind(), Failure::kOutput);
}

TEST(ImageFile, PalettesStayPalettes) {
  for (const unsigned depth : {1U, 2U, 4U, 8U}) {
    Image image = NoiseImage(20, 3, 1, depth);
    Palette& palette = image.palette.emplace();
    palette.columns.resize(3);
    for (unsigned i = 0; i < 1U << depth; ++i) {
      palette.columns[0].entries.push_back(i);
      palette.columns[1].entries.push_back(255 - i);
      palette.columns[2].entries.push_back(i * 7 % 256);
    }
    Image expanded = image;
    MakeOrdinary(expanded);
    for (const char* name : {"x.png", "x.tif"}) {
      const Image back = Trip(image, name);
      ASSERT_TRUE(back.palette) << name << depth;
      EXPECT_EQ(back.palette->columns[1].entries, palette.columns[1].entries);
      ExpectSamePlanes(image, back);
    }
    ExpectSamePlanes(expanded, Trip(image, "x.ppm"));
  }
}

// Indices that do not cover the image, or stand beside other channels, would let the writers read
// past the planes.
TEST(ImageFile, PalettesOfSmallerPlanesAreApplied) {
  Image image = NoiseImage(20, 6, 1, 8);
  image.palette.emplace().columns.resize(3, {8, ChannelRole::kColour, {7, 8, 9}});
  Image beside = image;
  beside.planes.push_back(image.planes[0]);
  image.planes[0] = Plane(5, 3, 8);
  image.planes[0].xStep = 4;
  image.planes[0].yStep = 2;
  for (const char* name : {"x.png", "x.tif"}) {
    const Image back = Trip(image, name);
    ASSERT_EQ(back.planes.size(), 3U) << name;
    for (const Plane& plane : back.planes) {
      EXPECT_EQ(plane.Width(), 20U);
      EXPECT_EQ(plane.At(19, 5), 7U);
    }
    EXPECT_EQ(Trip(beside, name).planes.size(), 3U);
  }
  MemorySink sink;
  EXPECT_THROW(MakePng(sink)->Begin(image), Error);
  EXPECT_THROW(MakeTiff(sink)->Begin(beside), Error);
}

/// A PNG file with a declared transparency, which the command's own writer never makes.
Bytes MakePng(int colourType, int depth, const std::vector<Bytes>& rows, const Bytes& opacity,
              const png_color_16* key, const std::vector<png_color>& palette) {
  Bytes file;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_set_write_fn(
      png, &file,
      [](png_structp p, png_bytep from, std::size_t count) {
        auto& to = *static_cast<Bytes*>(png_get_io_ptr(p));
        to.insert(to.end(), from, from + count);
      },
      [](png_structp) {});
  png_set_IHDR(png, info, 4, static_cast<png_uint_32>(rows.size()), depth, colourType,
               PNG_INTERLACE_ADAM7, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (!palette.empty()) {
    png_set_PLTE(png, info, palette.data(), static_cast<int>(palette.size()));
  }
  png_set_tRNS(png, info, opacity.empty() ? nullptr : opacity.data(),
               static_cast<int>(opacity.size()), key);
  png_write_info(png, info);
  png_set_packing(png);
  std::vector<png_bytep> addresses;
  for (const Bytes& row : rows) addresses.push_back(const_cast<png_bytep>(row.data()));
  png_write_image(png, addresses.data());
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  return file;
}

// Transparency of a palette or a key colour becomes a channel; interlaced rows find their places.
TEST(ImageFile, PngTransparencyBecomesAChannel) {
  const Image colours = ReadImage(MakePng(PNG_COLOR_TYPE_PALETTE, 2, {{0, 1, 2, 2}, {2, 1, 0, 0}},
                                          {10, 200}, nullptr, {{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}));
  EXPECT_FALSE(colours.palette);
  ASSERT_EQ(colours.planes.size(), 4U);
  EXPECT_EQ(colours.planes[1].At(1, 1), 5U);
  EXPECT_EQ(colours.planes[3].At(0, 0), 10U);
  EXPECT_EQ(colours.planes[3].At(1, 1), 200U);
  EXPECT_EQ(colours.planes[3].At(0, 1), 255U) << "entries without a value are opaque";

  png_color_16 key{};
  key.gray = 3;
  const Image grey = ReadImage(
      MakePng(PNG_COLOR_TYPE_GRAY, 4, {{0, 3, 15, 7}, {3, 3, 4, 5}, {1, 2, 3, 4}}, {}, &key, {}));
  ASSERT_EQ(grey.planes.size(), 2U);
  EXPECT_EQ(grey.planes[0].At(3, 2), 4U);
  EXPECT_EQ(grey.planes[1].At(1, 0), 0U);
  EXPECT_EQ(grey.planes[1].At(2, 0), 15U);
}

TEST(ImageFile, JpegIsCloseAndKeepsItsForm) {
  Image image = MakeImage(33, 21, 3, 8);
  for (std::uint32_t y = 0; y < 21; ++y) {
    for (std::uint32_t x = 0; x < 33; ++x) {
      image.planes[0].Set(x, y, 7 * x);
      image.planes[1].Set(x, y, 12 * y);
      image.planes[2].Set(x, y, 255 - 7 * x);
    }
  }
  const Image back = Trip(image, "x.jpg");
  EXPECT_GT(Compare(image, back).psnr, 35);
  Image grey = image;
  grey.planes.resize(1);
  EXPECT_EQ(Trip(grey, "x.jpeg").planes.size(), 1U);
  EXPECT_EQ(ErrorOf([] { Written(NoiseImage(4, 4, 3, 8, true), "x.jpg"); }).Sentence(),
            "JPEG files cannot hold opacity (an alpha channel)");
  EXPECT_EQ(ErrorOf([] { Written(NoiseImage(4, 4, 3, 12), "x.jpg"); }).Sentence(),
            "JPEG files hold 8 bits per sample, not 12; add --bits 8");
}

TEST(ImageFile, MetadataSurviveWhereBothSidesHoldThem) {
  Image image = NoiseImage(8, 8, 3, 8);
  image.resolution = {300, 150};
  const std::string_view exif("II*\0\x08\0\0\0\0\0\0\0\0\0", 14);
  AddExif(image, AsBytes(exif));
  AddXmp(image, "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"/>");
  image.xml.insert(image.xml.begin(), "<other/>");
  for (const char* name : {"x.png", "x.jpg", "x.tif"}) {
    SCOPED_TRACE(name);
    const Image back = Trip(image, name);
    ASSERT_TRUE(back.resolution);
    EXPECT_NEAR(back.resolution->x, 300, 0.02);
    EXPECT_NEAR(back.resolution->y, 150, 0.02);
    ASSERT_NE(FindXmp(back), nullptr);
    EXPECT_EQ(*FindXmp(back), image.xml[1]);
    if (std::string_view(name) == "x.tif") continue;  // there EXIF is not a block of bytes
    EXPECT_TRUE(std::ranges::equal(FindExif(back), exif, {}, {},
                                   [](char c) { return static_cast<std::uint8_t>(c); }));
  }
}

TEST(ImageFile, ProfilesSurvive) {
  Image image = NoiseImage(8, 8, 3, 8);
  image.iccProfile = MakeProfile("RGB ");
  for (const char* name : {"x.png", "x.jpg", "x.tif"}) {
    EXPECT_EQ(Trip(image, name).iccProfile, image.iccProfile) << name;
  }
  EXPECT_TRUE(Trip(image, "x.ppm").iccProfile.empty());
}

TEST(ImageFile, PlainAndOddPnm) {
  const auto read = [](std::string_view text) { return ReadImage(AsBytes(text)); };
  const Image plain = read("P3\n# a comment\n2 1 # another\n15\n0 15 3\n4 5 6");
  EXPECT_EQ(plain.planes[1].At(0, 0), 15U);
  EXPECT_EQ(plain.planes[2].At(1, 0), 6U);
  EXPECT_EQ(plain.planes[0].Depth(), 4U);
  const Image bits = read("P1 3 2 101\n010");
  EXPECT_EQ(bits.planes[0].At(0, 0), 0U) << "a set bit is black";
  EXPECT_EQ(bits.planes[0].At(0, 1), 1U);
  const Image hundred = read("P2 2 1 100 100 50");
  EXPECT_EQ(hundred.planes[0].At(0, 0), 127U) << "the largest value becomes white";
  EXPECT_EQ(hundred.planes[0].At(1, 0), 64U);
  for (const char* bad :
       {"P5 2 2 255 ab", "P2 1 1 255", "P2 1 1 10 11", "P6 0 5 255 ", "P5 2 2 0 ", "P5 2 2 65536 ",
        "P2 99999 99999 255 1 2 3", "P7\nWIDTH 1\nENDHDR", "P5 99999999999 1 255 ",
        "P7\nWIDTH 1\nHEIGHT 1\nDEPTH 5\nENDHDR\n12345", "P7\nGARBAGE", "P4 20 2 ab"}) {
    EXPECT_EQ(ErrorOf([&] { read(bad); }).Kind(), Failure::kInput) << bad;
  }
}

// Whatever part of a file is missing: one sentence, no crash, no image.
TEST(ImageFile, CutOffFilesAreRefused) {
  const Image image = NoiseImage(40, 30, 3, 8);
  EXPECT_EQ(ErrorOf([] { ReadImage({}); }).Sentence(), "the file is empty");
  for (const char* name : {"x.png", "x.ppm", "x.tif", "x.jpg"}) {
    const Bytes whole = Written(image, name);
    const std::size_t end = whole.size() - 12;  // what follows the samples may be missing
    for (std::size_t length = 3; length < end; length += 1 + length / 17) {
      EXPECT_EQ(ErrorOf([&] { ReadImage(ByteView(whole).first(length)); }).Kind(), Failure::kInput)
          << name << " of " << length << " bytes";
    }
  }
}

// Damage anywhere must end in an image or in a refusal. (Sanitizers watch.)
TEST(ImageFile, DamagedFilesDoNoHarm) {
  for (const char* name : {"x.png", "x.pam", "x.tif", "x.jpg"}) {
    Bytes file = Written(NoiseImage(16, 9, 3, 8), name);
    for (std::size_t at = 0; at < file.size(); at += 1 + file.size() / 300) {
      const std::uint8_t byte = file[at];
      for (const unsigned change : {0x01U, 0x80U, 0xFFU}) {
        file[at] = static_cast<std::uint8_t>(byte ^ change);
        try {
          EXPECT_FALSE(ReadImage(file).planes.empty());
        } catch (const Error& error) {
          EXPECT_TRUE(error.Kind() == Failure::kInput || error.Kind() == Failure::kMemory);
        }
      }
      file[at] = byte;
    }
  }
}

TEST(ImageFile, CmykIsRefusedWithAWayOut) {
  jpeg_compress_struct jpeg{};
  jpeg_error_mgr errors;
  jpeg.err = jpeg_std_error(&errors);
  jpeg_create_compress(&jpeg);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&jpeg, &buffer, &size);
  jpeg.image_width = jpeg.image_height = 8;
  jpeg.input_components = 4;
  jpeg.in_color_space = JCS_CMYK;
  jpeg_set_defaults(&jpeg);
  jpeg_start_compress(&jpeg, TRUE);
  JSAMPLE row[32] = {};
  JSAMPROW rows = row;
  for (int y = 0; y < 8; ++y) jpeg_write_scanlines(&jpeg, &rows, 1);
  jpeg_finish_compress(&jpeg);
  jpeg_destroy_compress(&jpeg);
  const Error error = ErrorOf([&] { ReadImage(ByteView(buffer, size)); });
  free(buffer);
  EXPECT_EQ(error.Kind(), Failure::kInput);
  EXPECT_EQ(error.Sentence(),
            "a CMYK image; only grey and RGB images can be read, so convert it to RGB first");
}

/// A TIFF file written with tags of a test's own choice.
template <class Set>
Bytes MakeTiff(std::uint32_t width, std::uint32_t height, const std::vector<Bytes>& pieces,
               bool tiled, Set set) {
  const test::Folder folder;
  TIFF* tiff = TIFFOpen(folder.Path("x.tif").c_str(), "w");
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
  TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  set(tiff);
  for (std::uint32_t i = 0; i < pieces.size(); ++i) {
    Bytes piece = pieces[i];
    const auto size = static_cast<tmsize_t>(piece.size());
    tiled ? TIFFWriteEncodedTile(tiff, i, piece.data(), size)
          : TIFFWriteEncodedStrip(tiff, i, piece.data(), size);
  }
  TIFFClose(tiff);
  return AsBytes(folder.Get("x.tif"));
}

TEST(ImageFile, TiffOfOtherOrganisations) {
  // Channels apart from each other, two rows per strip, least significant value white.
  const Bytes planar =
      MakeTiff(2, 3, {{1, 2, 3, 4}, {5, 6}, {7, 8, 9, 10}, {11, 12}, {13, 14, 15, 16}, {17, 18}},
               false, [](TIFF* t) {
                 TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
                 TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 3);
                 TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
                 TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_SEPARATE);
                 TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, 2);
               });
  const Image apart = ReadImage(planar);
  EXPECT_EQ(apart.planes[0].At(1, 1), 4U);
  EXPECT_EQ(apart.planes[1].At(0, 2), 11U);
  EXPECT_EQ(apart.planes[2].At(1, 2), 18U);

  Bytes tile(16 * 16);
  for (std::size_t i = 0; i < tile.size(); ++i) tile[i] = static_cast<std::uint8_t>(i);
  const Bytes tiles = MakeTiff(20, 17, {tile, tile, tile, tile}, true, [](TIFF* t) {
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
    TIFFSetField(t, TIFFTAG_TILEWIDTH, 16);
    TIFFSetField(t, TIFFTAG_TILELENGTH, 16);
  });
  const Image tiled = ReadImage(tiles);
  EXPECT_EQ(tiled.planes[0].At(15, 15), 0U);
  EXPECT_EQ(tiled.planes[0].At(16, 15), 255U - 240U);
  EXPECT_EQ(tiled.planes[0].At(19, 16), 255U - 3U);
}

TEST(ImageFile, TiffThatCannotBeReadSaysWhy) {
  const auto sentence = [](int depth, int photometric, int format) {
    const Bytes file = MakeTiff(1, 1, {Bytes(16)}, false, [&](TIFF* t) {
      TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, depth);
      TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, photometric == PHOTOMETRIC_SEPARATED ? 4 : 1);
      TIFFSetField(t, TIFFTAG_PHOTOMETRIC, photometric);
      TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, format);
    });
    return ErrorOf([&] { ReadImage(file); }).Sentence();
  };
  EXPECT_NE(sentence(32, PHOTOMETRIC_MINISBLACK, SAMPLEFORMAT_IEEEFP).find("floating-point"),
            std::string::npos);
  EXPECT_NE(sentence(32, PHOTOMETRIC_MINISBLACK, SAMPLEFORMAT_UINT).find("32 bits per sample"),
            std::string::npos);
  EXPECT_NE(sentence(8, PHOTOMETRIC_SEPARATED, SAMPLEFORMAT_UINT).find("CMYK"), std::string::npos);
}

}  // namespace
