// Where the samples of a tile land in the host's buffer for a component.
#ifndef KEL_HOST_PLACEMENT_H
#define KEL_HOST_PLACEMENT_H

#include <cstdint>

#include "KelDecMap.h"
#include "KelFrameRequest.h"

namespace kel {

/// The place of a tile-component's delivered samples in the host's buffer.
struct HostPlacement {
  std::uint8_t* address;       ///< of the first sample; null when the buffer cannot be used
  std::int64_t stride;         ///< bytes from row to row
  std::int64_t width, height;  ///< samples across and down that have a place, as delivered
  std::int64_t sampleBytes;
  std::int64_t skipX, skipY;  ///< delivered samples to the left and above, outside the rectangle
  bool isWhole;               ///< every delivered sample has its place
};

/// A host buffer is used when its depth is 8 or 16, its stride holds a row of the image, or of the
/// rectangle asked for, at the decoded resolution and orientation, and the tile's box lies inside
/// the image and touches the rectangle. (A tile with fewer levels than the image may have no place
/// in a reduced image.)
HostPlacement PlaceInHostBuffer(const ImageMap& map, const FrameRequest& request,
                                const TileCompRecord& record);

/// Copies the samples of an output image to their place in the host's buffer, if it can be used.
/// Raises 8 when the image cannot be locked.
void CopyToHostBuffer(const ImageMap& map, const FrameRequest& request,
                      const TileCompRecord& record);

/// Turns a component's 32-bit samples into the form that is asked for. Raises 8.
void RecastFor(const ChannelRequest& channel, KelLong sampleDepth, KelLong orientation,
               KelImageData& image);

/// Fills a component's place in the host's buffer with the sample that coefficients of zero make.
/// False when the buffer cannot be used. Raises 8.
bool FillHostBuffer(const ImageMap& map, const FrameRequest& request, const TileCompRecord& record);

}  // namespace kel

#endif
