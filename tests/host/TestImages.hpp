// Images and bytes for tests of the host kit and the command.
#ifndef TESTS_HOST_TEST_IMAGES_HPP
#define TESTS_HOST_TEST_IMAGES_HPP

#include <gtest/gtest.h>
#include <kel/host.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

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
