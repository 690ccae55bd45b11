// Kernels of the wavelet transforms: one level's filtering of a row (across) or of a few rows
// (down), and dequantisation.
//
// L(n) is the low-pass sample of position 2n, H(n) the high-pass sample of position 2n + 1, X(i)
// the sample of position i. Kernels know no borders: the caller extends a signal by mirroring, so
// that everything named as read exists. Counts are in cells unless they say pairs. Outputs do not
// overlap inputs except where a kernel says so. The 5/3 kernels wrap around on overflow.
#ifndef KEL_WAVELET_KERNELS_H
#define KEL_WAVELET_KERNELS_H

#include <cstddef>
#include <cstdint>

namespace kel {

/// Reconstruction of one level with one filter.
template <class Cell>
struct SynthesisKernels {
  /// Across: from L(0) at low[0] and H(0) at high[0] computes out[i] = X(i), i < 2 pairs. Reads
  /// low[-1] to low[pairs + 1] and high[-2] to high[pairs + 1].
  void (*row)(const Cell* low, const Cell* high, Cell* out, std::size_t pairs);
  /// Down: from the rows low = L(n) to L(n + 2), high = H(n - 1) to H(n + 2) and
  /// evenBefore = X(2n) computes even = X(2n + 2) and odd = X(2n + 1).
  void (*rows)(const Cell* const* low, const Cell* const* high, const Cell* evenBefore, Cell* odd,
               Cell* even, std::size_t count);
};

/// Decomposition into one level with the 5/3 filter.
template <class Cell>
struct AnalysisKernels {
  /// Across: with X(i) at x[i] computes low[n] = L(n) and high[n] = H(n), n < pairs. Reads x[-2] to
  /// x[2 pairs].
  void (*row)(const Cell* x, Cell* low, Cell* high, std::size_t pairs);
  /// Down: from the rows x = X(2n) to X(2n + 2) and highBefore = H(n - 1) computes high = H(n) and
  /// low = L(n).
  void (*rows)(const Cell* const* x, const Cell* highBefore, Cell* high, Cell* low,
               std::size_t count);
};

struct WaveletKernels {
  /// The reversible 5/3 filter. Sums are those of the cells' width.
  SynthesisKernels<std::int32_t> synthesis53;
  SynthesisKernels<std::int16_t> synthesis53Short;
  /// The irreversible 9/7 filter, double arithmetic, results rounded to single precision.
  SynthesisKernels<float> synthesis97;
  /// The same filter with single-precision arithmetic throughout.
  SynthesisKernels<float> synthesis97Single;

  /// out[i] = in[i] step, single precision after each operation.
  void (*dequantise)(const std::int32_t* in, float* out, std::size_t count, float step);
  /// Level shift of 8-bit samples: v + 128, rounded to the nearest integer, halves away from
  /// zero, and clamped to 0..255; single precision after each operation; NaN gives 0.
  void (*floatTo8BitAway)(const float* in, std::uint8_t* out, std::size_t count);

  /// The 5/3 filter over integers, and over integers of 16 bits.
  AnalysisKernels<std::int32_t> analysis53;
  AnalysisKernels<std::int16_t> analysis53Short;
  /// 9/7 across, as that of the 5/3 filter but reads x[-4] to x[2 pairs + 2]. Results are
  /// multiplied by the factors before they are rounded to single precision.
  void (*analyseRow97)(const float* x, float* low, float* high, std::size_t pairs,
                       const double factors[2]);
  /// 9/7 down: from the rows x = X(2n - 2) to X(2n + 4) and coreBefore = H'(n - 1) computes
  /// core = H'(n), high = H(n) and low = L(n). H' is H before its normalisation.
  void (*analyseRows97)(const float* const* x, const double* coreBefore, double* core,
                        float* const lowHigh[2], std::size_t count);
};

/// The scalar reference of every kernel.
void FillScalarWaveletKernels(WaveletKernels& table) noexcept;

}  // namespace kel

#endif
