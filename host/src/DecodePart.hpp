// One image object's work: decoding data that cover a rectangle of the planes.
#ifndef KEL_HOST_DECODE_PART_HPP
#define KEL_HOST_DECODE_PART_HPP

#include <optional>

#include "FrameTarget.hpp"
#include "TileRuns.hpp"
#include "kel/host/decode.hpp"

namespace kel::host {

/// A rectangle of the canvas: x0 and y0 inclusive, x1 and y1 exclusive.
struct CanvasBox {
  std::int64_t x0 = 0, y0 = 0, x1 = 0, y1 = 0;
};
/// The planes that a part goes into.
struct PartTarget {
  const std::vector<ComponentArea>& areas;  ///< of the planes
  std::span<const KelIndexComponent> components;
  bool exact = false;  ///< as in DecodeParams
  /// What of the part is decoded, and how many resolutions are left out; null: all of it.
  const CanvasBox* box = nullptr;
  unsigned halvings = 0;
};

/// What an image object is to decode.
void NarrowDecoder(KelImage& object, unsigned halvings, const CanvasBox& box);

struct PartResult {
  std::size_t numTilesWithSamples = 0, numCompleteTiles = 0;
  KelException failure;  ///< code 0 when there was none
  KelErrorPlace place{nullptr, -1};
};

/// Decodes everything in the bytes. With a run of a whole grid: nothing, with nothing decoded, when
/// the library sees something else in them. Throws Error (kInput, kMemory).
std::optional<PartResult> DecodeInto(const PartTarget& target, ByteView bytes,
                                     const KelImageGeometry* whole, const TileRun* run,
                                     std::vector<Plane>& planes);

/// The same of what a decoder was made with.
PartResult DecodeAllOf(Decoder& decoder, const PartTarget& target, std::vector<Plane>& planes);

/// Throws Error (kInput) unless Index::HasPackets.
void RequirePackets(Index& index);

/// What came of all parts together.
struct DecodeTally {
  DecodeReport report;
  std::size_t numTilesWithSamples = 0;
  KelException failure;  ///< the first one
  KelErrorPlace place{nullptr, -1};

  explicit DecodeTally(std::size_t numTiles = 0) { StartAnew(numTiles); }
  void StartAnew(std::size_t numTiles);
  void Add(const PartResult& part);
  void Add(const DecodeTally& others);  ///< of other tiles
  /// Completes the report. Throws Error (kInput, kIncomplete) when nothing came, or less than was
  /// asked for.
  void Settle(const DecodeParams& params);
};

}  // namespace kel::host

#endif
