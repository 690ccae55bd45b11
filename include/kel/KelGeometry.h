// The reference grid: canvas, image area, tiling, subsampling and bit depths, and the boxes of
// tiles, tile-components and resolutions on it.
//
// A box is (x0, x1, y0, y1) in that order, x0 and y0 inclusive, x1 and y1 exclusive. Tiles are
// numbered in raster order. Operations here do not check their indices: the caller passes a tile
// inside the grid, a component below Csiz and a resolution 0 <= r <= n.
#ifndef KEL_GEOMETRY_H
#define KEL_GEOMETRY_H

#include "KelTypes.h"

/// The whole canvas. Owns its three arrays, which come from the registered memory callbacks;
/// only Die releases them. Copies made by the language share the arrays with their source.
class KEL_API KelImageGeometry {
 public:
  KelImageGeometry() {}  ///< Without arrays; an initialisation must follow.
  KelImageGeometry(const KelImageGeometry& source) = default;
  KelImageGeometry& operator=(const KelImageGeometry& source) = default;
  /// As the twelve-value InitImageGeometry, but what raises keeps nothing.
  KelImageGeometry(KelLong xsiz, KelLong ysiz, KelLong xosiz, KelLong yosiz, KelLong xtsiz,
                   KelLong ytsiz, KelLong xtosiz, KelLong ytosiz, const KelLong* xrsiz,
                   const KelLong* yrsiz, KelLong csiz, const KelLong* bitDepths);
  virtual ~KelImageGeometry();  ///< Releases nothing.

  /// Stores the values, copies the three arrays of Csiz entries, and counts the tiles,
  /// ceil((Xsiz - XTOsiz) / XTsiz) across and likewise down. Returns 0. Raises 15 (level 1) when
  /// ParamsAreInConsistent, with everything stored; 8 when an array cannot be obtained. Arrays
  /// held before are not released: call Die first.
  KelLong InitImageGeometry(KelLong xsiz, KelLong ysiz, KelLong xosiz, KelLong yosiz, KelLong xtsiz,
                            KelLong ytsiz, KelLong xtosiz, KelLong ytosiz, const KelLong* xrsiz,
                            const KelLong* yrsiz, KelLong csiz, const KelLong* bitDepths);

  /// Deep copy. Returns 0; raises 15 (level 1) for a null source, and as above.
  KelLong InitImageGeometry(const KelImageGeometry* source);

  /// True when the tiling is not allowed: an offset of the tile grid is negative or beyond that
  /// of the image area, or the first tile ends before the image area begins.
  bool ParamsAreInConsistent() const;

  KelLong GetTileNum(KelLong p, KelLong q) const;  ///< index of the tile in column p, row q
  KelLong GetXIndex(KelLong tile) const;           ///< column of a tile
  KelLong GetYIndex(KelLong tile) const;           ///< row of a tile

  /// Box of a tile on the canvas, clipped to the image area. Returns 0.
  KelLong GetTileBoundingBox(KelLong p, KelLong q, KelLong* x0, KelLong* x1, KelLong* y0,
                             KelLong* y1) const;
  /// The same in the samples of component c: each edge divided by the subsampling, rounded up.
  KelLong GetTileCompBoundingBox(KelLong p, KelLong q, KelLong c, KelLong* x0, KelLong* x1,
                                 KelLong* y0, KelLong* y1) const;
  /// Tile box reduced to resolution r of n levels: each edge divided by 2^(n - r), rounded up.
  void GetTileResolutionBoundingBox(KelLong p, KelLong q, KelLong r, KelLong n, KelLong* x0,
                                    KelLong* x1, KelLong* y0, KelLong* y1) const;
  /// Tile-component box reduced to resolution r of n levels.
  void GetTileCompResolutionBoundingBox(KelLong p, KelLong q, KelLong c, KelLong r, KelLong n,
                                        KelLong* x0, KelLong* x1, KelLong* y0, KelLong* y1) const;
  /// Box of all tiles at resolution r of n levels.
  void GetImageResolutionBoundingBox(KelLong r, KelLong n, KelLong* x0, KelLong* x1, KelLong* y0,
                                     KelLong* y1) const;

  /// Releases the three arrays and sets their pointers to null; may be called more than once.
  void Die();

  KelLong Csiz;                  ///< number of components
  KelLong* BitDepths = nullptr;  ///< bits per sample of each component
  KelLong Xsiz, Ysiz;            ///< right and bottom edges of the canvas (exclusive)
  KelLong XOsiz, YOsiz;          ///< left and top edges of the image area (inclusive)
  KelLong* XRsiz = nullptr;      ///< horizontal subsampling factor of each component
  KelLong* YRsiz = nullptr;      ///< vertical subsampling factor of each component
  KelLong XTsiz, YTsiz;          ///< tile width and height
  KelLong XTOsiz, YTOsiz;        ///< left and top edges of the tile grid
  KelLong NumXTiles, NumYTiles;  ///< tiles across and down, derived
};

/// One tile-component: which component of which tile, and its box. A value; owns nothing.
class KEL_API KelTileGeometry {
 public:
  KelTileGeometry() {}  ///< Initialises nothing.
  KelTileGeometry(const KelTileGeometry& source) = default;
  KelTileGeometry& operator=(const KelTileGeometry& source) = default;
  KelTileGeometry(KelLong component, KelLong tile, KelLong bitDepth, KelLong xRsiz, KelLong yRsiz,
                  KelLong x0, KelLong x1, KelLong y0, KelLong y1);
  KelTileGeometry(KelImageGeometry* geometry, KelLong component, KelLong tile);
  KelTileGeometry(KelImageGeometry* geometry, KelLong component, KelLong p, KelLong q);

  /// Stores the nine values; no owner.
  void InitKelTileGeometry(KelLong component, KelLong tile, KelLong bitDepth, KelLong xRsiz,
                           KelLong yRsiz, KelLong x0, KelLong x1, KelLong y0, KelLong y1);
  /// Component c of tile number t of a geometry, which must outlive this value.
  void InitKelTileGeometry(KelImageGeometry* geometry, KelLong component, KelLong tile);
  /// Component c of the tile in column p, row q.
  void InitKelTileGeometry(KelImageGeometry* geometry, KelLong component, KelLong p, KelLong q);

  /// The stored box reduced to resolution r of n levels.
  void GetResolutionCoords(KelLong r, KelLong n, KelLong* x0, KelLong* x1, KelLong* y0,
                           KelLong* y1) const;

  KelImageGeometry* Owner;  ///< the geometry it was made from, or null
  KelLong Component;        ///< component index
  KelLong TileNum;          ///< tile index in raster order
  KelLong BitDepth;         ///< bits per sample
  KelLong XRsiz, YRsiz;     ///< subsampling factors
  KelLong X0, Y0, X1, Y1;   ///< the box, in the component's own samples
};

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(KelImageGeometry) == 15 * 4 && sizeof(KelTileGeometry) == 10 * 4,
              "field widths on 32-bit hosts");
#endif

#endif
