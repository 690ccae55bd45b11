// Vector kernels of the wavelet transforms, written once over the vector length.
//
// Included by one source per instruction set, after KelVector.h; everything here is local to that
// source. Same bits as the scalar reference: both evaluate the formulas of KelWaveletFormulas.h
// in the same order and the same precision.
#ifndef KEL_WAVELET_VECTOR_H
#define KEL_WAVELET_VECTOR_H

#include <type_traits>

#include "KelVector.h"
#include "KelWaveletFormulas.h"
#include "KelWaveletKernels.h"

namespace kel {
namespace {

/// Runs a body of kStep values, and one of a single value, over [0, count). The last full step
/// ends at count and may overlap the one before it, so a body must give the same result again.
template <std::size_t kStep, class VectorBody, class SingleBody>
inline void SweepOverlapping(std::size_t count, VectorBody vectorBody, SingleBody singleBody) {
  if (count < kStep) {
    for (std::size_t i = 0; i < count; ++i) singleBody(i);
    return;
  }
  std::size_t i = 0;
  for (; i + kStep <= count; i += kStep) vectorBody(i);
  if (i < count) vectorBody(count - kStep);
}

// 5/3: a vector of the unsigned twins of the cells.

template <class Cell>
struct CellVector {
  typedef std::make_unsigned_t<Cell> U;
  typedef U V __attribute__((vector_size(KEL_VECTOR_BYTES)));
  static constexpr std::size_t kCount = KEL_VECTOR_BYTES / sizeof(Cell);
};

template <>
struct SignedTwin<CellVector<std::int32_t>::V> {
  using Type = VInt;
};
template <>
struct SignedTwin<CellVector<std::int16_t>::V> {
  typedef std::int16_t Type __attribute__((vector_size(KEL_VECTOR_BYTES)));
};

template <class Cell>
void SynthesiseRow53(const Cell* low, const Cell* high, Cell* out, std::size_t pairs) {
  using V = typename CellVector<Cell>::V;
  using U = typename CellVector<Cell>::U;
  const auto pairAt = [=]<class T>(std::size_t n, T& even, T& odd) {
    const T h = Load<T>(high + n);
    even = EvenSample53<T>(Load<T>(low + n), Load<T>(high + n - 1), h);
    odd = OddSample53<T>(h, even, EvenSample53<T>(Load<T>(low + n + 1), h, Load<T>(high + n + 1)));
  };
  SweepOverlapping<CellVector<Cell>::kCount>(
      pairs,
      [=](std::size_t n) {
        V even, odd;
        pairAt(n, even, odd);
        Store(out + 2 * n, InterleaveLow(even, odd));
        Store(out + 2 * n + CellVector<Cell>::kCount, InterleaveHigh(even, odd));
      },
      [=](std::size_t n) {
        U even, odd;
        pairAt(n, even, odd);
        Store(out + 2 * n, even);
        Store(out + 2 * n + 1, odd);
      });
}

template <class Cell>
void SynthesiseRows53(const Cell* const* low, const Cell* const* high, const Cell* evenBefore,
                      Cell* odd, Cell* even, std::size_t count) {
  using V = typename CellVector<Cell>::V;
  using U = typename CellVector<Cell>::U;
  const Cell *const l = low[1], *const h0 = high[1], *const h1 = high[2];
  const auto body = [=]<class T>(std::size_t i, T) {
    const T h = Load<T>(h0 + i);
    const T e = EvenSample53<T>(Load<T>(l + i), h, Load<T>(h1 + i));
    Store(even + i, e);
    Store(odd + i, OddSample53<T>(h, Load<T>(evenBefore + i), e));
  };
  SweepOverlapping<CellVector<Cell>::kCount>(
      count, [=](std::size_t i) { body(i, V{}); }, [=](std::size_t i) { body(i, U{}); });
}

template <class Cell>
void AnalyseRow53(const Cell* x, Cell* low, Cell* high, std::size_t pairs) {
  using V = typename CellVector<Cell>::V;
  using U = typename CellVector<Cell>::U;
  constexpr std::size_t kCount = CellVector<Cell>::kCount;
  SweepOverlapping<kCount>(
      pairs,
      [=](std::size_t n) {
        const Cell* const at = x + 2 * n;
        const V a = Load<V>(at), b = Load<V>(at + kCount);
        const V a0 = Load<V>(at - 2), b0 = Load<V>(at + kCount - 2);
        const V even = EvenOf(a, b), evenBefore = EvenOf(a0, b0);
        const V evenAfter = OddOf(Load<V>(at + 1), Load<V>(at + kCount + 1));
        const V before = HighPass53<V>(OddOf(a0, b0), evenBefore, even);
        const V h = HighPass53<V>(OddOf(a, b), even, evenAfter);
        Store(high + n, h);
        Store(low + n, LowPass53<V>(even, before, h));
      },
      [=](std::size_t n) {
        const Cell* const at = x + 2 * n;
        const auto highAt = [](const Cell* p) {
          return HighPass53<U>(Load<U>(p + 1), Load<U>(p), Load<U>(p + 2));
        };
        const U h = highAt(at);
        Store(high + n, h);
        Store(low + n, LowPass53<U>(Load<U>(at), highAt(at - 2), h));
      });
}

template <class Cell>
void AnalyseRows53(const Cell* const* x, const Cell* highBefore, Cell* high, Cell* low,
                   std::size_t count) {
  using V = typename CellVector<Cell>::V;
  using U = typename CellVector<Cell>::U;
  const Cell *const x0 = x[0], *const x1 = x[1], *const x2 = x[2];
  const auto body = [=]<class T>(std::size_t i, T) {
    const T even = Load<T>(x0 + i);
    const T h = HighPass53<T>(Load<T>(x1 + i), even, Load<T>(x2 + i));
    Store(high + i, h);
    Store(low + i, LowPass53<T>(even, Load<T>(highBefore + i), h));
  };
  SweepOverlapping<CellVector<Cell>::kCount>(
      count, [=](std::size_t i) { body(i, V{}); }, [=](std::size_t i) { body(i, U{}); });
}

// 9/7: values are loaded as singles and computed in V, a vector of doubles or singles.

template <class V>
inline V LoadAs(const float* from) {
  if constexpr (std::is_same_v<V, VDouble>) {
    return Widen(Load<VHalfFloat>(from));
  } else if constexpr (std::is_same_v<V, VFloat>) {
    return Load<VFloat>(from);
  } else {
    return V{*from};
  }
}

template <class V>
inline auto Rounded(V v) {
  if constexpr (std::is_same_v<V, VDouble>) {
    return __builtin_convertvector(v, VHalfFloat);
  } else if constexpr (std::is_same_v<V, VFloat>) {
    return v;
  } else {
    return static_cast<float>(v);
  }
}

/// A vector of S, how many lanes it has, and as many singles.
template <class S>
struct Arithmetic {
  using V = std::conditional_t<std::is_same_v<S, double>, VDouble, VFloat>;
  using Singles = std::conditional_t<std::is_same_v<S, double>, VHalfFloat, VFloat>;
  static constexpr std::size_t kCount = sizeof(V) / sizeof(S);
};

/// Pairs that a pass across handles at a time, so that its intermediate rows stay on the stack.
inline constexpr std::size_t kChunkPairs = 256;

/// At most kChunkPairs pairs; even samples go through a row of their own first.
template <class S>
void SynthesiseChunk97(const float* low, const float* high, float* out, std::size_t pairs) {
  using V = typename Arithmetic<S>::V;
  using Singles = typename Arithmetic<S>::Singles;
  constexpr std::size_t kCount = Arithmetic<S>::kCount;
  float even[kChunkPairs + 1];
  const auto evenAt = [&]<class T>(std::size_t n, T) {
    const float *const l = low + n, *const h = high + n;
    Store(even + n, Rounded(EvenSample97<S, T>(
                        {LoadAs<T>(l - 1), LoadAs<T>(l), LoadAs<T>(l + 1)},
                        {LoadAs<T>(h - 2), LoadAs<T>(h - 1), LoadAs<T>(h), LoadAs<T>(h + 1)})));
  };
  SweepOverlapping<kCount>(
      pairs + 1, [&](std::size_t n) { evenAt(n, V{}); }, [&](std::size_t n) { evenAt(n, S{}); });
  const auto oddAt = [&]<class T>(std::size_t n, T) {
    const float *const l = low + n, *const h = high + n;
    return Rounded(OddSample97<S, T>({LoadAs<T>(l), LoadAs<T>(l + 1)},
                                     {LoadAs<T>(h - 1), LoadAs<T>(h), LoadAs<T>(h + 1)},
                                     {LoadAs<T>(even + n), LoadAs<T>(even + n + 1)}));
  };
  SweepOverlapping<kCount>(
      pairs,
      [&](std::size_t n) {
        const Singles e = Load<Singles>(even + n), o = oddAt(n, V{});
        Store(out + 2 * n, InterleaveLow(e, o));
        Store(out + 2 * n + kCount, InterleaveHigh(e, o));
      },
      [&](std::size_t n) {
        out[2 * n] = even[n];
        out[2 * n + 1] = oddAt(n, S{});
      });
}

template <class S>
void SynthesiseRow97(const float* low, const float* high, float* out, std::size_t pairs) {
  for (std::size_t n = 0; n < pairs; n += kChunkPairs) {
    const std::size_t some = pairs - n < kChunkPairs ? pairs - n : kChunkPairs;
    SynthesiseChunk97<S>(low + n, high + n, out + 2 * n, some);
  }
}

template <class S>
void SynthesiseRows97(const float* const* low, const float* const* high, const float* evenBefore,
                      float* odd, float* even, std::size_t count) {
  using V = typename Arithmetic<S>::V;
  const float *const l0 = low[0], *const l1 = low[1], *const l2 = low[2];
  const float *const h0 = high[0], *const h1 = high[1], *const h2 = high[2], *const h3 = high[3];
  const auto body = [=]<class T>(std::size_t i, T) {
    const T l[3] = {LoadAs<T>(l0 + i), LoadAs<T>(l1 + i), LoadAs<T>(l2 + i)};
    const T h[4] = {LoadAs<T>(h0 + i), LoadAs<T>(h1 + i), LoadAs<T>(h2 + i), LoadAs<T>(h3 + i)};
    Store(even + i, Rounded(EvenSample97<S, T>(l, h)));
    const T e[2] = {LoadAs<T>(evenBefore + i), LoadAs<T>(even + i)};
    Store(odd + i, Rounded(OddSample97<S, T>({l[0], l[1]}, {h[0], h[1], h[2]}, e)));
  };
  SweepOverlapping<Arithmetic<S>::kCount>(
      count, [=](std::size_t i) { body(i, V{}); }, [=](std::size_t i) { body(i, S{}); });
}

/// Splits x[0], x[1], ... x[2 pairs] into its even and its odd samples, as doubles.
inline void SplitToDouble(const float* x, double* even, double* odd, std::size_t pairs) {
  SweepOverlapping<kWideLanes>(
      pairs,
      [=](std::size_t n) {
        const VHalfFloat a = Load<VHalfFloat>(x + 2 * n);
        const VHalfFloat b = Load<VHalfFloat>(x + 2 * n + kWideLanes);
        Store(even + n, Widen(EvenOf(a, b)));
        Store(odd + n, Widen(OddOf(a, b)));
      },
      [=](std::size_t n) {
        even[n] = double{x[2 * n]};
        odd[n] = double{x[2 * n + 1]};
      });
  even[pairs] = double{x[2 * pairs]};
}

/// At most kChunkPairs pairs.
inline void AnalyseChunk97(const float* x, float* low, float* high, std::size_t pairs,
                           const double factors[2]) {
  // even[n] = X(2n - 4), odd[n] = X(2n - 3), core[n] = H'(n - 1)
  double even[kChunkPairs + 4], odd[kChunkPairs + 3], core[kChunkPairs + 1];
  SplitToDouble(x - 4, even, odd, pairs + 3);
  const auto coreAt = [&]<class T>(std::size_t n, T) {
    const double *const e = even + n, *const o = odd + n;
    Store(core + n, HighPassCore97<T>({Load<T>(e), Load<T>(o), Load<T>(e + 1), Load<T>(o + 1),
                                       Load<T>(e + 2), Load<T>(o + 2), Load<T>(e + 3)}));
  };
  SweepOverlapping<kWideLanes>(
      pairs + 1, [&](std::size_t n) { coreAt(n, VDouble{}); },
      [&](std::size_t n) { coreAt(n, double{}); });
  const double lowFactor = factors[0], highFactor = factors[1];
  const auto pairAt = [&]<class T>(std::size_t n, T) {
    const double *const e = even + n, *const o = odd + n;
    const T h = Load<T>(core + n + 1);
    const T l = LowPass97<T>(
        {Load<T>(e + 1), Load<T>(o + 1), Load<T>(e + 2), Load<T>(o + 2), Load<T>(e + 3)},
        {Load<T>(core + n), h});
    Store(low + n, Rounded(T(l * lowFactor)));
    Store(high + n, Rounded(T(kHighPassGain97 * h * highFactor)));
  };
  SweepOverlapping<kWideLanes>(
      pairs, [&](std::size_t n) { pairAt(n, VDouble{}); },
      [&](std::size_t n) { pairAt(n, double{}); });
}

inline void AnalyseRow97(const float* x, float* low, float* high, std::size_t pairs,
                         const double factors[2]) {
  for (std::size_t n = 0; n < pairs; n += kChunkPairs) {
    const std::size_t some = pairs - n < kChunkPairs ? pairs - n : kChunkPairs;
    AnalyseChunk97(x + 2 * n, low + n, high + n, some, factors);
  }
}

inline void AnalyseRows97(const float* const* x, const double* coreBefore, double* core,
                          float* const lowHigh[2], std::size_t count) {
  const float *const x0 = x[0], *const x1 = x[1], *const x2 = x[2], *const x3 = x[3];
  const float *const x4 = x[4], *const x5 = x[5], *const x6 = x[6];
  float *const low = lowHigh[0], *const high = lowHigh[1];
  const auto body = [=]<class T>(std::size_t i, T) {
    const T v[7] = {LoadAs<T>(x0 + i), LoadAs<T>(x1 + i), LoadAs<T>(x2 + i), LoadAs<T>(x3 + i),
                    LoadAs<T>(x4 + i), LoadAs<T>(x5 + i), LoadAs<T>(x6 + i)};
    const T h = HighPassCore97<T>(v);
    const T l = LowPass97<T>({v[0], v[1], v[2], v[3], v[4]}, {Load<T>(coreBefore + i), h});
    Store(core + i, h);
    Store(high + i, Rounded(T(kHighPassGain97 * h)));
    Store(low + i, Rounded(l));
  };
  SweepOverlapping<kWideLanes>(
      count, [=](std::size_t i) { body(i, VDouble{}); }, [=](std::size_t i) { body(i, double{}); });
}

inline void Dequantise(const std::int32_t* in, float* out, std::size_t count, float step) {
  SweepOverlapping<kLanes>(
      count,
      [=](std::size_t i) {
        const VFloat v = __builtin_convertvector(Load<VInt>(in + i), VFloat);
        Store(out + i, v * step);
      },
      [=](std::size_t i) { out[i] = static_cast<float>(in[i]) * step; });
}

inline void FloatTo8BitAway(const float* in, std::uint8_t* out, std::size_t count) {
  typedef std::uint8_t Bytes __attribute__((vector_size(kLanes)));
  SweepOverlapping<kLanes>(
      count,
      [=](std::size_t i) {
        const VFloat shifted = Load<VFloat>(in + i) + 128.0F;
        const VFloat atLeast = shifted > 0.0F ? shifted : VFloat{};
        const VFloat limited = atLeast < 255.0F ? atLeast : VFloat{} + 255.0F;
        const VInt whole = __builtin_convertvector(limited + 0.5F, VInt);
        Store(out + i, __builtin_convertvector(whole, Bytes));
      },
      [=](std::size_t i) {
        const float shifted = in[i] + 128.0F;
        const float atLeast = shifted > 0.0F ? shifted : 0.0F;
        out[i] = static_cast<std::uint8_t>((atLeast < 255.0F ? atLeast : 255.0F) + 0.5F);
      });
}

inline void OverwriteWithVector(WaveletKernels& table) noexcept {
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

}  // namespace
}  // namespace kel

#endif
