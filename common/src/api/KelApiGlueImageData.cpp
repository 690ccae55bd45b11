// Exported conversions of the sample container. The recasts hand their work to the guard, which
// sets the rounding mode, and return what is raised as a code; the others let it pass to the host,
// and set the rounding mode themselves where they compute.
#include "api/KelApiGlue.h"
#include "kel/KelImageData.h"
#include "samples/KelRecast.h"
#include "samples/KelResample.h"

namespace {

/// The code of a conversion.
template <class Convert>
KelLong Converted(Convert convert) {
  return kel::Guard(
      nullptr,
      [&] {
        convert();
        return KelLong{KelOK};
      },
      [](KelLong code) { return code; });
}

}  // namespace

KelLong KelImageData::RecastData(KelLong bitDepth, bool signedOutput, KelLong numBits,
                                 KelLong outMax, KelLong outMin, KelRecastMeth method) {
  return RecastData_Rotation(bitDepth, signedOutput, numBits, outMax, outMin, method,
                             KelOrientation0);
}

KelLong KelImageData::RecastDataTo8BppUnsigned(KelLong bitDepth, KelLong outMax, KelLong outMin,
                                               KelRecastMeth method) {
  const kel::RecastTarget target = {bitDepth, 8, outMax, outMin, method};
  return Converted([&] { kel::RecastToBytes(*this, target); });
}

KelLong KelImageData::RecastDataTo16BppUnsigned(KelLong bitDepth, KelLong outMax, KelLong outMin,
                                                KelRecastMeth method) {
  const kel::RecastTarget target = {bitDepth, 16, outMax, outMin, method};
  return Converted([&] { kel::RecastToWords(*this, target); });
}

KelLong KelImageData::RecastData_Rotation(KelLong bitDepth, bool signedOutput, KelLong numBits,
                                          KelLong outMax, KelLong outMin, KelRecastMeth method,
                                          KelImageOrientation orientation) {
  const kel::RecastTarget target = {bitDepth, numBits, outMax, outMin, method};
  return Converted([&] { kel::Recast(*this, target, signedOutput, orientation); });
}

KelLong KelImageData::CropData(KelLong x0, KelLong x1, KelLong y0, KelLong y1) {
  kel::CropSamples(*this, x0, x1, y0, y1);
  return KelOK;
}

KelLong KelImageData::Interpolate(KelLong newWidth, KelLong newHeight, KelLong stepX,
                                  KelLong stepY) {
  const kel::RoundingScope rounding;
  kel::InterpolateSamples(*this, newWidth, newHeight, stepX, stepY);
  return KelOK;
}

KelLong KelImageData::GetDynRange(float* minimum, float* maximum) {
  const kel::RoundingScope rounding;
  kel::SampleRange range;
  const KelLong code = kel::MeasureRange(*this, range);
  if (code != KelOK) return code;
  *minimum = range.minimum;
  *maximum = range.maximum;
  return KelOK;
}

KelLong KelImageData::GetDynRangeAndSpillOverRatios(KelLong lowLimit, KelLong highLimit,
                                                    float* minimum, float* maximum,
                                                    float* belowRatio, float* aboveRatio) {
  const kel::RoundingScope rounding;
  kel::SampleRange range;
  const KelLong code = kel::MeasureRangeAndSpill(*this, lowLimit, highLimit, range);
  if (code != KelOK) return code;
  *minimum = range.minimum;
  *maximum = range.maximum;
  *belowRatio = range.belowRatio;
  *aboveRatio = range.aboveRatio;
  return KelOK;
}
