// Decodes arbitrary data through the public interface: from memory and by a stream, in one go,
// which must agree, and once more in growing pieces with the output asked for in some other form.
#include "DecodeHost.h"
#include "FuzzSupport.h"

namespace {

using fuzz::Require;
using test::Decoded;
using test::DecodeJob;
using test::Source;

/// No input may cost more memory than this, nor the time to fill it; nor may looking at its
/// samples.
constexpr std::size_t kMostBytes = 1 << 21;
constexpr std::int64_t kMostSamples = 1 << 16;

void CheckCodes(const Decoded& decoded) {
  for (const KelLong code : {decoded.initCode, decoded.frameCode}) {
    bool isDocumented = decoded.initCode != KelOK && code == -1;
    for (const KelLong known : {0, 3, 8, 10, 15, 17, 18, 21, 22, 25, 26, 29}) {
      isDocumented = isDocumented || code == known;
    }
    Require(isDocumented);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input{data, size};
  const std::uint32_t form = input.U8();
  const std::uint32_t more = input.U8();
  const std::uint32_t refused = input.U8();
  const test::Bytes bytes = input.Rest();

  test::HostMemory memory;
  memory.LimitBytes(kMostBytes);
  DecodeJob job;
  job.mostSamples = kMostSamples;
  const Decoded whole = test::Decode(bytes, job);
  job.source = Source::kSeekable;
  const Decoded streamed = test::Decode(bytes, job);
  CheckCodes(whole);
  // Boxes behind the code stream are met in memory alone, so only what opens there is compared.
  const bool isComparable = whole.initCode == KelOK && !whole.ranOutOfMemory &&
                            !streamed.ranOutOfMemory && streamed.initCode != KelErrNoMemory;
  if (isComparable) {
    Require(streamed.initCode == KelOK);
    Require(whole.frameCode == streamed.frameCode);
    Require(whole.planes == streamed.planes);
  }

  memory.RefuseRequest(refused);
  job.source = static_cast<Source>(form & 3 & 2 ? 2 : form & 1);
  job.piece = (form & 4) != 0 ? bytes.size() / 7 + 1 : 0;
  job.orientation = KelImageOrientation{static_cast<KelLong>((form >> 3 & 3) * 90)};
  job.skipConversion = (form & 32) != 0;
  job.skipRecast = (form & 64) != 0;
  job.useHostBuffers = (form & 128) != 0;
  job.aspect = KelDecodePixelAspectRatio{static_cast<KelLong>(more & 3)};
  job.force = (more & 4) != 0;
  job.outBits = static_cast<int>(more >> 3);
  try {
    CheckCodes(test::Decode(bytes, job));
  } catch (const KelException& failure) {
    // The option set of the host raises what is refused to it.
    Require(failure.errCode == KelErrNoMemory);
  }
  Require(memory.Outstanding() == 0);
  return 0;
}
