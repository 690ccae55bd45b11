// Drivers of the forward wavelet transform.
//
// A level goes strip by strip. Each step analyses the next rows down, which gives one low-pass and
// one high-pass row of the strip with a few columns of its neighbours, mirrors them at the box's
// edges, and analyses each across straight into its two bands. Levels alternate between the two
// planes, so that nothing is copied back.
#include <cstring>
#include <utility>

#include "kernels/KelKernels.h"
#include "transform/KelWavelet.h"
#include "transform/KelWaveletStrips.h"

namespace kel {
namespace {

/// Columns of its neighbours that a strip analyses down as well, on each side: the 9/7 filter
/// across reaches 4 columns to either side of a pair, which may begin one before the strip.
constexpr std::int64_t kSideColumns = 6;

// The two filters as the strips use them. State is what one step's rows down leave for the next.

struct Analysis53 {
  using Cell = std::int32_t;
  using State = std::int32_t;
  /// The state is the high-pass row itself.
  static constexpr bool kStateIsHigh = true;

  static void Rows(const Cell* const* x, const State* before, State* state, Cell* const lowHigh[2],
                   std::size_t count) {
    Kernels().wavelet.analyseRows53(x + 2, before, state, lowHigh[0], count);
  }
  static void Row(const Cell* x, Cell* low, Cell* high, std::size_t pairs, const double*) {
    Kernels().wavelet.analyseRow53(x, low, high, pairs);
  }
  static Cell Doubled(Cell v) { return static_cast<Cell>(static_cast<std::uint32_t>(v) * 2U); }
  static Cell Scaled(Cell v, double) { return v; }
};

struct Analysis97 {
  using Cell = float;
  using State = double;
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

/// One level: where it reads, where it writes, and the rows at work.
template <class Filter>
struct StripAnalysis {
  using Cell = typename Filter::Cell;
  using State = typename Filter::State;

  const Cell* source;
  Cell* target;
  std::size_t strideCells;
  Box box;
  double factors[4];    ///< of the level's bands by kind
  std::int64_t c0, c1;  ///< columns of the strip
  Cell* lowHigh[2];     ///< rows made down; the strip's first column stands at kRowLead
  State* states[2];     ///< of the step before and of this step
};

template <class Filter>
void TakeRows(StripAnalysis<Filter>& s, std::int64_t width, ScratchCutter& scratch) {
  using State = typename Filter::State;
  const std::int64_t cells = ScratchRowCells(width);
  for (auto*& row : s.lowHigh) row = scratch.Take<typename Filter::Cell>(cells);
  for (State*& state : s.states) state = scratch.Take<State>(cells);
}

/// Fills the columns beside the box with mirrored ones, where the strip touches an edge.
template <class Filter>
void MirrorSides(const StripAnalysis<Filter>& s, typename Filter::Cell* row) {
  const auto mirror = [&](std::int64_t c) {
    row[c - s.c0] = row[Mirror(c, s.box.x0, s.box.x1) - s.c0];
  };
  for (std::int64_t i = 1; i <= kSideColumns && s.c0 == s.box.x0; ++i) mirror(s.c0 - i);
  for (std::int64_t i = 0; i < kSideColumns && s.c1 == s.box.x1; ++i) mirror(s.c1 + i);
}

/// Analyses across a row of index n, low or high down, into its two bands. The row points at the
/// strip's first column.
template <class Filter>
void AnalyseAcross(const StripAnalysis<Filter>& s, bool highDown, std::int64_t n,
                   typename Filter::Cell* row) {
  using Cell = typename Filter::Cell;
  const Box& box = s.box;
  const Box lowBox = ReduceBox(box, 1);
  const std::int64_t bandRow = n - BandEdge(box.y0, highDown) + (highDown ? lowBox.Height() : 0);
  Cell* const low = s.target + static_cast<std::size_t>(bandRow) * s.strideCells;
  Cell* const high = low + lowBox.Width();
  const double* const factors = s.factors + (highDown ? 2 : 0);
  if (box.Width() == 1) {
    const bool odd = (box.x0 & 1) != 0;
    *low =
        odd ? Filter::Scaled(Filter::Doubled(*row), factors[1]) : Filter::Scaled(*row, factors[0]);
    return;
  }
  MirrorSides(s, row);
  // Whole pairs go straight to the bands; a sample without its partner at either end of the
  // strip takes the way over a pair of its own.
  const std::int64_t lowFirst = BandEdge(box.x0, false), highFirst = BandEdge(box.x0, true);
  const std::int64_t first = CeilShift(s.c0, 1), end = FloorShift(s.c1, 1);
  Cell pair[2];
  if ((s.c0 & 1) != 0) {
    Filter::Row(row - 1, pair, pair + 1, 1, factors);
    high[first - 1 - highFirst] = pair[1];
  }
  Filter::Row(row + (2 * first - s.c0), low + (first - lowFirst), high + (first - highFirst),
              static_cast<std::size_t>(end - first), factors);
  if ((s.c1 & 1) != 0) {
    Filter::Row(row + (2 * end - s.c0), pair, pair + 1, 1, factors);
    low[end - lowFirst] = pair[0];
  }
}

/// A level of one row is not filtered down.
template <class Filter>
void AnalyseSingleRow(const StripAnalysis<Filter>& s, std::int64_t from, std::int64_t to) {
  const bool odd = (s.box.y0 & 1) != 0;
  typename Filter::Cell* const row = s.lowHigh[0] + kRowLead;
  for (std::int64_t c = from; c < to; ++c) {
    const typename Filter::Cell v = s.source[c - s.box.x0];
    row[c - s.c0] = odd ? Filter::Doubled(v) : v;
  }
  AnalyseAcross(s, odd, FloorShift(s.box.y0, 1), row);
}

template <class Filter>
void AnalyseStrip(StripAnalysis<Filter>& s) {
  using Cell = typename Filter::Cell;
  const Box& box = s.box;
  const std::int64_t from = std::max(box.x0, s.c0 - kSideColumns);
  const std::int64_t to = std::min(box.x1, s.c1 + kSideColumns);
  if (box.Height() == 1) {
    AnalyseSingleRow(s, from, to);
    return;
  }
  const std::size_t count = static_cast<std::size_t>(to - from);
  const std::int64_t at = kRowLead + from - s.c0;
  // The first step only leaves its state: the high-pass row above the first low-pass one. What
  // it is given as the state before it does not matter.
  std::memset(s.states[0], 0,
              static_cast<std::size_t>(at) * sizeof *s.states[0] + count * sizeof *s.states[0]);
  for (std::int64_t n = FloorShift(box.y0, 1) - 1; 2 * n < box.y1; ++n) {
    const Cell* x[7];
    for (int i = 0; i < 7; ++i) {
      const std::int64_t row = Mirror(2 * n - 2 + i, box.y0, box.y1) - box.y0;
      x[i] = s.source + static_cast<std::size_t>(row) * s.strideCells + (from - box.x0);
    }
    if constexpr (Filter::kStateIsHigh) s.lowHigh[1] = s.states[1];
    Cell* const lowHigh[2] = {s.lowHigh[0] + at, s.lowHigh[1] + at};
    Filter::Rows(x, s.states[0] + at, s.states[1] + at, lowHigh, count);
    for (const bool high : {false, true}) {
      const std::int64_t y = 2 * n + (high ? 1 : 0);
      if (y >= box.y0 && y < box.y1) AnalyseAcross(s, high, n, s.lowHigh[high] + kRowLead);
    }
    std::swap(s.states[0], s.states[1]);
  }
}

/// Notes where the bands of a level stand, LL among them in case no further level follows.
template <class Cell>
void PlaceBands(const ForwardPlanes<Cell>& planes, int level, Cell* plane, SubbandRecord* records) {
  const int first = 3 * (planes.numLevels - level) + 1;
  for (const int b : {0, first, first + 1, first + 2}) {
    const CellOffset offset = MallatOffset(planes.box, planes.numLevels, b);
    records[b].data = plane;
    records[b].strideCells = planes.strideCells;
    if (b == 0 || records[b].box.IsEmpty()) continue;
    records[b].data = plane + static_cast<std::size_t>(offset.row) * planes.strideCells +
                      static_cast<std::size_t>(offset.column);
  }
}

/// All levels. Every band's coefficients are multiplied by its factor.
template <class Filter>
void RunForward(const ForwardPlanes<typename Filter::Cell>& planes, const double* factors,
                void* scratch, SubbandRecord* records) {
  using Cell = typename Filter::Cell;
  StripAnalysis<Filter> s = {};
  s.strideCells = planes.strideCells;
  ScratchCutter cutter(scratch);
  TakeRows(s, planes.box.Width(), cutter);
  Cell *source = planes.source, *target = planes.work;
  for (int level = 1; level <= planes.numLevels; ++level) {
    s.box = ReduceBox(planes.box, level - 1);
    s.source = source;
    s.target = target;
    s.factors[0] = level == planes.numLevels ? factors[0] : 1.0;
    for (int kind = 1; kind < 4; ++kind) {
      s.factors[kind] = factors[3 * (planes.numLevels - level) + kind];
    }
    for (s.c0 = s.box.x0; s.c0 < s.box.x1 && !s.box.IsEmpty(); s.c0 = s.c1) {
      s.c1 = StripEnd(s.c0, s.box.x1);
      AnalyseStrip(s);
    }
    PlaceBands(planes, level, target, records);
    std::swap(source, target);
  }
}

/// Boxes, and LL where it stands when there are no levels.
template <class Cell>
void BeginRecords(const ForwardPlanes<Cell>& planes, SubbandRecord* records) {
  ComputeSubbandBoxes(planes.box, planes.numLevels, records);
  records[0].data = planes.source;
  records[0].strideCells = planes.strideCells;
  for (int b = 0; b < NumSubbands(planes.numLevels); ++b) records[b].step = 1.0F;
}

/// Sum of squares, each row's in double precision.
float Energy(const SubbandRecord& band) {
  float energy = 0.0F;
  for (std::int64_t y = 0; y < band.box.Height() && !band.box.IsEmpty(); ++y) {
    const float* const row =
        static_cast<const float*>(band.data) + static_cast<std::size_t>(y) * band.strideCells;
    double sum = 0.0;
    for (std::int64_t x = 0; x < band.box.Width(); ++x) sum += double{row[x]} * double{row[x]};
    energy += static_cast<float>(sum);
  }
  return energy;
}

void ScaleRows(const SubbandRecord& band, double factor) {
  for (std::int64_t y = 0; y < band.box.Height(); ++y) {
    float* const row =
        static_cast<float*>(band.data) + static_cast<std::size_t>(y) * band.strideCells;
    for (std::int64_t x = 0; x < band.box.Width(); ++x) row[x] = Analysis97::Scaled(row[x], factor);
  }
}

}  // namespace

std::uint64_t ForwardDwtScratchCells(const Box& box) {
  // Two rows of cells and two of states, which may be doubles.
  return box.IsEmpty() ? 0 : AsCount(6 * ScratchRowCells(box.Width()));
}

void ForwardDwt53(const ForwardPlanes<std::int32_t>& planes, void* scratch,
                  SubbandRecord* records) {
  double factors[kMaxSubbands];
  std::fill_n(factors, NumSubbands(planes.numLevels), 1.0);
  BeginRecords(planes, records);
  RunForward<Analysis53>(planes, factors, scratch, records);
}

void ForwardDwt97(const ForwardPlanes<float>& planes, const ForwardQuantisation& quantisation,
                  void* scratch, SubbandRecord* records) {
  double factors[kMaxSubbands];
  BeginRecords(planes, records);
  for (int b = 0; b < NumSubbands(planes.numLevels); ++b) {
    SubbandRecord& band = records[b];
    if (quantisation.steps != nullptr) band.step = quantisation.steps[b];
    band.R = quantisation.R;
    band.Rb = quantisation.R + GainOfSubband(b);
    factors[b] = 1.0 / static_cast<double>(band.step);
  }
  RunForward<Analysis97>(planes, factors, scratch, records);
  if (planes.numLevels == 0) ScaleRows(records[0], factors[0]);
  for (int b = 0; b < NumSubbands(planes.numLevels) && quantisation.wantEnergies; ++b) {
    records[b].energy = Energy(records[b]);
  }
}

}  // namespace kel
