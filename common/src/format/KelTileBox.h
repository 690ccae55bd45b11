// The box of a tile-component's record.
#ifndef KEL_TILE_BOX_H
#define KEL_TILE_BOX_H

#include "base/KelBox.h"
#include "kel/KelGeometry.h"

namespace kel {

inline Box BoxOf(const KelTileGeometry& t) {
  return {t.X0, t.X1, t.Y0, t.Y1};
}

}  // namespace kel

#endif
