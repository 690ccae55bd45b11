// Quantisation steps. All arithmetic in double precision, steps stored as floats.
#include "transform/KelQuant.h"

#include <algorithm>
#include <cmath>

namespace kel {
namespace {

constexpr std::int32_t kMantissaScale = 2048;
constexpr std::int32_t kMostExponent = 31;

float StepOf(std::int32_t exponent, std::int32_t mantissa, std::int32_t Rb) {
  const double significand = 1.0 + static_cast<double>(mantissa) / kMantissaScale;
  return static_cast<float>(std::ldexp(significand, Rb - exponent));
}

int FirstSubband(LevelRange levels) {
  return levels.first == 0 ? 0 : 3 * levels.first - 2;
}

}  // namespace

// The quality asks for a peak signal-to-noise ratio of 17 dB (0) to 57 dB (100), so for an error
// amplitude P and a budget of P^2 per sample. A subband with weight w and n coefficients gets the
// step sqrt(budget / (S w^2 0.04 n)), where S is the sum of 1 / w over all subbands.
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
  DeriveQuantSteps(target, numLevels, boxes, weights, chosen.steps);
  StepsToExpMant(chosen.steps, target.bitDepth, all, false, chosen.exponents, chosen.mantissas);
  ClampExpMant(numLevels, chosen.exponents, chosen.mantissas);
  ExpMantToSteps(chosen.exponents, chosen.mantissas, target.bitDepth, all, chosen.steps);
}

std::int32_t MaxBitPlanes(const std::int32_t* exponents, std::int32_t guardBits, int numLevels) {
  return guardBits - 1 + *std::max_element(exponents, exponents + NumSubbands(numLevels));
}

}  // namespace kel
