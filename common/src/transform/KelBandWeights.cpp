// Energy weights of subbands, from the filters' impulse responses.
//
// The basis function of a subband of level l is separable. Along an axis it begins as the low-pass
// filter and goes l - 1 times through insertion of zeros and filtering; where the subband is
// high-pass along the axis, the last filter is the high-pass one. In round k only the values up to
// 5k + 8 are kept. From level 3 on that is less than the function's length, and the weights of
// deep low-pass bands come out a little small. That is part of the definition: the steps of a
// quality follow from these numbers.
#include "transform/KelBandWeights.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace kel {
namespace {

/// Symmetric filters, centre first: the synthesis filters of both transforms as the definition of
/// the weights has them. Those of the 9/7 transform are normalised to low-pass sums of 2; those of
/// the 5/3 one are given to six digits, low-pass sums of the root of 2.
constexpr int kTaps = 5;
struct FilterPair {
  double low[kTaps], high[kTaps];
};
constexpr FilterPair kPair97 = {
    {1.115087052457, 0.591271763114, -0.057543526228, -0.091271763114, 0.0},
    {0.602949018236, -0.266864118443, -0.078223266529, 0.016864118443, 0.026748757741}};
constexpr FilterPair kPair53 = {{0.707107, 0.353553, 0.0, 0.0, 0.0},
                                {-1.06066, 0.353553, 0.176777, 0.0, 0.0}};

/// Values that round k leaves; a level has one round less than its number.
constexpr int KeptAfterRound(int k) {
  return 5 * k + 9;
}
constexpr int kMostValues = KeptAfterRound(format::kMostLevels - 1);

/// One half of a symmetric sequence, centre first; zero beyond what was computed.
struct HalfSequence {
  double values[kMostValues];
};

/// Sum of squares of the whole sequence.
double Energy(const HalfSequence& g) {
  double sum = 0.0;
  for (int i = 1; i < kMostValues; ++i) sum += g.values[i] * g.values[i];
  return g.values[0] * g.values[0] + 2.0 * sum;
}

/// The sequence with zeros inserted between its values, filtered, cut off after round k.
HalfSequence Refined(const HalfSequence& g, const double (&filter)[kTaps], int k) {
  HalfSequence refined = {};
  const auto spread = [&g](int i) { return i % 2 == 0 ? g.values[i / 2] : 0.0; };
  for (int i = 0; i < KeptAfterRound(k); ++i) {
    double sum = filter[0] * spread(i);
    for (int j = 1; j < kTaps; ++j) sum += filter[j] * (spread(i + j) + spread(std::abs(i - j)));
    refined.values[i] = sum;
  }
  return refined;
}

double AxisEnergy(int level, bool high, const FilterPair& pair) {
  HalfSequence g = {};
  std::copy_n(level == 1 && high ? pair.high : pair.low, kTaps, g.values);
  for (int k = 1; k < level; ++k) {
    g = Refined(g, high && k == level - 1 ? pair.high : pair.low, k);
  }
  return Energy(g);
}

/// Levels whose basis functions are computed whole, and the values of one half of such a function:
/// each level inserts zeros and adds four values at the end.
constexpr int kWholeLevels = 7;
constexpr int kWholeValues = 4 * ((1 << kWholeLevels) - 1) + 1;

/// The energy of the whole basis function along an axis: the subband's own filter, then the
/// low-pass one at each level. From a few levels on a further one doubles it.
double WholeAxisEnergy(int level, bool high) {
  if (level > kWholeLevels) {
    return std::ldexp(WholeAxisEnergy(kWholeLevels, high), level - kWholeLevels);
  }
  double values[kWholeValues] = {};
  std::copy_n(high ? kPair97.high : kPair97.low, kTaps, values);
  for (int k = 1, last = kTaps - 1; k < level; ++k, last = 2 * last + kTaps - 1) {
    double refined[kWholeValues] = {};
    for (int i = 0; i <= 2 * last + kTaps - 1; ++i) {
      for (int j = 1 - kTaps; j < kTaps; ++j) {
        const int from = std::abs(i + j);
        if (from % 2 == 0 && from / 2 <= last) {
          refined[i] += kPair97.low[std::abs(j)] * values[from / 2];
        }
      }
    }
    std::copy_n(refined, kWholeValues, values);
  }
  double sum = 0.0;
  for (int i = 1; i < kWholeValues; ++i) sum += values[i] * values[i];
  return values[0] * values[0] + 2.0 * sum;
}

}  // namespace

double BandEnergyWeight(int level, SubbandKind kind, bool irreversible) {
  if (level == 0) return 1.0;
  const FilterPair& pair = irreversible ? kPair97 : kPair53;
  const bool highAcross = kind == SubbandKind::kHL || kind == SubbandKind::kHH;
  const bool highDown = kind == SubbandKind::kLH || kind == SubbandKind::kHH;
  return AxisEnergy(level, highAcross, pair) * AxisEnergy(level, highDown, pair);
}

void ComputeBandWeights(int numLevels, float* weights) {
  for (int b = 0; b < NumSubbands(numLevels); ++b) {
    weights[b] =
        static_cast<float>(BandEnergyWeight(LevelOfSubband(b, numLevels), KindOfSubband(b), true));
  }
}

void ComputeWholeBandWeights(int numLevels, float* weights) {
  weights[0] = 1.0F;
  for (int b = numLevels == 0 ? 1 : 0; b < NumSubbands(numLevels); ++b) {
    const int level = LevelOfSubband(b, numLevels);
    const SubbandKind kind = KindOfSubband(b);
    const bool highAcross = kind == SubbandKind::kHL || kind == SubbandKind::kHH;
    const bool highDown = kind == SubbandKind::kLH || kind == SubbandKind::kHH;
    weights[b] =
        static_cast<float>(WholeAxisEnergy(level, highAcross) * WholeAxisEnergy(level, highDown));
  }
}

}  // namespace kel
