// What stands beside the samples, and files of which something is wrong or more than one picture.
#include "Metadata.hpp"

#include <kel/host/convert.hpp>
#include <kel/host/pnm.hpp>

#include "Exif.hpp"
#include "Tool.hpp"

namespace {

using namespace kel::host;
using namespace kel::tool;
using test::NoiseImage;
using test::Tool;

ExifField TextField(std::uint16_t tag, const std::string& text) {
  return {tag, 2, text.size() + 1, Bytes(text.c_str(), text.c_str() + text.size() + 1), 0};
}

/// A maker, a maker note that stood at 1000, and a place.
Bytes SomeExif(bool bigEndian) {
  ExifTree tree;
  tree.bigEndian = bigEndian;
  tree.image.push_back(TextField(271, "The maker of it"));
  tree.photo.push_back({37500, 7, 40, Bytes(40, 0xA5), 1000});
  tree.gps.push_back(TextField(18, "a map's datum"));
  return WriteExif(tree);
}

// Where the rules say that the first row and the first column are seen.
TEST(Metadata, OrientationsAreTurnedAsTheirNumbersSay) {
  const Tool tool;
  const Image stored = NoiseImage(5, 3, 3, 8);
  for (unsigned orientation = 1; orientation <= 8; ++orientation) {
    Image image = stored;
    SetOrientation(image, orientation);
    tool.Put("in.tif", image);
    tool.Do("encode --lossless in.tif x.kel");
    tool.Do("decode x.kel back.tif");
    EXPECT_EQ(OrientationOf(tool.GetImage("back.tif")), orientation);
    tool.Do("decode --auto-orient x.kel out.ppm");
    const Image seen = tool.GetImage("out.ppm");
    for (std::uint32_t y = 0; y < 3; ++y) {
      for (std::uint32_t x = 0; x < 5; ++x) {
        const std::uint32_t right = 4 - x, bottom = 2 - y;
        const std::uint32_t places[8][2] = {{x, y}, {right, y},  {right, bottom}, {x, bottom},
                                            {y, x}, {bottom, x}, {bottom, right}, {y, right}};
        const auto& at = places[orientation - 1];
        ASSERT_EQ(seen.planes[0].At(at[0], at[1]), stored.planes[0].At(x, y)) << orientation;
      }
    }
  }
}

// Offsets in maker notes count from the start of the file: they hold only where the note stays.
TEST(Metadata, MakerNotesKeepTheirPlaceAndOrderOnTheWayThroughTiff) {
  for (const bool bigEndian : {false, true}) {
    Image image = NoiseImage(300, 200, 3, 8);
    AddExif(image, SomeExif(bigEndian));
    MemorySink file;
    WriteImage(image, "x.tif", file);
    const Image back = ReadImage(file.bytes);
    const ExifTree tree = ReadExif(FindExif(back));
    EXPECT_EQ(tree.bigEndian, bigEndian);
    ASSERT_EQ(tree.photo.size(), 1U);
    EXPECT_EQ(tree.photo[0].position, 1000U);
    EXPECT_EQ(tree.photo[0].data, Bytes(40, 0xA5));
    EXPECT_EQ(file.bytes[1000], 0xA5);
    EXPECT_TRUE(tree.Has(271));
    test::ExpectSamePlanes(image, back);
  }
}

// Positions and counts that lead anywhere must not be followed out of the data; and what was asked
// to go must be gone from the bytes.
TEST(Metadata, DamagedExifIsHarmlessAndPlacesAreWipedOut) {
  const Bytes whole = SomeExif(true);
  for (std::size_t i = 0; i < whole.size(); ++i) {
    for (const unsigned value : {0U, 1U, 0x7FU, 0xFFU}) {
      Bytes exif = whole;
      exif[i] = static_cast<std::uint8_t>(value);
      RemoveExifGps(exif);
      SetExifOrientation(exif, 5);
      EXPECT_LE(ReadExif(exif).image.size(), 5U);
      Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(i));
      RemoveExifGps(cut);
      EXPECT_EQ(cut.size(), i);
    }
  }
  Image image;
  AddExif(image, whole);
  AddXmp(image, "<rdf:RDF exif:GPSLatitude='1' dc:a='2'><exif:GPSAltitude>3</exif:GPSAltitude>");
  StripMetadata(image, Strip::kGps);
  EXPECT_EQ(image.xml[0], "<rdf:RDF  dc:a='2'>");
  const ByteView left = FindExif(image);
  const std::string text(left.begin(), left.end());
  EXPECT_EQ(text.find("datum"), std::string::npos);
  EXPECT_NE(text.find("The maker"), std::string::npos);
  EXPECT_EQ(ReadExif(left).photo.size(), 1U);
}

TEST(Tool, LosslessKeepsSamplesThatDoNotUseTheirDepth) {
  const Tool tool;
  for (const std::string most : {"200", "1000"}) {
    std::string digits;
    for (int i = 0; i < 30; ++i) digits += std::to_string(i * 6) + " ";
    tool.folder.Put("in.pgm", "P2 6 5 " + most + " " + digits);
    tool.Do("encode --lossless in.pgm x.kel");
    tool.Do("decode x.kel out.pgm");
    const std::string out = tool.folder.Get("out.pgm");
    EXPECT_EQ(out.substr(0, 8 + most.size()), "P5\n6 5\n" + most + "\n");
    EXPECT_EQ(static_cast<unsigned char>(out.back()), 29 * 6);
    tool.Do("decode x.kel out.png");
    EXPECT_EQ(tool.Run("compare in.pgm out.png").code, 0) << "other formats hold scaled samples";
  }
}

TEST(Tool, DamageAndFurtherPicturesAreToldAndRefusedOnDemand) {
  const Tool tool;
  tool.Put("a.ppm", NoiseImage(40, 30, 3, 8));
  tool.Put("b.ppm", NoiseImage(20, 10, 1, 8));
  tool.folder.Put("two.ppm", tool.folder.Get("a.ppm") + tool.folder.Get("b.ppm"));
  tool.Put("c.jpg", NoiseImage(64, 64, 3, 8));
  std::string jpeg = tool.folder.Get("c.jpg");
  jpeg.replace(jpeg.size() / 2, 2, "\xFF\xD3");  // a marker where none belongs
  tool.folder.Put("c.jpg", jpeg);
  for (const std::string name : {"two.ppm", "c.jpg"}) {
    const Tool::Result told = tool.Run("encode " + name + " x.kel");
    EXPECT_EQ(told.code, 0);
    EXPECT_NE(told.err, "");
    const Tool::Result refused = tool.Run("encode --strict " + name + " y.kel");
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(tool.folder.Get("y.kel"), "");
  }
  tool.Do("encode --lossless --page all two.ppm two.kel");
  EXPECT_EQ(tool.Run("compare two-1.kel a.ppm").code, 0);
  EXPECT_EQ(tool.Run("compare two-2.kel b.ppm").code, 0);
  EXPECT_EQ(tool.Run("encode --no-overwrite --lossless --page all two.ppm two.kel").code, 4);
  std::filesystem::remove(tool.folder.Path("two-1.kel"));
  tool.Do("encode --skip-existing --report r --lossless --page all two.ppm two.kel");
  EXPECT_EQ(tool.Run("compare two-1.kel a.ppm").code, 0);
  EXPECT_NE(tool.folder.Get("r").find(R"("outputs":["two-1.kel","two-2.kel"],"bytes":)"),
            std::string::npos);
  EXPECT_EQ(tool.Run("encode --page 3 two.ppm z.kel").code, 2);
  tool.Do("preview --page 2 --lossless two.ppm second.ppm");
  EXPECT_EQ(tool.Run("compare second.ppm b.ppm").code, 0);
}

// A file is probed by its index and a pipe by its bytes: both must say the same.
TEST(Tool, InfoOfAFileIsThatOfAPipe) {
  const Tool tool;
  tool.Put("in.ppm", NoiseImage(300, 200, 3, 8));
  tool.Do("encode --tile 64x64 in.ppm x.kel");
  const std::string whole = tool.folder.Get("x.kel");
  for (const std::size_t bytes : {whole.size(), whole.size() / 2, std::size_t{60}}) {
    tool.folder.Put("x.kel", whole.substr(0, bytes));
    const Tool::Result file = tool.Run("info --tile-parts x.kel");
    const Tool::Result pipe = tool.Run("info --tile-parts - < x.kel");
    EXPECT_EQ(file.code, pipe.code);
    EXPECT_EQ(file.out.substr(file.out.find('\n') + 1), pipe.out.substr(pipe.out.find('\n') + 1));
  }
}

}  // namespace
