// The tile loop of a frame.
#ifndef KEL_IMAGE_TILES_H
#define KEL_IMAGE_TILES_H

#include "decode/KelImageDecode.h"

namespace kel {

/// One frame's way through the data.
struct TilePass {
  ImageMap& map;
  DecoderState& decoder;
  std::int64_t position;  ///< where reading goes on for a tile that has not begun
  bool dataEnded;         ///< nothing more can be read from there on
};

/// Reads everything of a tile that has arrived and was not read yet. Returns 0; 15 when data of
/// other tiles are there but none of this one; the code of a bad tile-part header. Raises 8, 29.
KelLong ReadTile(TilePass& pass, TileRecord& tile);

}  // namespace kel

#endif
