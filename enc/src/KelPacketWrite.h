// Writing a coded tile: its tile-parts with their headers, and the packets in them.
//
// A packet carries one resolution of one component. All numbers are 32 bits, big-endian:
//
//   resolution 0:  | bytes | LL                                  |
//   above:         | bytes | bytes | HL | bytes | LH | bytes | HH |
//
// where each count covers what stands behind it in the packet or band. Every quality layer repeats
// the same packets. A tile's parts follow each other; with one part per resolution a part holds
// the packets of all components layer by layer, with one per component those of all resolutions.
// What is empty has no packets. A resolution's part without packets does not exist; a component's
// does, as a header alone.
#ifndef KEL_PACKET_WRITE_H
#define KEL_PACKET_WRITE_H

#include <cstdint>

#include "KelTileCoder.h"
#include "base/KelBox.h"
#include "kel/KelFormat.h"
#include "kel/KelStream.h"

namespace kel {

/// Quality layers: each repeats the packets of the first, or those behind it have empty ones.
struct Layers {
  std::int32_t count;
  bool repeat;
};

/// What the packets of a tile-component take in all layers. Saturates.
std::uint64_t TileCompBytes(const CodedTileComp& coded, const Layers& layers);

/// One component of a tile to be written.
struct TileCompToWrite {
  const CodedTileComp* coded;
  bool irreversible;
  const ChosenSteps* announced = nullptr;  ///< by the main header; null: steps of 1
};

/// A tile to be written: its components in the order of the code stream.
struct TileToWrite {
  std::int32_t index;
  const TileCompToWrite* comps;
  std::int32_t numComps;
  std::int32_t numLevels;
  Layers layers;
  std::int32_t announcedDepth;
  bool isByComponent;  ///< one tile-part per component, else per resolution
  /// Resolutions that follow each other share a tile-part that holds no more than these.
  std::uint64_t mostJoinedBytes;
  bool hasChecksums = false;  ///< of the packets, in the headers of their tile-parts
};

/// Writes a tile and flushes the stream behind each tile-part; returns the bytes written. Coded
/// bytes go to the stream from where they are. The first header of the tile announces steps when
/// some differ from those of the main header. Raises 8; 29, with nothing written, when a tile-part
/// would pass 2^31 - 1 bytes, or the stream the positions that it has; 32 when the host does not
/// take what is written.
std::uint64_t WriteTile(const TileToWrite& tile, KelCodeStm& stream);

}  // namespace kel

#endif
