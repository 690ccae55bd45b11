// Decoding a part of a picture at one of its resolutions, tile by tile, from no more bytes than
// these need.
#ifndef KEL_HOST_REGION_DECODE_HPP
#define KEL_HOST_REGION_DECODE_HPP

#include "DecodePart.hpp"
#include "RangeIndex.hpp"

namespace kel::host {

/// The place of a region, clipped to the picture. Throws Error (kParameter) when it lies outside.
CanvasBox BoxOf(const KelImageGeometry& grid, const Region& region);
/// The place of a tile.
CanvasBox TileBox(const KelImageGeometry& grid, std::uint32_t tile);
/// The areas of all components within a rectangle of the canvas, after so many halvings.
std::vector<ComponentArea> AreasWithin(const KelImageGeometry& grid, const CanvasBox& box,
                                       unsigned halvings);

/// Gives an image the size of a rectangle of the canvas after so many halvings.
void SetSize(Image& image, const CanvasBox& box, unsigned halvings);
/// The tiles that a rectangle of the canvas touches, row by row.
std::vector<std::uint32_t> TilesTouching(const KelImageGeometry& grid, const CanvasBox& box);

constexpr unsigned kMostHalvings = 31;

/// Whether not all samples are wanted.
bool IsPartial(const DecodeParams& params);
/// The halvings that are asked for of a rectangle of the canvas, directly or as a size to fit.
unsigned HalvingsOf(const DecodeParams& params, const CanvasBox& box);

/// The rows of a part, decoded as they are read.
class PartRowSource : public RowSource {
 public:
  /// Of what has been read. Throws Error (kInput, kIncomplete) as Decode does.
  virtual DecodeReport Report() = 0;
};
/// What a row of tiles after the other can be decoded of, described as given; null of data that
/// come once, tile-parts that must be looked for, resolutions that the wavelet does not hold, and
/// images without plain rows. source outlives the result. Throws as Decode.
std::unique_ptr<PartRowSource> OpenPartRows(Source& source, const DecodeParams& params,
                                            const Image& description);
/// Decode where IsPartial.
Image DecodePartly(Source& source, const DecodeParams& params, DecodeReport* report);

}  // namespace kel::host

#endif
