// Vector kernels of the choice of indices. The rules stand in KelChoiceKernels.h.
//
// A row of a block is eight words of 16 bits, and the rows y and y + 4 are one vector of 16
// columns. Up to four planes, two rows of such columns are then bytes side by side, so that one
// multiply-add of bytes sums what two rows lose, column by column; which index stands for another
// is looked up in a register. Written for AVX2. Everything is local to the including source. Same
// results as the scalar reference.
#ifndef KEL_CHOICE_VECTOR_H
#define KEL_CHOICE_VECTOR_H

#include "KelChoiceKernels.h"

#if defined(__AVX2__)

#include <immintrin.h>

#include "KelChoiceRules.h"

namespace kel {
namespace {

// ---- Tables ----

/// For indices of 4 bits, or of 3 with the sign of the rest above them: the differences to what
/// stands for them under an option. Twice, once per lane.
template <unsigned N, ColumnPlanes kPlanes>
struct DifferenceTable {
  alignas(32) signed char values[32];

  consteval DifferenceTable() : values{} {
    for (int i = 0; i < 16; ++i) {
      const int q = N == 2 ? i & 7 : i;
      const int d = q - IndexUnder(N, kPlanes, q, i >= 8);
      values[i] = values[i + 16] = static_cast<signed char>(d);
    }
  }
};
template <unsigned N, ColumnPlanes kPlanes>
constexpr DifferenceTable<N, kPlanes> kDifferences;

KEL_INLINE __m256i LoadTable(const void* table) {
  return _mm256_load_si256(static_cast<const __m256i*>(table));
}

// ---- Patterns ----

// Words of a lane belong to two neighbouring groups. In the search for patterns the first two words
// of a lane, like every two after them, are one column of both groups; the four pairs of words
// stand for the last two bits of a pattern, four vectors for the first two.

/// What is best of a key's 16 patterns, with the pattern in the low four bits. Gains are words of
/// columns in their places; the result has the words of both groups in every pair.
KEL_INLINE __m256i BestPatterns(__m256i gains) {
  const __m256i pairColumns =
      _mm256_setr_epi8(0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15,  //
                       0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15);
  const __m256i limited = _mm256_min_epi16(gains, _mm256_set1_epi16(kMostGain));
  const __m256i sorted = _mm256_shuffle_epi8(_mm256_slli_epi16(limited, 4), pairColumns);
  const __m256i column0 = _mm256_shuffle_epi32(sorted, 0x00);
  const __m256i column1 = _mm256_shuffle_epi32(sorted, 0x55);
  const __m256i column2 = _mm256_shuffle_epi32(sorted, 0xAA);
  const __m256i column3 = _mm256_shuffle_epi32(sorted, 0xFF);
  const __m256i with2 = _mm256_setr_epi32(0, 0, -1, -1, 0, 0, -1, -1);
  const __m256i with3 = _mm256_setr_epi32(0, -1, 0, -1, 0, -1, 0, -1);
  const __m256i last =
      _mm256_add_epi16(_mm256_and_si256(column2, with2), _mm256_and_si256(column3, with3));
  // Minus the cost, times 16, plus the pattern.
  const auto keysOf = [](unsigned first) {
    const auto key = [first](unsigned rest) {
      const unsigned pattern = 4 * first + rest;
      const int value = static_cast<int>(pattern) - 16 * kPatternCosts.byPattern[pattern];
      return static_cast<int>((static_cast<unsigned>(value) & 0xFFFF) * 0x10001U);
    };
    return _mm256_setr_epi32(key(0), key(1), key(2), key(3), key(0), key(1), key(2), key(3));
  };
  const __m256i first1 = _mm256_add_epi16(last, column1);
  const __m256i first2 = _mm256_add_epi16(last, column0);
  const __m256i first3 = _mm256_add_epi16(first1, column0);
  const __m256i best = _mm256_max_epi16(
      _mm256_max_epi16(_mm256_add_epi16(last, keysOf(0)), _mm256_add_epi16(first1, keysOf(1))),
      _mm256_max_epi16(_mm256_add_epi16(first2, keysOf(2)), _mm256_add_epi16(first3, keysOf(3))));
  const __m256i halves = _mm256_max_epi16(best, _mm256_shuffle_epi32(best, 0x4E));
  return _mm256_max_epi16(halves, _mm256_shuffle_epi32(halves, 0xB1));
}

/// All ones in the words of the columns that the best patterns have.
KEL_INLINE __m256i ColumnsOfPatterns(__m256i best) {
  const __m256i spread = _mm256_setr_epi8(0, 1, 0, 1, 0, 1, 0, 1, 2, 3, 2, 3, 2, 3, 2, 3,  //
                                          0, 1, 0, 1, 0, 1, 0, 1, 2, 3, 2, 3, 2, 3, 2, 3);
  const __m256i bits = _mm256_setr_epi16(8, 4, 2, 1, 8, 4, 2, 1, 8, 4, 2, 1, 8, 4, 2, 1);
  const __m256i own = _mm256_and_si256(_mm256_shuffle_epi8(best, spread), bits);
  return _mm256_cmpeq_epi16(own, bits);
}

/// What the best patterns cost, in the first two words of each lane; zeros elsewhere.
KEL_INLINE __m256i CostsOfPatterns(__m256i best) {
  const unsigned char* const cost = kPatternCosts.byPattern;
  const auto c = [cost](int i) { return static_cast<char>(cost[i]); };
  const __m256i costs =
      _mm256_setr_epi8(c(0), c(1), c(2), c(3), c(4), c(5), c(6), c(7), c(8), c(9), c(10), c(11),
                       c(12), c(13), c(14), c(15), c(0), c(1), c(2), c(3), c(4), c(5), c(6), c(7),
                       c(8), c(9), c(10), c(11), c(12), c(13), c(14), c(15));
  // The high byte of a word is negative, which looks up zero.
  const __m256i index = _mm256_or_si256(_mm256_and_si256(best, _mm256_set1_epi16(15)),
                                        _mm256_set1_epi16(static_cast<short>(0x8000)));
  return _mm256_and_si256(_mm256_shuffle_epi8(costs, index),
                          _mm256_setr_epi32(-1, 0, 0, 0, -1, 0, 0, 0));
}

// ---- Blocks of up to four planes ----

/// Bytes of a block: rows 0 and 1 side by side, in the upper lane rows 4 and 5; and the rows 2, 3,
/// 6 and 7.
struct BlockBytes {
  __m256i upper, lower;
};

KEL_INLINE BlockBytes BytesOf(const __m256i* words) {
  const __m256i low = _mm256_set1_epi16(0xFF);
  const auto pair = [low](__m256i first, __m256i second) {
    return _mm256_or_si256(_mm256_and_si256(first, low), _mm256_slli_epi16(second, 8));
  };
  return {pair(words[0], words[1]), pair(words[2], words[3])};
}

struct SmallBlock {
  BlockBytes q, r;
  BlockBytes marked;   ///< q, plus 8 where r is above 0: for blocks of at most three planes
  __m256i numNonZero;  ///< of each column
};

KEL_INLINE __m256i SumOfColumns(__m256i upper, __m256i lower) {
  const __m256i ones = _mm256_set1_epi8(1);
  return _mm256_add_epi16(_mm256_maddubs_epi16(upper, ones), _mm256_maddubs_epi16(lower, ones));
}

KEL_INLINE int SumOfWords(__m256i words) {
  const __m256i pairs = _mm256_madd_epi16(words, _mm256_set1_epi16(1));
  __m128i sum = _mm_add_epi32(_mm256_castsi256_si128(pairs), _mm256_extracti128_si256(pairs, 1));
  sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, 0x4E));
  sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, 0xB1));
  return _mm_cvtsi128_si32(sum);
}

/// The tables' argument: two planes go by the sign of the rest.
template <unsigned N>
KEL_INLINE const BlockBytes& ArgumentOf(const SmallBlock& block) {
  if constexpr (N == 2) return block.marked;
  return block.q;
}

template <unsigned N, ColumnPlanes kPlanes>
KEL_INLINE BlockBytes DifferencesOf(const SmallBlock& block) {
  const __m256i table = LoadTable(kDifferences<N, kPlanes>.values);
  const BlockBytes& argument = ArgumentOf<N>(block);
  return {_mm256_shuffle_epi8(table, argument.upper), _mm256_shuffle_epi8(table, argument.lower)};
}

/// What columns lose under an option; signs of indices that become zero are taken off.
template <unsigned N, ColumnPlanes kPlanes>
KEL_INLINE __m256i LossesOf(const SmallBlock& block) {
  const BlockBytes d = DifferencesOf<N, kPlanes>(block);
  const auto lossOf = [](__m256i difference, __m256i rest) {
    __m256i magnitude = difference;
    __m256i signedRest = rest;
    if constexpr (kPlanes == ColumnPlanes::kUpper) {
      magnitude = _mm256_abs_epi8(difference);
      signedRest = _mm256_sign_epi8(rest, difference);
    }
    // Nothing leaves its byte: 9 times the most difference and the most rest are 116.
    if constexpr (N > 2) magnitude = _mm256_min_epi8(magnitude, _mm256_set1_epi8(kMostDifference));
    const __m256i eightfold = _mm256_slli_epi16(magnitude, 3);
    const __m256i factor = _mm256_add_epi8(_mm256_add_epi8(eightfold, magnitude), signedRest);
    return _mm256_maddubs_epi16(magnitude, factor);
  };
  const __m256i losses =
      _mm256_add_epi16(lossOf(d.upper, block.r.upper), lossOf(d.lower, block.r.lower));
  if constexpr (kPlanes == ColumnPlanes::kNeither && N <= 2) {
    return _mm256_sub_epi16(losses, block.numNonZero);
  }
  if constexpr (kPlanes == ColumnPlanes::kUpper && N == 2) {
    // Only what was 1 and went down became zero: one whose argument is 1.
    const __m256i one = _mm256_set1_epi8(1);
    const auto wentDown = [one](__m256i argument) {
      return _mm256_and_si256(_mm256_cmpeq_epi8(argument, one), one);
    };
    return _mm256_sub_epi16(
        losses, SumOfColumns(wentDown(block.marked.upper), wentDown(block.marked.lower)));
  }
  return losses;
}

/// The columns that have the upper and the lower plane, as words of all ones.
struct ChosenColumns {
  __m256i upper, lower;
  int loss;
  int lossOfNone;  ///< of a block without planes, where N is 1 or 2
};

template <unsigned N>
KEL_INLINE ChosenColumns ChooseColumns(const SmallBlock& block) {
  constexpr int kLowBits = N > 2 ? 64 * static_cast<int>(N - 2) : 0;
  ChosenColumns chosen;
  const __m256i neither = LossesOf<N, ColumnPlanes::kNeither>(block);
  const __m256i lower = LossesOf<N, ColumnPlanes::kLower>(block);
  __m256i without = neither;
  __m256i with = lower;
  __m256i costs = _mm256_setzero_si256();
  chosen.upper = _mm256_setzero_si256();
  if constexpr (N > 1) {
    const __m256i upper = LossesOf<N, ColumnPlanes::kUpper>(block);
    const __m256i both = LossesOf<N, ColumnPlanes::kBoth>(block);
    const auto least = [](__m256i alone, __m256i withLower) {
      const __m256i bits = _mm256_set1_epi16(kLowerColumnBits);
      return _mm256_min_epi16(alone, _mm256_add_epi16(withLower, bits));
    };
    const __m256i best = BestPatterns(_mm256_sub_epi16(least(neither, lower), least(upper, both)));
    costs = CostsOfPatterns(best);
    chosen.upper = ColumnsOfPatterns(best);
    without = _mm256_blendv_epi8(neither, upper, chosen.upper);
    with = _mm256_blendv_epi8(lower, both, chosen.upper);
  }
  const __m256i best = BestPatterns(_mm256_sub_epi16(without, with));
  costs = _mm256_add_epi16(costs, CostsOfPatterns(best));
  chosen.lower = ColumnsOfPatterns(best);
  const __m256i losses = _mm256_blendv_epi8(without, with, chosen.lower);
  chosen.loss = kLowBits + SumOfWords(_mm256_add_epi16(losses, costs));
  chosen.lossOfNone = N > 2 ? 0 : SumOfWords(neither);
  return chosen;
}

/// The indices that stand in the chosen columns.
template <unsigned N>
KEL_INLINE BlockBytes IndicesOf(const SmallBlock& block, const ChosenColumns& chosen) {
  BlockBytes d = DifferencesOf<N, ColumnPlanes::kNeither>(block);
  const auto take = [](BlockBytes& to, const BlockBytes& from, __m256i where) {
    to.upper = _mm256_blendv_epi8(to.upper, from.upper, where);
    to.lower = _mm256_blendv_epi8(to.lower, from.lower, where);
  };
  BlockBytes lower = DifferencesOf<N, ColumnPlanes::kLower>(block);
  if constexpr (N > 1) {
    take(d, DifferencesOf<N, ColumnPlanes::kUpper>(block), chosen.upper);
    take(lower, DifferencesOf<N, ColumnPlanes::kBoth>(block), chosen.upper);
  }
  take(d, lower, chosen.lower);
  return {_mm256_sub_epi8(block.q.upper, d.upper), _mm256_sub_epi8(block.q.lower, d.lower)};
}

// ---- Blocks of any number of planes ----

/// Rows y and y + 4 as words: indices and rests of the magnitudes.
struct BlockWords {
  __m256i q[4];
  __m256i r[4];
};

/// Bits of a plane whose columns with a bit are all ones in a vector of words.
KEL_INLINE int CostOfColumns(__m256i columns) {
  // Two bytes for each column: every second bit, the first column's lowest.
  const auto mask = static_cast<unsigned>(_mm256_movemask_epi8(columns));
  int bits = 0;
  for (unsigned group = 0; group < 4; ++group) {
    const unsigned own = mask >> 8 * group;
    const unsigned pattern = (own << 3 & 8) | (own & 4) | (own >> 3 & 2) | (own >> 6 & 1);
    bits += kPatternCosts.byPattern[pattern];
  }
  return bits;
}

KEL_INLINE int CostOfPlane(const __m256i* q, unsigned plane) {
  const __m256i all = _mm256_or_si256(_mm256_or_si256(q[0], q[1]), _mm256_or_si256(q[2], q[3]));
  const __m256i bit = _mm256_set1_epi16(static_cast<short>(1 << plane));
  return CostOfColumns(_mm256_cmpeq_epi16(_mm256_and_si256(all, bit), bit));
}

/// Bits and low bits of a block whose columns are all kept.
KEL_INLINE int CostOfPlanes(const __m256i* q, unsigned planes) {
  return 64 * static_cast<int>(planes - 2) + CostOfPlane(q, planes - 1) +
         CostOfPlane(q, planes - 2);
}

/// Limits the indices to a number of planes; returns what that loses.
KEL_INLINE int LimitIndices(const BlockWords& block, unsigned planes, __m256i* limited) {
  const __m256i largest = _mm256_set1_epi16(static_cast<short>((1 << planes) - 1));
  __m256i losses = _mm256_setzero_si256();
  for (int y = 0; y < 4; ++y) {
    limited[y] = _mm256_min_epi16(block.q[y], largest);
    const __m256i d = _mm256_min_epi16(_mm256_sub_epi16(block.q[y], limited[y]),
                                       _mm256_set1_epi16(kMostDifference));
    const __m256i factor =
        _mm256_add_epi16(_mm256_mullo_epi16(d, _mm256_set1_epi16(kPartsPerHalf)), block.r[y]);
    losses = _mm256_add_epi16(losses, _mm256_mullo_epi16(d, factor));
  }
  return SumOfWords(losses);
}

KEL_INLINE void WidenBytes(const BlockBytes& bytes, __m256i* words) {
  const __m256i low = _mm256_set1_epi16(0xFF);
  words[0] = _mm256_and_si256(bytes.upper, low);
  words[1] = _mm256_srli_epi16(bytes.upper, 8);
  words[2] = _mm256_and_si256(bytes.lower, low);
  words[3] = _mm256_srli_epi16(bytes.lower, 8);
}

/// A block of one to three planes.
KEL_INLINE void ChooseSmall(const BlockWords& block, unsigned n, __m256i* indices) {
  SmallBlock small;
  small.q = BytesOf(block.q);
  small.r = BytesOf(block.r);
  const __m256i one = _mm256_set1_epi8(1);
  small.numNonZero =
      SumOfColumns(_mm256_min_epu8(small.q.upper, one), _mm256_min_epu8(small.q.lower, one));
  const __m256i eight = _mm256_set1_epi8(8);
  const auto mark = [eight](__m256i q, __m256i r) {
    const __m256i isAbove = _mm256_cmpgt_epi8(r, _mm256_setzero_si256());
    return _mm256_or_si256(q, _mm256_and_si256(isAbove, eight));
  };
  small.marked = {mark(small.q.upper, small.r.upper), mark(small.q.lower, small.r.lower)};
  for (int y = 0; y < 4; ++y) indices[y] = _mm256_setzero_si256();
  if (n == 1) {
    const ChosenColumns one1 = ChooseColumns<1>(small);
    if (one1.lossOfNone >= one1.loss) WidenBytes(IndicesOf<1>(small, one1), indices);
    return;
  }
  const ChosenColumns two = ChooseColumns<2>(small);
  const auto widen2 = [&] {
    if (two.lossOfNone >= two.loss) WidenBytes(IndicesOf<2>(small, two), indices);
  };
  if (n == 2) {
    const int limit = SumOfWords(LossesOf<1, ColumnPlanes::kLower>(small));
    if (limit < two.loss) {
      const ChosenColumns one1 = ChooseColumns<1>(small);
      if (one1.loss < two.loss) {
        if (two.lossOfNone >= one1.loss) WidenBytes(IndicesOf<1>(small, one1), indices);
        return;
      }
    }
    return widen2();
  }
  const ChosenColumns three = ChooseColumns<3>(small);
  const int limit = SumOfWords(LossesOf<2, ColumnPlanes::kBoth>(small));
  if (limit < three.loss && two.loss < three.loss) return widen2();
  if (two.lossOfNone >= three.loss) WidenBytes(IndicesOf<3>(small, three), indices);
}

/// A block of four planes.
KEL_INLINE void ChooseFour(const BlockWords& block, __m256i* indices) {
  SmallBlock small;
  small.q = BytesOf(block.q);
  small.r = BytesOf(block.r);
  const ChosenColumns four = ChooseColumns<4>(small);
  const int limit = SumOfWords(LossesOf<3, ColumnPlanes::kBoth>(small));
  if (limit < four.loss) {
    const ChosenColumns three = ChooseColumns<3>(small);
    if (three.loss < four.loss) return WidenBytes(IndicesOf<3>(small, three), indices);
  }
  WidenBytes(IndicesOf<4>(small, four), indices);
}

/// A block of five planes and more.
KEL_INLINE void ChooseLarge(const BlockWords& block, unsigned n, __m256i* indices) {
  __m256i limited[4];
  const int loss = CostOfPlanes(block.q, n);
  int other = LimitIndices(block, n - 1, limited);
  if (other < loss) other += CostOfPlanes(limited, n - 1);
  for (int y = 0; y < 4; ++y) indices[y] = other < loss ? limited[y] : block.q[y];
}

// ---- Runs ----

KEL_INLINE unsigned NumPlanes(const __m256i* words) {
  const __m256i all =
      _mm256_or_si256(_mm256_or_si256(words[0], words[1]), _mm256_or_si256(words[2], words[3]));
  __m128i half = _mm_or_si128(_mm256_castsi256_si128(all), _mm256_extracti128_si256(all, 1));
  half = _mm_or_si128(half, _mm_shuffle_epi32(half, 0x4E));
  half = _mm_or_si128(half, _mm_shuffle_epi32(half, 0xB1));
  const auto pair = static_cast<unsigned>(_mm_cvtsi128_si32(half));
  const unsigned bits = (pair | pair >> 16) & 0xFFFF;
  return bits == 0 ? 0 : 32 - static_cast<unsigned>(__builtin_clz(bits));
}

/// Chooses for a block whose coefficients are words; they become indices. Returns the plane count.
KEL_INLINE unsigned ChooseWords(__m256i* cells) {
  BlockWords block;
  for (int y = 0; y < 4; ++y) {
    const __m256i t = _mm256_abs_epi16(cells[y]);
    // Halves of words, divided by 9: 7282 is 2^16 / 9 and two ninths, too little to show.
    const __m256i halves =
        _mm256_srli_epi16(_mm256_add_epi16(t, _mm256_set1_epi16(kPartsPerHalf)), 1);
    const __m256i nearest = _mm256_mulhi_epu16(halves, _mm256_set1_epi16(7282));
    static_assert(kPartsPerHalf == 9);
    block.q[y] = _mm256_and_si256(nearest, _mm256_cmpgt_epi16(t, _mm256_set1_epi16(kMostIdle)));
    const __m256i whole = _mm256_mullo_epi16(block.q[y], _mm256_set1_epi16(kPartsPerStep));
    block.r[y] = _mm256_sub_epi16(t, whole);
  }
  const unsigned n = NumPlanes(block.q);
  if (n == 0 || n > kMostChosenPlanes) {
    for (int y = 0; y < 4; ++y) cells[y] = _mm256_sign_epi16(block.q[y], cells[y]);
    return n;
  }
  __m256i indices[4];
  if (n <= kMostEmptiedPlanes) {
    ChooseSmall(block, n, indices);
  } else if (n == kMostPrunedPlanes) {
    ChooseFour(block, indices);
  } else {
    ChooseLarge(block, n, indices);
  }
  for (int y = 0; y < 4; ++y) cells[y] = _mm256_sign_epi16(indices[y], cells[y]);
  return NumPlanes(indices);
}

KEL_INLINE __m128i LoadWords(const std::int16_t* cells) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(cells));
}

void ChooseOfShortsVector(std::int16_t* cells, std::ptrdiff_t strideCells, std::size_t count,
                          std::uint8_t* planeCounts) {
  for (std::size_t i = 0; i < count; ++i, cells += 8) {
    __m256i rows[4];
    for (int y = 0; y < 4; ++y) {
      rows[y] = _mm256_set_m128i(LoadWords(cells + (y + 4) * strideCells),
                                 LoadWords(cells + y * strideCells));
    }
    planeCounts[i] = static_cast<std::uint8_t>(ChooseWords(rows));
    for (int y = 0; y < 4; ++y) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(cells + y * strideCells),
                       _mm256_castsi256_si128(rows[y]));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(cells + (y + 4) * strideCells),
                       _mm256_extracti128_si256(rows[y], 1));
    }
  }
}

/// Blocks that have coefficients beyond 16 bits are left to the scalar kernel.
void ChooseOfIntegersVector(std::int32_t* cells, std::ptrdiff_t strideCells, std::size_t count,
                            std::uint8_t* planeCounts) {
  const auto at = [&](int y) { return reinterpret_cast<__m256i*>(cells + y * strideCells); };
  for (std::size_t i = 0; i < count; ++i, cells += 8) {
    __m256i rows[4];
    __m256i differing = _mm256_setzero_si256();
    for (int y = 0; y < 4; ++y) {
      const __m256i first = _mm256_loadu_si256(at(y));
      const __m256i second = _mm256_loadu_si256(at(y + 4));
      // Packing takes turns between the lanes of both.
      rows[y] = _mm256_permute4x64_epi64(_mm256_packs_epi32(first, second), 0xD8);
      const auto isOutside = [](__m256i row) {
        return _mm256_cmpgt_epi32(_mm256_abs_epi32(row), _mm256_set1_epi32(0x7FFF));
      };
      differing = _mm256_or_si256(differing, _mm256_or_si256(isOutside(first), isOutside(second)));
    }
    if (_mm256_movemask_epi8(differing) != 0) {
      ChooseOfIntegersScalar(cells, strideCells, 1, planeCounts + i);
      continue;
    }
    planeCounts[i] = static_cast<std::uint8_t>(ChooseWords(rows));
    for (int y = 0; y < 4; ++y) {
      _mm256_storeu_si256(at(y), _mm256_cvtepi16_epi32(_mm256_castsi256_si128(rows[y])));
      _mm256_storeu_si256(at(y + 4), _mm256_cvtepi16_epi32(_mm256_extracti128_si256(rows[y], 1)));
    }
  }
}

inline void OverwriteWithVector(ChoiceKernels& table) noexcept {
  table.chooseOfShorts = ChooseOfShortsVector;
  table.chooseOfIntegers = ChooseOfIntegersVector;
}

}  // namespace
}  // namespace kel

#else

namespace kel {
namespace {

inline void OverwriteWithVector(ChoiceKernels&) noexcept {}

}  // namespace
}  // namespace kel

#endif

#endif
