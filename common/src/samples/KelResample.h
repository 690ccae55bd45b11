// Measuring and resampling the samples of a container: their range, cropping, and bilinear
// enlargement. The rules for arguments that do not fit are those of the public header.
#ifndef KEL_RESAMPLE_H
#define KEL_RESAMPLE_H

#include "kel/KelImageData.h"

namespace kel {

/// Smallest and largest sample, and the shares of samples outside limits.
struct SampleRange {
  float minimum, maximum;
  float belowRatio, aboveRatio;
};

/// The range of a container whose samples are locked at the given address: the cached one when it
/// is valid or when there is nothing to measure, else measured and cached. The shares are 0.
SampleRange RangeOfSamples(KelImageData& image, const void* samples);

/// The range, as KelImageData::GetDynRange.
[[nodiscard]] KelLong MeasureRange(KelImageData& image, SampleRange& range);

/// Measures in any case, and the shares of samples below lowLimit and above highLimit.
[[nodiscard]] KelLong MeasureRangeAndSpill(KelImageData& image, KelLong lowLimit, KelLong highLimit,
                                           SampleRange& range);

/// Raises 8.
void CropSamples(KelImageData& image, KelLong x0, KelLong x1, KelLong y0, KelLong y1);

/// Raises 8.
void InterpolateSamples(KelImageData& image, KelLong newWidth, KelLong newHeight, KelLong stepX,
                        KelLong stepY);

}  // namespace kel

#endif
