// A decoding host for tests, over the public interface alone: hands a stream in whole or in
// pieces, from memory or a stream, and gathers whole component planes from the tiles. Rotated
// output is turned back.
#ifndef TESTS_SUPPORT_DECODE_HOST_H
#define TESTS_SUPPORT_DECODE_HOST_H

#include <cstdint>
#include <vector>

#include "BitAssembler.h"
#include "kel/Kel.h"

namespace test {

enum class Source { kMemory, kSeekable, kUnseekable };

/// How to decode.
struct DecodeJob {
  Source source = Source::kMemory;
  std::size_t piece = 0;  ///< bytes that each frame sees more of; 0: everything at once
  KelDecodePixelAspectRatio aspect = KelAspectFull;
  KelImageOrientation orientation = KelOrientation0;
  bool skipConversion = false;
  bool skipRecast = false;
  bool useHostBuffers = false;  ///< 8- and 16-bit components land in buffers of the host
  int misalign = 0;             ///< bytes by which those buffers miss a multiple of 16
  bool force = false;           ///< ForceComponentTransform
  int outBits = 0;              ///< 0: each component's own depth
};

struct Plane {
  std::int64_t width = 0, height = 0;
  std::vector<std::int64_t> samples;
  bool operator==(const Plane&) const = default;
};

struct Decoded {
  KelLong initCode = -1, frameCode = -1;  ///< of InitDecoder, and of the last frame
  bool isComplete = false;                ///< every tile
  bool ranOutOfMemory = false;            ///< some frame did; later ones may have recovered
  std::vector<int> depths;
  std::vector<Plane> planes;      ///< from the output images of the tiles
  std::vector<Plane> hostPlanes;  ///< from the host's buffers, when used
  KelULong consumed = 0;
};

/// Sample i of a row in an output image's form; floats in 65536ths.
std::int64_t SampleAt(const std::uint8_t* row, std::int64_t i, const KelImageData& image, int bits);

Decoded Decode(const Bytes& data, const DecodeJob& job = {});

}  // namespace test

#endif
