// What the scalar and the vector kernels of the choice of indices share: the limits of the
// candidates, and which index a coefficient gets under an option. Evaluated by compilers where the
// vector kernels make tables of it.
#ifndef KEL_CHOICE_RULES_H
#define KEL_CHOICE_RULES_H

#include "KelColumnPatternCode.h"
#include "KelInline.h"

namespace kel {
namespace {

/// Most bits of an index in a block whose indices are chosen.
constexpr unsigned kMostChosenPlanes = 11;
/// Most bits of an index in a block whose columns may be left out, and in one that may be emptied.
constexpr unsigned kMostPrunedPlanes = 4;
constexpr unsigned kMostEmptiedPlanes = 3;
/// Differences between indices count as no more than this: what they lose is more than any
/// candidate can gain.
constexpr int kMostDifference = 12;
/// A column gains no more than this by being coded, to the same effect.
constexpr int kMostGain = 255;
/// What a column of the lower plane is taken to cost while the upper plane is chosen: its bits and
/// its share of the pattern's word.
constexpr int kLowerColumnBits = 5;

/// Which of the two top planes a column has.
enum class ColumnPlanes : unsigned char { kNeither, kLower, kUpper, kBoth };

/// The index that stands for q in a column of a block of N planes, 1 to 4. With one plane it
/// is the lower one.
constexpr int IndexUnder(unsigned N, ColumnPlanes planes, int q, bool isAboveIndex) {
  const int W = N == 1 ? 1 : 1 << (N - 2);
  const int largest = N == 1 ? 1 : 4 * W - 1;
  const int limited = q < largest ? q : largest;
  const auto atMost = [&](int most) { return limited < most ? limited : most; };
  switch (planes) {
    case ColumnPlanes::kBoth:
      return limited;
    case ColumnPlanes::kLower:
      return atMost(2 * W - 1);
    case ColumnPlanes::kNeither:
      return atMost(N == 1 ? 0 : W - 1);
    case ColumnPlanes::kUpper:
      break;
  }
  if (limited >= 3 * W) return 3 * W - 1;
  if (limited < W || limited >= 2 * W) return limited;
  const bool goesUp = W == 1 ? isAboveIndex : 2 * limited >= 3 * W;
  return goesUp ? 2 * W : W - 1;
}

/// Bits of a group in a plane: the pattern's word and the columns in it.
struct PatternCosts {
  unsigned char byPattern[16];

  consteval PatternCosts() : byPattern{} {
    for (unsigned pattern = 0; pattern < 16; ++pattern) {
      unsigned columns = 0;
      for (unsigned bit = 1; bit < 16; bit <<= 1) columns += (pattern & bit) != 0 ? 1 : 0;
      byPattern[pattern] =
          static_cast<unsigned char>(kColumnPatternCode[pattern].length + 4 * columns);
    }
  }
};
constexpr PatternCosts kPatternCosts;

}  // namespace
}  // namespace kel

#endif
