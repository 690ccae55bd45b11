// The formulas of the two wavelet filters, written once for single values and for vectors.
//
// Everything here is local to the including source (see KelVector.h for the reason). The order
// of evaluation is part of each formula: sums of mirrored neighbours first, then terms from left
// to right, nothing contracted. So every kernel set gives the same bits, and a value computed at
// a mirrored position equals the value at the position it mirrors, bit for bit.
#ifndef KEL_WAVELET_FORMULAS_H
#define KEL_WAVELET_FORMULAS_H

#include <type_traits>

namespace kel {
namespace {

// 5/3 lifting, on unsigned cells of any width, which wrap around, or on vectors of them.

/// The signed type of the same shape; vectors bring their own.
template <class U>
struct SignedTwin {
  using Type = std::make_signed_t<U>;
};

/// Arithmetic shift of the signed value: the floor of its division by 2^bits.
template <class U>
inline U ShiftDown(U v, int bits) {
  using T = typename SignedTwin<U>::Type;
  return __builtin_bit_cast(U, static_cast<T>(__builtin_bit_cast(T, v) >> bits));
}

/// X(2n) = L(n) - floor((H(n - 1) + H(n) + 2) / 4)
template <class U>
inline U EvenSample53(U low, U highBefore, U high) {
  return static_cast<U>(low - ShiftDown(static_cast<U>(highBefore + high + 2U), 2));
}

/// X(2n + 1) = H(n) + floor((X(2n) + X(2n + 2)) / 2)
template <class U>
inline U OddSample53(U high, U evenBefore, U evenAfter) {
  return static_cast<U>(high + ShiftDown(static_cast<U>(evenBefore + evenAfter), 1));
}

/// H(n) = X(2n + 1) - floor((X(2n) + X(2n + 2)) / 2)
template <class U>
inline U HighPass53(U odd, U evenBefore, U evenAfter) {
  return static_cast<U>(odd - ShiftDown(static_cast<U>(evenBefore + evenAfter), 1));
}

/// L(n) = X(2n) + floor((H(n - 1) + H(n) + 2) / 4)
template <class U>
inline U LowPass53(U even, U highBefore, U high) {
  return static_cast<U>(even + ShiftDown(static_cast<U>(highBefore + high + 2U), 2));
}

// 9/7 filters in factored convolution form. S is double, or float for the single-precision
// synthesis; V is S or a vector of it.
//
// The coefficients are those of the lifting steps multiplied out. With a = -1.586134342,
// b = -0.052980118, c = 0.882911075, d = 0.443506852 and the gain K = 1.230174105, forward steps
// are
//   X(2n + 1) += a (X(2n) + X(2n + 2))    X(2n) += b (X(2n - 1) + X(2n + 1))
//   X(2n + 1) += c (X(2n) + X(2n + 2))    X(2n) += d (X(2n - 1) + X(2n + 1))
// then L(n) = X(2n) / K and H(n) = K X(2n + 1). Even samples need the convolution of L and H alone;
// odd ones are found from these and the last step back, with the even samples beside them.

/// X(2n) from l = L(n - 1) to L(n + 1) and h = H(n - 2) to H(n + 1): K (1 + 2 b c), b c K,
/// -(b (1 + 3 c d) + d) / K and -b c d / K.
template <class S, class V>
inline V EvenSample97(const V (&l)[3], const V (&h)[4]) {
  return S(1.115087054) * l[1] - S(0.0575435256) * (l[0] + l[2]) - S(0.266864129) * (h[1] + h[2]) +
         S(0.0168641183) * (h[0] + h[3]);
}

/// X(2n + 1) from l = L(n) and L(n + 1), h = H(n - 1) to H(n + 1), e = X(2n) and X(2n + 2):
/// (1 + 2 c d) / K, -c K, c d / K and -a.
template <class S, class V>
inline V OddSample97(const V (&l)[2], const V (&h)[3], const V (&e)[2]) {
  return S(1.449513703) * h[1] - S(1.086134341) * (l[0] + l[1]) + S(0.318310319) * (h[0] + h[2]) +
         S(1.586134342) * (e[0] + e[1]);
}

/// H'(n) from x = X(2n - 2) to X(2n + 4): 1 + 2 b c, a + c + 3 a b c, b c and a b c. High-pass
/// samples are H(n) = K H'(n).
template <class V>
inline V HighPassCore97(const V (&x)[7]) {
  return 0.906446534 * x[3] - 0.4806407195 * (x[2] + x[4]) - 0.0467767329 * (x[1] + x[5]) +
         0.0741941825 * (x[0] + x[6]);
}

/// K, the scaling of the 9/7 filter's lifting form.
inline constexpr double kHighPassGain97 = 1.230174105;

/// L(n) from x = X(2n - 2) to X(2n + 2) and, in core, H'(n - 1) and H'(n): (1 + 2 a b) / K, b / K,
/// a b / K and d / K.
template <class V>
inline V LowPass97(const V (&x)[5], const V (&core)[2]) {
  return 0.949513702 * x[2] - 0.0430671706 * (x[1] + x[3]) + 0.0683103182 * (x[0] + x[4]) +
         0.360523645 * (core[0] + core[1]);
}

}  // namespace
}  // namespace kel

#endif
