// Images and bytes for tests of the host kit and the command.
#ifndef TESTS_HOST_TEST_IMAGES_HPP
#define TESTS_HOST_TEST_IMAGES_HPP

#include <gtest/gtest.h>
#include <kel/host.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <string_view>

namespace test {

/// Noise that uses every value of the depth.
inline void FillWithNoise(kel::host::Plane& plane, unsigned seed) {
  std::mt19937 random(seed);
  for (std::uint32_t y = 0; y < plane.Height(); ++y) {
    for (std::uint32_t x = 0; x < plane.Width(); ++x) {
      plane.Set(x, y, static_cast<std::uint32_t>(random()) & plane.MaxValue());
    }
  }
}

inline kel::host::Image NoiseImage(std::uint32_t width, std::uint32_t height, unsigned colours,
                                   unsigned depth, bool opacity = false) {
  kel::host::Image image = kel::host::MakeImage(width, height, colours, depth, opacity);
  for (std::size_t c = 0; c < image.planes.size(); ++c) {
    FillWithNoise(image.planes[c], static_cast<unsigned>(c + 1 + 7 * width + 13 * depth));
  }
  return image;
}

/// Same planes: number, size, depth, roles and samples.
inline void ExpectSamePlanes(const kel::host::Image& a, const kel::host::Image& b) {
  ASSERT_EQ(a.planes.size(), b.planes.size());
  EXPECT_EQ(a.width, b.width);
  EXPECT_EQ(a.height, b.height);
  for (std::size_t c = 0; c < a.planes.size(); ++c) {
    ASSERT_EQ(a.planes[c].Depth(), b.planes[c].Depth());
    EXPECT_EQ(a.planes[c].role, b.planes[c].role);
    EXPECT_EQ(a.planes[c].colour, b.planes[c].colour);
  }
  EXPECT_TRUE(kel::host::Compare(a, b).identical);
}

/// The smallest profile that readers accept for RGB or grey.
inline kel::host::Bytes MakeProfile(std::string_view space) {
  kel::host::Bytes profile(400);
  std::mt19937 random(1);  // libpng takes what shrinks too well for cut off
  std::generate(profile.begin() + 144, profile.end(),
                [&] { return static_cast<std::uint8_t>(random()); });
  const auto put = [&](std::size_t at, std::string_view text) {
    std::copy(text.begin(), text.end(), profile.begin() + static_cast<std::ptrdiff_t>(at));
  };
  profile[2] = 400 >> 8;
  profile[3] = 400 & 0xFF;
  profile[8] = 2;
  put(12, "mntr");
  put(16, space);
  put(20, "XYZ ");
  put(36, "acsp");
  put(68, std::string_view("\0\0\xF6\xD6\0\1\0\0\0\0\xD3\x2D", 12));
  profile[131] = 1;  // one tag, "cprt", of 256 bytes behind the table
  put(132, std::string_view("cprt\0\0\0\x90\0\0\1\0", 12));
  return profile;
}

/// Runs a call that must throw the kit's exception, and returns it.
template <class Call>
kel::host::Error ErrorOf(Call call) {
  try {
    call();
  } catch (const kel::host::Error& error) {
    return error;
  }
  ADD_FAILURE() << "nothing was thrown";
  return {kel::host::Failure::kParameter, "nothing was thrown"};
}

/// A folder that is gone after the test.
class Folder {
 public:
  Folder() {
    std::string name = (std::filesystem::temp_directory_path() / "kel-test-XXXXXX").string();
    path_ = mkdtemp(name.data());
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::string Path(const std::string& name) const { return path_ + "/" + name; }
  void Put(const std::string& name, const std::string& text) const {
    std::ofstream(Path(name), std::ios::binary) << text;
  }
  std::string Get(const std::string& name) const {
    std::ifstream file(Path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::size_t NumFiles() const {
    const std::filesystem::directory_iterator files(path_);
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
  }

 private:
  std::string path_;
};

}  // namespace test

#endif
