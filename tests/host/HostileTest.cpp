// What files of strangers may cost in the kit and the command, and how the limits end the work.
#include <kel/host.hpp>

#include <filesystem>

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
