// The tile loop of a frame.
#ifndef KEL_IMAGE_TILES_H
#define KEL_IMAGE_TILES_H

#include "decode/KelHeadersRead.h"
#include "decode/KelImageDecode.h"

namespace kel {

/// One frame's way through the data.
struct TilePass {
  ImageMap& map;
  DecoderState& decoder;
  // Of a stream that cannot seek.
  bool dataEnded;         ///< nothing more can be read
  std::int32_t lastTile;  ///< the highest that a tile-part was met of; -1 without any
};

/// Seeds the parameters of a tile-part header with those in force, reads it from its SOT on, and
/// gives them to the tile, whose components have been made. Nothing happens to the tile when the
/// header is incomplete. Raises 8, 29.
HeaderResult ReadTilePartHeader(ImageMap& map, KelDecDataMgr& data, TileRecord& tile);

/// Reads everything of a tile that has arrived and was not read yet. False when that was refused,
/// which the decoder notes as the frame's refusal unless it has one: 15 when data of other tiles
/// are there but none of this one, or the refusal of a tile-part header. Raises 8, 28, 29.
[[nodiscard]] bool ReadTile(TilePass& pass, TileRecord& tile);

}  // namespace kel

#endif
