// Previews and zoom: what coding will make of a tile, shown before a byte is written.
//
// A preview sends the host's samples through the encoder's transforms and quantisation and back
// through the decoder's synthesis, with the steps that a decoder would read from the stream, and
// leaves the block coding out, which loses nothing. Between two tiles it uses the memory of the
// encoder's transforms, and changes nothing that later coding depends on.
#ifndef KEL_PREVIEW_H
#define KEL_PREVIEW_H

#include "image/KelImageState.h"

namespace kel {

/// Previews a whole tile. Raises; returns 0.
[[nodiscard]] KelLong GetPreviewData(ImageState& state, KelLong tile);

/// Previews the part of a tile in a rectangle of the canvas at a resolution, 0 to the number of
/// levels; of the colours only the first component when luminanceOnly is set. Each component shown
/// gets one image, its output image and its preview data at once, which the next preview or the
/// coding of the tile releases. Without samples from the host there are no images. Returns 0.
/// Raises 15 for a tile or a resolution that there is not, and for a rectangle without samples;
/// what the fetch reported; 8.
[[nodiscard]] KelLong GetPreviewData(ImageState& state, KelLong tile, const Box& canvas,
                                     KelLong resolution, bool luminanceOnly);

void SetAlphaChannelsForPreview(ImageState& state, bool transparency, bool extraChannels);

/// A rectangle of a component enlarged by 2^k for the least k that reaches a factor above 1, or
/// reduced by 2^k for the least k that brings a factor below 1 up to 1. Returns an image of the
/// caller's, without a buffer where there are no samples to show: for depths other than 8 and 16,
/// an empty result, and when the host has none. Raises 15 for indices out of range, a rectangle
/// without samples and a factor outside 2^-15 to 2^15; what the fetch reported; 8.
KelImageData* Zoom(ImageState& state, KelLong tile, KelLong component, float factor,
                   const Box& canvas, KelLong* width, KelLong* height);

/// The part of a tile-component that a rectangle of the canvas covers, relative to the
/// tile-component's first sample. Empty when it covers none.
Box PartOfTileComp(const KelTileGeometry& component, const Box& canvas);

}  // namespace kel

#endif
