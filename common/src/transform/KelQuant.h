// Quantisation: how steps follow from a quality, travel as exponents and mantissas, and come back.
//
// The step of a subband b is (1 + mantissa / 2048) 2^(Rb - exponent), where Rb is the bit depth R
// of the tile-component plus the subband's gain. Lists are in subband order, NumSubbands entries.
#ifndef KEL_QUANT_H
#define KEL_QUANT_H

#include <cstdint>

#include "transform/KelWavelet.h"

namespace kel {

/// What a component is to the image, for even steps.
enum class ComponentRole : std::uint8_t { kAlone, kLuminance, kBlueDifference, kRedDifference };
inline constexpr int kNumRoles = 4;

/// What the encoder's steps follow from.
struct QuantTarget {
  std::int32_t quality;        ///< 0 to 100; 100 makes every step 1
  std::int32_t width, height;  ///< of the tile-component
  std::int32_t bitDepth;
  float factor;  ///< on the error budget: 1, or less for a component that the colour
                 ///< transform made
  // For even steps, which the factor and the whole quality do not matter to.
  bool areEven = false;
  double exactQuality = 0;  ///< -40 to 100
  ComponentRole role = ComponentRole::kAlone;
};

/// Steps that weigh all errors alike: in inverse proportion to the root of a subband's weight, the
/// same in every component but for its role. Meant for indices that are chosen; the error is about
/// that of nearest indices with the steps above at the same quality.
void DeriveEvenSteps(const QuantTarget& target, int numLevels, const Box* boxes,
                     const float* weights, float* steps);

/// Shares an error budget, which the quality sets, among the subbands by their weights and sizes.
/// A subband without coefficients gets step 1.
void DeriveQuantSteps(const QuantTarget& target, int numLevels, const Box* boxes,
                      const float* weights, float* steps);

/// The steps of an irreversible tile-component as the code stream can say them: one entry per
/// subband, and the steps are exactly those that the pairs stand for.
struct ChosenSteps {
  std::int32_t exponents[kMaxSubbands];
  std::int32_t mantissas[kMaxSubbands];
  float steps[kMaxSubbands];
};

/// The steps that a tile-component of a box is divided by: derived for the target, cut to what
/// pairs can say and taken back from the pairs, so that every decoder multiplies by the same
/// numbers. The weights have one entry per subband.
void ChooseSteps(const QuantTarget& target, const Box& box, int numLevels, const float* weights,
                 ChosenSteps& chosen);

/// A range of levels counted from the coarsest, first and last included; 0 is LL alone.
struct LevelRange {
  int first, last;
};

/// Exponents and mantissas of steps above 0. The mantissa is cut off, so the pair's step is never
/// above the given one. Reversible coding has exponents Rb and mantissas 0, and reads no steps.
void StepsToExpMant(const float* steps, std::int32_t R, LevelRange levels, bool reversible,
                    std::int32_t* exponents, std::int32_t* mantissas);

/// Brings pairs into what the code stream can say, exponents 0 to 31: a smaller step becomes the
/// smallest, a larger one the largest. The encoder divides by the steps of the pairs that result.
void ClampExpMant(int numLevels, std::int32_t* exponents, std::int32_t* mantissas);

/// The steps of pairs.
void ExpMantToSteps(const std::int32_t* exponents, const std::int32_t* mantissas, std::int32_t R,
                    LevelRange levels, float* steps);

/// What a code stream says of its steps: a pair per subband, or in the derived style that of LL.
struct SignalledSteps {
  const std::int32_t* exponents;
  const std::int32_t* mantissas;  ///< null: exponents alone, which count as mantissas of 0
  bool isDerived;
};

/// The decoder's steps for a tile-component of numLevels levels, from what the code stream said.
/// In the derived style only the pair of LL counts; a subband of level nb (1 the finest) then has
/// the exponent of LL less numLevels plus nb.
void MakeDecoderSteps(const SignalledSteps& said, std::int32_t R, int numLevels, float* steps);

/// Most magnitude bit-planes that any subband can need with a number of guard bits.
std::int32_t MaxBitPlanes(const std::int32_t* exponents, std::int32_t guardBits, int numLevels);

}  // namespace kel

#endif
