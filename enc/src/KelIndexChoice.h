// Which indices a band is coded with, when both the error and the bits count. A bit is worth an
// eighth of a squared step throughout; where steps weigh all errors alike, as even ones do, that is
// one price for the whole image, and the result is close to the fewest bytes for its error.
//
// Blocks choose alone, as soon as their last row is there, among candidates that the rules in
// kernels/KelChoiceKernels.h describe; blocks smaller than 8 x 8 among fewer of them, priced bit by
// bit. What a block's plane count costs depends on the counts of the whole band: that choice comes
// last, over integers alone.
#ifndef KEL_INDEX_CHOICE_H
#define KEL_INDEX_CHOICE_H

#include "KelBlockEncode.h"

namespace kel {

/// Replaces the coefficients of the blocks of which `row` (in band coordinates) is the last row,
/// which are eighteenths of the band's step, by their indices, and sets the plane counts.
/// Magnitudes of 32 bits are at most kMostParts.
void ChooseIndicesAbove(const EncodeBand& band, std::int32_t row);

/// The largest coefficient that can be given.
inline constexpr std::int32_t kMostParts = 0x7FFFFF00;

/// Limits the few largest indices of a band where a narrower plane-count field for all its blocks
/// is worth that; at last to none, which leaves a band that takes no bytes.
void NarrowPlaneCounts(const EncodeBand& band);

}  // namespace kel

#endif
