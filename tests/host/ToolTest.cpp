// The command from end to end: image files through Kel files and back, what its options do, and
// how it ends when something is wrong.
#include <fcntl.h>

#include <nlohmann/json.hpp>
#include <set>

#include "Metadata.hpp"
#include "Tool.hpp"

namespace {

using namespace kel::host;
using namespace kel::tool;
using nlohmann::json;
using test::ExpectSamePlanes;
using test::NoiseImage;
using test::Tool;

/// Something that compresses: a slope with a little noise.
Image SlopeImage(std::uint32_t width, std::uint32_t height) {
  Image image = NoiseImage(width, height, 3, 8);
  for (Plane& plane : image.planes) {
    for (std::uint32_t y = 0; y < height; ++y) {
      for (std::uint32_t x = 0; x < width; ++x) {
        plane.Set(x, y, (200 * (x + y) / (width + height) + plane.At(x, y) % 16) & 255);
      }
    }
  }
  return image;
}

// Depth, order of channels, roles and sizes on every path from file to file.
TEST(Tool, EveryShapeIsLosslessFromAndToEveryFormat) {
  const Tool tool;
  const Image images[] = {NoiseImage(1, 1, 1, 1),         NoiseImage(1, 1, 3, 8),
                          NoiseImage(37, 3, 1, 1),        NoiseImage(19, 23, 1, 16),
                          NoiseImage(40, 31, 1, 8, true), NoiseImage(40, 31, 3, 16, true),
                          NoiseImage(200, 1, 3, 5),       NoiseImage(1, 77, 1, 12)};
  for (const Image& image : images) {
    for (const std::string from : {"png", "pam", "tif"}) {
      tool.Put("in." + from, image);
      tool.Do("encode --lossless --tile 32x16 in." + from + " x.kel");
      for (const std::string to : {"png", "pam", "tif"}) {
        SCOPED_TRACE(from + " to " + to + ", " + std::to_string(image.planes[0].Depth()) + " bits");
        tool.Do("decode x.kel out." + to);
        ExpectSamePlanes(image, tool.GetImage("out." + to));
      }
    }
  }
  tool.Put("bits.pbm", images[2]);
  tool.Do("encode --lossless bits.pbm x.kel");
  tool.Do("decode x.kel bits2.pbm");
  EXPECT_EQ(tool.folder.Get("bits.pbm"), tool.folder.Get("bits2.pbm"));
}

TEST(Tool, PalettesStayOrBecomeColours) {
  const Tool tool;
  Image image = NoiseImage(30, 20, 1, 4);
  image.planes[0].colour = 1;
  image.colourSpace = ColourSpace::kSrgb;
  image.palette.emplace();
  for (const unsigned step : {3U, 5U, 7U}) {
    Palette::Column& column = image.palette->columns.emplace_back();
    for (unsigned i = 0; i < 16; ++i) column.entries.push_back(step * i);
  }
  tool.Put("in.png", image);
  Image colours = image;
  MakeOrdinary(colours);
  for (const std::string format : {"png", "tif"}) {
    tool.Do("encode --lossless in.png x.kel");
    tool.Do("decode x.kel out." + format);
    const Image back = tool.GetImage("out." + format);
    ASSERT_TRUE(back.palette) << format;
    for (std::size_t i = 0; i < 3; ++i) {
      EXPECT_TRUE(std::ranges::equal(image.palette->columns[i].entries,
                                     std::span(back.palette->columns[i].entries).first(16)));
    }
    ExpectSamePlanes(image, back);
  }
  tool.Do("decode x.kel out.ppm");
  ExpectSamePlanes(colours, tool.GetImage("out.ppm"));
  tool.Do("encode -q 90 in.png lossy.kel");
  EXPECT_EQ(json::parse(tool.Do("info --json lossy.kel"))["components"].size(), 3U)
      << "indices must never be coded with loss";
}

TEST(Tool, WhatStandsBesideTheSamplesSurvives) {
  const Tool tool;
  Image image = NoiseImage(16, 9, 3, 8);
  image.iccProfile = test::MakeProfile("RGB ");
  image.resolution = {300, 150};
  const Bytes exif = {'I', 'I', '*', 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  AddExif(image, exif);
  AddXmp(image, "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\"/>");
  for (const std::string from : {"png", "jpg"}) {
    tool.Put("in." + from, image);
    tool.Do("encode in." + from + " x.kel");
    for (const std::string to : {"png", "jpg", "tif"}) {
      SCOPED_TRACE(from + " to " + to);
      tool.Do("decode x.kel out." + to);
      const Image back = tool.GetImage("out." + to);
      EXPECT_EQ(back.iccProfile, image.iccProfile);
      ASSERT_TRUE(back.resolution);
      EXPECT_NEAR(back.resolution->x, 300, 0.3);
      EXPECT_NEAR(back.resolution->y, 150, 0.3);
      ASSERT_NE(FindXmp(back), nullptr);
      EXPECT_EQ(*FindXmp(back), image.xml[0]);
      if (to != "tif") {
        EXPECT_TRUE(std::ranges::equal(FindExif(back), exif));
      }
    }
  }
  tool.Do("encode --resolution 72 --comment 'caf\u00E9' in.png x.kel");
  const json info = json::parse(tool.Do("info --json x.kel"));
  EXPECT_NEAR(double(info["resolution_per_inch"]["horizontal"]), 72, 0.1);
  EXPECT_EQ(info["comment"], "caf\u00E9");
  EXPECT_EQ(info["colours"][0]["icc_bytes"], image.iccProfile.size());
  // What a terminal would obey, or what turns text around, in Latin-1 and in UTF-8.
  for (const char* hostile :
       {"\\033[2J", "\\302\\233", "\\233", "\\342\\200\\256", "\\342\\201\\246"}) {
    tool.Do("encode --comment \"$(printf 'a" + std::string(hostile) + "b')\" in.png x.kel");
    const std::string shown = tool.Do("info x.kel") + tool.Do("info --json x.kel");
    EXPECT_EQ(shown.find_first_of("\033\233\200"), std::string::npos) << hostile;
    EXPECT_EQ(json::parse(tool.Do("info --json x.kel"))["comment"].get<std::string>().size() > 2,
              true);
  }
}

TEST(Tool, OutputDoesNotDependOnThreads) {
  const Tool tool;
  tool.Put("in.ppm", SlopeImage(300, 211));
  for (const std::string how :
       {"", "--lossless ", "--order cprl --layers 2 --levels 2 ", "--size 20000 "}) {
    SCOPED_TRACE(how);
    tool.Do("encode --tile 64x50 -j 1 " + how + "in.ppm one.kel");
    tool.Do("encode --tile 64x50 -j 4 " + how + "in.ppm four.kel");
    EXPECT_EQ(tool.folder.Get("one.kel"), tool.folder.Get("four.kel"));
    for (const std::string reduce : {"0", "1", "3"}) {
      tool.Do("decode -j 1 --reduce " + reduce + " one.kel one.ppm");
      tool.Do("decode -j 4 --reduce " + reduce + " one.kel four.ppm");
      EXPECT_EQ(tool.folder.Get("one.ppm"), tool.folder.Get("four.ppm"));
    }
  }
}

TEST(Tool, SizeIsTheBestThatFits) {
  const Tool tool;
  tool.Put("in.ppm", SlopeImage(256, 256));
  tool.Do("encode --lossless in.ppm whole.kel");
  const std::string whole = tool.folder.Get("whole.kel");
  tool.Do("encode --size " + std::to_string(whole.size()) + " in.ppm fit.kel");
  EXPECT_EQ(tool.folder.Get("fit.kel"), whole) << "nothing is better than lossless";
  ASSERT_GT(whole.size(), 30U * 1024);
  tool.Do("encode --size 30K in.ppm fit.kel");
  const std::size_t fit = tool.folder.Get("fit.kel").size();
  EXPECT_LE(fit, 30U * 1024);
  EXPECT_GE(fit, 30U * 1024 * 99 / 100);
  tool.Do("encode --plain --size 30K in.ppm plain.kel");
  const std::size_t plain = tool.folder.Get("plain.kel").size();
  EXPECT_LE(plain, 30U * 1024);
  int quality = 1;
  const auto sizeAt = [&](int q) {
    tool.Do("encode --plain -q " + std::to_string(q) + " in.ppm at.kel");
    return tool.folder.Get("at.kel").size();
  };
  while (quality < 99 && sizeAt(quality) != plain) ++quality;
  EXPECT_EQ(sizeAt(quality), plain) << "no quality gives this file";
  EXPECT_GT(sizeAt(quality + 1), 30U * 1024) << "the next one would have fitted too";
  EXPECT_EQ(sizeAt(100), sizeAt(99)) << "there are no finer steps for 8 bits";
  EXPECT_NE(tool.Run("encode --size 0 in.ppm none.kel").err.find("--size: no file has 0 bytes"),
            std::string::npos);
  const Tool::Result result = tool.Run("encode --size 10 in.ppm none.kel");
  EXPECT_EQ(result.code, 4);
  EXPECT_EQ(result.err.find("kel: none.kel: the image cannot be made that small"), 0U);
  EXPECT_FALSE(std::filesystem::exists(tool.folder.Path("none.kel")));
}

TEST(Tool, ErrorIsTheOneThatWasAskedFor) {
  const Tool tool;
  tool.Put("in.png", [] {
    Image image = SlopeImage(130, 500);  // high enough for strips to be measured first
    image.planes.push_back(NoiseImage(130, 500, 1, 8).planes[0]);
    image.planes.back().role = kel::host::ChannelRole::kOpacity;
    image.planes.back().colour = 0;
    return image;
  }());
  const Image image = tool.GetImage("in.png");
  for (const int asked : {36, 42, 48}) {
    tool.Do("encode --psnr " + std::to_string(asked) + " in.png x.kel");
    tool.Do("decode x.kel out.png");
    const auto difference = kel::host::Compare(image, tool.GetImage("out.png"));
    double error = 0;
    for (int c = 0; c < 3; ++c) error += std::pow(10, -difference.planes[c].psnr / 10) / 3;
    EXPECT_NEAR(-10 * std::log10(error), asked, 0.1);
    EXPECT_EQ(difference.planes[3].count, 0U);
  }
  tool.Do("encode --psnr 90 in.png x.kel");
  EXPECT_EQ(json::parse(tool.Do("info --json x.kel"))["filter"], "5/3");
}

TEST(Tool, HalfChromaComesBackAsColours) {
  const Tool tool;
  Image image = SlopeImage(131, 77);  // an edge with a single row and column of chroma
  tool.Put("in.png", image);
  tool.Do("encode --chroma 420 -q 80 in.png x.kel");
  const json info = json::parse(tool.Do("info --json x.kel"));
  EXPECT_EQ(info["components"][2]["subsampling"], json({2, 2}));
  tool.Do("decode x.kel out.png");
  EXPECT_GT(kel::host::Compare(image, tool.GetImage("out.png")).psnr, 34);
  tool.Do("preview --chroma 420 -q 80 in.png shown.png");
  EXPECT_TRUE(kel::host::Compare(tool.GetImage("shown.png"), tool.GetImage("out.png")).identical);
  image.iccProfile = test::MakeProfile("RGB ");
  tool.Put("profile.png", image);
  EXPECT_EQ(tool.Run("encode --chroma 420 profile.png y.kel").code, 1);
}

TEST(Tool, DecodeTurnsScalesAndReduces) {
  const Tool tool;
  const Image image = NoiseImage(21, 10, 3, 8);
  tool.Put("in.png", image);
  tool.Do("encode --lossless --tile 8x8 in.png x.kel");
  for (const int degrees : {90, 180, 270}) {
    tool.Do("decode --rotate " + std::to_string(degrees) + " x.kel out.png");
    Image turned = image;
    Rotate(turned, degrees);
    ExpectSamePlanes(turned, tool.GetImage("out.png"));
  }
  tool.Do("decode --bits 16 x.kel out.png");
  Image deep = image;
  ChangeDepth(deep, 16);
  ExpectSamePlanes(deep, tool.GetImage("out.png"));
  tool.Do("decode --reduce 3 x.kel out.png");
  EXPECT_EQ(tool.GetImage("out.png").width, 3U);
  EXPECT_EQ(tool.GetImage("out.png").height, 2U);
}

// A part of the picture, and the bytes that it needs: which a reader could fetch alone.
TEST(Tool, PartsOfThePicture) {
  const Tool tool;
  const Image image = NoiseImage(100, 70, 3, 8);
  tool.Put("in.ppm", image);
  tool.Do("encode --lossless --tile 32x32 --levels 3 in.ppm x.kel");
  tool.Do("decode --region 40x30+50+20 x.kel out.ppm");
  const Image part = tool.GetImage("out.ppm");
  ASSERT_EQ(part.width, 40U);
  ASSERT_EQ(part.height, 30U);
  EXPECT_EQ(part.planes[1].At(39, 29), image.planes[1].At(89, 49));
  tool.Do("decode --tile 5 --reduce 1 - out.ppm <x.kel");
  EXPECT_EQ(tool.GetImage("out.ppm").width, 16U);
  for (const char* wrong : {"--region 40x30", "--region 40x30+100+0", "--region 1x-1+0+0",
                            "--tile 12", "--tile 0 --reduce 4", "--tile 0 --region 1x1+0+0"}) {
    EXPECT_EQ(tool.Run("decode " + std::string(wrong) + " x.kel none.ppm").code, 1) << wrong;
  }
  const json ranges = json::parse(tool.Do("info --ranges --json x.kel"))["byte_ranges"];
  std::uint64_t all = ranges["front_bytes"];
  for (const json& entry : ranges["tiles"]) {
    if (entry["reduce"] == 0) all += std::uint64_t{entry["bytes"]};
  }
  EXPECT_EQ(all + 2, tool.folder.Get("x.kel").size()) << "everything but the end marker";
}

TEST(Tool, RegionKeepsItsSamplesBetter) {
  const Tool tool;
  tool.Put("in.ppm", SlopeImage(128, 128));
  Image mask = MakeImage(128, 128, 1, 8);
  for (std::uint32_t y = 32; y < 96; ++y)
    std::fill_n(mask.planes[0].Row<std::uint8_t>(y) + 32, 64, 1);
  tool.Put("mask.pgm", mask);
  tool.Do("encode -q 10 --roi mask.pgm in.ppm x.kel");
  tool.Do("decode x.kel out.ppm");
  const Image before = tool.GetImage("in.ppm"), after = tool.GetImage("out.ppm");
  std::uint64_t inside = 0, outside = 0;
  for (std::uint32_t y = 0; y < 128; ++y) {
    for (std::uint32_t x = 0; x < 128; ++x) {
      const auto a = int(before.planes[1].At(x, y)), b = int(after.planes[1].At(x, y));
      const bool isInside = x >= 40 && x < 88 && y >= 40 && y < 88;
      (isInside ? inside : outside) += static_cast<unsigned>((a - b) * (a - b));
    }
  }
  EXPECT_LT(10 * inside * (128 * 128 - 48 * 48), outside * 48 * 48) << "mean squared differences";
}

TEST(Tool, StandardStreams) {
  const Tool tool;
  const Image image = NoiseImage(50, 40, 3, 8);
  tool.Put("in.png", image);
  tool.Do(std::string("encode --lossless - - <in.png | '") + KEL_COMMAND +
          "' decode --format ppm - - >out.ppm");
  ExpectSamePlanes(image, tool.GetImage("out.ppm"));
  EXPECT_NE(tool.Do("compare in.png - <out.ppm").find("The images are identical."),
            std::string::npos);
  tool.Do("encode -q 5 in.png lossy.kel");
  EXPECT_EQ(tool.Run("compare in.png lossy.kel").code, 1) << "they differ";
  const std::string before = tool.folder.Get("in.png");
  EXPECT_EQ(tool.Run("encode in.png - >>in.png").code, 4);
  EXPECT_TRUE(tool.folder.Get("in.png") == before) << "an input, though it has no name here";
  const Tool::Result full = tool.Run("encode in.png - >/dev/full");
  EXPECT_EQ(full.code, 4);
  EXPECT_EQ(full.err, "kel: standard output: cannot be written: No space left on device\n");
}

// A preview must be what the decoder will deliver, give or take the rounding of single samples.
TEST(Tool, PreviewsShowWhatDecodingWill) {
  const Tool tool;
  const Image images[] = {SlopeImage(130, 70),       NoiseImage(21, 30, 1, 8, true),
                          NoiseImage(40, 33, 3, 16), NoiseImage(25, 14, 1, 12),
                          NoiseImage(9, 9, 3, 4),    NoiseImage(17, 5, 1, 1)};
  for (const Image& image : images) {
    SCOPED_TRACE(std::to_string(image.planes[0].Depth()) + " bits");
    tool.Put("in.pam", image);
    tool.Do("preview -q 40 --tile 64x64 in.pam look.pam");
    tool.Do("encode -q 40 --tile 64x64 in.pam x.kel");
    tool.Do("decode x.kel out.pam");
    const Difference difference = Compare(tool.GetImage("look.pam"), tool.GetImage("out.pam"));
    for (std::size_t c = 0; c < image.planes.size(); ++c) {
      const unsigned depth = image.planes[c].Depth();
      EXPECT_LE(difference.planes[c].largest, depth <= 8 ? 1U : 1U << (depth - 8));
      if (depth == 8) {  // at others the library's previews have fewer levels
        EXPECT_LE(10 * difference.planes[c].count, image.width * image.height);
      }
    }
  }
}

TEST(Tool, PreviewsOfFilesAreSmall) {
  const Tool tool;
  tool.Put("in.ppm", SlopeImage(1500, 40));
  tool.Do("encode in.ppm x.kel");
  tool.Do("preview x.kel small.png");
  EXPECT_EQ(tool.GetImage("small.png").width, 750U);
}

TEST(Tool, ManyFilesFailOneByOne) {
  const Tool tool;
  tool.Put("a.png", NoiseImage(5, 5, 1, 8));
  tool.Put("b.ppm", NoiseImage(5, 5, 3, 8));
  tool.folder.Put("c.tif", "no image");
  const Tool::Result result = tool.Run("encode -j 2 --output-dir made/here a.png c.tif b.ppm");
  EXPECT_EQ(result.code, 2);
  EXPECT_TRUE(result.err.starts_with("kel: c.tif: not a PNG, PNM, "));
  EXPECT_TRUE(result.err.ends_with(" image\nkel: 1 of 3 files failed\n"));
  EXPECT_EQ(tool.folder.Get("made/here/c.kel"), "");
  tool.Do("decode --output-dir back --format pam made/here/a.kel made/here/b.kel");
  EXPECT_EQ(tool.GetImage("back/a.pam").width, 5U);
  EXPECT_EQ(tool.GetImage("back/b.pam").planes.size(), 3U);
  const Tool::Result info = tool.Run("info made/here/a.kel c.tif made/here/b.kel");
  EXPECT_EQ(info.code, 2);
  EXPECT_NE(info.out.find("made/here/b.kel\n"), std::string::npos) << "one bad file stops nothing";
  EXPECT_EQ(info.err.find("kel: c.tif: "), 0U);
}

/// One line that begins with "kel: NAME: ".
void ExpectSentence(const Tool::Result& result, const std::string& name) {
  EXPECT_EQ(result.err.find("kel: " + name + ": "), 0U) << result.err;
  EXPECT_EQ(std::ranges::count(result.err, '\n'), 1) << result.err;
  EXPECT_EQ(result.out, "");
}

TEST(Tool, BrokenInputIsNamedAndLeavesNothing) {
  const Tool tool;
  tool.Put("in.ppm", SlopeImage(90, 70));
  tool.Do("encode --tile 40x40 in.ppm whole.kel");
  const std::string whole = tool.folder.Get("whole.kel");
  std::string absurd = whole;  // the code stream's size segment: image and tile 2^31 - 1 wide
  const std::size_t siz = absurd.find("\xABQ");
  for (const std::size_t at : {6U, 10U, 22U, 26U}) absurd.replace(siz + at, 4, "\x7F\xFF\xFF\xFF");
  tool.folder.Put("empty", "");
  tool.folder.Put("text", "This is no image, but a text of some length.\n");
  tool.folder.Put("headless", whole.substr(0, 100));
  tool.folder.Put("damaged", whole.substr(0, siz) + whole.substr(siz + 30));
  tool.folder.Put("absurd", absurd);
  tool.folder.Put("absurd.ppm", "P6 2000000000 2000000000 255\n");
  tool.folder.Put("cut.png", "\x89PNG\r\n\x1A\n");
  const std::size_t numFiles = tool.folder.NumFiles();
  for (const std::string name : {"empty", "text", "headless", "damaged", "missing", "."}) {
    for (const std::string command : {"decode", "info", "preview", "decode --raw-planes p"}) {
      const bool reads = command == "info" || command == "decode --raw-planes p";
      const Tool::Result result = tool.Run(command + " " + name + (reads ? "" : " out.png"));
      EXPECT_EQ(result.code, 2) << command << " " << name;
      ExpectSentence(result, name);
    }
  }
  for (const std::string name :
       {"empty", "text", "missing", "absurd.ppm", "cut.png", "whole.kel"}) {
    const Tool::Result result = tool.Run("encode " + name + " out.kel");
    EXPECT_EQ(result.code, 2) << name;
    ExpectSentence(result, name);
  }
  const Tool::Result beyond = tool.Run("decode absurd out.png");
  EXPECT_EQ(beyond.code, 5);
  ExpectSentence(beyond, "absurd");
  EXPECT_NE(beyond.err.find("--max-pixels COUNT raises the limit"), std::string::npos);
  EXPECT_EQ(tool.folder.NumFiles(), numFiles) << "something was left behind";
}

TEST(Tool, CutOffFilesGiveWhatIsThere) {
  const Tool tool;
  tool.Put("in.ppm", SlopeImage(90, 70));
  tool.Do("encode --lossless --tile 40x40 in.ppm whole.kel");
  const std::string whole = tool.folder.Get("whole.kel");
  const json info = json::parse(tool.Do("info --json whole.kel"));
  std::size_t end = info["codestream_offset"];
  for (const json& part : info["tile_parts"]) end += part["tile"] < 2 ? int(part["length"]) : 0;
  end += std::size_t(info["tile_parts"][0]["offset"]) + 40;
  tool.folder.Put("cut.kel", whole.substr(0, end));
  const Tool::Result result = tool.Run("decode cut.kel out.ppm");
  EXPECT_EQ(result.code, 3);
  ExpectSentence(result, "cut.kel");
  EXPECT_NE(result.err.find("2 of 6 tiles are whole"), std::string::npos);
  const Image before = tool.GetImage("in.ppm"), after = tool.GetImage("out.ppm");
  for (std::uint32_t y = 0; y < 40; ++y) {
    for (std::uint32_t x = 0; x < 80; ++x) {
      ASSERT_EQ(after.planes[0].At(x, y), before.planes[0].At(x, y)) << "of the whole tiles";
    }
  }
  tool.folder.Put("out2.ppm", "mine");
  const Tool::Result strict = tool.Run("decode --strict cut.kel out2.ppm");
  EXPECT_EQ(strict.code, 3);
  ExpectSentence(strict, "cut.kel");
  EXPECT_EQ(tool.folder.Get("out2.ppm"), "mine");
  EXPECT_EQ(tool.Run("preview cut.kel out.png").code, 3);
  EXPECT_EQ(tool.Run("info cut.kel").code, 0);
}

TEST(Tool, MemoryLimitIsExitCode5) {
  const Tool tool;
  // 76.3 MiB of samples; that they are all zero keeps the file small.
  tool.Put("in.pgm", MakeImage(20000, 4000, 1, 8));
  tool.Do("encode --lossless in.pgm x.kel");
  for (const std::string threads : {"1", "4"}) {
    const std::string limited = "decode -j " + threads + " --max-memory ";
    const Tool::Result whole = tool.Run(limited + "64M --rotate 180 x.kel out.pgm");
    EXPECT_EQ(whole.code, 5);
    EXPECT_EQ(whole.err,
              "kel: x.kel: 76.3 MiB are needed for the decoded image, more than the memory limit "
              "of 64 MiB leaves; --max-memory SIZE raises the limit\n");
    EXPECT_EQ(tool.Run(limited + "8M x.kel out.pgm").code, 5);
    EXPECT_FALSE(std::filesystem::exists(tool.folder.Path("out.pgm")));
    tool.Do(limited + "40M x.kel out.pgm");  // a row of tiles at a time
    EXPECT_TRUE(tool.folder.Get("out.pgm") == tool.folder.Get("in.pgm"));
    std::filesystem::remove(tool.folder.Path("out.pgm"));
  }
  EXPECT_EQ(tool.Run("compare --max-memory 100M in.pgm x.kel").code, 5) << "two images are held";
  EXPECT_EQ(tool.Run("preview --max-memory 60M in.pgm out.pgm").code, 5);
  for (const std::string command : {"info x.kel", "check x.kel", "bench x.kel",
                                    "repair x.kel y.kel", "trim --reduce 1 x.kel y.kel"}) {
    EXPECT_EQ(tool.Run(command + " --max-memory 4K").code, 5) << command;
  }
}

// The boxes' depth is what a careless writer got wrong; the samples were coded with the other.
TEST(Tool, BoxDepthsAreToldAndDoNotChangeSamples) {
  const Tool tool;
  tool.Put("in.pgm", NoiseImage(33, 17, 1, 8));
  tool.Do("encode --lossless in.pgm x.kel");
  std::string file = tool.folder.Get("x.kel");
  for (const unsigned depth : {12U, 4U, 0x88U}) {
    file[file.find("ihdr") + 14] = static_cast<char>(depth - 1);
    tool.folder.Put("y.kel", file);
    tool.Do("decode y.kel out.pgm");
    EXPECT_EQ(tool.folder.Get("out.pgm"), tool.folder.Get("in.pgm")) << depth;
    const json component = json::parse(tool.Do("info --json y.kel"))["components"][0];
    EXPECT_EQ(component["depth"], 8U);
    EXPECT_EQ(component["box_depth"], depth & 0x7F);
    EXPECT_EQ(component["box_signed"], depth > 0x7F);
  }
}

TEST(Tool, UsageErrorsAreCode1) {
  const Tool tool;
  tool.Put("in.png", NoiseImage(4, 4, 1, 8));
  for (const char* arguments :
       {"", "frobnicate", "encode", "encode in.png", "encode in.png out.png",
        "encode -q 0 in.png x.kel", "encode --lossless -q 5 in.png x.kel",
        "encode --size 0 in.png x.kel", "encode --tile 5 in.png x.kel",
        "encode --no-such-option in.png x.kel", "decode --rotate 45 x.kel y.png",
        "decode x.kel y.xyz", "decode a b c", "compare in.png",
        "decode --output-dir d --raw-planes p x.kel",
        "encode --overwrite --skip-existing in.png x.kel", "encode --recursive . x.kel"}) {
    const Tool::Result result = tool.Run(arguments);
    EXPECT_EQ(result.code, 1) << arguments;
    EXPECT_EQ(result.out, "") << arguments;
    EXPECT_NE(result.err, "") << arguments;
  }
  EXPECT_EQ(tool.folder.NumFiles(), 1U);
}

std::set<std::string> LongOptions(const std::string& text) {
  std::set<std::string> options;
  const auto belongs = [](char c) { return (c >= 'a' && c <= 'z') || c == '-'; };
  for (std::size_t at = text.find("--"); at != text.npos; at = text.find("--", at)) {
    const auto end =
        std::find_if_not(text.begin() + static_cast<std::ptrdiff_t>(at), text.end(), belongs);
    const std::string option(text.begin() + static_cast<std::ptrdiff_t>(at), end);
    if (option.size() > 2 && option[2] != '-') options.insert(option);
    at += option.size();
  }
  return options;
}

// Completion and manual are made from the table of options: an escape or a quote that one of the
// many texts breaks.
TEST(Tool, ManPageAndCompletionAreMadeWell) {
  const Tool tool;
  std::ifstream file(KEL_MAN_PAGE);
  std::string manual(std::istreambuf_iterator<char>(file), {});
  for (std::size_t at = 0; (at = manual.find("\\-", at)) != manual.npos;) manual.erase(at, 1);
  const std::set<std::string> described = LongOptions(manual);
  for (const std::string command : {"encode", "decode", "info", "preview", "compare"}) {
    const std::string help = tool.Do(command + " --help");
    EXPECT_NE(help.find("Example"), std::string::npos) << command;
    const std::set<std::string> options = LongOptions(help.substr(0, help.find("Example")));
    EXPECT_GE(options.size(), 2U) << command;
    EXPECT_TRUE(std::ranges::includes(described, options)) << command;
    const std::string script = "source '" KEL_COMPLETION "'; COMP_WORDS=(kel " + command +
                               " --); COMP_CWORD=2; _kel; echo \"${COMPREPLY[@]}\"";
    tool.folder.Put("complete.sh", script);
    const Tool::Result completed = tool.Run(">/dev/null", "bash complete.sh;");
    EXPECT_EQ(LongOptions(completed.out), options) << command;
  }
}

}  // namespace
