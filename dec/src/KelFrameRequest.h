// What the host asks a frame for, taken once from its records and made safe to use.
#ifndef KEL_FRAME_REQUEST_H
#define KEL_FRAME_REQUEST_H

#include <cstdint>

#include "kel/KelImage.h"

namespace kel {

/// What is asked of one channel.
struct ChannelRequest {
  std::uint8_t* buffer;  ///< the host's buffer, or null
  std::int64_t stride;   ///< bytes from row to row in it
  KelLong outBitDepth, outMax, outMin;
  bool hasFormat;    ///< the three values above were given
  bool isPlain8Bit;  ///< unsigned bytes over the whole range
  bool operator==(const ChannelRequest&) const = default;
};

struct FrameRequest {
  bool skipConversion, skipRecast;
  KelLong orientation;
  std::uint32_t numChannels;
  ChannelRequest* channels;  ///< owned; numChannels entries
};

/// Takes a request for an image of numComps components. Channels beyond them are not looked at; a
/// null frame asks for no recast. Raises 8. The caller owns the result.
FrameRequest TakeRequest(const KelFrameData* frame, std::int32_t numComps, bool skipConversion,
                         bool skipRecast, KelLong orientation);

/// Whether two requests ask for the same thing.
bool IsSameRequest(const FrameRequest& a, const FrameRequest& b);

/// The same, wherever the host's buffers are.
bool AsksForSameSamples(const FrameRequest& a, const FrameRequest& b);

/// Whether every component is asked for as unsigned bytes over the whole range.
bool AsksPlain8Bit(const FrameRequest& request, std::int32_t numComps);

/// Frees a request's channels; may run twice.
void ReleaseRequest(FrameRequest& request) noexcept;

}  // namespace kel

#endif
