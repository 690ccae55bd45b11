// Steps of the forward wavelet transform's levels. A step analyses rows down, which gives a
// low-pass and a high-pass row, mirrors their ends at the box's edges, and analyses each across.
#include "transform/KelWaveletForward.h"

#include <cstring>
#include <utility>

#include "kernels/KelKernels.h"
#include "transform/KelWaveletAxes.h"

namespace kel {
namespace {

/// Cells beside a row's samples that hold mirrored ones: the 9/7 filter across reaches 4 cells to
/// either side of a pair, which may begin one before the row. They are mirrored when a row comes,
/// and go through the filter down with it.
constexpr std::int64_t kSideCells = 6;

/// Cells in front of a row's first sample, so that it stands on a cache line of its own.
constexpr std::int64_t kLeadCells = 32;

constexpr std::int64_t kLine = 64;

// The two filters. State is what one step's rows down leave for the next; kFirst and kLast are the
// rows that a step reads, counted from its even one.

template <class C>
struct Analysis53 {
  using Cell = C;
  using State = C;
  static constexpr std::int64_t kFirst = 0, kLast = 2, kRingRows = 4;
  /// Where the filter down begins in front of a row: on a cache line.
  static constexpr std::int64_t kBefore = 64 / sizeof(C);
  /// The state is the high-pass row itself.
  static constexpr bool kStateIsHigh = true;

  static const AnalysisKernels<C>& Kernel() {
    if constexpr (sizeof(C) == sizeof(std::int16_t)) {
      return Kernels().wavelet.analysis53Short;
    } else {
      return Kernels().wavelet.analysis53;
    }
  }
  static void Rows(const Cell* const* x, const State* before, State* state, Cell* const lowHigh[2],
                   std::size_t count) {
    Kernel().rows(x, before, state, lowHigh[0], count);
  }
  static void Row(const Cell* x, Cell* low, Cell* high, std::size_t pairs, const double*) {
    Kernel().row(x, low, high, pairs);
  }
  static Cell Doubled(Cell v) { return static_cast<Cell>(static_cast<std::uint32_t>(v) * 2U); }
  static Cell Scaled(Cell v, double) { return v; }
};

struct Analysis97 {
  using Cell = float;
  using State = double;
  static constexpr std::int64_t kFirst = -2, kLast = 4, kRingRows = 8;
  static constexpr std::int64_t kBefore = 8;
  static constexpr bool kStateIsHigh = false;

  static void Rows(const Cell* const* x, const State* before, State* state, Cell* const lowHigh[2],
                   std::size_t count) {
    Kernels().wavelet.analyseRows97(x, before, state, lowHigh, count);
  }
  static void Row(const Cell* x, Cell* low, Cell* high, std::size_t pairs, const double* factors) {
    Kernels().wavelet.analyseRow97(x, low, high, pairs, factors);
  }
  static Cell Doubled(Cell v) { return v * 2.0F; }
  static Cell Scaled(Cell v, double factor) {
    return static_cast<Cell>(static_cast<double>(v) * factor);
  }
};

template <class Cell>
Cell* AsCells(std::uint8_t* bytes) {
  return reinterpret_cast<Cell*>(bytes);
}

/// A row of the ring, counted from the level's first.
template <class Filter>
typename Filter::Cell* RingRow(const ForwardLevel& level, std::int64_t row) {
  const auto place = static_cast<std::size_t>(row & (Filter::kRingRows - 1));
  return AsCells<typename Filter::Cell>(level.ring + place * level.rowBytes) + kLeadCells;
}

/// The level, the number of the level (0 the finest), and who else is needed for its steps.
template <class Filter>
struct LevelAtWork {
  using Cell = typename Filter::Cell;

  ForwardRows& rows;
  int number;

  ForwardLevel& Level() const { return rows.levels[number]; }
  ForwardLevel& Next() const { return rows.levels[number + 1]; }
  /// The subband of a kind.
  int Subband(bool highAcross, bool highDown) const {
    if (!highAcross && !highDown) return 0;
    return 3 * (rows.numLevels - number - 1) + (highAcross ? 1 : 0) + (highDown ? 2 : 0);
  }
  Cell* LowHigh(bool high) const { return AsCells<Cell>(rows.lowHigh[high ? 1 : 0]) + kLeadCells; }
  /// Where a row of a band goes.
  Cell* Place(bool highAcross, bool highDown, std::int64_t row) const {
    const BandRowTaker& taker = rows.taker;
    void* const place = taker.place != nullptr
                            ? taker.place(taker.context, Subband(highAcross, highDown), row)
                            : nullptr;
    return place != nullptr ? static_cast<Cell*>(place)
                            : AsCells<Cell>(rows.across[highAcross ? 1 : 0]);
  }
};

template <class Cell>
void MirrorSides(const Box& box, Cell* row) {
  const std::int64_t width = box.Width();
  if (width > kSideCells) {
    for (std::int64_t i = 1; i <= kSideCells; ++i) {
      row[-i] = row[i];
      row[width - 1 + i] = row[width - 1 - i];
    }
    return;
  }
  for (std::int64_t i = 1; i <= kSideCells; ++i) {
    row[-i] = row[Mirror(box.x0 - i, box.x0, box.x1) - box.x0];
  }
  for (std::int64_t i = 0; i < kSideCells; ++i) {
    row[width + i] = row[Mirror(box.x1 + i, box.x0, box.x1) - box.x0];
  }
}

/// Analyses across a row that was made down, between its mirrored neighbours.
template <class Filter>
void SplitRow(const Box& box, typename Filter::Cell* row, const double* factors,
              typename Filter::Cell* low, typename Filter::Cell* high) {
  if (box.Width() == 1) {
    if ((box.x0 & 1) != 0) {
      *high = Filter::Scaled(Filter::Doubled(*row), factors[1]);
    } else {
      *low = Filter::Scaled(*row, factors[0]);
    }
    return;
  }
  // Whole pairs go straight to the bands; a sample without its partner at either end of the row
  // takes the way over a pair of its own.
  const std::int64_t first = CeilShift(box.x0, 1), end = FloorShift(box.x1, 1);
  typename Filter::Cell pair[2];
  if ((box.x0 & 1) != 0) {
    Filter::Row(row - 1, pair, pair + 1, 1, factors);
    *high++ = pair[1];
  }
  Filter::Row(row + (2 * first - box.x0), low, high, static_cast<std::size_t>(end - first),
              factors);
  if ((box.x1 & 1) != 0) {
    Filter::Row(row + (2 * end - box.x0), pair, pair + 1, 1, factors);
    low[end - first] = pair[0];
  }
}

template <class Filter>
void TakeRow(ForwardRows& rows, int number);

/// Analyses across row n of the rows that are low or high down, and hands over what is a band's.
/// LL goes to the next level, which takes it when both rows of the step are done.
template <class Filter>
void AnalyseAcross(const LevelAtWork<Filter>& work, bool highDown, std::int64_t n,
                   typename Filter::Cell* row) {
  const ForwardLevel& level = work.Level();
  const Box& box = level.box;
  const std::int64_t bandRow = n - BandEdge(box.y0, highDown);
  auto* const low = highDown ? work.Place(false, true, bandRow)
                             : RingRow<Filter>(work.Next(), work.Next().numTaken);
  auto* const high = work.Place(true, highDown, bandRow);
  SplitRow<Filter>(box, row, level.factors + (highDown ? 2 : 0), low, high);
  const BandRowTaker& taker = work.rows.taker;
  if (BandEdge(box.x0, true) < BandEdge(box.x1, true)) {
    taker.take(taker.context, work.Subband(true, highDown), bandRow, high);
  }
  if (highDown && BandEdge(box.x0, false) < BandEdge(box.x1, false)) {
    taker.take(taker.context, work.Subband(false, true), bandRow, low);
  }
}

/// Cells that the filter down takes: a row's samples and those beside them.
template <class Filter>
std::size_t CountDown(const Box& box) {
  return static_cast<std::size_t>(Filter::kBefore + box.Width() + kSideCells);
}

/// One pair of rows, of which the level's box may hold both, one or none.
template <class Filter>
void Step(const LevelAtWork<Filter>& work) {
  using Cell = typename Filter::Cell;
  using State = typename Filter::State;
  ForwardLevel& level = work.Level();
  const Box& box = level.box;
  const std::int64_t n = level.step++;
  const Cell* x[Filter::kLast - Filter::kFirst + 1];
  for (std::int64_t i = Filter::kFirst; i <= Filter::kLast; ++i) {
    x[i - Filter::kFirst] =
        RingRow<Filter>(level, Mirror(2 * n + i, box.y0, box.y1) - box.y0) - Filter::kBefore;
  }
  State* const before = AsCells<State>(level.states[0]) + kLeadCells - Filter::kBefore;
  State* const state = AsCells<State>(level.states[1]) + kLeadCells - Filter::kBefore;
  Cell* lowHigh[2] = {work.LowHigh(false) - Filter::kBefore, work.LowHigh(true) - Filter::kBefore};
  if constexpr (Filter::kStateIsHigh) lowHigh[1] = state;
  Filter::Rows(x, before, state, lowHigh, CountDown<Filter>(box));
  std::swap(level.states[0], level.states[1]);
  for (const bool high : {false, true}) {
    const std::int64_t y = 2 * n + (high ? 1 : 0);
    if (y < box.y0 || y >= box.y1) continue;
    AnalyseAcross(work, high, n, lowHigh[high ? 1 : 0] + Filter::kBefore);
  }
  if (2 * n >= box.y0 && !work.Next().box.IsEmpty()) TakeRow<Filter>(work.rows, work.number + 1);
}

/// A level of one row is not filtered down.
template <class Filter>
void TakeSingleRow(const LevelAtWork<Filter>& work) {
  using Cell = typename Filter::Cell;
  const Box& box = work.Level().box;
  const bool odd = (box.y0 & 1) != 0;
  const Cell* const from = RingRow<Filter>(work.Level(), 0);
  Cell* const row = work.LowHigh(false);
  for (std::int64_t x = -kSideCells; x < box.Width() + kSideCells; ++x) {
    row[x] = odd ? Filter::Doubled(from[x]) : from[x];
  }
  AnalyseAcross(work, odd, FloorShift(box.y0, 1), row);
  if (!odd && !work.Next().box.IsEmpty()) TakeRow<Filter>(work.rows, work.number + 1);
}

/// The last of the rows, counted from the level's first, that the next step reads.
template <class Filter>
std::int64_t LastRowOfStep(const ForwardLevel& level) {
  const Box& box = level.box;
  const std::int64_t first = 2 * level.step + Filter::kFirst, last = 2 * level.step + Filter::kLast;
  if (first >= box.y0 && last < box.y1) return last - box.y0;
  std::int64_t greatest = 0;
  for (std::int64_t y = first; y <= last; ++y) {
    greatest = std::max(greatest, Mirror(y, box.y0, box.y1) - box.y0);
  }
  return greatest;
}

/// Takes the row that stands in the level's ring, and goes on as far as it allows.
template <class Filter>
void TakeRow(ForwardRows& rows, int number) {
  ForwardLevel& level = rows.levels[number];
  const std::int64_t row = level.numTaken++;
  if (number == rows.numLevels) {
    auto* const cells = RingRow<Filter>(level, row);
    // With levels the steps across have multiplied by the factor.
    for (std::int64_t x = 0; number == 0 && x < level.box.Width(); ++x) {
      cells[x] = Filter::Scaled(cells[x], level.factors[0]);
    }
    rows.taker.take(rows.taker.context, 0, row, cells);
    return;
  }
  const LevelAtWork<Filter> work = {rows, number};
  if (level.box.Width() > 1) MirrorSides(level.box, RingRow<Filter>(level, row));
  if (level.box.Height() == 1) return TakeSingleRow(work);
  while (2 * level.step < level.box.y1 && LastRowOfStep<Filter>(level) < level.numTaken) {
    Step(work);
  }
}

// ---- Memory ----

struct CellSizes {
  std::int64_t cell, state, ringRows;
};

template <class Filter>
constexpr CellSizes SizesOf() {
  return {sizeof(typename Filter::Cell), sizeof(typename Filter::State), Filter::kRingRows};
}

CellSizes SizesOf(CellKind cells) {
  switch (cells) {
    case CellKind::kShorts:
      return SizesOf<Analysis53<std::int16_t>>();
    case CellKind::kInts:
      return SizesOf<Analysis53<std::int32_t>>();
    case CellKind::kFloats:
      break;
  }
  return SizesOf<Analysis97>();
}

/// Bytes of a row with room on both sides. Five lines more than a multiple of eight keep rows of
/// usual widths from falling onto the same lines of the processor's cache.
std::int64_t RowBytes(std::int64_t width, std::int64_t cellBytes) {
  return RoundUp((width + 2 * kLeadCells) * cellBytes, 8 * kLine) + 5 * kLine;
}

/// Hands out pieces of a block one after the other; without a block it only adds up.
class Cutter {
 public:
  explicit Cutter(void* block) : block_(static_cast<std::uint8_t*>(block)) {}
  std::uint8_t* Take(std::int64_t bytes) {
    std::uint8_t* const taken = block_ != nullptr ? block_ + taken_ : nullptr;
    taken_ = SaturatingAdd(taken_, AsCount(bytes));
    return taken;
  }
  std::uint64_t Taken() const { return taken_; }

 private:
  std::uint8_t* block_;
  std::uint64_t taken_ = 0;
};

void CutMemory(const Box& box, CellKind cells, Cutter& cutter, ForwardRows& rows) {
  const CellSizes sizes = SizesOf(cells);
  for (int l = 0; l <= rows.numLevels; ++l) {
    ForwardLevel& level = rows.levels[l];
    level = {};
    level.box = ReduceBox(box, l);
    level.rowBytes = static_cast<std::size_t>(RowBytes(level.box.Width(), sizes.cell));
    const std::int64_t ringRows = std::min(sizes.ringRows, level.box.Height());
    level.ring = cutter.Take(static_cast<std::int64_t>(level.rowBytes) * ringRows);
    if (l == rows.numLevels) continue;
    for (auto*& state : level.states) state = cutter.Take(RowBytes(level.box.Width(), sizes.state));
  }
  for (auto*& row : rows.lowHigh) row = cutter.Take(RowBytes(box.Width(), sizes.cell));
  for (auto*& row : rows.across) row = cutter.Take(RowBytes(box.Width() / 2 + 1, sizes.cell));
}

double FactorOf(const float* steps, int subband) {
  return steps != nullptr ? 1.0 / static_cast<double>(steps[subband]) : 1.0;
}

template <class Filter>
void BeginLevel(ForwardLevel& level) {
  level.step = FloorShift(level.box.y0, 1) - 1;
  // The first step only leaves its state: the high-pass row above the first low-pass one. What it
  // is given as the state before it does not matter, but must be there.
  std::memset(
      level.states[0], 0,
      static_cast<std::size_t>(level.box.Width() + kLeadCells) * sizeof(typename Filter::State));
}

}  // namespace

// The 5/3 filter with symmetric extension is linear but for its rounding. Let the samples be at
// most M in magnitude.
//
// Down or across, a step makes H = b - floor((a + c) / 2) and L = b + floor((H + H' + 2) / 4) of
// neighbours, which differ by at most 1/2 and 3/4 from what they would be without rounding. Without
// rounding, L of k levels in a row is a sum of samples whose weights have magnitudes that add up to
// 1.5, 1.625, 1.6875, ..., for k up to 12 always below 1.72; H after k - 1 such levels to 2, 2.5,
// 2.75, ..., always below 2.87. The largest values are those that are high both ways, below
// 2.87^2 M < 8.24 M; a row of one sample that is doubled stays below that too.
//
// Rounding: a level adds less than 2 to its LL (3/4 down, weighted by 1.5 across, and 3/4). What it
// adds goes through the levels after it like a sample, and comes out less than 8.24 times as large;
// so after 12 levels it is below 8.24 * 2 * 12 < 198, and with the last level's own below 200.
//
// The sums inside the formulas are the widest: H + H' + 2 is below 2 (8.24 M + 200) + 2. With
// M = 1024 that is below 17,300. Everything fits 16 bits, which hold up to 32,767.
bool SamplesFitShorts(int sampleBits, int numLevels) {
  constexpr int kMostBits = 11;
  constexpr int kMostShortLevels = 12;
  return sampleBits <= kMostBits && numLevels <= kMostShortLevels;
}

std::uint64_t ForwardRowsBytes(const Box& box, int numLevels, CellKind cells) {
  if (box.IsEmpty()) return 0;
  ForwardRows rows;
  rows.numLevels = numLevels;
  Cutter cutter(nullptr);
  CutMemory(box, cells, cutter, rows);
  return cutter.Taken();
}

void BeginForward(const ForwardJob& job, void* memory, ForwardRows& rows) {
  rows.taker = job.taker;
  rows.cells = job.cells;
  rows.numLevels = job.numLevels;
  Cutter cutter(memory);
  CutMemory(job.box, job.cells, cutter, rows);
  for (int l = 0; l < job.numLevels && !job.box.IsEmpty(); ++l) {
    ForwardLevel& level = rows.levels[l];
    level.factors[0] = l == job.numLevels - 1 ? FactorOf(job.steps, 0) : 1.0;
    for (int kind = 1; kind < 4; ++kind) {
      level.factors[kind] = FactorOf(job.steps, 3 * (job.numLevels - l - 1) + kind);
    }
    if (job.cells == CellKind::kShorts) BeginLevel<Analysis53<std::int16_t>>(level);
    if (job.cells == CellKind::kInts) BeginLevel<Analysis53<std::int32_t>>(level);
    if (job.cells == CellKind::kFloats) BeginLevel<Analysis97>(level);
  }
  if (job.numLevels == 0) rows.levels[0].factors[0] = FactorOf(job.steps, 0);
}

void* NextSampleRow(const ForwardRows& rows) {
  const ForwardLevel& level = rows.levels[0];
  switch (rows.cells) {
    case CellKind::kShorts:
      return RingRow<Analysis53<std::int16_t>>(level, level.numTaken);
    case CellKind::kInts:
      return RingRow<Analysis53<std::int32_t>>(level, level.numTaken);
    case CellKind::kFloats:
      break;
  }
  return RingRow<Analysis97>(level, level.numTaken);
}

void TakeSampleRow(ForwardRows& rows) {
  switch (rows.cells) {
    case CellKind::kShorts:
      return TakeRow<Analysis53<std::int16_t>>(rows, 0);
    case CellKind::kInts:
      return TakeRow<Analysis53<std::int32_t>>(rows, 0);
    case CellKind::kFloats:
      return TakeRow<Analysis97>(rows, 0);
  }
}

}  // namespace kel
