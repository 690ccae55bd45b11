// The image map: one record per tile, one per component of each tile, and the coding parameters
// in force at three levels (image, tile, tile-component).
//
// The records of a tile's components are made when the tile is first needed, so that an image
// costs nothing for tiles that never arrive. They come from the map's record pool and live until
// the map is released; what a record owns beyond itself is named at its field. Set-up costs time
// and memory proportional to the bands, never to the code blocks.
#ifndef KEL_IMAGE_MAP_H
#define KEL_IMAGE_MAP_H

#include <cstdint>

#include "base/KelBox.h"
#include "base/KelMemPool.h"
#include "format/KelHeaders.h"
#include "format/KelPartition.h"
#include "kel/KelTileComponent.h"

namespace kel {

struct CodedTileComp;  // the encoder's coded bytes and size tables
struct PacketWalk;     // the decoder's place among the packets of a tile
struct StashedPart;    // an early tile-part of a stream that cannot seek

/// Coding parameters in force at one level. A record that is not owned belongs to the level
/// above.
struct ParamSet {
  KelCodingStyle* style;
  KelQuantParams* quant;
  KelProgressionChanges* changes;  ///< image and tile level only
  bool ownsStyle, ownsQuant, ownsChanges;
};

/// One resolution of a tile-component in the decoder.
struct ResolutionRecord {
  GridPartition precincts;
  /// Packets handled of each precinct, kept only where progression changes can bring a packet
  /// twice: pages of kCounterPage counters, made when one of their precincts is first handled.
  std::uint16_t** pages;
  std::int32_t leastHandled;  ///< the least of the counters,
  std::int64_t numAtLeast;    ///< and how many precincts have it
};

inline constexpr std::int64_t kCounterPage = 4096;

/// One band of a tile-component in the decoder.
struct BandRecord {
  Box box;                   ///< in band coordinates
  std::int64_t column, row;  ///< its first cell in the coefficient plane
  bool isFilled;             ///< every cell holds a value, decoded or zero
};

/// One component of one tile.
struct TileCompRecord {
  KelTileGeometry tileGeom;  ///< identity and box
  bool optShared;            ///< the option set is the image's, not one of the component's own
  bool extraChannel;         ///< encoder: not a colour channel
  bool frameDone;            ///< decoder: the output of this frame is complete
  bool dataReady;            ///< output exists
  bool dataValid;            ///< output is in outputImage
  KelEncOpt* encOpt;
  KelDecOpt* decOpt;
  KelImageData* waveletData;  ///< owned; decoder: coefficients, while the tile is not complete
  KelImageData* outputImage;  ///< owned; decoder: samples; encoder: the preview
  KelImageData* progData;     ///< owned unless it is outputImage; encoder: the preview too
  KelTileComponent handle;    ///< owns its cell
  ParamSet params;

  // Decoder. Bands and resolutions exist from the first header to the end of the decoding.
  std::int32_t sampleDepth;  ///< bits per delivered sample: the file's, else the code stream's
  std::int32_t numLevels;    ///< NL of the style in force
  std::int32_t decodeRes;    ///< resolution to decode, NL being full size
  Box resolutionBox;         ///< box at that resolution
  std::int64_t rowStride;    ///< cells from row to row: the width rounded up to a multiple of 16
  BandRecord* bands;         ///< owned; 3 * decodeRes + 1 entries
  ResolutionRecord* resolutions;  ///< owned; NL + 1 entries
  std::uint64_t decodedBytes;     ///< bytes of the packets handled since decoding began

  // Encoder.
  CodedTileComp* coded;  ///< owned

  /// Access to the handle's cell, for making and releasing handles.
  static TileCompCell*& CellOf(KelTileComponent& handle) { return handle.cell_; }
};

/// Where the decoding of a tile stands. Positions count from the start of the data.
struct TileProgress {
  std::int32_t numParts;        ///< tile-parts begun, in this and earlier frames
  bool partIsOpen;              ///< the last one has packets that had not arrived
  std::int64_t partStart;       ///< position of its SOT,
  std::int64_t partLength;      ///< Psot as signalled,
  std::int64_t resumePosition;  ///< and where its next packet, or what follows it, begins
  bool isComplete;              ///< every packet was decoded
  bool isChanged;               ///< packets, or the first header, were read since the last output
  bool isDelivered;             ///< complete, and its output made: later frames leave it alone
};

/// One tile.
struct TileRecord {
  std::int32_t index;
  Box box;                ///< on the canvas
  TileCompRecord* comps;  ///< numComps records, null until the tile is needed
  bool compsAreReady;
  ParamSet params;
  TileProgress progress;
  PacketWalk* walk;    ///< decoder; owned
  StashedPart* early;  ///< decoder; owned; tile-parts waiting for those before them
};

/// The records of an image.
struct ImageMap {
  KelImageGeometry* geometry;
  std::int32_t numComps, numTiles;
  TileRecord* tiles;
  MemPool recordPool;
  KelEncOpt* encOpt;  ///< of every tile-component, unless it has a set of its own
  KelDecOpt* decOpt;
  bool isEncoder;

  // Decoder.
  KelHeaderParams* mainHeader;
  ParamSet mainParams;
  const std::uint8_t* fileDepths;  ///< depth minus one per component from the file, or null
  std::int32_t* reductions;        ///< levels below full size per component; owned

  // Encoder.
  std::int32_t numColorChannels;
  KelEncOpt* extraOptions;  ///< one set for all extra channels, null without any; owned
};

/// Fills the map's tile array. The caller has set geometry, options and direction. Raises 8.
void InitTileRecords(ImageMap& map);

/// Makes the records of a tile's components, unless they exist. Raises 8; a further call then
/// goes on where this one stopped.
void EnsureTileComps(ImageMap& map, TileRecord& tile);

/// Releases all records and what they own, half-built ones included; may run twice.
void ReleaseImageMap(ImageMap& map) noexcept;

/// Whether no component has a sample in a tile: it lies outside the image, or between the samples
/// of components that are all subsampled. Such a tile has no packets, and needs no tile-part.
bool HasNoSamples(const ImageMap& map, const TileRecord& tile);

/// Releases a component's output image and preview, which may be one image.
void ReleaseOutput(TileCompRecord& record) noexcept;

/// Releases a set's own records.
void ReleaseParamSet(ParamSet& set) noexcept;

// Decoder.

/// Lays a tile out for decoding with the parameters in force: levels, boxes, bands, precincts.
/// Raises 29 for code blocks larger than 8 x 8 in a band that has samples, 8 when memory runs out
/// or a plane would exceed 2^32 - 1 bytes. Coefficients of an earlier layout are released.
void LayOutTile(ImageMap& map, TileRecord& tile);

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

}  // namespace kel

#endif
