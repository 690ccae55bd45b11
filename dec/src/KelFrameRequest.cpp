// Taking the host's frame data: values out of range are brought into it, and missing arrays count
// as not asked for.
#include "KelFrameRequest.h"

#include <algorithm>

#include "base/KelMemFuncDefs.h"

namespace kel {
namespace {

/// The range of plain 8-bit output, with the tolerance that hosts' arithmetic needs.
bool IsPlainRange(double outMax, double outMin) {
  return outMax >= 254.01 && outMax <= 255.01 && outMin >= -0.001 && outMin <= 0.001;
}

ChannelRequest TakeChannel(const KelFrameData& frame, std::uint32_t c) {
  ChannelRequest channel{};
  if (frame.OutBuffers != nullptr && frame.OutStrides != nullptr) {
    channel.buffer = static_cast<std::uint8_t*>(frame.OutBuffers[c]);
    channel.stride = frame.OutStrides[c];
  }
  channel.hasFormat =
      frame.OutBitDepths != nullptr && frame.OutMax != nullptr && frame.OutMin != nullptr;
  if (!channel.hasFormat) return channel;
  channel.outBitDepth = frame.OutBitDepths[c];
  channel.outMax = RoundToInt32(frame.OutMax[c]);
  channel.outMin = RoundToInt32(frame.OutMin[c]);
  channel.isPlain8Bit = channel.outBitDepth == 8 && frame.InBitDepths != nullptr &&
                        frame.InBitDepths[c] == 8 && frame.OutSigned != nullptr &&
                        frame.OutSigned[c] == 0 && IsPlainRange(frame.OutMax[c], frame.OutMin[c]);
  return channel;
}

}  // namespace

FrameRequest TakeRequest(const KelFrameData* frame, std::int32_t numComps, bool skipConversion,
                         bool skipRecast, KelLong orientation) {
  FrameRequest request{.skipConversion = skipConversion,
                       .skipRecast = skipRecast || frame == nullptr,
                       .orientation = orientation,
                       .numChannels = 0,
                       .channels = nullptr};
  if (frame == nullptr) return request;
  const auto numChannels = AsCount(std::min(frame->NumChannels, numComps));
  auto channels = OwnedArray<ChannelRequest>::Make(numChannels);
  for (std::uint32_t c = 0; c < numChannels; ++c) channels[c] = TakeChannel(*frame, c);
  request.numChannels = static_cast<std::uint32_t>(numChannels);
  request.channels = channels.Release();
  return request;
}

bool IsSameRequest(const FrameRequest& a, const FrameRequest& b) {
  return a.skipConversion == b.skipConversion && a.skipRecast == b.skipRecast &&
         a.orientation == b.orientation &&
         std::equal(a.channels, a.channels + a.numChannels, b.channels, b.channels + b.numChannels);
}

bool AsksForSameSamples(const FrameRequest& a, const FrameRequest& b) {
  const auto isSame = [](ChannelRequest x, ChannelRequest y) {
    x.buffer = y.buffer = nullptr;
    x.stride = y.stride = 0;
    return x == y;
  };
  return a.skipConversion == b.skipConversion && a.skipRecast == b.skipRecast &&
         a.orientation == b.orientation &&
         std::equal(a.channels, a.channels + a.numChannels, b.channels, b.channels + b.numChannels,
                    isSame);
}

bool AsksPlain8Bit(const FrameRequest& request, std::int32_t numComps) {
  return request.numChannels == static_cast<std::uint32_t>(numComps) &&
         std::all_of(request.channels, request.channels + request.numChannels,
                     [](const ChannelRequest& channel) { return channel.isPlain8Bit; });
}

void ReleaseRequest(FrameRequest& request) noexcept {
  if (request.channels != nullptr) KelFree(request.channels);
  request.channels = nullptr;
  request.numChannels = 0;
}

}  // namespace kel
