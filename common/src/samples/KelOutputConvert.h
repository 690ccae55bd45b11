// Output conversion: reconstructed planes of 8-bit samples to bytes, adding back the DC offset of
// 128 and, for a colour triple, undoing the colour transform on the way.
//
// Floats are rounded to the nearest integer, halves to even, and clamped to 0..255. Integers are
// not clamped: a complete reversible image lies in range, so the low 8 bits are stored. (Recasting
// an integer plane does clamp.) Works on memory of the caller and cannot fail; obtaining and
// installing byte planes belongs to the decoding flow.
#ifndef KEL_OUTPUT_CONVERT_H
#define KEL_OUTPUT_CONVERT_H

#include <cstddef>
#include <cstdint>

#include "samples/KelCompTransform.h"

namespace kel {

/// width * height samples without gaps between rows.
void FloatPlaneTo8Bit(std::uint8_t* out, std::int64_t width, std::int64_t height, const float* in);
void IntPlaneTo8Bit(std::uint8_t* out, std::int64_t width, std::int64_t height,
                    const std::int32_t* in);

/// A colour triple to three byte planes R, G, B of the given row stride each.
void ColorPlanesTo8Bit(const ColorPlanes& planes, std::uint8_t* const (&out)[3],
                       std::size_t strideBytes);

/// A colour triple to one plane of pixels R, G, B of three bytes.
void ColorPlanesToPixels(const ColorPlanes& planes, std::uint8_t* out, std::size_t strideBytes);

}  // namespace kel

#endif
