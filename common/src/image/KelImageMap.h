// The image map: one record per tile, and one per component of each tile. What both sides share,
// and what the host's handles show; each side adds a part of its own.
//
// The records of a tile's components are made when the tile is first needed, so that an image
// costs nothing for tiles that never arrive. They come from the map's record pool and live until
// the map is released; what a record owns beyond itself is named at its field.
#ifndef KEL_IMAGE_MAP_H
#define KEL_IMAGE_MAP_H

#include <cstdint>

#include "base/KelBox.h"
#include "base/KelMemPool.h"
#include "kel/KelTileComponent.h"

namespace kel {

// The parts of one side; null on the other.
struct DecMap;
struct DecTile;
struct DecTileComp;
struct EncTileComp;

/// What the handle of a tile-component shows and lets the host set, on either side.
struct ShownData {
  bool dataReady;             ///< output exists
  bool dataValid;             ///< output is in outputImage
  KelImageData* outputImage;  ///< owned; decoder: samples; encoder: the preview
  KelImageData* progData;     ///< owned unless it is outputImage; encoder: the preview too
  KelImageData* waveletData;  ///< owned; decoder: coefficients, while the tile is not complete
};

/// What a handle points to, so that copies of it stay good as long as the record.
struct TileCompCell {
  TileCompRecord* record;
};

/// One component of one tile.
struct TileCompRecord {
  KelTileGeometry tileGeom;  ///< identity and box
  KelEncOpt* encOpt;
  KelDecOpt* decOpt;
  ShownData shown;
  KelTileComponent handle;
  TileCompCell cell;  ///< of the handle
  // Of the pool; what they own their side releases.
  DecTileComp* dec;
  EncTileComp* enc;

  /// Ties the handle to the record.
  void InitHandle() {
    cell.record = this;
    handle.cell_ = &cell;
  }
};

/// One tile.
struct TileRecord {
  std::int32_t index;
  Box box;                ///< on the canvas
  TileCompRecord* comps;  ///< numComps records, null until the tile is needed
  bool compsAreReady;
  DecTile* dec;  ///< of the pool; null until something of the tile is there
};

/// The records of an image.
struct ImageMap {
  KelImageGeometry* geometry;
  std::int32_t numComps, numTiles;
  TileRecord* tiles;  ///< owned
  MemPool recordPool;
  KelEncOpt* encOpt;  ///< of every tile-component, unless it has a set of its own
  KelDecOpt* decOpt;
  KelEncOpt* extraOptions;  ///< one set for all components from firstExtra on, or null; owned
  std::int32_t firstExtra;  ///< numComps without extra channels
  DecMap* dec;
};

/// Fills the map's tile array. The caller has set geometry, counts and options. Raises 8.
void InitTileRecords(ImageMap& map);

/// Makes the shared records of a tile's components, unless they exist. Raises 8; a further call
/// then goes on where this one stopped.
void EnsureTileComps(ImageMap& map, TileRecord& tile);

/// Releases the shared records and what they own, half-built ones included; may run twice. Each
/// side has released its parts before.
void ReleaseImageMap(ImageMap& map) noexcept;

/// Whether no component has a sample in a tile: it lies outside the image, or between the samples
/// of components that are all subsampled. Such a tile has no packets, and needs no tile-part.
bool HasNoSamples(const ImageMap& map, const TileRecord& tile);

/// Releases a component's output image and preview, which may be one image.
void ReleaseOutput(TileCompRecord& record) noexcept;

}  // namespace kel

#endif
