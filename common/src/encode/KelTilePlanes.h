// What coding a tile and previewing it have in common: the planes that its components are prepared
// and transformed in, and what their quantisation follows from.
#ifndef KEL_TILE_PLANES_H
#define KEL_TILE_PLANES_H

#include "encode/KelImageEncode.h"
#include "transform/KelQuant.h"

namespace kel {

/// The coding planes of all components, locked. Raises 8 when one cannot be locked.
class LockedPlanes {
 public:
  LockedPlanes(const EncoderState& encoder, const TileRecord& tile);
  ~LockedPlanes() { Unlock(); }
  LockedPlanes(const LockedPlanes&) = delete;
  LockedPlanes& operator=(const LockedPlanes&) = delete;

  const CodingPlane* All() const { return planes_.Data(); }

 private:
  void Unlock() noexcept;

  const EncoderState& encoder_;
  OwnedArray<CodingPlane> planes_;
};

/// A plane of the first tile's size, which serves the transform of every component. Raises 8.
struct WorkPlane {
  explicit WorkPlane(const KelImageGeometry& geometry);

  OwnedBuffer buffer;
  BufferLock lock;
};

/// What the steps of an irreversible component follow from, at the host's present quality.
QuantTarget QuantTargetOf(const ImageState& state, const KelTileGeometry& component);

}  // namespace kel

#endif
