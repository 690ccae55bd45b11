// A walk over the outer structure of a file or code stream: boxes, the segments of the main header
// that a host needs and the library does not report, and the tile-parts.
//
// The library stays the judge of what can be decoded; this walk only has to find its way in data
// that the library has accepted, and says where it lost it. It never throws and looks at nothing
// outside the bytes given.
#ifndef KEL_HOST_STREAM_SCAN_HPP
#define KEL_HOST_STREAM_SCAN_HPP

#include <cstdint>
#include <string>
#include <vector>

#include "kel/host/streams.hpp"

namespace kel::host {

struct ScannedBox {
  std::uint32_t type = 0;    ///< four characters, big-endian
  std::uint64_t offset = 0;  ///< of the box
  std::uint64_t length = 0;  ///< of the whole box; the rest of the data for one without length
  bool isWhole = false;      ///< its length is given, and all of it is there
};

struct ScannedTilePart {
  std::uint32_t tile = 0;
  unsigned part = 0;
  std::uint64_t offset = 0;  ///< of its SOT marker, from the first byte of the data
  std::uint64_t length = 0;
};

/// The grid of the SIZ segment, as it stands there.
struct ScannedGrid {
  std::uint64_t x1 = 0, y1 = 0, x0 = 0, y0 = 0;  ///< image area
  std::uint64_t tileWidth = 0, tileHeight = 0;
  std::uint64_t tileX0 = 0, tileY0 = 0;  ///< origin of the tile grid
  std::uint64_t TilesAcross() const;
  std::uint64_t TilesDown() const;
};

struct StreamScan {
  bool boxed = false;
  std::uint8_t markerByte = 0;  ///< 0xAB or 0xFF
  std::vector<ScannedBox> boxes;
  std::uint32_t numMappedChannels = 0;  ///< entries of the component mapping box; 0 without one
  /// What the boxes say about every component: bit 7 that it is signed, below it the depth minus
  /// one. Empty when they say nothing.
  Bytes boxDepths;

  std::uint64_t codeStreamOffset = 0, codeStreamEnd = 0;
  std::uint64_t sizOffset = 0;  ///< of the SIZ marker; 0 when not found
  ScannedGrid grid;
  std::string comment;
  bool hasMainHeader = false;        ///< all of it has arrived: it ends with a tile-part
  std::uint64_t tilePartOffset = 0;  ///< of the first tile-part

  std::vector<ScannedTilePart> tileParts;
  /// The tile-parts follow each other by their lengths, name tiles of the grid, and end with the
  /// end marker or the data. Where a length leads elsewhere, the distance to the next tile-part
  /// stands in the list.
  bool tilePartsRegular = false;
  /// A tile-part header brings a coding style of its own.
  bool tilesHaveOwnStyle = false;
};

StreamScan ScanStream(ByteView bytes);

/// The depth that the boxes give a component; 0 when they give none.
unsigned BoxDepth(const StreamScan& scan, std::size_t component);

}  // namespace kel::host

#endif
