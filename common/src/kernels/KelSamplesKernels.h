// Kernels of sample values: component transforms, level shift, output conversion, recasting.
//
// Counts are in samples. Inputs and outputs do not overlap unless a kernel says that it works in
// place.
#ifndef KEL_SAMPLES_KERNELS_H
#define KEL_SAMPLES_KERNELS_H

#include <cstddef>
#include <cstdint>

namespace kel {

struct SamplesKernels {
  /// Inverse reversible colour transform and level shift of 8-bit samples:
  /// G = Y + 128 - floor((U + V) / 4), R = V + G, B = U + G, each stored as its low 8 bits.
  void (*inverseRctTo8Bit)(const std::int32_t* y, const std::int32_t* u, const std::int32_t* v,
                           std::uint8_t* r, std::uint8_t* g, std::uint8_t* b, std::size_t count);
  /// Inverse irreversible colour transform and level shift of 8-bit samples, in double precision
  /// with single-precision constants: Y' = Y + 128, R = Y' + 1.402 Cr,
  /// G = Y' - 0.34413 Cb - 0.71414 Cr, B = Y' + 1.772 Cb; each rounded to single precision, then
  /// to the nearest integer, halves to even, and clamped to 0..255.
  void (*inverseIctTo8Bit)(const float* y, const float* cb, const float* cr, std::uint8_t* r,
                           std::uint8_t* g, std::uint8_t* b, std::size_t count);
  /// Level shift of 8-bit samples: v + 128, clamped to 0..255.
  void (*intTo8Bit)(const std::int32_t* in, std::uint8_t* out, std::size_t count);
  /// Level shift of 8-bit samples: v + 128 in single precision, rounded to the nearest integer,
  /// halves to even, and clamped to 0..255; NaN gives 0.
  void (*floatTo8Bit)(const float* in, std::uint8_t* out, std::size_t count);
};

/// The scalar reference of every kernel.
void FillScalarSamplesKernels(SamplesKernels& table) noexcept;

}  // namespace kel

#endif
