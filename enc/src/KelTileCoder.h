// Coding one tile-component: wavelet transform, quantisation, block coding; and the record that
// holds the result until it is written.
#ifndef KEL_TILE_CODER_H
#define KEL_TILE_CODER_H

#include <cstdint>

#include "KelBlockEncode.h"
#include "base/KelBox.h"
#include "transform/KelQuant.h"

namespace kel {

struct RegionSamples;

/// Bytes of a packet's counts: one of its own and one per band, but in resolution 0 one in all.
inline constexpr std::uint64_t kPacketCountBytes = 16;
inline constexpr std::uint64_t kLowestCountBytes = 4;

/// A tile-component as it was coded. Without samples all sizes are 0, and there are no tables.
struct CodedTileComp {
  Box box;
  std::uint64_t layerBytes;  ///< what its packets take in one layer
  // Owned, and released once the tile is written.
  CodedTileComponent code;
  std::int32_t* exponents;  ///< steps that the tile must announce, one pair per subband; null for
  std::int32_t* mantissas;  ///< components that are reversible, empty or have a region
};

/// What to code, and how. The planes are destroyed.
struct TileCompJob {
  Box box;
  int numLevels;
  bool irreversible;
  void* source;  ///< prepared samples, floats when irreversible, else integers; no row padding
  void* work;    ///< a second plane of the size
  // Irreversible components only.
  QuantTarget quant;            ///< what the steps follow from
  const float* bandWeights;     ///< one per subband
  const RegionSamples* region;  ///< fitted to the component; null without a region
};

/// Codes a tile-component. Raises 8.
CodedTileComp* CodeTileComp(const TileCompJob& job);

/// Bytes of the packet of a resolution; 0 for one without samples, which has none.
std::uint64_t PacketBytes(const CodedTileComp& coded, int resolution);

/// Releases what only the writing of a tile-component needs; its size stays known.
void ReleaseCode(CodedTileComp& coded) noexcept;

/// Releases a record and clears the pointer. Accepts null.
void ReleaseCoded(CodedTileComp*& coded) noexcept;

}  // namespace kel

#endif
