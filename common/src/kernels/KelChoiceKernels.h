// Kernels of the choice of indices: which integers a block of 8 x 8 coefficients is coded as, when
// both the error and the bits count.
//
// Coefficients come as integers in eighteenths of their band's step, t; a magnitude is t = 18 q + r
// with q its nearest index (halves up) and r from -9 to 8. Index w instead of q = w + d adds
// d (r + 9 d) ninths of a squared step to the squared error. A bit is taken to be worth one ninth
// of a squared step: what it buys where steps are small (6 dB per bit and coefficient: 2 ln 2 / 12
// of a squared step) is nearly that, and of the worths that were tried on photographs this one
// took the fewest bytes for an error. Losses and bits then add up as integers, alike on every
// machine.
//
// From the code of a block (KelBlocksKernels.h): a block of N planes costs 64 (N - 2) bits for its
// low planes when N is above 2, a sign for each index that is not 0, and in either of its two top
// planes, per group of 4 x 4, the word of the pattern and 4 bits for each column that has a bit.
// With W = 2^(N - 2), a column may do without either of the two:
//
//   both planes    indices up to 4 W - 1
//   lower alone    indices up to 2 W - 1
//   neither        indices up to W - 1
//   upper alone    0 to W - 1, 2 W to 3 W - 1: what lies between goes to the nearer side
//
// With N = 1 there is one plane, and columns are coded with indices up to 1 or not at all. An index
// of 1 is worth its sign from t = 11 on; below, it is 0 from the start.
//
// A block whose largest index has n bits is tried with n planes, with n - 1 planes (larger indices
// become the largest possible), and, when n is up to 3, with none. Columns are left out when n is
// up to 4: first of the upper plane, as if each column of the lower one cost 5 bits, then of the
// lower one. In each group of each plane the pattern with the most gain is taken, the last one of
// equals. Of equal candidates the one of most planes is taken. Blocks with more than 11 bits keep
// their nearest indices.
#ifndef KEL_CHOICE_KERNELS_H
#define KEL_CHOICE_KERNELS_H

#include <cstddef>
#include <cstdint>

namespace kel {

/// Coefficients come in this many parts of a step.
inline constexpr int kPartsPerStep = 18;
inline constexpr int kPartsPerHalf = kPartsPerStep / 2;
/// The largest magnitude, in these parts, that is 0 from the start.
inline constexpr int kMostIdle = 10;

struct ChoiceKernels {
  /// Replace the coefficients of `count` whole blocks, neighbours in a row of blocks, by indices
  /// with signs, and give the plane count of each block. Coefficients of 16 bits are above -2^15,
  /// those of 32 bits from -(2^31 - 10) to 2^31 - 10.
  template <class Cell>
  using Choose = void(Cell* cells, std::ptrdiff_t strideCells, std::size_t count,
                      std::uint8_t* planeCounts);
  Choose<std::int16_t>* chooseOfShorts;
  Choose<std::int32_t>* chooseOfIntegers;
};

/// The scalar reference of every kernel.
void FillScalarChoiceKernels(ChoiceKernels& table) noexcept;

void ChooseOfIntegersScalar(std::int32_t* cells, std::ptrdiff_t strideCells, std::size_t count,
                            std::uint8_t* planeCounts);

}  // namespace kel

#endif
