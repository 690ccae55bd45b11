// What of an image is decoded: its resolution, a rectangle, and tiles that are given up.
#ifndef KEL_IMAGE_REGION_H
#define KEL_IMAGE_REGION_H

#include "decode/KelImageDecode.h"

namespace kel {

/// Decodes from now on at so many levels below full size, as far as a component has them. Returns
/// 0, or 15 for a number outside 0 to 32.
[[nodiscard]] KelLong SetReduction(ImageState& state, KelLong levels);

/// Decodes from now on no more than tiles that touch a rectangle of the canvas. Returns 0, or 15
/// for one that is empty or does not touch the image.
[[nodiscard]] KelLong SetRegion(ImageState& state, const Box& region);

/// Gives back what a tile holds. Returns 0, or 15 for an index out of range.
[[nodiscard]] KelLong ReleaseTile(ImageState& state, KelLong tile);

/// The host's buffers stand elsewhere: what has been delivered is copied, what is under way is
/// delivered again.
void MoveOutput(ImageMap& map) noexcept;

}  // namespace kel

#endif
