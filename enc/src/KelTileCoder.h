// Coding one tile-component: how its rows are transformed, quantised and kept waiting, then block
// coding; and the record that holds the result until it is written.
#ifndef KEL_TILE_CODER_H
#define KEL_TILE_CODER_H

#include <cstdint>

#include "KelBlockEncode.h"
#include "KelWaitingBands.h"
#include "base/KelBox.h"
#include "kel/KelFormat.h"
#include "transform/KelQuant.h"
#include "transform/KelWaveletForward.h"

namespace kel {

/// Bytes of a packet's counts: one of its own and one per band, but in resolution 0 one in all.
inline constexpr std::uint64_t kPacketCountBytes = 4 * format::kCountBytes;

/// A tile-component as it was coded. Without samples all sizes are 0.
struct CodedTileComp {
  Box box;
  CodedTileComponent code;
  /// Whether the tile must announce the steps below, one pair per subband: not for components that
  /// are reversible, empty or have a region.
  bool hasSteps;
  std::int32_t* exponents;
  std::int32_t* mantissas;
};

/// What to code, and how.
struct TileCompJob {
  Box box;
  CellKind cells;   ///< of its samples: floats are coded irreversibly
  int sampleBits;   ///< of its samples after the component transform, sign included
  bool dropsEmpty;  ///< bands without magnitudes take no bytes
  // Irreversible components only.
  QuantTarget quant;                ///< what the steps follow from; even ones: indices are chosen
  const float* bandWeights;         ///< one per subband
  const std::uint8_t* regionMarks;  ///< as CarryRegionMask lays them out; null without a region.
                                    ///< They are read until all rows have been transformed.
};

/// The coder of one component of an image. Its memory serves one tile after the other. The tables
/// stand behind the record, in the same block of memory.
struct TileCompCoder {
  KeptBlock memory;  ///< of the bands
  float* steps;
  float* divisors;  ///< of the floats: the steps, or eighteenths of them
  bool dropsEmpty;
  WaitingBands waiting;
  CodedTileComp coded;
};

/// Makes a coder for tiles of so many levels. Raises 8.
TileCompCoder* MakeTileCompCoder(int numLevels);

/// Releases a coder and clears the pointer. Accepts null.
void ReleaseTileCompCoder(TileCompCoder*& coder) noexcept;

/// Begins a tile-component, and returns how its rows are to be transformed. Raises 8.
ForwardJob BeginTileComp(const TileCompJob& job, TileCompCoder& coder);

/// Codes a tile-component whose rows have all been transformed, into coder.coded. Raises 8.
void FinishTileComp(TileCompCoder& coder);

/// Bytes of a packet that holds nothing.
inline constexpr std::uint64_t kEmptyPacketBytes = format::kCountBytes;

/// Bytes of the packet of a resolution; 0 for one without samples, which has none.
std::uint64_t PacketBytes(const CodedTileComp& coded, int resolution);

}  // namespace kel

#endif
