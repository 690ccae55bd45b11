// Formats that are only read, bare samples, and what is told about files that lose something.
#include <kel/host.hpp>

#include "BareSamples.hpp"
#include "BitAssembler.h"
#include "Metadata.hpp"
#include "Tool.hpp"

namespace {

using namespace kel::host;
using namespace kel::tool;
using test::ErrorOf;
using test::ExpectSamePlanes;
using test::NoiseImage;
using test::Tool;

/// 5 x 9 indices (3 x + 5 y) mod 4, interlaced; entry 2 is green, and transparent if that is said.
const Bytes kGif = test::Hex(
    "474946383761050009008100000A141EFA000000FA000102032C000000000500090000081D00010C10100040C181"
    "01080A148050E0C28207092A1CD870C043000101003B");
const Bytes kTransparentGif = test::Hex(
    "474946383961050009008100000A141EFA000000FA0001020321F90401000002002C000000000500090000081D00"
    "010C10100040C18101080A148050E0C28207092A1CD870C043000101003B");
/// 3 x 2 of red 40 x, green 50 y, blue 200, opacity 7 in the first column and 255; with XMP.
const Bytes kWebp = test::Hex(
    "524946465C00000057454250565038580A000000140000000200000100005650384C2A0000002F024000102F3032"
    "0281249CFD69C61964226D9BB2DDBFDAC3607211C6060201CA5871C02911FD8FE505584D50200C0000003C783A78"
    "6D706D6574612F3E");
/// One grey pixel with a gamma of 1.
const Bytes kLinearPng = test::Hex(
    "89504E470D0A1A0A0000000D49484452000000010000000108000000003A7E9B550000000467414D41000186A031"
    "E8965F0000000A49444154789C63080500005700563F431F4C0000000049454E44AE426082");

/// 4 x 1 grey samples with opacity in three frames: all of them, the two in the middle laid over
/// and taken back, the first one put in place.
const Bytes kAnimatedPng = test::Hex(
    "89504E470D0A1A0A0000000D49484452000000040000000108040000005335C746000000086163544C0000000300"
    "000000CEEDBAC00000001A6663544C00000000000000040000000100000000000000000001000A000064F5BD6A00"
    "0000114944415478DA63E0FA2FF25FAE418301000F0D02E3FC431D050000001A6663544C00000001000000020000"
    "000100000001000000000001000A0201E6E5D17900000011666441540000000278DA6338D190F21F00066C02AC11"
    "F83AFE0000001A6663544C00000003000000010000000100000000000000000001000A00002C9A09ED0000000F66"
    "6441540000000478DA6360E70400001A00119AF53B0A0000000049454E44AE426082");

Image ReadPage(const Bytes& file, unsigned page) {
  ReadSettings settings;
  settings.page = page;
  return ReadImage(ByteView(file), settings);
}

TEST(ImageFile, PagesOfAnimationsAreWhatIsSeen) {
  const std::vector<std::vector<unsigned>> grey = {
      {10, 20, 30, 40}, {10, 110, 100, 40}, {7, 20, 30, 40}};
  const std::vector<std::vector<unsigned>> opacity = {
      {255, 255, 128, 0}, {255, 255, 255, 0}, {9, 255, 128, 0}};
  for (unsigned page = 1; page <= 3; ++page) {
    const Image image = ReadPage(kAnimatedPng, page);
    for (std::uint32_t x = 0; x < 4; ++x) {
      EXPECT_EQ(image.planes[0].At(x, 0), grey[page - 1][x]) << page;
      EXPECT_EQ(image.planes[1].At(x, 0), opacity[page - 1][x]) << page;
    }
  }
  // A picture, the same with a hole over it, which is cleared, and that once more.
  Bytes gif(kGif.begin(), kGif.end() - 1);
  for (const std::uint8_t disposal : {0x09, 0x01}) {
    gif.insert(gif.end(), kTransparentGif.begin() + 25, kTransparentGif.end() - 1);
    gif[gif.size() - (kTransparentGif.size() - 1 - 25) + 3] = disposal;
  }
  gif.push_back(0x3B);
  const Image second = ReadPage(gif, 2), third = ReadPage(gif, 3);
  for (std::uint32_t x = 0; x < 5; ++x) {
    EXPECT_EQ(second.planes[3].At(x, 0), 255U);
    EXPECT_EQ(second.planes[1].At(x, 0) == 250, x * 3 % 4 == 2);
    EXPECT_EQ(third.planes[3].At(x, 0), x * 3 % 4 == 2 ? 0U : 255U);
  }
  for (const Bytes& file : {kAnimatedPng, gif, kWebp}) {
    EXPECT_EQ(ErrorOf([&] { ReadPage(file, 4); }).Kind(), Failure::kInput);
    for (std::size_t at = 13; at < file.size(); ++at) {
      Bytes changed = file;
      changed[at] ^= 0x5A;
      try {
        ReadPage(changed, 3);
      } catch (const Error&) {
      }
    }
  }
}

TEST(ImageFile, GifAndWebpAreRead) {
  const Image gif = ReadImage(kGif), transparent = ReadImage(kTransparentGif);
  ASSERT_TRUE(gif.palette);
  ASSERT_EQ(transparent.planes.size(), 4U);
  for (std::uint32_t y = 0; y < 9; ++y) {
    for (std::uint32_t x = 0; x < 5; ++x) {
      const unsigned index = (3 * x + 5 * y) % 4;
      EXPECT_EQ(gif.planes[0].At(x, y), index);
      EXPECT_EQ(transparent.planes[3].At(x, y), index == 2 ? 0U : 255U);
      EXPECT_EQ(transparent.planes[0].At(x, y), gif.palette->columns[0].entries[index]);
    }
  }
  EXPECT_EQ(gif.palette->columns[1].entries[2], 250U);
  const Image webp = ReadImage(kWebp);
  ASSERT_EQ(webp.planes.size(), 4U);
  EXPECT_EQ(webp.planes[0].At(2, 1), 80U);
  EXPECT_EQ(webp.planes[1].At(2, 1), 50U);
  EXPECT_EQ(webp.planes[3].At(0, 1), 7U);
  EXPECT_NE(FindXmp(webp), nullptr);
  // Cut or changed anywhere, they are refused or give an image. (Sanitizers watch.)
  for (const Bytes& file : {kGif, kTransparentGif, kWebp}) {
    for (std::size_t at = 13; at < file.size(); ++at) {
      Bytes changed = file;
      for (const int value : {0, 0xFF, file[at] ^ 0x10}) {
        changed[at] = static_cast<std::uint8_t>(value);
        try {
          ReadImage(changed);
        } catch (const Error&) {
        }
      }
      if (at + 24 > file.size()) continue;  // the last row may need no more
      EXPECT_EQ(ErrorOf([&] { ReadImage(ByteView(file).first(at)); }).Kind(), Failure::kInput);
    }
  }
}

TEST(Tool, BareSamplesComeAndGo) {
  const Tool tool;
  for (const unsigned depth : {8U, 12U}) {
    const Image image = NoiseImage(21, 13, 3, depth);
    tool.Put("in.ppm", image);
    const std::string file = tool.folder.Get("in.ppm");
    const std::size_t bytes = 21 * 13 * 3 * (depth == 8 ? 1 : 2);
    tool.folder.Put("in.raw", file.substr(file.size() - bytes));
    const std::string form = "21x13x3:u" + std::to_string(depth) + (depth == 8 ? "" : "be");
    tool.Do("encode --lossless --raw " + form + " in.raw x.kel");
    EXPECT_EQ(tool.Run("compare x.kel in.ppm").code, 0);
    tool.Do("decode x.kel out.npy");
    tool.Do("encode --lossless out.npy y.kel");
    const Image back = tool.GetImage("out.npy");
    EXPECT_EQ(back.planes[2].At(20, 12), image.planes[2].At(20, 12)) << "values stay";
    EXPECT_EQ(back.planes[1].At(3, 7), image.planes[1].At(3, 7));
    EXPECT_EQ(tool.Run("encode --raw 22x13x3:u8 in.raw z.kel").code, depth == 8 ? 2 : 0);
  }
  EXPECT_NE(tool.Run("encode --raw 21x12x3:u16le in.raw z.kel").err.find("more samples"),
            std::string::npos);
  for (const char* form : {"", "0x5:u8", "5x5:u9", "5x5:u8xx", "5x5x0:u8", "5x5:i8", "5x5:u29le"}) {
    EXPECT_FALSE(ParseBareForm(form)) << form;
  }
  tool.folder.Put("in.pgx", std::string("PG LM +10 2 1\n\x02\x03\xFF\0", 18));
  EXPECT_EQ(tool.GetImage("in.pgx").planes[0].At(0, 0), 0x302U);
  tool.folder.Put("wide.pgx", std::string("PG LM 9 2 1\n\x02\x03\xFF\0", 16));
  tool.folder.Put("float.npy", std::string("\x93NUMPY\1\0\x3C\0", 10) +
                                   "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 2), }\n");
  for (const char* name : {"wide.pgx", "float.npy"}) {
    EXPECT_EQ(tool.Run(std::string("encode ") + name + " z.kel").code, 2) << name;
  }
}

TEST(Tool, WhatIsLostOrStrangeIsSaid) {
  const Tool tool;
  const auto says = [&](const char* name, const Bytes& file, const char* what) {
    tool.folder.Put(name, std::string(file.begin(), file.end()));
    const Tool::Result result = tool.Run(std::string("encode --overwrite ") + name + " x.kel");
    EXPECT_NE(result.err.find(what), std::string::npos) << result.err;
  };
  says("linear.png", kLinearPng, "gAMA");
  tool.Put("in.jpg", NoiseImage(16, 16, 3, 8));
  std::string jpeg = tool.folder.Get("in.jpg");
  jpeg.insert(2, std::string("\xFF\xE5\0\x09STRANGE", 11));
  says("strange.jpg", Bytes(jpeg.begin(), jpeg.end()), "left out: APP5");
  const Bytes ordinary = test::Hex(
      "FF4FFF51002F00000000007800000050000000000000000000000078000000500000000000000000000307010107"
      "0101070101FF52000C00000001010504040001FF5C00134040484850484850484850484850484850FF90000A0000"
      "0000000E0001FF93FFD9");
  says("other.jp2", ordinary, "an ordinary JPEG 2000 file");
  EXPECT_NE(tool.Run("info other.jp2").err.find("an ordinary JPEG 2000 file"), std::string::npos);
}

}  // namespace
