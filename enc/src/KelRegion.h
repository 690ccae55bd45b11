// The region of interest: the mask that the host gives in one component, fitted to the others, and
// carried down to their coefficients.
//
// Outside the region a coefficient is rounded to a multiple of the step that the quality asks for;
// inside it keeps its full precision. The stream then announces steps of 1, so a decoder needs to
// know nothing of the region.
#ifndef KEL_REGION_H
#define KEL_REGION_H

#include <cstdint>

#include "base/KelBox.h"
#include "base/KelMemFuncDefs.h"
#include "kel/KelGeometry.h"
#include "transform/KelWavelet.h"

namespace kel {

/// A mask: one byte per sample of a box, row by row without gaps, not 0 inside the region.
struct RegionSamples {
  OwnedArray<std::uint8_t> bytes;
  Box box{};                          ///< in the samples of its own component
  std::int32_t xRsiz = 0, yRsiz = 0;  ///< subsampling of that component

  /// Whether there is a mask at all: without samples there is none.
  bool IsThere() const { return !box.IsEmpty(); }
};

/// What a mask holds inside the region.
inline constexpr std::uint8_t kInsideRegion = 127;

/// A mask of a component's size with nothing inside. Raises 8.
RegionSamples EmptyRegion(const KelTileGeometry& component);

/// The mask as a component of another size or subsampling sees it: a sample is inside when any of
/// the mask's samples in the area of the canvas that it stands for is. Raises 8.
RegionSamples FitRegion(const RegionSamples& region, const KelTileGeometry& component);

/// The mask as a component sees it: the given one when the component is like the mask's own, else
/// fitted into `fitted`. Raises 8.
const RegionSamples& RegionFor(const KelTileGeometry& component, const RegionSamples& region,
                               RegionSamples& fitted);

/// Which coefficients of a tile-component its region needs, in the Mallat layout of the transform.
class RegionMarks {
 public:
  /// No marks.
  RegionMarks() = default;
  /// Raises 8.
  RegionMarks(const RegionSamples& region, int numLevels, bool irreversible);

  /// The marks of a subband's row, counted from its first one; not 0 inside the region.
  const std::uint8_t* Row(int subband, std::int64_t row) const;
  /// All of them, as CarryRegionMask lays them out; null without marks.
  const std::uint8_t* All() const { return marks_.Data(); }

 private:
  Box box_{};
  int numLevels_ = 0;
  OwnedArray<std::uint8_t> marks_;
};

}  // namespace kel

#endif
