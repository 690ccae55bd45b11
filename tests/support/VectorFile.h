// The streams among the tests' files, and a decoder over one with what its host must hold.
#ifndef TESTS_SUPPORT_VECTOR_FILE_H
#define TESTS_SUPPORT_VECTOR_FILE_H

#include <fstream>
#include <iterator>
#include <string>
#include <utility>

#include "BitAssembler.h"
#include "Places.h"
#include "kel/Kel.h"

namespace test {

inline Bytes ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline Bytes Vector(const std::string& name) {
  return ReadFile(KEL_VECTORS "/" + name + ".kel");
}

/// A decoder over a block of memory.
struct MemoryDecoder {
  explicit MemoryDecoder(Bytes bytes, KelDecodePixelAspectRatio aspect = KelAspectFull)
      : data(std::move(bytes)) {
    options.InitToDefaults();
    block = {data.data(), static_cast<KelULong>(data.size())};
    code = image.InitDecoder(nullptr, &block, &options, nullptr, &resolutions, aspect);
  }
  ~MemoryDecoder() {
    image.Die();
    options.Die();
    if (resolutions != nullptr) KelGetMemObj()->Free(resolutions);
  }
  MemoryDecoder(const MemoryDecoder&) = delete;
  MemoryDecoder& operator=(const MemoryDecoder&) = delete;

  Bytes data;
  KelCompressedData block{};
  KelDecOpt options;
  KelImage image;
  KelULong* resolutions = nullptr;
  KelLong code;
};

}  // namespace test

#endif
