// One tile of a picture, or neighbours in a row, as a code stream of its own, at any of its
// resolutions.
//
// The piece's grid is the tiles' rectangle with every coordinate halved as often as asked; the
// coding styles lose as many levels, and the packets of the resolutions above are left out. What is
// left decodes to the very samples of that resolution. When all packets of the tile are there they
// are put into the order of layers and resolutions, which needs no rules for positions.
#ifndef KEL_HOST_TILE_PIECE_HPP
#define KEL_HOST_TILE_PIECE_HPP

#include <vector>

#include "RangeIndex.hpp"
#include "RegionDecode.hpp"

namespace kel::host {

/// What the index tells of a tile, copied: the index itself serves one thread at a time.
struct TileParts {
  std::uint32_t tile = 0;
  CanvasBox box;
  struct Header {
    KelULong part = 0;
    std::vector<KelIndexSegment> segments;
  };
  std::vector<Header> headers;
  std::vector<KelIndexPacket> packets;
  bool hasAllPackets = false;  ///< that the resolution asked for needs
};
/// What a decoder reads of a tile at a resolution; where its tile-parts stand. In the order of the
/// data.
std::vector<ByteRange> NeededBytes(RangeIndex& index, std::uint32_t tile, unsigned reduce);
std::vector<ByteRange> PlacesOfTile(RangeIndex& index, std::uint32_t tile);

TileParts CollectTile(RangeIndex& index, std::uint32_t tile, unsigned reduce);

/// The front of the data: boxes and main header, whose bytes it holds.
struct DataFront {
  Bytes bytes;  ///< up to the first tile-part
  const KelIndexFacts* facts = nullptr;
};

/// The bytes of the source that the piece is made of.
std::vector<ByteRange> BytesOfPiece(std::span<const TileParts> tiles, unsigned reduce);

/// Whether tiles beside each other, from left to right, make one piece: their edges must lie on a
/// grid after the halvings, all have a place on it, and nothing of them be missing.
bool CanJoin(const KelImageGeometry& grid, std::span<const TileParts> tiles, unsigned reduce);

/// The smallest rectangle that holds tiles beside each other.
CanvasBox BoxOf(std::span<const TileParts> tiles);

/// The piece; empty when a tile, which is alone then, has no place on the reduced grid. Throws
/// Error: kParameter for more halvings than a tile has levels, kInput.
Bytes BuildPiece(const DataFront& front, std::span<const TileParts> tiles, unsigned reduce,
                 RangeSource& source);

/// Boxes and main header with an end marker behind them, and the boxes that follow the code stream:
/// enough to describe the picture. Of the source it fetches those boxes alone; more than 64 MiB of
/// them are left out. Throws Error (kInput).
Bytes BuildDescription(const DataFront& front, RangeSource& source);

}  // namespace kel::host

#endif
