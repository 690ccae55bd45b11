// Scalar reference kernels of the wavelet transforms. What each computes stands in the header,
// the formulas in KelWaveletFormulas.h.
#include <algorithm>
#include <type_traits>

#include "KelWaveletFormulas.h"
#include "KelWaveletKernels.h"

namespace kel {
namespace {

// The 5/3 filter over any kind of cell: arithmetic on the unsigned twin of the cell's type.

template <class Cell>
void SynthesiseRow53(const Cell* low, const Cell* high, Cell* out, std::size_t pairs) {
  using U = std::make_unsigned_t<Cell>;
  const Cell* const highBefore = high - 1;
  for (std::size_t n = 0; n < pairs; ++n) {
    const U h = static_cast<U>(high[n]);
    const U even = EvenSample53<U>(static_cast<U>(low[n]), static_cast<U>(highBefore[n]), h);
    const U evenAfter = EvenSample53<U>(static_cast<U>(low[n + 1]), h, static_cast<U>(high[n + 1]));
    out[2 * n] = static_cast<Cell>(even);
    out[2 * n + 1] = static_cast<Cell>(OddSample53<U>(h, even, evenAfter));
  }
}

template <class Cell>
void SynthesiseRows53(const Cell* const* low, const Cell* const* high, const Cell* evenBefore,
                      Cell* odd, Cell* even, std::size_t count) {
  using U = std::make_unsigned_t<Cell>;
  for (std::size_t i = 0; i < count; ++i) {
    const U h = static_cast<U>(high[1][i]);
    const U e = EvenSample53<U>(static_cast<U>(low[1][i]), h, static_cast<U>(high[2][i]));
    even[i] = static_cast<Cell>(e);
    odd[i] = static_cast<Cell>(OddSample53<U>(h, static_cast<U>(evenBefore[i]), e));
  }
}

template <class Cell>
void AnalyseRow53(const Cell* x, Cell* low, Cell* high, std::size_t pairs) {
  using U = std::make_unsigned_t<Cell>;
  const auto highAt = [x](std::ptrdiff_t n) {
    return HighPass53<U>(static_cast<U>(x[2 * n + 1]), static_cast<U>(x[2 * n]),
                         static_cast<U>(x[2 * n + 2]));
  };
  U before = highAt(-1);
  for (std::size_t n = 0; n < pairs; ++n) {
    const U h = highAt(static_cast<std::ptrdiff_t>(n));
    high[n] = static_cast<Cell>(h);
    low[n] = static_cast<Cell>(LowPass53<U>(static_cast<U>(x[2 * n]), before, h));
    before = h;
  }
}

template <class Cell>
void AnalyseRows53(const Cell* const* x, const Cell* highBefore, Cell* high, Cell* low,
                   std::size_t count) {
  using U = std::make_unsigned_t<Cell>;
  for (std::size_t i = 0; i < count; ++i) {
    const U even = static_cast<U>(x[0][i]);
    const U h = HighPass53<U>(static_cast<U>(x[1][i]), even, static_cast<U>(x[2][i]));
    high[i] = static_cast<Cell>(h);
    low[i] = static_cast<Cell>(LowPass53<U>(even, static_cast<U>(highBefore[i]), h));
  }
}

// The 9/7 filter: arithmetic in S, every result a float.

template <class S>
float EvenAt(const float* low, const float* high) {
  return static_cast<float>(EvenSample97<S, S>({S{low[-1]}, S{low[0]}, S{low[1]}},
                                               {S{high[-2]}, S{high[-1]}, S{high[0]}, S{high[1]}}));
}

template <class S>
void SynthesiseRow97(const float* low, const float* high, float* out, std::size_t pairs) {
  const float* const highBefore = high - 1;
  float even = EvenAt<S>(low, high);
  for (std::size_t n = 0; n < pairs; ++n) {
    const float evenAfter = EvenAt<S>(low + n + 1, high + n + 1);
    out[2 * n] = even;
    out[2 * n + 1] = static_cast<float>(
        OddSample97<S, S>({S{low[n]}, S{low[n + 1]}},
                          {S{highBefore[n]}, S{high[n]}, S{high[n + 1]}}, {S{even}, S{evenAfter}}));
    even = evenAfter;
  }
}

template <class S>
void SynthesiseRows97(const float* const* low, const float* const* high, const float* evenBefore,
                      float* odd, float* even, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const S l[3] = {S{low[0][i]}, S{low[1][i]}, S{low[2][i]}};
    const S h[4] = {S{high[0][i]}, S{high[1][i]}, S{high[2][i]}, S{high[3][i]}};
    even[i] = static_cast<float>(EvenSample97<S, S>(l, h));
    odd[i] = static_cast<float>(
        OddSample97<S, S>({l[0], l[1]}, {h[0], h[1], h[2]}, {S{evenBefore[i]}, S{even[i]}}));
  }
}

void AnalyseRow97(const float* x, float* low, float* high, std::size_t pairs,
                  const double factors[2]) {
  const auto coreAt = [](const float* even) {
    return HighPassCore97<double>(
        {even[-2], even[-1], even[0], even[1], even[2], even[3], even[4]});
  };
  double before = coreAt(x - 2);
  for (std::size_t n = 0; n < pairs; ++n) {
    const float* even = x + 2 * n;
    const double core = coreAt(even);
    high[n] = static_cast<float>(kHighPassGain97 * core * factors[1]);
    low[n] = static_cast<float>(
        LowPass97<double>({even[-2], even[-1], even[0], even[1], even[2]}, {before, core}) *
        factors[0]);
    before = core;
  }
}

void AnalyseRows97(const float* const* x, const double* coreBefore, double* core,
                   float* const lowHigh[2], std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const double v[7] = {x[0][i], x[1][i], x[2][i], x[3][i], x[4][i], x[5][i], x[6][i]};
    core[i] = HighPassCore97<double>(v);
    lowHigh[1][i] = static_cast<float>(kHighPassGain97 * core[i]);
    lowHigh[0][i] = static_cast<float>(
        LowPass97<double>({v[0], v[1], v[2], v[3], v[4]}, {coreBefore[i], core[i]}));
  }
}

void Dequantise(const std::int32_t* in, float* out, std::size_t count, float step) {
  for (std::size_t i = 0; i < count; ++i) out[i] = static_cast<float>(in[i]) * step;
}

void FloatTo8BitAway(const float* in, std::uint8_t* out, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const float shifted = in[i] + 128.0F;
    // What rounds to less than 0 is clamped anyway, so only the upward half matters; a NaN
    // compares as not above and gives 0.
    const float limited = shifted > 0.0F ? std::min(shifted, 255.0F) : 0.0F;
    out[i] = static_cast<std::uint8_t>(limited + 0.5F);
  }
}

}  // namespace

void FillScalarWaveletKernels(WaveletKernels& table) noexcept {
  table.synthesis53 = {SynthesiseRow53<std::int32_t>, SynthesiseRows53<std::int32_t>};
  table.synthesis53Short = {SynthesiseRow53<std::int16_t>, SynthesiseRows53<std::int16_t>};
  table.synthesis97 = {SynthesiseRow97<double>, SynthesiseRows97<double>};
  table.synthesis97Single = {SynthesiseRow97<float>, SynthesiseRows97<float>};
  table.dequantise = Dequantise;
  table.floatTo8BitAway = FloatTo8BitAway;
  table.analysis53 = {AnalyseRow53<std::int32_t>, AnalyseRows53<std::int32_t>};
  table.analysis53Short = {AnalyseRow53<std::int16_t>, AnalyseRows53<std::int16_t>};
  table.analyseRow97 = AnalyseRow97;
  table.analyseRows97 = AnalyseRows97;
}

}  // namespace kel
