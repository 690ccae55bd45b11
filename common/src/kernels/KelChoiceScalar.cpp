// Scalar reference kernels of the choice of indices. The rules stand in KelChoiceKernels.h.
#include <algorithm>
#include <bit>
#include <cstdlib>

#include "KelChoiceKernels.h"
#include "KelChoiceRules.h"

namespace kel {
namespace {

/// The magnitudes of a block, as t = 18 q + r, in raster order.
struct Magnitudes {
  int q[64];
  int r[64];
  unsigned planes;  ///< bits of the largest q
};

/// What a block would be coded as, and what it loses and costs, signs of zeros taken off.
struct Candidate {
  int loss;
  int indices[64];
};

int LossOf(int q, int r, int index) {
  const int d = std::min(q - index, kMostDifference);
  return d * (r + kPartsPerHalf * d) - (index == 0 && q != 0 ? 1 : 0);
}

/// The pattern with most gain of a group, given what its columns gain.
unsigned BestPattern(const int (&gains)[4]) {
  int best = INT32_MIN;
  for (unsigned pattern = 0; pattern < 16; ++pattern) {
    int gain = -kPatternCosts.byPattern[pattern];
    for (unsigned x = 0; x < 4; ++x) {
      if ((pattern >> (3 - x) & 1) != 0) gain += std::min(gains[x], kMostGain);
    }
    best = std::max(best, gain * 16 + static_cast<int>(pattern));
  }
  return static_cast<unsigned>(best) & 15;
}

/// A group of 4 x 4 with its planes chosen column by column: adds its loss and sets its indices.
void ChooseGroup(const Magnitudes& block, unsigned N, int first, Candidate& candidate) {
  constexpr ColumnPlanes kAll[] = {ColumnPlanes::kNeither, ColumnPlanes::kLower,
                                   ColumnPlanes::kUpper, ColumnPlanes::kBoth};
  int losses[4][4] = {};  // by planes, by column
  for (const ColumnPlanes planes : kAll) {
    for (int i = 0; i < 16; ++i) {
      const int at = first + 8 * (i / 4) + i % 4;
      const int index = IndexUnder(N, planes, block.q[at], block.r[at] > 0);
      losses[static_cast<int>(planes)][i % 4] += LossOf(block.q[at], block.r[at], index);
    }
  }
  int gains[4];
  unsigned upper = 0;
  if (N > 1) {
    for (int x = 0; x < 4; ++x) {
      gains[x] = std::min(losses[0][x], losses[1][x] + kLowerColumnBits) -
                 std::min(losses[2][x], losses[3][x] + kLowerColumnBits);
    }
    upper = BestPattern(gains);
    candidate.loss += kPatternCosts.byPattern[upper];
  }
  const auto hasUpper = [&](int x) { return (upper >> (3 - x) & 1) != 0; };
  for (int x = 0; x < 4; ++x) {
    gains[x] = hasUpper(x) ? losses[2][x] - losses[3][x] : losses[0][x] - losses[1][x];
  }
  const unsigned lower = BestPattern(gains);
  candidate.loss += kPatternCosts.byPattern[lower];
  for (int x = 0; x < 4; ++x) {
    const int chosen = (hasUpper(x) ? 2 : 0) + static_cast<int>(lower >> (3 - x) & 1);
    candidate.loss += losses[chosen][x];
    for (int y = 0; y < 4; ++y) {
      const int at = first + 8 * y + x;
      candidate.indices[at] = IndexUnder(N, kAll[chosen], block.q[at], block.r[at] > 0);
    }
  }
}

/// Bits of a plane in which every column that has a bit is coded.
int CostOfPlane(const int (&indices)[64], unsigned plane) {
  int bits = 0;
  for (const int first : {0, 4, 32, 36}) {
    unsigned pattern = 0;
    for (int x = 0; x < 4; ++x) {
      int column = 0;
      for (int y = 0; y < 4; ++y) column |= indices[first + 8 * y + x];
      pattern = pattern << 1 | (static_cast<unsigned>(column) >> plane & 1);
    }
    bits += kPatternCosts.byPattern[pattern];
  }
  return bits;
}

void Evaluate(const Magnitudes& block, unsigned N, Candidate& candidate) {
  candidate.loss = N > 2 ? 64 * static_cast<int>(N - 2) : 0;
  if (N > 0 && block.planes <= kMostPrunedPlanes) {
    for (const int first : {0, 4, 32, 36}) ChooseGroup(block, N, first, candidate);
    return;
  }
  const int largest = (1 << N) - 1;
  for (int i = 0; i < 64; ++i) {
    candidate.indices[i] = std::min(block.q[i], largest);
    candidate.loss += LossOf(block.q[i], block.r[i], candidate.indices[i]);
  }
  if (N == 0) return;
  candidate.loss += CostOfPlane(candidate.indices, N - 1) + CostOfPlane(candidate.indices, N - 2);
}

/// What is lost by limiting the indices to N planes alone.
int LossOfLimit(const Magnitudes& block, unsigned N) {
  int loss = 0;
  for (int i = 0; i < 64; ++i) {
    const int d = std::min(std::max(block.q[i] - ((1 << N) - 1), 0), kMostDifference);
    loss += d * (block.r[i] + kPartsPerHalf * d);
  }
  return loss;
}

/// Tries N planes; a limit that alone loses more than what is best so far is not looked at.
void Try(const Magnitudes& block, unsigned N, Candidate& best) {
  if (N != 0 && LossOfLimit(block, N) >= best.loss) return;
  Candidate other;
  Evaluate(block, N, other);
  if (other.loss < best.loss) best = other;
}

template <class Cell>
Magnitudes LoadBlock(const Cell* cells, std::ptrdiff_t strideCells) {
  Magnitudes block;
  unsigned all = 0;
  for (int i = 0; i < 64; ++i) {
    const int t = std::abs(static_cast<int>(cells[(i / 8) * strideCells + i % 8]));
    block.q[i] = t <= kMostIdle ? 0 : (t + kPartsPerHalf) / kPartsPerStep;
    block.r[i] = t - kPartsPerStep * block.q[i];
    all |= static_cast<unsigned>(block.q[i]);
  }
  block.planes = static_cast<unsigned>(std::bit_width(all));
  return block;
}

template <class Cell>
std::uint8_t ChooseBlock(Cell* cells, std::ptrdiff_t strideCells) {
  const Magnitudes block = LoadBlock(cells, strideCells);
  const unsigned n = block.planes;
  Candidate best;
  if (n == 0 || n > kMostChosenPlanes) {
    std::copy_n(block.q, 64, best.indices);
  } else {
    Evaluate(block, n, best);
    if (n > 1) Try(block, n - 1, best);
    if (n <= kMostEmptiedPlanes) Try(block, 0, best);
  }
  unsigned all = 0;
  for (int i = 0; i < 64; ++i) {
    Cell& cell = cells[(i / 8) * strideCells + i % 8];
    cell = static_cast<Cell>(cell < 0 ? -best.indices[i] : best.indices[i]);
    all |= static_cast<unsigned>(best.indices[i]);
  }
  return static_cast<std::uint8_t>(std::bit_width(all));
}

template <class Cell>
void ChooseRun(Cell* cells, std::ptrdiff_t strideCells, std::size_t count,
               std::uint8_t* planeCounts) {
  for (std::size_t i = 0; i < count; ++i) {
    planeCounts[i] = ChooseBlock(cells + 8 * i, strideCells);
  }
}

}  // namespace

void ChooseOfIntegersScalar(std::int32_t* cells, std::ptrdiff_t strideCells, std::size_t count,
                            std::uint8_t* planeCounts) {
  ChooseRun(cells, strideCells, count, planeCounts);
}

void FillScalarChoiceKernels(ChoiceKernels& table) noexcept {
  table.chooseOfShorts = ChooseRun<std::int16_t>;
  table.chooseOfIntegers = ChooseOfIntegersScalar;
}

}  // namespace kel
