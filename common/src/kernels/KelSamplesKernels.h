// Kernels of sample values: component transforms, level shift, output conversion, recasting.
//
// Counts are in samples. Addresses are aligned as their types ask and no further. Inputs and
// outputs do not overlap unless a kernel says that it works in place. "Nearest" is to the nearest
// integer with halves to even, NaN giving 0 and values beyond 32 bits the nearest limit. Sums and
// differences of integers wrap around at 32 bits, and integers are shifted right towards minus
// infinity. Floating-point sums are formed from left to right. Every set of kernels gives the
// same bits, except that the bits of a NaN in a float plane are left open.
#ifndef KEL_SAMPLES_KERNELS_H
#define KEL_SAMPLES_KERNELS_H

#include <cstddef>
#include <cstdint>

namespace kel {

/// v = nearest(level * multiplier / divisor + addend), limited to lowest..highest.
struct LevelScale {
  float multiplier, divisor, addend;
  std::int32_t lowest, highest;
};

/// With |Y|, |U|, |V| up to this, no sum of the inverse reversible colour transform exceeds 16
/// bits: |U + V| <= 2 M, |G| <= M + (M + 1) / 2, and |R|, |B| <= M + |G| <= 2.5 M + 1 <= 32767.
inline constexpr std::int32_t kMostShortColor = 13106;

struct SamplesKernels {
  // From samples to what the wavelet transform takes. Bytes and words are unsigned and lose 128 and
  // 32768; 32-bit samples come with the level shift done.

  /// Channels 0, 1 and 2 of pixels of `step` samples each, 3 or more.
  void (*splitBytes)(const std::uint8_t* in, std::size_t step, std::uint8_t* a, std::uint8_t* b,
                     std::uint8_t* c, std::size_t count);
  void (*splitWords)(const std::uint16_t* in, std::size_t step, std::uint16_t* a, std::uint16_t* b,
                     std::uint16_t* c, std::size_t count);
  void (*bytesToShorts)(const std::uint8_t* in, std::int16_t* out, std::size_t count);
  void (*bytesToInts)(const std::uint8_t* in, std::int32_t* out, std::size_t count);
  void (*wordsToInts)(const std::uint16_t* in, std::int32_t* out, std::size_t count);
  void (*bytesToFloats)(const std::uint8_t* in, float* out, std::size_t count);
  void (*wordsToFloats)(const std::uint16_t* in, float* out, std::size_t count);
  /// Forward reversible colour transform: Y = floor((R + 2 G + B) / 4), U = B - G, V = R - G.
  void (*forwardRct8)(const std::uint8_t* r, const std::uint8_t* g, const std::uint8_t* b,
                      std::int16_t* y, std::int16_t* u, std::int16_t* v, std::size_t count);
  void (*forwardRct16)(const std::uint16_t* r, const std::uint16_t* g, const std::uint16_t* b,
                       std::int32_t* y, std::int32_t* u, std::int32_t* v, std::size_t count);
  void (*forwardRct32)(const std::int32_t* r, const std::int32_t* g, const std::int32_t* b,
                       std::int32_t* y, std::int32_t* u, std::int32_t* v, std::size_t count);
  /// Forward irreversible colour transform. The samples become single-precision numbers, the
  /// constants are such, and every product and sum is rounded to single precision:
  /// Y = 0.299 R + 0.587 G + 0.114 B, Cb = -0.16875 R - 0.33126 G + 0.5 B,
  /// Cr = 0.5 R - 0.41869 G - 0.08131 B.
  void (*forwardIct8)(const std::uint8_t* r, const std::uint8_t* g, const std::uint8_t* b, float* y,
                      float* cb, float* cr, std::size_t count);
  void (*forwardIct16)(const std::uint16_t* r, const std::uint16_t* g, const std::uint16_t* b,
                       float* y, float* cb, float* cr, std::size_t count);
  void (*forwardIct32)(const std::int32_t* r, const std::int32_t* g, const std::int32_t* b,
                       float* y, float* cb, float* cr, std::size_t count);

  // From reconstructed planes to samples.

  /// Inverse reversible colour transform in place, Y, U, V becoming R, G, B:
  /// G = Y - floor((U + V) / 4), R = V + G, B = U + G.
  void (*inverseRct)(std::int32_t* y, std::int32_t* u, std::int32_t* v, std::size_t count);
  /// Inverse irreversible colour transform in place, in double precision with single-precision
  /// constants: R = Y + 1.402 Cr, G = Y - 0.34413 Cb - 0.71414 Cr, B = Y + 1.772 Cb.
  void (*inverseIct)(float* y, float* cb, float* cr, std::size_t count);
  /// Inverse reversible colour transform and level shift of 8-bit samples: as inverseRct, each
  /// result v as v + 128, clamped to 0..255.
  void (*inverseRctTo8Bit)(const std::int32_t* y, const std::int32_t* u, const std::int32_t* v,
                           std::uint8_t* r, std::uint8_t* g, std::uint8_t* b, std::size_t count);
  /// The same from cells of 16 bits, in sums of that width: right while no cell is above
  /// kMostShortColor in magnitude.
  void (*inverseRctShortsTo8Bit)(const std::int16_t* y, const std::int16_t* u,
                                 const std::int16_t* v, std::uint8_t* r, std::uint8_t* g,
                                 std::uint8_t* b, std::size_t count);
  /// Inverse irreversible colour transform and level shift of 8-bit samples: as inverseIct with
  /// Y + 128 for Y, each result rounded to single precision, then nearest and clamped to 0..255.
  void (*inverseIctTo8Bit)(const float* y, const float* cb, const float* cr, std::uint8_t* r,
                           std::uint8_t* g, std::uint8_t* b, std::size_t count);
  /// The same with every operation rounded to single precision.
  void (*inverseIctSingleTo8Bit)(const float* y, const float* cb, const float* cr, std::uint8_t* r,
                                 std::uint8_t* g, std::uint8_t* b, std::size_t count);
  /// Level shift of 8-bit samples: v + 128, clamped to 0..255.
  void (*intTo8Bit)(const std::int32_t* in, std::uint8_t* out, std::size_t count);
  void (*shortTo8Bit)(const std::int16_t* in, std::uint8_t* out, std::size_t count);
  /// Level shift of 8-bit samples: v + 128 in single precision, nearest, clamped to 0..255.
  void (*floatTo8Bit)(const float* in, std::uint8_t* out, std::size_t count);

  // Recasting: samples to levels, levels to values of another range, values to output.

  /// level = clamp(s, lowest, highest) + addend.
  void (*intsToLevels)(const std::int32_t* in, std::int32_t* out, std::size_t count,
                       std::int32_t lowest, std::int32_t highest, std::int32_t addend);
  /// level = clamp(nearest(s), lowest, highest) + addend.
  void (*floatsToLevels)(const float* in, std::int32_t* out, std::size_t count, std::int32_t lowest,
                         std::int32_t highest, std::int32_t addend);
  /// In place; every operation of the scale is rounded to single precision.
  void (*scaleLevels)(std::int32_t* levels, std::size_t count, const LevelScale& scale);
  /// Nearest integers of numbers below 2^15 in magnitude.
  void (*floatsToShorts)(const float* in, std::int16_t* out, std::size_t count);
  /// The low 8 bits of each.
  void (*levelsToBytes)(const std::int32_t* in, std::uint8_t* out, std::size_t count);
  /// The low 16 bits of each, shifted left by 0 to 15 first.
  void (*levelsToWords)(const std::int32_t* in, std::uint16_t* out, std::size_t count, int shift);
};

/// The scalar reference of every kernel.
void FillScalarSamplesKernels(SamplesKernels& table) noexcept;

}  // namespace kel

#endif
