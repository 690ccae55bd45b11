// Encodes an image that the input describes, under options that it chooses, with a request for
// memory refused if it says so; then decodes what was written. A lossless file gives the samples
// back, any other one an image that is whole.
#include <algorithm>

#include "EncodeHost.h"
#include "FuzzSupport.h"

namespace {

using fuzz::Require;

KelLong Between(fuzz::Input& input, KelLong least, KelLong most) {
  return least + static_cast<KelLong>(input.U8()) % (most - least + 1);
}

/// The side of tiles that cut a side of the image into ten at the most.
KelLong TileSide(fuzz::Input& input, KelLong side) {
  return std::max(Between(input, 1, 64), (side + 9) / 10);
}

/// An image of up to five components of one depth, whose samples are the rest of the input.
test::Picture PictureFrom(fuzz::Input& input) {
  const KelLong width = Between(input, 1, 60), height = Between(input, 1, 60);
  std::vector<KelLong> sampling;
  const auto count = static_cast<std::size_t>(Between(input, 1, 5));
  for (std::size_t c = 0; c < count; ++c) {
    constexpr KelLong kFactors[] = {1, 1, 2, 16};
    sampling.push_back(kFactors[Between(input, 0, 3)]);
  }
  const std::vector<KelLong> depths(count, Between(input, 1, 16));
  return test::MakePicture(width, height, depths, sampling);
}

void ReplaceSamples(test::Picture& picture, fuzz::Input& input) {
  for (std::size_t c = 0; c < picture.Count(); ++c) {
    for (std::int64_t& sample : picture.planes[c].samples) {
      if (input.left < 2) return;
      const std::int64_t high = input.U8();
      sample = (high * 256 + input.U8()) & ((std::int64_t{1} << picture.depths[c]) - 1);
    }
  }
}

void Choose(KelEncOpt& options, fuzz::Input& input, const test::Picture& picture) {
  const std::vector<KelLong>& sampling = picture.xRsiz;
  const bool areAlike =
      picture.Count() >= 3 && sampling[0] == sampling[1] && sampling[1] == sampling[2];
  const std::uint32_t flags = input.U8();
  options.Irreversible = (flags & 1) != 0;
  options.ComponentTransform = (flags & 2) != 0 && areAlike;
  options.ProgressionOrder = (flags & 4) != 0 ? KelCPRL : KelRLCP;
  options.TransparencyPresent = (flags & 8) != 0 && picture.Count() == 4;
  options.TransparencyComponent = 3;
  if (options.TransparencyPresent) options.NumColorChannels = 3;
  options.NumLevels = Between(input, 0, 8);
  options.NumLayers = Between(input, 1, 3);
  options.TargetQuality = static_cast<float>(Between(input, 1, 100));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input{data, size};
  const std::uint32_t refused = input.U8();
  test::HostMemory memory;
  test::Picture picture = PictureFrom(input);
  const KelLong tileWidth = TileSide(input, picture.width);
  const KelLong tileHeight = TileSide(input, picture.height);
  test::HostStream stream({}, true);
  bool isLossless = false;
  try {
    test::EncodeHost host(picture, tileWidth, tileHeight);
    Choose(host.options, input, picture);
    ReplaceSamples(picture, input);
    host.image = picture;
    isLossless = host.options.Irreversible == 0;
    memory.RefuseRequest(refused);
    const KelLong code = host.EncodeTo(stream);
    Require(code == KelOK || (code == KelErrNoMemory && memory.HasRefused()));
    memory.RefuseRequest(0);
    if (code != KelOK) return 0;
  } catch (const KelException& failure) {
    Require(failure.errCode == KelErrNoMemory && memory.HasRefused());
    return 0;
  }
  const test::Decoded decoded = test::Decode(stream.bytes);
  Require(decoded.initCode == KelOK && decoded.frameCode == KelOK && decoded.isComplete);
  Require(decoded.planes.size() == picture.Count());
  for (std::size_t c = 0; c < picture.Count(); ++c) {
    Require(decoded.planes[c].width == picture.planes[c].width);
    Require(!isLossless || decoded.planes[c] == picture.planes[c]);
  }
  return 0;
}
