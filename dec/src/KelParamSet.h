// Coding parameters in force at three levels, image, tile and tile-component: shared with the level
// above until a header gives a level its own.
#ifndef KEL_PARAM_SET_H
#define KEL_PARAM_SET_H

#include <cstdint>

#include "format/KelHeaders.h"

namespace kel {

/// Coding parameters in force at one level. A record that is not owned belongs to the level
/// above.
struct ParamSet {
  KelCodingStyle* style;
  KelQuantParams* quant;
  KelProgressionChanges* changes;  ///< image and tile level only
  bool ownsStyle = false, ownsQuant = false, ownsChanges = false;
};

/// A set that owns nothing and goes by the records of the level above.
inline ParamSet SharedParams(const ParamSet& above) {
  return {.style = above.style, .quant = above.quant, .changes = above.changes};
}

// Give a level a record of its own, a copy of the source. Raise 8, with the set as it was.
void OwnStyle(ParamSet& set, const KelCodingStyle& source);
void OwnQuant(ParamSet& set, const KelQuantParams& source);
void OwnChanges(ParamSet& set, const KelProgressionChanges& source);

// Go by the record of the level above again.
void ShareStyle(ParamSet& set, const ParamSet& above) noexcept;
void ShareQuant(ParamSet& set, const ParamSet& above) noexcept;

/// Marks a component's parameters as having a region. The shift is stored, and the most bit
/// planes recomputed from exponents and guard bits; the decoding of blocks does not need them.
/// Raises 8.
void SetRegion(ParamSet& set, std::int32_t shift);

/// Gives a component the segments of a header that name it. Raises 8.
void ApplyComponentSegments(ParamSet& set, std::int32_t component, const KelHeaderParams& header);

/// Releases a set's own records.
void ReleaseParamSet(ParamSet& set) noexcept;

}  // namespace kel

#endif
