// The decoder's part of the image map: parameters in force, the layout of tiles, where the decoding
// of each stands; making, restarting and releasing these records.
//
// Set-up costs time and memory proportional to the bands, never to the code blocks.
#ifndef KEL_DEC_MAP_H
#define KEL_DEC_MAP_H

#include <cstdint>

#include "KelParamSet.h"
#include "base/KelBox.h"
#include "format/KelPartition.h"
#include "image/KelImageMap.h"

namespace kel {

struct PacketWalk;   // the place among the packets of a tile
struct StashedPart;  // an early tile-part of a stream that cannot seek

/// One resolution of a tile-component.
struct ResolutionRecord {
  GridPartition precincts;
  /// Packets handled of each precinct, kept only where progression changes can bring a packet
  /// twice: pages of kCounterPage counters, made when one of their precincts is first handled.
  std::uint16_t** pages;
  std::int32_t leastHandled;  ///< the least of the counters,
  std::int64_t numAtLeast;    ///< and how many precincts have it
  /// So many layers are known to be handled of all precincts before this one.
  std::int64_t doneUpTo;
  std::int32_t doneLayers;
  std::uint8_t* codedCopy;  ///< of a packet that was taken, where the data do not stay; owned
};

inline constexpr std::int64_t kCounterPage = 4096;

/// One band of a tile-component.
struct BandRecord {
  Box box;                      ///< in band coordinates
  std::int64_t column, row;     ///< its first cell in the coefficient plane
  bool isFilled;                ///< every cell holds a value, decoded or zero
  bool isDamaged;               ///< some of these values were lost
  const std::uint8_t* coded;    ///< its bytes, where these are taken; null: it is zero
  std::uint64_t codedBytes;     ///< how many they are,
  std::uint64_t readableBytes;  ///< and how many can be read from there on
};

/// The decoder's part of a tile-component. Bands and resolutions exist from the first packet that
/// needs them to the end of the decoding.
struct DecTileComp {
  ParamSet params;
  bool hasData;              ///< a packet has brought coefficients; without one all are zero
  bool frameDone;            ///< the output of this frame is complete
  std::int32_t sampleDepth;  ///< bits per delivered sample: the file's, else the code stream's
  std::int32_t numLevels;    ///< NL of the style in force
  std::int32_t decodeRes;    ///< resolution to decode, NL being full size
  Box resolutionBox;         ///< box at that resolution
  std::int64_t rowStride;    ///< cells from row to row: the width rounded up to a multiple of 16
  BandRecord* bands;         ///< owned; 3 * decodeRes + 1 entries
  ResolutionRecord* resolutions;  ///< owned; NL + 1 entries
  std::uint64_t decodedBytes;     ///< bytes of the packets handled since decoding began
};

/// Where the decoding of a tile stands. Positions count from the start of the data.
struct TileProgress {
  std::int32_t numParts;  ///< tile-parts begun, in this and earlier frames
  bool partIsOpen;        ///< the last one has packets that had not arrived
  /// Tile-parts of a header alone that came before there was need to lay the tile out.
  std::int32_t numBareParts;
  bool partIsEmpty;             ///< no packet of the last one has been read
  bool hasLosses;               ///< packets of the tile are lost
  bool isBroken;                ///< with a tile-part that is lost went the places of later ones
  std::int64_t resumePosition;  ///< where the next packet of an open tile-part begins
  bool isComplete;              ///< every packet was decoded
  bool isChanged;               ///< packets, or the first header, were read since the last output
  bool isDelivered;             ///< complete, and its output made: later frames leave it alone
  bool mustMove;  ///< its output is to be copied to another place in the host's buffers
  /// Bands are not decoded as they are read: where their bytes are is noted, and a tile whose
  /// packets have all been read is decoded while it is delivered. Until then nothing else may
  /// happen to it.
  bool takesBands;
  bool mustNotTake;  ///< a packet was met that has to be decoded as it is read
};

/// The decoder's part of a tile: made when something of the tile is there, or is asked for.
struct DecTile {
  bool compsAreReady;  ///< the components' parts hold the parameters in force
  ParamSet params;
  TileProgress progress;
  PacketWalk* walk;    ///< owned
  StashedPart* early;  ///< owned; tile-parts waiting for those before them
};

/// The decoder's part of the map.
struct DecMap {
  KelHeaderParams* mainHeader;
  ParamSet mainParams;
  const std::uint8_t* fileDepths;  ///< depth minus one per component from the file, or null
  std::int32_t* reductions;        ///< levels below full size per component; owned
  bool hasRegion;                  ///< no more is wanted than a rectangle
  Box region;                      ///< it, on the canvas
};

/// The decoder's part of a tile, made from the map's pool unless it exists. Raises 8.
DecTile& EnsureDecTile(ImageMap& map, TileRecord& tile);

/// Where the decoding of a tile stands, be its record there or not.
const TileProgress& ProgressOf(const TileRecord& tile);

/// Makes the records of a tile's components, unless they exist. Raises 8; a further call then
/// goes on where this one stopped. An encoder's map gets the shared records alone.
void EnsureDecTileComps(ImageMap& map, TileRecord& tile);

/// Whether a tile touches the rectangle that is wanted.
bool IsWanted(const ImageMap& map, const TileRecord& tile);

/// Describes a component of a tile whose records have not been made, by the main header: its box
/// and sizes. The record is the caller's, and so is its decoder's part.
void DescribeTileComp(const ImageMap& map, const TileRecord& tile, std::int32_t c,
                      TileCompRecord& record);

/// Back to the state before the tile's first tile-part: coefficients and layout are released, the
/// parameters are the main header's again. Output images stay.
void RestartTile(ImageMap& map, TileRecord& tile) noexcept;

/// Releases what only the decoding of a tile needs: coefficients, layout, packet walk.
void ReleaseTileWork(const ImageMap& map, TileRecord& tile) noexcept;

/// Gives a tile the parameters of a tile-part header that has been read. A coding style and a
/// quantisation found become the tile's own and go to every component that has none of its own;
/// component segments and regions go to the components they name; progression changes replace the
/// tile's. With onlyProgression only the last applies. Raises 8.
void ApplyTileParams(ImageMap& map, TileRecord& tile, const KelHeaderParams& header,
                     bool onlyProgression);

/// Releases what the decoder's parts own, half-built ones included; may run twice. The shared
/// records are released after it.
void ReleaseDecMap(ImageMap& map) noexcept;

}  // namespace kel

#endif
