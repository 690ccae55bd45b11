// Quantisation steps and band weights, by hand and against a plain evaluation.
#include "transform/KelQuant.h"

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
#include <vector>

#include "format/KelHeaders.h"
#include "transform/KelBandWeights.h"

namespace {

using Ints = std::vector<std::int32_t>;

struct Pair {
  std::int32_t exponent, mantissa;
  bool operator==(const Pair&) const = default;
};

Pair PairOf(float step, std::int32_t R) {
  Pair pair{};
  kel::StepsToExpMant(&step, R, {0, 0}, false, &pair.exponent, &pair.mantissa);
  return pair;
}

TEST(Quant, PairsOfSteps) {
  const std::tuple<float, std::int32_t, Pair> cases[] = {
      {1.0F, 8, {8, 0}},
      {1.5F, 9, {9, 1024}},
      {0.75F, 8, {9, 1024}},
      {64.0F, 8, {2, 0}},
      {0.99999F, 8, {9, 2047}},  // just below a power of two
      {std::nextafter(64.0F, 0.0F), 8, {3, 2047}}};
  for (const auto& [step, R, pair] : cases) EXPECT_EQ(PairOf(step, R), pair) << step;
}

// Encoder and decoder must divide and multiply by the same step, which is never above the wanted
// one; ranges of levels touch their own subbands only.
TEST(Quant, StepsComeBackFromPairs) {
  const std::vector<float> steps = {0.001F, 0.3F, 7.7F, 1.0F, 255.9F, 0.04F, 3.0F};
  Ints exponents(7, -1), mantissas(7, -1);
  kel::StepsToExpMant(steps.data(), 8, {1, 1}, false, exponents.data(), mantissas.data());
  EXPECT_EQ(exponents[0], -1);
  EXPECT_EQ(exponents[1], 11);
  EXPECT_EQ(exponents[4], -1);
  kel::StepsToExpMant(steps.data(), 8, {0, 2}, false, exponents.data(), mantissas.data());
  std::vector<float> back(7, -1.0F);
  kel::ExpMantToSteps(exponents.data(), mantissas.data(), 8, {0, 2}, back.data());
  for (std::size_t b = 0; b < 7; ++b) {
    EXPECT_LE(back[b], steps[b]);
    EXPECT_LT(steps[b] - back[b], std::exp2(std::floor(std::log2(steps[b]))) / 2048);
  }
  kel::StepsToExpMant(nullptr, 8, {0, 2}, true, exponents.data(), mantissas.data());
  EXPECT_EQ(exponents, (Ints{8, 9, 9, 10, 9, 9, 10}));
  EXPECT_EQ(mantissas, Ints(7, 0));
  EXPECT_EQ(kel::MaxBitPlanes(exponents.data(), 2, 2), 11);
  exponents = {40, 9, -3, 31, 0, 9, 10};
  mantissas = {5, 5, 5, 5, 5, 5, 5};
  kel::ClampExpMant(2, exponents.data(), mantissas.data());
  EXPECT_EQ(exponents, (Ints{31, 9, 0, 31, 0, 9, 10}));
  EXPECT_EQ(mantissas, (Ints{0, 5, 2047, 5, 5, 5, 5}));
}

// The derived style must not read the filled-up entries, whose exponents count one level off; a
// segment without mantissas must not read any.
TEST(Quant, DecoderStepsOfTheThreeStyles) {
  Ints exponents(kel::kQuantEntries, 77), mantissas(kel::kQuantEntries, 2000);
  for (std::size_t b = 0; b < 7; ++b) exponents[b] = 10 + static_cast<std::int32_t>(b);
  for (std::size_t b = 0; b < 7; ++b) mantissas[b] = 1024 + static_cast<std::int32_t>(b);
  kel::KelQuantParams quant = {};
  quant.exponents = exponents.data();
  quant.mantissas = mantissas.data();
  float steps[7];
  quant.quantised = 1;
  kel::MakeDecoderSteps(kel::StepsSaid(quant), 8, 2, steps);
  EXPECT_EQ(steps[0], 1.5F / 4);
  EXPECT_EQ(steps[3], (1.0F + 1027.0F / 2048) / 8) << "HH has two bits more";
  EXPECT_EQ(steps[4], (1.0F + 1028.0F / 2048) / 32);
  quant.derived = 1;
  kel::MakeDecoderSteps(kel::StepsSaid(quant), 8, 2, steps);
  EXPECT_EQ(steps[0], 1.5F / 4);
  EXPECT_EQ(steps[1], 1.5F / 2) << "HL of the coarsest level has the exponent of LL";
  EXPECT_EQ(steps[4], 1.5F) << "one less a level further";
  EXPECT_EQ(steps[6], 3.0F);
  quant.derived = quant.quantised = 0;
  kel::MakeDecoderSteps(kel::StepsSaid(quant), 8, 2, steps);
  EXPECT_EQ(steps[0], 1.0F / 4);
  EXPECT_EQ(steps[6], 1.0F / 64);
}

TEST(Quant, StepsOfAQuality) {
  const kel::Box box = {0, 1, 0, 20};  // HL and HH have no columns
  kel::Box boxes[4];
  for (int b = 0; b < 4; ++b) boxes[b] = kel::SubbandBox(box, 1, b);
  const float weights[] = {2.0F, 1.0F, 1.0F, 0.5F};
  float steps[4];
  const auto derive = [&](std::int32_t quality, float factor) {
    kel::DeriveQuantSteps({quality, 1, 20, 8, factor}, 1, boxes, weights, steps);
  };
  derive(100, 1);
  for (const float step : steps) EXPECT_EQ(step, 1);
  derive(0, 1);
  const double amplitude = 255 * std::pow(10.0, -0.85);
  const double budget = amplitude * amplitude * 20, share = 4.5 * 0.04 * 10;
  EXPECT_FLOAT_EQ(steps[0], static_cast<float>(std::sqrt(budget / (share * 4))));
  EXPECT_EQ(steps[1], 1);
  EXPECT_FLOAT_EQ(steps[2], static_cast<float>(std::sqrt(budget / share)));
  EXPECT_EQ(steps[3], 1);
  const float atZero = steps[2];
  derive(50, 0.25F);
  EXPECT_FLOAT_EQ(steps[2], atZero / 20) << "20 dB finer, and half for the factor";
}

// The recursion must use the high-pass filter in the last round only, and cut deep functions off
// where the definition says: the numbers of deep low-pass bands would otherwise be larger.
TEST(BandWeights, EnergiesOfBasisFunctions) {
  const auto energy = [](int level) {
    return std::sqrt(kel::BandEnergyWeight(level, kel::SubbandKind::kLL, true));
  };
  EXPECT_EQ(kel::BandEnergyWeight(0, kel::SubbandKind::kHH, true), 1.0);
  // Low and high, from a separate convolution of the whole functions.
  const double whole[][2] = {
      {1.9659073, 0.5202180}, {4.1224099, 0.9397761}, {8.4167442, 2.0199414}};
  for (int level = 1; level <= 3; ++level) {
    EXPECT_NEAR(energy(level), whole[level - 1][0], 1e-4);
    EXPECT_NEAR(kel::BandEnergyWeight(level, kel::SubbandKind::kHL, true) / energy(level),
                whole[level - 1][1], 1e-4);
  }
  EXPECT_NEAR(energy(5), 33.18, 5e-3) << "33.92 for the whole function";
  EXPECT_NEAR(energy(6), 61.4, 5e-2);
  EXPECT_NEAR(energy(8), 117, 0.5);
  EXPECT_EQ(kel::BandEnergyWeight(3, kel::SubbandKind::kHL, true),
            kel::BandEnergyWeight(3, kel::SubbandKind::kLH, true));
  EXPECT_NEAR(kel::BandEnergyWeight(1, kel::SubbandKind::kHL, false),
              (1.06066 * 1.06066 + 2 * (0.353553 * 0.353553 + 0.176777 * 0.176777)) *
                  (0.707107 * 0.707107 + 2 * 0.353553 * 0.353553),
              1e-6);
  float weights[7];
  kel::ComputeBandWeights(2, weights);
  EXPECT_FLOAT_EQ(weights[0], static_cast<float>(energy(2) * energy(2)));
  EXPECT_FLOAT_EQ(weights[3],
                  static_cast<float>(kel::BandEnergyWeight(2, kel::SubbandKind::kHH, true)));
  EXPECT_FLOAT_EQ(weights[5],
                  static_cast<float>(kel::BandEnergyWeight(1, kel::SubbandKind::kLH, true)));
}

}  // namespace
