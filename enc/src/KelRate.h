// The arithmetic between quality numbers and byte counts.
//
// Coding is open-loop: a quality fixes the steps, and what they cost is only known afterwards.
// These formulas bound the length of a code stream, say which byte count a quality percentage
// stands for, and map a byte target to a quality by a table. Where a formula rounds, the quotient
// or product is taken as a single-precision number first. Everything is 64 bits wide inside and
// limited to 2^31 - 1 at the end.
#ifndef KEL_RATE_H
#define KEL_RATE_H

#include <cstdint>

#include "kel/KelTypes.h"

namespace kel {

/// What the formulas go by.
struct RateInputs {
  std::int64_t numTiles;
  std::int64_t tileWidth, tileHeight;  ///< nominal, as the geometry has them
  std::int32_t bitDepth;               ///< of component 0
  std::int32_t numRated;               ///< components under rate control: the colour channels
  std::int64_t rawSize;                ///< their uncompressed bytes
  std::int64_t apartSize;              ///< signed: bytes that channels outside add to the stream
};

/// Least and greatest lengths of a code stream; the latter is a multiple of 1024.
KelLong MinCodeStreamLength(const RateInputs& in);
KelLong MaxCodeStreamLength(const RateInputs& in);

/// The byte count that a quality percentage stands for: that share of the raw size, not below the
/// least size of the data.
KelLong SizeForQuality(const RateInputs& in, std::int32_t quality);

/// What a byte target maps to.
struct QualityChoice {
  KelLong effectiveTarget;  ///< bytes
  std::int32_t quality;     ///< 1 to 100
};
QualityChoice ChooseQuality(const RateInputs& in, std::int64_t targetBytes);

/// A quality as options hold it, as a number from 1 to 100: nearest, halves to even, limited; NaN
/// counts as 1.
std::int32_t QualityNumber(float quality);

}  // namespace kel

#endif
