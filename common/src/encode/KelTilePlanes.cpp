// Locking and obtaining the planes of a tile, and the quantisation targets of its components.
#include "encode/KelTilePlanes.h"

#include <algorithm>

#include "KelRate.h"
#include "base/KelRaise.h"
#include "encode/KelMainStream.h"
#include "samples/KelImageDataAccess.h"

namespace kel {
namespace {

/// The part of the error budget that a component gets: the colour transform weighs errors in its
/// results differently.
float BudgetFactor(const KelEncOpt& o, KelLong component) {
  if (!o.ComponentTransform || o.GeomParams->Csiz < 2 || component > 2) return 1.0F;
  return static_cast<float>(component == 0 ? 1.0 / 3.9172 : 1.0 / 2.13847);
}

}  // namespace

LockedPlanes::LockedPlanes(const EncoderState& encoder, const TileRecord& tile)
    : encoder_(encoder) {
  const KelEncOpt& o = encoder.settings;
  planes_ = OwnedArray<CodingPlane>::Make(AsCount(o.GeomParams->Csiz));
  for (KelLong c = 0; c < o.GeomParams->Csiz; ++c) {
    if (IsRegionMask(o, c)) continue;
    CodingPlane& plane = planes_[AsIndex(c)];
    const KelTileGeometry& box = tile.comps[c].tileGeom;
    plane.strideCells = AsIndex(std::int64_t{box.X1} - box.X0);
    plane.cells = KelLockBuf(encoder.sourceBufs[c]);
    if (plane.cells == nullptr) {
      Unlock();
      Raise(KelErrNoMemory, kModuleImage);
    }
  }
}

void LockedPlanes::Unlock() noexcept {
  for (std::size_t c = 0; c < planes_.Size(); ++c) {
    if (planes_[c].cells != nullptr) KelUnlockBuf(encoder_.sourceBufs[c]);
  }
}

WorkPlane::WorkPlane(const KelImageGeometry& g)
    : buffer(
          OwnedBuffer::Make(PlaneBytes(std::min(g.XTsiz, g.Xsiz), std::min(g.YTsiz, g.Ysiz), 4))),
      lock(buffer.Get()) {
  if (!lock) Raise(KelErrNoMemory, kModuleImage);
}

QuantTarget QuantTargetOf(const ImageState& state, const KelTileGeometry& box) {
  const KelEncOpt& o = state.encoder->settings;
  return {QualityNumber(state.encOpt->TargetQuality), box.X1 - box.X0, box.Y1 - box.Y0,
          AnnouncedDepth(o), BudgetFactor(o, box.Component)};
}

}  // namespace kel
