// What files of strangers may cost in the kit and the command, and how the limits end the work.
#include <kel/host.hpp>

#include <filesystem>

#include "HostMemory.h"
#include "Places.h"
#include "Tool.hpp"

namespace {

using namespace kel::host;
namespace fs = std::filesystem;

/// The files under tests/hostile with one of the endings.
std::vector<std::string> HostileFiles(std::initializer_list<std::string> endings) {
  std::vector<std::string> files;
  for (const auto& entry : fs::directory_iterator(KEL_HOSTILE)) {
    for (const std::string& ending : endings) {
      if (entry.path().extension() == ending) files.push_back(entry.path().string());
    }
  }
  return files;
}

// Planes, or records of tiles, made of what a header announces.
TEST(Hostile, TheKitHoldsNoMoreThanBytesAndPlanes) {
  for (const std::string& name : HostileFiles({".kel"})) {
    SCOPED_TRACE(fs::path(name).filename().string());
    const Session session(std::uint64_t{1} << 32);
    std::uint64_t planes = 0;
    DecodeParams params;
    params.acceptIncomplete = true;
    params.threads = 1;
    try {
      FileSource source(name);
      const Image image = Decode(source, params);
      for (const Plane& plane : image.planes) planes += plane.StrideBytes() * plane.Height();
    } catch (const Error& error) {
      EXPECT_TRUE(error.Kind() == Failure::kInput || error.Kind() == Failure::kMemory)
          << error.what();
    }
    const std::uint64_t most = fs::file_size(name) <= 1024 ? 16 << 20 : 64 << 20;
    EXPECT_LE(Session::PeakBytes(), most + 16 * planes);
  }
}

// The same as the bytes arrive: planes for a header alone, a look at everything for every piece.
TEST(Hostile, ArrivingFilesCostNoMoreInSmallPieces) {
  const std::vector<Plane> none;
  for (const std::string& name : HostileFiles({".kel"})) {
    SCOPED_TRACE(fs::path(name).filename().string());
    const Session session(std::uint64_t{1} << 32);
    FileSource source(name);
    Bytes storage;
    const ByteView bytes = ReadAll(source, storage);
    ProgressiveDecoder decoder;
    std::size_t numLooks = 0;
    const std::size_t piece = bytes.size() < 4096 ? 1 : 100;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
      try {
        const auto update = decoder.Feed(bytes.subspan(at, std::min(piece, bytes.size() - at)));
        numLooks += update.improvedTiles.empty() ? 0 : 1;
      } catch (const Error&) {  // may go on
      }
    }
    std::uint64_t planes = 0;
    for (const Plane& plane : decoder.HasHeader() ? decoder.Description().planes : none) {
      planes += plane.StrideBytes() * plane.Height();
    }
    // Where nothing can be decoded there are no planes, and few samples otherwise.
    if (numLooks == 0) planes = std::min(planes, std::uint64_t{1} << 20);
    EXPECT_LE(Session::PeakBytes(), (bytes.size() <= 1024 ? 16 << 20 : 64 << 20) + 16 * planes);
    EXPECT_LE(numLooks, 16U);
  }
}

TEST(Hostile, EndMarkersAtTheEndsOfPiecesAreLookedAtSomeTimes) {
  test::HostMemory memory;
  const Session session;
  MemorySink sink;
  Encode(test::NoiseImage(20, 20, 1, 8), {}, sink);
  const std::uint8_t marker = sink.bytes[sink.bytes.size() - 2];
  sink.bytes.resize(sink.bytes.size() - 200);
  const auto feed = [&](std::size_t piece) {
    const std::size_t before = memory.Requests();
    ProgressiveDecoder decoder;
    decoder.Feed(sink.bytes);
    const Bytes ends{marker, 0xD9};
    for (int i = 0; i < 1000; ++i) decoder.Feed(ByteView(ends).first(piece));
    return memory.Requests() - before;
  };
  EXPECT_LE(feed(2), 8 * feed(1));
}

// Channels by the hundred, each as large as the picture, of which a screen shows three.
TEST(Hostile, AScreenTakesNoMoreChannelsThanItShows) {
  Image image;
  Plane& plane = image.planes.emplace_back(image.width = 500, image.height = 500, 8);
  plane.Set(0, 0, 1);
  const Palette::Column column{8, ChannelRole::kColour, {3, 4}};
  image.palette = Palette{{300, column}};
  Image many = image;
  many.palette.reset();
  many.planes.assign(300, Plane(1, 1, 8));
  for (std::size_t c = 0; c < 300; ++c) {
    many.planes[c].colour = static_cast<unsigned>(300 - c);
    many.planes[c].xStep = many.planes[c].yStep = 500;
    many.planes[c].Set(0, 0, static_cast<std::uint32_t>(c) / 2);
  }
  const Session session(4 << 20);
  Bytes pixels(std::size_t{500} * 500 * 3);
  PutScreenPixels(image, false, pixels.data(), 1500);
  EXPECT_EQ(Bytes(pixels.begin(), pixels.begin() + 4), (Bytes{4, 4, 4, 3}));
  PutScreenPixels(many, false, pixels.data(), 1500);
  EXPECT_EQ(Bytes(pixels.begin(), pixels.begin() + 4), (Bytes{149, 149, 148, 149}));
}

// Readers of image files that make room for what a header announces, or scan it for ever.
TEST(Hostile, ImageFilesThatOnlyAnnounceSamplesAreRefused) {
  const Session session;
  for (const std::string& name : HostileFiles({".png", ".jpg", ".tif"})) {
    SCOPED_TRACE(fs::path(name).filename().string());
    FileSource file(name);
    Bytes bytes;
    ReadAll(file, bytes);
    EXPECT_THROW(kel::tool::ReadImage(bytes), Error);
  }
}

TEST(Hostile, LimitsOnPixelsAndTimeEndTheCommands) {
  const test::Tool tool;
  tool.Put("in.png", test::NoiseImage(300, 200, 3, 8));
  tool.Do("encode in.png in.kel");
  for (const std::string command : {"encode in.png o.kel", "decode in.kel o.png",
                                    "preview in.kel o.png", "compare in.kel in.png"}) {
    EXPECT_EQ(tool.Run(command + " --max-pixels 59999").code, 5) << command;
    EXPECT_EQ(tool.Run(command + " --timeout 0.000001").code, 6) << command;
  }
  EXPECT_EQ(tool.Run("compare in.kel in.kel --max-pixels 60000 --timeout 60").code, 0);
  EXPECT_EQ(tool.Run("decode " KEL_HOSTILE "/big_30000.kel o.png").code, 2);
  // 255 colours for each of 16 million indices.
  EXPECT_EQ(tool.Run("compare " KEL_HOSTILE "/pal_4000.kel " KEL_HOSTILE "/pal_4000.kel"
                     " --timeout 60")
                .code,
            0);
  EXPECT_FALSE(fs::exists(tool.folder.Path("o.png")));
}

}  // namespace
