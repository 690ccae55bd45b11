// The arithmetic of the reference grid. Coordinates are formed in 64 bits and narrowed once;
// values that do not fit (only possible for tiles outside the grid) are limited, not wrapped.
//
// Relies on the memory layer for the three arrays; leaves the meaning of boxes to the stages.
#include "kel/KelGeometry.h"

#include <algorithm>

#include "base/KelInt.h"
#include "base/KelMemFuncDefs.h"
#include "base/KelRaise.h"

namespace {

using kel::CeilDiv;
using kel::CeilShift;
using kel::SaturateToInt32;

/// Tiles along one axis; 0 for a tile size that no canvas can have.
KelLong CountTiles(KelLong size, KelLong gridOrigin, KelLong tileSize) {
  if (tileSize <= 0) return 0;
  return SaturateToInt32(CeilDiv(std::int64_t{size} - gridOrigin, tileSize));
}

struct Range {
  KelLong first, end;
};

/// Tile number p along one axis, clipped to the image area.
Range TileRange(KelLong p, KelLong gridOrigin, KelLong tileSize, KelLong imageOrigin,
                KelLong imageEnd) {
  const std::int64_t first = std::int64_t{gridOrigin} + std::int64_t{p} * tileSize;
  return {SaturateToInt32(std::max<std::int64_t>(first, imageOrigin)),
          SaturateToInt32(std::min<std::int64_t>(first + tileSize, imageEnd))};
}

KelLong DivideEdge(KelLong edge, KelLong subsampling) {
  return subsampling > 0 ? SaturateToInt32(CeilDiv(edge, subsampling)) : 0;
}

/// Reduces a box in place by n - r levels.
void ReduceBox(KelLong r, KelLong n, KelLong* x0, KelLong* x1, KelLong* y0, KelLong* y1) {
  const KelLong shift = std::max(n - r, 0);
  for (KelLong* edge : {x0, x1, y0, y1}) *edge = SaturateToInt32(CeilShift(*edge, shift));
}

}  // namespace

KelImageGeometry::KelImageGeometry(KelLong xsiz, KelLong ysiz, KelLong xosiz, KelLong yosiz,
                                   KelLong xtsiz, KelLong ytsiz, KelLong xtosiz, KelLong ytosiz,
                                   const KelLong* xrsiz, const KelLong* yrsiz, KelLong csiz,
                                   const KelLong* bitDepths) {
  // An object that is not made has nobody to call its Die.
  kel::ScopeGuard release([this] { Die(); });
  InitImageGeometry(xsiz, ysiz, xosiz, yosiz, xtsiz, ytsiz, xtosiz, ytosiz, xrsiz, yrsiz, csiz,
                    bitDepths);
  release.Disarm();
}

KelImageGeometry::~KelImageGeometry() = default;

KelLong KelImageGeometry::InitImageGeometry(KelLong xsiz, KelLong ysiz, KelLong xosiz,
                                            KelLong yosiz, KelLong xtsiz, KelLong ytsiz,
                                            KelLong xtosiz, KelLong ytosiz, const KelLong* xrsiz,
                                            const KelLong* yrsiz, KelLong csiz,
                                            const KelLong* bitDepths) {
  Xsiz = xsiz;
  Ysiz = ysiz;
  XOsiz = xosiz;
  YOsiz = yosiz;
  XTsiz = xtsiz;
  YTsiz = ytsiz;
  XTOsiz = xtosiz;
  YTOsiz = ytosiz;
  Csiz = csiz;
  XRsiz = YRsiz = BitDepths = nullptr;
  kel::NamingModule(kel::kModuleGeometry, [&] {
    using Longs = kel::OwnedArray<KelLong>;
    Longs across = Longs::CopyOf(xrsiz, kel::AsCount(csiz));
    Longs down = Longs::CopyOf(yrsiz, kel::AsCount(csiz));
    Longs depths = Longs::CopyOf(bitDepths, kel::AsCount(csiz));
    XRsiz = across.Release();
    YRsiz = down.Release();
    BitDepths = depths.Release();
  });
  NumXTiles = CountTiles(Xsiz, XTOsiz, XTsiz);
  NumYTiles = CountTiles(Ysiz, YTOsiz, YTsiz);
  if (ParamsAreInConsistent()) {
    kel::Raise(KelErrBadParam, kel::kModuleGeometry, kel::SourcePlace::Here(),
               kel::kLevelParameters);
  }
  return KelOK;
}

KelLong KelImageGeometry::InitImageGeometry(const KelImageGeometry* source) {
  if (source == nullptr) {
    kel::Raise(KelErrBadParam, kel::kModuleGeometry, kel::SourcePlace::Here(),
               kel::kLevelParameters);
  }
  return InitImageGeometry(source->Xsiz, source->Ysiz, source->XOsiz, source->YOsiz, source->XTsiz,
                           source->YTsiz, source->XTOsiz, source->YTOsiz, source->XRsiz,
                           source->YRsiz, source->Csiz, source->BitDepths);
}

bool KelImageGeometry::ParamsAreInConsistent() const {
  return XTOsiz < 0 || XTOsiz > XOsiz || YTOsiz < 0 || YTOsiz > YOsiz ||
         std::int64_t{XTsiz} + XTOsiz <= XOsiz || std::int64_t{YTsiz} + YTOsiz <= YOsiz;
}

KelLong KelImageGeometry::GetTileNum(KelLong p, KelLong q) const {
  return SaturateToInt32(std::int64_t{q} * NumXTiles + p);
}

KelLong KelImageGeometry::GetXIndex(KelLong tile) const {
  return NumXTiles > 0 ? tile % NumXTiles : 0;
}

KelLong KelImageGeometry::GetYIndex(KelLong tile) const {
  return NumXTiles > 0 ? SaturateToInt32(kel::FloorDiv(tile, NumXTiles)) : 0;
}

KelLong KelImageGeometry::GetTileBoundingBox(KelLong p, KelLong q, KelLong* x0, KelLong* x1,
                                             KelLong* y0, KelLong* y1) const {
  const Range across = TileRange(p, XTOsiz, XTsiz, XOsiz, Xsiz);
  const Range down = TileRange(q, YTOsiz, YTsiz, YOsiz, Ysiz);
  *x0 = across.first;
  *x1 = across.end;
  *y0 = down.first;
  *y1 = down.end;
  return KelOK;
}

KelLong KelImageGeometry::GetTileCompBoundingBox(KelLong p, KelLong q, KelLong c, KelLong* x0,
                                                 KelLong* x1, KelLong* y0, KelLong* y1) const {
  GetTileBoundingBox(p, q, x0, x1, y0, y1);
  *x0 = DivideEdge(*x0, XRsiz[c]);
  *x1 = DivideEdge(*x1, XRsiz[c]);
  *y0 = DivideEdge(*y0, YRsiz[c]);
  *y1 = DivideEdge(*y1, YRsiz[c]);
  return KelOK;
}

void KelImageGeometry::GetTileResolutionBoundingBox(KelLong p, KelLong q, KelLong r, KelLong n,
                                                    KelLong* x0, KelLong* x1, KelLong* y0,
                                                    KelLong* y1) const {
  GetTileBoundingBox(p, q, x0, x1, y0, y1);
  ReduceBox(r, n, x0, x1, y0, y1);
}

void KelImageGeometry::GetTileCompResolutionBoundingBox(KelLong p, KelLong q, KelLong c, KelLong r,
                                                        KelLong n, KelLong* x0, KelLong* x1,
                                                        KelLong* y0, KelLong* y1) const {
  GetTileCompBoundingBox(p, q, c, x0, x1, y0, y1);
  ReduceBox(r, n, x0, x1, y0, y1);
}

void KelImageGeometry::GetImageResolutionBoundingBox(KelLong r, KelLong n, KelLong* x0, KelLong* x1,
                                                     KelLong* y0, KelLong* y1) const {
  KelLong unused1 = 0;
  KelLong unused2 = 0;
  GetTileResolutionBoundingBox(0, 0, r, n, x0, &unused1, y0, &unused2);
  GetTileResolutionBoundingBox(NumXTiles - 1, NumYTiles - 1, r, n, &unused1, x1, &unused2, y1);
}

void KelImageGeometry::Die() {
  for (KelLong** array : {&XRsiz, &YRsiz, &BitDepths}) {
    if (*array != nullptr) kel::KelFree(*array);
    *array = nullptr;
  }
}

KelTileGeometry::KelTileGeometry(KelLong component, KelLong tile, KelLong bitDepth, KelLong xRsiz,
                                 KelLong yRsiz, KelLong x0, KelLong x1, KelLong y0, KelLong y1) {
  InitKelTileGeometry(component, tile, bitDepth, xRsiz, yRsiz, x0, x1, y0, y1);
}

KelTileGeometry::KelTileGeometry(KelImageGeometry* geometry, KelLong component, KelLong tile) {
  InitKelTileGeometry(geometry, component, tile);
}

KelTileGeometry::KelTileGeometry(KelImageGeometry* geometry, KelLong component, KelLong p,
                                 KelLong q) {
  InitKelTileGeometry(geometry, component, p, q);
}

void KelTileGeometry::InitKelTileGeometry(KelLong component, KelLong tile, KelLong bitDepth,
                                          KelLong xRsiz, KelLong yRsiz, KelLong x0, KelLong x1,
                                          KelLong y0, KelLong y1) {
  Owner = nullptr;
  Component = component;
  TileNum = tile;
  BitDepth = bitDepth;
  XRsiz = xRsiz;
  YRsiz = yRsiz;
  X0 = x0;
  X1 = x1;
  Y0 = y0;
  Y1 = y1;
}

void KelTileGeometry::InitKelTileGeometry(KelImageGeometry* geometry, KelLong component,
                                          KelLong tile) {
  InitKelTileGeometry(geometry, component, geometry->GetXIndex(tile), geometry->GetYIndex(tile));
  TileNum = tile;
}

void KelTileGeometry::InitKelTileGeometry(KelImageGeometry* geometry, KelLong component, KelLong p,
                                          KelLong q) {
  Owner = geometry;
  Component = component;
  TileNum = geometry->GetTileNum(p, q);
  BitDepth = geometry->BitDepths[component];
  XRsiz = geometry->XRsiz[component];
  YRsiz = geometry->YRsiz[component];
  geometry->GetTileCompBoundingBox(p, q, component, &X0, &X1, &Y0, &Y1);
}

void KelTileGeometry::GetResolutionCoords(KelLong r, KelLong n, KelLong* x0, KelLong* x1,
                                          KelLong* y0, KelLong* y1) const {
  *x0 = X0;
  *x1 = X1;
  *y0 = Y0;
  *y1 = Y1;
  ReduceBox(r, n, x0, x1, y0, y1);
}
