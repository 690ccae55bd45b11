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
  /// Larger images are decoded, but not gathered: only hostile headers have them.
  std::int64_t mostSamples = std::int64_t{1} << 24;
};

struct Plane {
  std::int64_t width = 0, height = 0;
  std::vector<std::int64_t> samples;

  std::int64_t& At(std::int64_t x, std::int64_t y) {
    return samples[static_cast<std::size_t>(y * width + x)];
  }
  std::int64_t At(std::int64_t x, std::int64_t y) const {
    return samples[static_cast<std::size_t>(y * width + x)];
  }
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

/// What a host asks of a frame: unsigned samples of given depths over their whole range, without
/// buffers of its own.
struct FrameRequest {
  explicit FrameRequest(const std::vector<KelLong>& bits)
      : outBits(bits), inBits(bits.size(), 8), zeros(bits.size()), strides(bits.size()) {
    for (const KelLong n : bits) most.push_back(static_cast<double>((std::int64_t{1} << n) - 1));
    data.NumChannels = static_cast<KelLong>(bits.size());
    data.OutBuffers = buffers.data();
    data.OutStrides = strides.data();
    data.InBitDepths = inBits.data();
    data.OutBitDepths = outBits.data();
    data.OutSigned = zeros.data();
    data.OutMax = most.data();
    data.OutMin = least.data();
  }
  FrameRequest(const FrameRequest&) = delete;

  std::vector<KelLong> outBits, inBits, zeros, strides;
  std::vector<void*> buffers = std::vector<void*>(outBits.size());
  std::vector<double> most, least = std::vector<double>(outBits.size());
  KelFrameData data;
};

Decoded Decode(const Bytes& data, const DecodeJob& job = {});

}  // namespace test

#endif
