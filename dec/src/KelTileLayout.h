// The layout of a tile for decoding: sizes, bands, precincts, and the plane of its coefficients.
#ifndef KEL_TILE_LAYOUT_H
#define KEL_TILE_LAYOUT_H

#include <cstdint>

#include "KelDecMap.h"

namespace kel {

/// Lays a tile out for decoding with the parameters in force: levels and boxes. Raises 29 for code
/// blocks larger than 8 x 8 in a band that has samples. An earlier layout is released.
void LayOutTile(ImageMap& map, TileRecord& tile);

/// Makes the records of a component's bands, or of its resolutions, unless they exist: when the
/// first packet that needs them is met. Raises 8.
void EnsureBands(TileCompRecord& record);
void EnsureResolutions(TileCompRecord& record);

/// The precincts of a resolution, from 0 to the component's levels.
GridPartition PrecinctsOf(const TileCompRecord& record, std::int32_t resolution);

/// Gives an output image that holds no samples the size and the kind of those it will hold before
/// they are recast: rows padded to rowStride, 32-bit cells.
void DescribeOutput(TileCompRecord& record);

/// Whether a style asks for code blocks larger than 8 x 8 in a band of the box that has samples.
bool HasLargeBlocks(const KelCodingStyle& style, const Box& box);

/// Obtains a component's coefficient plane (aligned, contents undefined, no band filled), unless
/// it exists.
void EnsureCoefficients(TileCompRecord& record);

/// Fills a band with zeros unless it is filled.
void EnsureBandFilled(TileCompRecord& record, std::int32_t band, std::int32_t* cells);

/// The size of what is decoded of a component, by the style in force.
void SizeTileComp(const ImageMap& map, TileCompRecord& record);

/// Releases coefficients, bands and resolutions; may run twice.
void ReleaseLayout(TileCompRecord& record) noexcept;

}  // namespace kel

#endif
