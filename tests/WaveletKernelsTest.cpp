// Every set of wavelet kernels against the scalar ones, bit for bit.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>

#include "GuardedRows.h"
#include "KernelSets.h"

namespace {

using test::GuardedRows;

constexpr std::int64_t kMostCount = 67;
/// Cells before the first sample of an input, and behind the last, that kernels across may read.
constexpr std::int64_t kReach = 4;

/// Integers: extremes, values that wrap, and noise. Floats: values whose sums round differently in
/// another order, huge and tiny ones, both zeros.
template <class T>
T Hard(std::mt19937& random) {
  const std::int32_t ints[] = {INT32_MIN, INT32_MAX, 0, -1, 1, 2, -2, INT32_MAX / 2};
  const float floats[] = {0.0F, -0.0F, 1e30F, -1e30F, 1e-42F, -3e-39F, 16777217.0F, 0.1F};
  if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(random() % 2 == 0 ? ints[random() % 8]
                                            : static_cast<std::int32_t>(random()));
  } else {
    if (random() % 4 == 0) return T{floats[random() % 8]};
    const int exponent = static_cast<int>(random() % 24) - 12;
    return T{std::ldexp(static_cast<float>(random()) / 2147483648.0F - 1.0F, exponent)};
  }
}

/// What one kernel call works on: rows of input with all that may be read around them, and rows
/// of output with margins. `lead` moves all of them off alignment.
template <class Cell>
struct Case {
  GuardedRows<Cell> in;
  GuardedRows<float> floats;
  GuardedRows<double> states;
  GuardedRows<Cell> out;
  GuardedRows<std::uint8_t> bytes;

  Case(std::int64_t count, std::int64_t lead, std::mt19937& random)
      : in(2 * count + 2 * kReach, 8, 1 + lead, lead),
        floats(2 * count, 1, 3, lead),
        states(count, 2, 5, lead),
        out(2 * count, 2, 3, lead),
        bytes(count, 1, 3, lead) {
    in.Fill([&] { return Hard<Cell>(random); });
    for (std::int64_t i = 0; i < count; ++i) states.At(i, 0) = Hard<double>(random);
  }
  const Cell* In(std::int64_t row) { return &in.At(kReach, row); }
  bool operator==(const Case&) const = default;
};

/// Runs a kernel of every set on the same hard values, for all counts at several alignments, and
/// compares all that is around the outputs too. The in-bounds check is the sanitizers'.
template <class Cell>
void CompareSets(
    const std::function<void(const kel::WaveletKernels&, Case<Cell>&, std::size_t count)>& run) {
  kel::KernelTable scalar;
  ASSERT_TRUE(kel::FillKernelTable(kel::KernelSets().front(), scalar));
  test::WithEverySet([&](const kel::KernelTable& table) {
    for (std::int64_t count = 1; count <= kMostCount; ++count) {
      for (std::int64_t lead = 0; lead < 3; ++lead) {
        std::mt19937 random(static_cast<unsigned>(count * 3 + lead));
        Case<Cell> expected(count, lead, random);
        Case<Cell> found = expected;
        const GuardedRows<Cell> input = expected.in;
        run(scalar.wavelet, expected, static_cast<std::size_t>(count));
        run(table.wavelet, found, static_cast<std::size_t>(count));
        ASSERT_TRUE(found == expected) << " count " << count;
        ASSERT_TRUE(found.in == input && found.out.MarginIntact());
      }
    }
  });
}

template <class Cell>
void CompareSynthesis(kel::SynthesisKernels<Cell> kel::WaveletKernels::*kernels) {
  CompareSets<Cell>([=](const kel::WaveletKernels& table, Case<Cell>& c, std::size_t count) {
    (table.*kernels).row(c.In(0), c.In(1), c.out.Data(), count);
  });
  CompareSets<Cell>([=](const kel::WaveletKernels& table, Case<Cell>& c, std::size_t count) {
    const Cell* const low[] = {c.In(0), c.In(1), c.In(2)};
    const Cell* const high[] = {c.In(3), c.In(4), c.In(5), c.In(6)};
    (table.*kernels).rows(low, high, c.In(7), &c.out.At(0, 0), &c.out.At(0, 1), count);
  });
}

TEST(WaveletKernels, SynthesisHasTheSameBitsInEverySet) {
  CompareSynthesis(&kel::WaveletKernels::synthesis53);
  CompareSynthesis(&kel::WaveletKernels::synthesis53Short);
  CompareSynthesis(&kel::WaveletKernels::synthesis97);
  CompareSynthesis(&kel::WaveletKernels::synthesis97Single);
}

template <class Cell>
void CompareAnalysis(kel::AnalysisKernels<Cell> kel::WaveletKernels::*kernels) {
  CompareSets<Cell>([=](const kel::WaveletKernels& table, Case<Cell>& c, std::size_t count) {
    (table.*kernels).row(c.In(0), &c.out.At(0, 0), &c.out.At(0, 1), count);
  });
  CompareSets<Cell>([=](const kel::WaveletKernels& table, Case<Cell>& c, std::size_t count) {
    const Cell* const x[] = {c.In(0), c.In(1), c.In(2)};
    (table.*kernels).rows(x, c.In(3), &c.out.At(0, 0), &c.out.At(0, 1), count);
  });
}

TEST(WaveletKernels, AnalysisHasTheSameBitsInEverySet) {
  using Floats = Case<float>;
  CompareAnalysis(&kel::WaveletKernels::analysis53);
  CompareAnalysis(&kel::WaveletKernels::analysis53Short);
  CompareSets<float>([](const kel::WaveletKernels& table, Floats& c, std::size_t count) {
    const double factors[] = {1.0 / 3, 0.7};
    table.analyseRow97(c.In(0), &c.out.At(0, 0), &c.out.At(0, 1), count, factors);
  });
  CompareSets<float>([](const kel::WaveletKernels& table, Floats& c, std::size_t count) {
    const float* x[7];
    for (std::int64_t i = 0; i < 7; ++i) x[i] = c.In(i);
    float* const lowHigh[] = {&c.out.At(0, 0), &c.out.At(0, 1)};
    table.analyseRows97(x, &c.states.At(0, 0), &c.states.At(0, 1), lowHigh, count);
  });
}

// Ties in both directions and values beyond a byte are the faults that a narrowing hides.
TEST(WaveletKernels, ConversionsHaveTheSameBitsInEverySet) {
  CompareSets<std::int32_t>(
      [](const kel::WaveletKernels& table, Case<std::int32_t>& c, std::size_t count) {
        table.dequantise(c.In(0), c.floats.Data(), count, 0.3F);
      });
  CompareSets<float>([](const kel::WaveletKernels& table, Case<float>& c, std::size_t count) {
    table.floatTo8BitAway(c.In(0), c.bytes.Data(), count);
  });
  test::WithEverySet([](const kel::KernelTable& table) {
    const std::pair<float, int> cases[] = {
        {0.5F, 129},   {1.5F, 130},   {-0.5F, 128}, {-127.5F, 1}, {-128.4F, 0},      {126.5F, 255},
        {127.0F, 255}, {127.5F, 255}, {1e20F, 255}, {-1e20F, 0},  {std::nanf(""), 0}};
    std::vector<float> in(64);
    for (std::size_t i = 0; i < in.size(); ++i) in[i] = cases[i % std::size(cases)].first;
    std::vector<std::uint8_t> out(in.size());
    table.wavelet.floatTo8BitAway(in.data(), out.data(), in.size());
    for (std::size_t i = 0; i < in.size(); ++i) {
      EXPECT_EQ(out[i], cases[i % std::size(cases)].second) << in[i];
    }
  });
}

}  // namespace
