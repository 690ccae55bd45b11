// The choice of indices: whole blocks by kernels, smaller ones and the range of plane counts here.
#include "KelIndexChoice.h"

#include <algorithm>
#include <bit>
#include <cstdlib>

#include "KelBlockRuns.h"
#include "kernels/KelColumnPatternCode.h"
#include "kernels/KelKernels.h"

namespace kel {
namespace {

/// Magnitudes of a block, rows of eight places.
struct Magnitudes {
  int width, height;
  std::uint32_t values[kBlockSide * kBlockSide];
};

unsigned PlanesOf(const Magnitudes& block) {
  std::uint32_t all = 0;
  for (const std::uint32_t v : block.values) all |= v;
  return static_cast<unsigned>(std::bit_width(all));
}

bool HasBit(const Magnitudes& block, unsigned plane, int x, int y, int rows) {
  std::uint32_t column = 0;
  for (int i = 0; i < rows; ++i) column |= block.values[8 * (y + i) + x];
  return (column >> plane & 1) != 0;
}

/// Bits of columns that belong to no group.
std::int64_t BitsOfColumns(const Magnitudes& block, unsigned plane, int xBegin, int xEnd, int y,
                           int rows) {
  std::int64_t bits = 0;
  for (int x = xBegin; x < xEnd; ++x) bits += HasBit(block, plane, x, y, rows) ? 1 + rows : 1;
  return bits;
}

std::int64_t BitsOfPlane(const Magnitudes& block, unsigned plane) {
  const int groupsEnd = block.width & ~3;
  std::int64_t bits = 0;
  int y = 0;
  for (; y + 4 <= block.height; y += 4) {
    for (int x = 0; x < groupsEnd; x += 4) {
      unsigned pattern = 0;
      for (int j = 0; j < 4; ++j) {
        pattern = pattern << 1 | (HasBit(block, plane, x + j, y, 4) ? 1U : 0U);
      }
      bits += kColumnPatternCode[pattern].length + 4 * std::popcount(pattern);
    }
    bits += BitsOfColumns(block, plane, groupsEnd, block.width, y, 4);
  }
  if (y < block.height) {
    bits += BitsOfColumns(block, plane, 0, block.width, y, block.height - y);
  }
  return bits;
}

/// Bits of a block's code but for its plane count.
std::int64_t BitsOf(const Magnitudes& block, unsigned planes) {
  if (planes == 0) return 0;
  std::int64_t bits = BitsOfPlane(block, planes - 1);
  if (planes > 1) bits += BitsOfPlane(block, planes - 2);
  if (planes > 2) bits += std::int64_t{planes - 2} * block.width * block.height;
  for (const std::uint32_t v : block.values) bits += v != 0 ? 1 : 0;
  return bits;
}

Magnitudes Limited(const Magnitudes& block, unsigned planes) {
  Magnitudes limited = block;
  const std::uint32_t largest = (std::uint32_t{1} << planes) - 1;
  for (std::uint32_t& v : limited.values) v = std::min(v, largest);
  return limited;
}

/// Ninths of a squared step by which indices below the magnitudes add to their error; with the
/// rests r of the magnitudes, in eighteenths, or as if these were 0.
std::int64_t LossOf(const Magnitudes& block, const Magnitudes& chosen, const int* r) {
  std::int64_t loss = 0;
  for (int i = 0; i < 64; ++i) {
    const auto d = static_cast<std::int64_t>(block.values[i] - chosen.values[i]);
    loss += d * ((r != nullptr ? r[i] : 0) + kPartsPerHalf * d);
  }
  return loss;
}

template <class Cell>
Magnitudes LoadMagnitudes(const BlockRun<Cell>& block, std::ptrdiff_t strideCells) {
  Magnitudes loaded = {block.width, block.height, {}};
  for (int y = 0; y < block.height; ++y) {
    for (int x = 0; x < block.width; ++x) {
      const int v = block.cells[y * strideCells + x];
      loaded.values[8 * y + x] = static_cast<std::uint32_t>(std::abs(v));
    }
  }
  return loaded;
}

/// Gives a block new magnitudes and keeps its signs.
template <class Cell>
void StoreMagnitudes(const Magnitudes& from, const BlockRun<Cell>& block,
                     std::ptrdiff_t strideCells) {
  for (int y = 0; y < block.height; ++y) {
    for (int x = 0; x < block.width; ++x) {
      Cell& cell = block.cells[y * strideCells + x];
      const auto magnitude = static_cast<int>(from.values[8 * y + x]);
      cell = static_cast<Cell>(cell < 0 ? -magnitude : magnitude);
    }
  }
}

/// A block smaller than 8 x 8: its nearest indices, those with one plane fewer, or none.
template <class Cell>
std::uint8_t ChooseSmallBlock(const BlockRun<Cell>& block, std::ptrdiff_t strideCells) {
  Magnitudes nearest = LoadMagnitudes(block, strideCells);
  int r[64];
  for (int i = 0; i < 64; ++i) {
    const auto t = static_cast<int>(nearest.values[i]);
    const int q = t <= kMostIdle ? 0 : (t + kPartsPerHalf) / kPartsPerStep;
    nearest.values[i] = static_cast<std::uint32_t>(q);
    r[i] = t - kPartsPerStep * q;
  }
  const unsigned planes = PlanesOf(nearest);
  Magnitudes best = nearest;
  std::int64_t least = BitsOf(nearest, planes);
  for (const unsigned fewer : {planes - 1, 0U}) {
    if (planes == 0) break;
    const Magnitudes limited = Limited(nearest, fewer);
    const std::int64_t price = LossOf(nearest, limited, r) + BitsOf(limited, fewer);
    if (price < least) {
      least = price;
      best = limited;
    }
  }
  StoreMagnitudes(best, block, strideCells);
  return static_cast<std::uint8_t>(PlanesOf(best));
}

ChoiceKernels::Choose<std::int32_t>* ChooseKernel(const std::int32_t*) {
  return Kernels().choice.chooseOfIntegers;
}
ChoiceKernels::Choose<std::int16_t>* ChooseKernel(const std::int16_t*) {
  return Kernels().choice.chooseOfShorts;
}

template <class Cell>
void ChooseIndices(const EncodeBand& band) {
  ForEachRun<Cell>(band, [&](BlockRun<Cell> run) {
    std::uint8_t* const planeCounts = band.planeCounts + run.first;
    if (run.width == kBlockSide && run.height == kBlockSide) {
      ChooseKernel(run.cells)(run.cells, band.strideCells, run.count, planeCounts);
      return;
    }
    for (std::size_t i = 0; i < run.count; ++i, run.cells += kBlockSide) {
      planeCounts[i] = ChooseSmallBlock(run, band.strideCells);
    }
  });
}

// ---- The range of a band's plane counts ----

/// Calls visit(block, its plane count) for each block of more than so many planes.
template <class Cell, class Visit>
void ForEachAbove(const EncodeBand& band, unsigned planes, Visit visit) {
  ForEachRun<Cell>(band, [&](BlockRun<Cell> run) {
    std::uint8_t* planeCount = band.planeCounts + run.first;
    for (std::size_t i = 0; i < run.count; ++i, ++planeCount, run.cells += kBlockSide) {
      if (*planeCount > planes) visit(run, *planeCount);
    }
  });
}

/// What limiting all blocks to so many planes costs; looks no further once that is too much.
template <class Cell>
std::int64_t PriceOfLimit(const EncodeBand& band, unsigned planes, std::int64_t tooMuch) {
  std::int64_t price = 0;
  ForEachAbove<Cell>(band, planes, [&](const BlockRun<Cell>& block, unsigned planeCount) {
    if (price >= tooMuch) return;
    const Magnitudes whole = LoadMagnitudes(block, band.strideCells);
    const Magnitudes limited = Limited(whole, planes);
    price += LossOf(whole, limited, nullptr) + BitsOf(limited, planes) - BitsOf(whole, planeCount);
  });
  return price;
}

template <class Cell>
void LimitPlanes(const EncodeBand& band, unsigned planes) {
  ForEachAbove<Cell>(band, planes, [&](const BlockRun<Cell>& block, std::uint8_t& planeCount) {
    StoreMagnitudes(Limited(LoadMagnitudes(block, band.strideCells), planes), block,
                    band.strideCells);
    planeCount = static_cast<std::uint8_t>(planes);
  });
}

template <class Cell>
void Narrow(const EncodeBand& band) {
  // Blocks to one that is limited, and to one that is emptied; more hardly ever pay.
  constexpr std::uint64_t kLeastShare = 16, kLeastShareOfEmptied = 3;
  constexpr unsigned kMostPlanes = 31;
  std::uint64_t numWithPlanes[kMostPlanes + 1] = {};
  const std::uint64_t numBlocks = CountBlocksOf(band);
  for (std::uint64_t i = 0; i < numBlocks; ++i) ++numWithPlanes[band.planeCounts[i]];
  unsigned least = 0, most = kMostPlanes;
  while (least < kMostPlanes && numWithPlanes[least] == 0) ++least;
  while (most > 0 && numWithPlanes[most] == 0) --most;
  // The field has a bit at least; only a band without planes does without it.
  while (most > least + 1 || (least == 0 && most == 1)) {
    const unsigned fieldBits = PlaneCountFieldBits(static_cast<int>(least), static_cast<int>(most));
    const unsigned limit = least + (1U << (fieldBits - 1)) - 1;
    std::uint64_t numAbove = 0;
    for (unsigned planes = limit + 1; planes <= most; ++planes) numAbove += numWithPlanes[planes];
    if (numAbove * (limit == 0 ? kLeastShareOfEmptied : kLeastShare) > numBlocks) return;
    const auto saved = static_cast<std::int64_t>(numBlocks);
    if (PriceOfLimit<Cell>(band, limit, saved) >= saved) return;
    LimitPlanes<Cell>(band, limit);
    numWithPlanes[limit] += numAbove;
    most = limit;
  }
}

}  // namespace

void ChooseIndicesAbove(const EncodeBand& band, std::int32_t row) {
  const EncodeBand blocks = BlocksAbove(band, row);
  if (band.areShorts) {
    ChooseIndices<std::int16_t>(blocks);
  } else {
    ChooseIndices<std::int32_t>(blocks);
  }
}

void NarrowPlaneCounts(const EncodeBand& band) {
  if (band.areShorts) {
    Narrow<std::int16_t>(band);
  } else {
    Narrow<std::int32_t>(band);
  }
}

}  // namespace kel
