// Quantisation steps. All arithmetic in double precision, steps stored as floats.
#include "transform/KelQuant.h"

#include <algorithm>
#include <cmath>

namespace kel {
namespace {

// A pair takes 16 bits of the code stream: 11 of the mantissa and 5 of the exponent.
constexpr std::int32_t kMantissaScale = 1 << 11;
constexpr std::int32_t kMostExponent = (1 << 5) - 1;

float StepOf(std::int32_t exponent, std::int32_t mantissa, std::int32_t Rb) {
  const double significand = 1.0 + static_cast<double>(mantissa) / kMantissaScale;
  return static_cast<float>(std::ldexp(significand, Rb - exponent));
}

int FirstSubband(LevelRange levels) {
  return levels.first == 0 ? 0 : 3 * levels.first - 2;
}

}  // namespace

// The quality asks for a peak signal-to-noise ratio of 17 dB (0) to 57 dB (100), 0.4 dB a number,
// so for an error amplitude P and a budget of P^2 per sample. A subband with weight w and n
// coefficients gets the step sqrt(budget / (S w^2 0.04 n)), where S is the sum of 1 / w over all
// subbands. These numbers are given: they are what a quality means. 0.04 stands for an index's mean
// square error in squares of its step; of nearest indices it is 1 / 12, so that they lose more than
// the budget.
void DeriveQuantSteps(const QuantTarget& target, int numLevels, const Box* boxes,
                      const float* weights, float* steps) {
  const int count = NumSubbands(numLevels);
  std::fill_n(steps, count, 1.0F);
  if (target.quality == 100) return;
  const double decibels = target.quality * 40 / 100.0 + 17.0;
  const double amplitude =
      (std::ldexp(1.0, target.bitDepth) - 1.0) * std::pow(10.0, -decibels / 20.0);
  const double budget =
      amplitude * amplitude * target.width * target.height * static_cast<double>(target.factor);
  double sum = 0.0;
  for (int b = 0; b < count; ++b) sum += 1.0 / static_cast<double>(weights[b]);
  for (int b = 0; b < count; ++b) {
    const Box& box = boxes[b];
    if (box.IsEmpty()) continue;
    const double weight = static_cast<double>(weights[b]);
    const double share = sum * weight * weight * 0.04 * static_cast<double>(box.Width()) *
                         static_cast<double>(box.Height());
    steps[b] = static_cast<float>(std::sqrt(budget / share));
  }
}

namespace {

/// The share of a nearest index's step at which chosen indices have the same error: choosing adds
/// to the error. Measured on photographs at qualities 0, 10, ..., 100, without and with the colour
/// transform; straight in between.
constexpr double kSharesAlone[11] = {0.599, 0.594, 0.619, 0.666, 0.750, 0.801,
                                     0.838, 0.870, 0.883, 0.874, 0.863};
constexpr double kSharesOfColors[11] = {0.541, 0.571, 0.591, 0.622, 0.647, 0.669,
                                        0.676, 0.705, 0.765, 0.833, 0.889};

double ShareAt(const double (&shares)[11], double quality) {
  const double place = std::clamp(quality, 0.0, 100.0) / 10.0;
  const int before = std::min(static_cast<int>(place), 9);
  return shares[before] + (place - before) * (shares[before + 1] - shares[before]);
}

/// The step of a coefficient of weight 1. Nearest indices with the steps of DeriveQuantSteps lose
/// 1 / 0.48 of the budget: a twelfth of 25 times the budget with a component alone; with three
/// colours, of what three components of weights 3, 3.26 and 2.48 lose by their factors, on average.
/// At 100 they lose what steps of 1 do, the sum of the weights of all coefficients.
double EvenStep(const QuantTarget& target, int numLevels, const Box* boxes, const float* weights) {
  const bool isAlone = target.role == ComponentRole::kAlone;
  if (target.exactQuality >= 100.0) {
    double sum = 0.0, count = 0.0;
    for (int b = 0; b < NumSubbands(numLevels); ++b) {
      if (boxes[b].IsEmpty()) continue;
      const double cells =
          static_cast<double>(boxes[b].Width()) * static_cast<double>(boxes[b].Height());
      sum += static_cast<double>(weights[b]) * cells;
      count += cells;
    }
    return count > 0.0 ? std::sqrt(sum / count) * (isAlone ? 0.945 : 0.896) : 1.0;
  }
  const double decibels = target.exactQuality * 0.4 + 17.0;
  const double amplitude =
      (std::ldexp(1.0, target.bitDepth) - 1.0) * std::pow(10.0, -decibels / 20.0);
  return amplitude * (isAlone ? 5.0 * ShareAt(kSharesAlone, target.exactQuality)
                              : 3.094 * ShareAt(kSharesOfColors, target.exactQuality));
}

/// Equal errors of red, green and blue ask for 0.96 and 1.10. Around these photographs take the
/// fewest bytes for an error; coarser ones by a tenth took 0.1 to 0.4 % more.
double StepOfRole(ComponentRole role) {
  return role == ComponentRole::kRedDifference ? 1.1 : 1.0;
}

}  // namespace

void DeriveEvenSteps(const QuantTarget& target, int numLevels, const Box* boxes,
                     const float* weights, float* steps) {
  const double step = EvenStep(target, numLevels, boxes, weights) * StepOfRole(target.role);
  for (int b = 0; b < NumSubbands(numLevels); ++b) {
    steps[b] = static_cast<float>(step / std::sqrt(static_cast<double>(weights[b])));
  }
}

void StepsToExpMant(const float* steps, std::int32_t R, LevelRange levels, bool reversible,
                    std::int32_t* exponents, std::int32_t* mantissas) {
  for (int b = FirstSubband(levels); b <= 3 * levels.last; ++b) {
    const std::int32_t Rb = R + GainOfSubband(b);
    exponents[b] = Rb;
    mantissas[b] = 0;
    if (reversible) continue;
    const double step = static_cast<double>(steps[b]);
    const int power = std::ilogb(step);
    exponents[b] = Rb - power;
    mantissas[b] = static_cast<std::int32_t>((std::ldexp(step, -power) - 1.0) * kMantissaScale);
  }
}

void ClampExpMant(int numLevels, std::int32_t* exponents, std::int32_t* mantissas) {
  for (int b = 0; b < NumSubbands(numLevels); ++b) {
    if (exponents[b] > kMostExponent) {
      exponents[b] = kMostExponent;
      mantissas[b] = 0;
    } else if (exponents[b] < 0) {
      exponents[b] = 0;
      mantissas[b] = kMantissaScale - 1;
    }
  }
}

void ExpMantToSteps(const std::int32_t* exponents, const std::int32_t* mantissas, std::int32_t R,
                    LevelRange levels, float* steps) {
  for (int b = FirstSubband(levels); b <= 3 * levels.last; ++b) {
    steps[b] = StepOf(exponents[b], mantissas[b], R + GainOfSubband(b));
  }
}

void MakeDecoderSteps(const SignalledSteps& said, std::int32_t R, int numLevels, float* steps) {
  for (int b = 0; b < NumSubbands(numLevels); ++b) {
    const int from = said.isDerived ? 0 : b;
    const std::int32_t finer = said.isDerived ? numLevels - LevelOfSubband(b, numLevels) : 0;
    steps[b] = StepOf(said.exponents[from] - finer,
                      said.mantissas != nullptr ? said.mantissas[from] : 0, R + GainOfSubband(b));
  }
}

void ChooseSteps(const QuantTarget& target, const Box& box, int numLevels, const float* weights,
                 ChosenSteps& chosen) {
  Box boxes[kMaxSubbands] = {};
  for (int b = 0; b < NumSubbands(numLevels); ++b) boxes[b] = SubbandBox(box, numLevels, b);
  const LevelRange all = {0, numLevels};
  if (target.areEven) {
    DeriveEvenSteps(target, numLevels, boxes, weights, chosen.steps);
  } else {
    DeriveQuantSteps(target, numLevels, boxes, weights, chosen.steps);
  }
  StepsToExpMant(chosen.steps, target.bitDepth, all, false, chosen.exponents, chosen.mantissas);
  ClampExpMant(numLevels, chosen.exponents, chosen.mantissas);
  ExpMantToSteps(chosen.exponents, chosen.mantissas, target.bitDepth, all, chosen.steps);
}

std::int32_t MaxBitPlanes(const std::int32_t* exponents, std::int32_t guardBits, int numLevels) {
  return guardBits - 1 + *std::max_element(exponents, exponents + NumSubbands(numLevels));
}

}  // namespace kel
