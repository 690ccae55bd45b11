// Recasting: 32-bit samples centred on zero become unsigned samples of another depth and range,
// rotated on request. The rules are those of the public header; these are its operations without
// the guard. Nothing happens when there is nothing to convert. All raise 8.
#ifndef KEL_RECAST_H
#define KEL_RECAST_H

#include "kel/KelImageData.h"

namespace kel {

/// What samples are recast from and to.
struct RecastTarget {
  KelLong bitDepth;        ///< of the source
  KelLong numBits;         ///< of an output sample
  KelLong outMax, outMin;  ///< the target range
  KelRecastMeth method;
};

/// To bytes; numBits is not looked at.
void RecastToBytes(KelImageData& image, const RecastTarget& target);

/// To 16-bit words; numBits is not looked at.
void RecastToWords(KelImageData& image, const RecastTarget& target);

/// To any depth by the general arithmetic, which bytes and words can also go through; rotated.
void RecastAndRotate(KelImageData& image, const RecastTarget& target,
                     KelImageOrientation orientation);

/// Any of the three: unsigned and unrotated bytes and words have arithmetic of their own.
void Recast(KelImageData& image, const RecastTarget& target, bool signedOutput,
            KelImageOrientation orientation);

}  // namespace kel

#endif
