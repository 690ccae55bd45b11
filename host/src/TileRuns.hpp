// Cutting a code stream into parts that can be decoded apart from each other.
//
// A rectangle of tiles is an image of its own on the same grid: the main header with the image
// area and the origin of the tile grid moved to the rectangle, and the tile-parts of its tiles
// renumbered. All coordinates stay what they are, so every tile decodes to the same samples.
// Where things stand, the library's index tells; that a part came out as planned is checked on
// what the library reads of it. How a stream is cut depends on the stream alone, never on the
// number of threads.
#ifndef KEL_HOST_TILE_RUNS_HPP
#define KEL_HOST_TILE_RUNS_HPP

#include <vector>

#include "FrameTarget.hpp"

namespace kel::host {

/// A rectangle of tiles, with their tile-parts in the order of the data.
struct TileRun {
  std::uint32_t column = 0, row = 0, columns = 1, rows = 1;
  std::vector<KelIndexTilePart> parts;
};

/// Whether runs of its tiles can be data of their own.
bool CanBeCut(const KelIndexFacts& facts);

/// All tiles that have tile-parts, in runs; few tiles each, unless they are small. Nothing when
/// the tile-parts are not regular or there is only one tile: such data are decoded as they are.
std::vector<TileRun> PlanRuns(Index& index);

/// The run as data of its own: the boxes that bear on decoding, main header, tile-parts.
Bytes BuildRun(ByteView bytes, const KelIndexFacts& facts, const TileRun& run);

/// A tile-part wherever it stands.
struct TilePartBytes {
  std::uint32_t tile = 0;
  ByteView bytes;
  std::uint64_t numMissing = 0;  ///< bytes that its length promises and the data lack
};
/// The same of a rectangle of tiles, in place of what the result holds; headers holds everything
/// before the first tile-part. A tile-part that lacks bytes comes last, where the library sees that
/// its data end early.
void BuildRun(ByteView headers, const KelIndexFacts& facts, const TileRun& run,
              std::span<const TilePartBytes> parts, Bytes& data);

/// The areas of a run's components.
std::vector<ComponentArea> AreasOf(const KelImageGeometry& whole, const TileRun& run);

/// Whether the library found in a run what is meant to be there: its rectangle of the whole grid,
/// the same components.
bool IsRunOf(const KelImageGeometry& whole, const TileRun& run, const KelImageGeometry& found);

}  // namespace kel::host

#endif
