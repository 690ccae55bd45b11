// A sample container for tests that is made from a vector and releases its buffer.
#ifndef TESTS_SUPPORT_TEST_IMAGE_H
#define TESTS_SUPPORT_TEST_IMAGE_H

#include <algorithm>
#include <type_traits>
#include <vector>

#include "base/KelMemFuncDefs.h"
#include "kel/KelImageData.h"

namespace test {

struct Image : KelImageData {
  template <class Sample>
  Image(KelLong width, KelLong height, const std::vector<Sample>& samples) {
    InitKelImageData(width, height, sizeof(Sample), std::is_same_v<Sample, float> ? 1 : 0, nullptr);
    const kel::BufferLock lock(ImageBuffer);
    std::copy(samples.begin(), samples.end(), lock.As<Sample>());
  }
  Image(const Image&) = delete;
  ~Image() override { FreeImageBuffer(); }

  /// The first samples as they stand now.
  template <class Sample>
  std::vector<Sample> Content(std::size_t count) const {
    const kel::BufferLock lock(ImageBuffer);
    return {lock.As<Sample>(), lock.As<Sample>() + count};
  }
};

}  // namespace test

#endif
