// Drivers of the wavelet transform against the definition, and their outputs against each other.
#include "transform/KelWavelet.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <random>
#include <string>

#include "GuardedRows.h"
#include "HostMemory.h"
#include "WaveletTruth.h"
#include "base/KelMemFuncDefs.h"
#include "kernels/KelKernels.h"
#include "transform/KelWaveletForward.h"

namespace {

using kel::Box;
using namespace test;
using Wavelet = test::LibraryTest;

using Scratch = kel::ScratchArray<std::uint32_t>;

/// Not round, one close to 1, and neighbours distinct.
const float* const kSteps = [] {
  static float steps[3 * 32 + 1];
  constexpr float kSome[] = {0.75F, 1.37F, 0.21F, 2.5F, 1.00005F, 0.4F, 3.1F, 0.09F, 1.9F, 0.6F};
  for (std::size_t b = 0; b < std::size(steps); ++b) steps[b] = kSome[b % std::size(kSome)];
  return steps;
}();

std::mt19937& Random() {
  static std::mt19937 generator(20);
  return generator;
}

constexpr std::size_t AsUnsigned(std::int64_t v) {
  return static_cast<std::size_t>(v);
}

int Sample() {
  return static_cast<int>(Random()() % 256) - 128;
}

/// Every size from 1 to 9 at every parity, and some whose rows kernels take in several chunks.
void ForEachBox(const std::function<void(const Box&, int levels)>& run) {
  for (std::int64_t w = 1; w <= 9; ++w) {
    for (std::int64_t h = 1; h <= 9; ++h) {
      for (std::int64_t parity = 0; parity < 4; ++parity) {
        const std::int64_t x0 = 2 + (parity & 1), y0 = 4 + (parity >> 1);
        for (int levels = 0; levels <= 3; ++levels) run({x0, x0 + w, y0, y0 + h}, levels);
      }
    }
  }
  run({5, 5 + 3 * 4096 - 7, 2, 7}, 3);
  run({0, 2 * 256 + 1, 1, 4}, 2);
  run({0, 6, 7, 7 + 301}, 3);
  run({3, 3, 1, 6}, 2);
  run({6, 15, 8, 13}, 32);
}

/// Every coefficient: its subband, its column and row there, and its cell in the Mallat layout.
template <class Visit>
void ForEachCoefficient(const Box& box, int levels, Visit visit) {
  for (int b = 0; b < kel::NumSubbands(levels); ++b) {
    const kel::CellOffset at = kel::MallatOffset(box, levels, b);
    const Box band = kel::SubbandBox(box, levels, b);
    for (std::int64_t y = 0; y < band.Height(); ++y) {
      for (std::int64_t x = 0; x < band.Width(); ++x) {
        visit(static_cast<std::size_t>(b), static_cast<std::size_t>(x), static_cast<std::size_t>(y),
              static_cast<std::size_t>((at.row + y) * box.Width() + at.column + x));
      }
    }
  }
}

std::string Describe(const Box& box, int levels) {
  return testing::PrintToString(std::array{box.x0, box.x1, box.y0, box.y1}) + " levels " +
         std::to_string(levels);
}

/// The coefficients of a box in Mallat layout, made of samples of a kind of cells.
template <class Cell>
std::vector<double> Forward(const Box& box, int levels, kel::CellKind kind, const float* steps,
                            const std::vector<double>& samples) {
  struct Taken {
    const Box& box;
    int levels;
    std::vector<double> cells;
    std::vector<std::int64_t> numRows;
  };
  Taken taken{box, levels, std::vector<double>(samples.size()), {}};
  taken.numRows.resize(static_cast<std::size_t>(kel::NumSubbands(levels)));
  const auto take = [](void* context, int subband, std::int64_t row, void* cells) {
    auto& to = *static_cast<Taken*>(context);
    EXPECT_EQ(to.numRows[static_cast<std::size_t>(subband)]++, row) << "band " << subband;
    const kel::CellOffset at = kel::MallatOffset(to.box, to.levels, subband);
    const Box band = kel::SubbandBox(to.box, to.levels, subband);
    std::copy_n(static_cast<const Cell*>(cells), band.Width(),
                to.cells.begin() + (at.row + row) * to.box.Width() + at.column);
  };
  // Nothing behind it: sanitizers see what is used beyond.
  const std::uint64_t bytes = kel::ForwardRowsBytes(box, levels, kind);
  const auto memory = kel::ScratchArray<std::uint8_t>::Make(bytes);
  std::memset(memory.Data(), 0xA7, static_cast<std::size_t>(bytes));
  kel::ForwardRows rows;
  kel::BeginForward({box, levels, kind, steps, {&taken, take}}, memory.Data(), rows);
  for (std::int64_t y = 0; y < box.Height() && !box.IsEmpty(); ++y) {
    std::copy_n(samples.begin() + y * box.Width(), box.Width(),
                static_cast<Cell*>(kel::NextSampleRow(rows)));
    kel::TakeSampleRow(rows);
  }
  for (int b = 0; b < kel::NumSubbands(levels); ++b) {
    const Box band = kel::SubbandBox(box, levels, b);
    EXPECT_EQ(taken.numRows[static_cast<std::size_t>(b)], band.IsEmpty() ? 0 : band.Height());
  }
  return taken.cells;
}

void CheckForward(const Box& box, int levels) {
  SCOPED_TRACE(Describe(box, levels));
  std::vector<double> samples(static_cast<std::size_t>(box.Width() * box.Height()));
  for (double& sample : samples) sample = Sample();
  const std::vector<double> ints =
      Forward<std::int32_t>(box, levels, kel::CellKind::kInts, nullptr, samples);
  const std::vector<double> shorts =
      Forward<std::int16_t>(box, levels, kel::CellKind::kShorts, nullptr, samples);
  const std::vector<double> floats =
      Forward<float>(box, levels, kel::CellKind::kFloats, kSteps, samples);
  std::vector<double> truth = samples, truth97 = samples;
  test::TransformTruly(truth, box, levels, {false, false});
  test::TransformTruly(truth97, box, levels, {false, true});
  ASSERT_EQ(ints, truth);
  ASSERT_EQ(shorts, truth);
  ForEachCoefficient(box, levels, [&](auto b, auto, auto, auto cell) {
    const double step = double{kSteps[b]};
    ASSERT_NEAR(floats[cell], truth97[cell] / step, 1e-4 / step) << b;
  });
}

// Rows lost or doubled, and bands mixed up, too.
TEST_F(Wavelet, ForwardFollowsTheDefinition) {
  ForEachBox([](const Box& box, int levels) {
    if (!HasFatalFailure()) CheckForward(box, levels);
  });
}

// Sums that pass 16 bits: the samples that make each coefficient of the coarsest bands as large as
// it can be, found from their signs in its basis, at the most bits that are said to fit.
TEST_F(Wavelet, WidestSamplesFitShorts) {
  constexpr int kBits = 11, kLevels = 3;
  ASSERT_TRUE(kel::SamplesFitShorts(kBits, 12));
  const Box box = {0, 45, 0, 45};
  const std::size_t count = 45 * 45;
  for (int b = 0; b < 7; ++b) {
    // The response of the middle coefficient to each sample, by the separable transform of rows.
    const kel::CellOffset at = kel::MallatOffset(box, kLevels, b);
    const Box band = kel::SubbandBox(box, kLevels, b);
    const std::int64_t cell = (at.row + band.Height() / 2) * 45 + at.column + band.Width() / 2;
    std::vector<double> samples(count);
    for (std::size_t i = 0; i < count; ++i) {
      std::vector<double> impulse(count);
      impulse[i] = 1 << 20;
      const std::vector<double> response =
          Forward<std::int32_t>(box, kLevels, kel::CellKind::kInts, nullptr, impulse);
      samples[i] = response[static_cast<std::size_t>(cell)] < 0 ? -1024 : 1023;
    }
    for (const bool mirrored : {false, true}) {
      for (double& sample : samples) sample = mirrored ? -1 - sample : sample;
      EXPECT_EQ(Forward<std::int16_t>(box, kLevels, kel::CellKind::kShorts, nullptr, samples),
                Forward<std::int32_t>(box, kLevels, kel::CellKind::kInts, nullptr, samples));
    }
  }
}

void CheckInverse(const Box& box, int levels) {
  SCOPED_TRACE(Describe(box, levels));
  GuardedRows<std::int32_t> cells(box.Width(), box.Height());
  cells.Fill(Sample);
  const kel::CoefficientPlane plane = {cells.Data(), cells.Stride(), box, levels};
  const Scratch scratch = Scratch::Make(kel::InverseDwtScratchCells(box, levels));

  std::vector<double> truth = cells.Values();
  test::TransformTruly(truth, box, levels, {true, false});
  GuardedRows<std::int32_t> ints(box.Width(), box.Height(), 7);
  kel::InverseDwt53(BandsOfInts(plane), scratch.Data(), {ints.Data(), ints.Stride()});
  ASSERT_EQ(ints.Values(), truth);
  ASSERT_TRUE(ints.MarginIntact());

  truth = cells.Values();
  ForEachCoefficient(box, levels,
                     [&](auto b, auto, auto, auto cell) { truth[cell] *= double{kSteps[b]}; });
  test::TransformTruly(truth, box, levels, {true, true});
  GuardedRows<float> floats(box.Width(), box.Height(), 7);
  kel::InverseDwt97(BandsOfIndices(plane, kel::StepsOfIndices(kSteps)), scratch.Data(),
                    {floats.Data(), floats.Stride()});
  const std::vector<double> found = floats.Values();
  for (std::size_t i = 0; i < truth.size(); ++i) ASSERT_NEAR(found[i], truth[i], 1e-3);
  ASSERT_TRUE(floats.MarginIntact());
}

TEST_F(Wavelet, InverseFollowsTheDefinition) {
  ForEachBox([](const Box& box, int levels) {
    if (!HasFatalFailure()) CheckInverse(box, levels);
  });
}

// A lower resolution is a plane of its own: its subbands have the same boxes.
TEST_F(Wavelet, ReducedResolutionIsAPlaneOfItsOwn) {
  for (const Box& box : {Box{3, 40, 6, 29}, Box{1, 2, 0, 9}, Box{7, 8, 7, 8}}) {
    for (int r = 0; r <= 4; ++r) {
      for (int b = 0; b < kel::NumSubbands(r); ++b) {
        EXPECT_EQ(kel::SubbandBox(box, 4, b), kel::SubbandBox(kel::ReduceBox(box, 4 - r), r, b));
      }
    }
  }
  EXPECT_EQ(kel::SubbandBox({3, 40, 6, 29}, 2, 1), (Box{1, 10, 2, 8})) << "HL of level 2";
  EXPECT_EQ(kel::SubbandBox({3, 40, 6, 29}, 2, 5), (Box{2, 20, 3, 14})) << "LH of level 1";
}

// 8-bit outputs must hold what the planes of cells hold, converted: a sink that gets a wrong row,
// strip or plane shows. The direct path may differ from the general one by a grey level.
TEST_F(Wavelet, ByteOutputsEqualConvertedPlanes) {
  const kel::SamplesKernels& convert = kel::Kernels().samples;
  for (const Box& box : {Box{1, 8192, 3, 6}, Box{0, 37, 0, 6}, Box{5, 6, 2, 40}, Box{2, 9, 3, 4}}) {
    const std::size_t w = static_cast<std::size_t>(box.Width());
    std::vector<GuardedRows<std::int32_t>> cells(3, {box.Width(), box.Height()}), ints = cells;
    std::vector<GuardedRows<float>> floats(3, {box.Width(), box.Height()});
    std::vector<GuardedRows<std::uint8_t>> bytes(3, {box.Width(), box.Height()}), expected = bytes;
    const Scratch scratch = Scratch::Make(kel::InverseDwtScratchCells(box, 3, 3));
    void* const at = scratch.Data();
    kel::ComponentBands bands53[3], bands97[3];
    kel::Rows<std::uint8_t> out[3];
    for (std::size_t p = 0; p < 3; ++p) {
      cells[p].Fill([] { return Sample() / 2; });
      // One plane has no levels at all.
      const int levels = p == 2 ? 0 : 3 - static_cast<int>(p);
      const kel::CoefficientPlane plane = {cells[p].Data(), cells[p].Stride(), box, levels};
      bands53[p] = BandsOfInts(plane);
      bands97[p] = BandsOfIndices(plane, kel::StepsOfIndices(kSteps));
      out[p] = {bytes[p].Data(), bytes[p].Stride()};
      kel::InverseDwt53(bands53[p], at, {ints[p].Data(), ints[p].Stride()});
      kel::InverseDwt97(bands97[p], at, {floats[p].Data(), floats[p].Stride()});
    }
    const auto expectSame = [&](const char* what, auto convertRow) {
      for (std::int64_t y = 0; y < box.Height(); ++y) {
        convertRow([&](auto& rows, std::size_t p) { return &rows[p].At(0, y); });
      }
      for (std::size_t p = 0; p < 3; ++p) EXPECT_TRUE(bytes[p] == expected[p]) << what << p;
    };
    for (std::size_t p = 0; p < 3; ++p) kel::InverseDwt53To8Bit(bands53[p], at, out[p]);
    expectSame("5/3 ", [&](auto row) {
      for (std::size_t p = 0; p < 3; ++p) convert.intTo8Bit(row(ints, p), row(expected, p), w);
    });
    for (std::size_t p = 0; p < 3; ++p) {
      kel::InverseDwt97GeneralTo8Bit(bands97[p], at, out[p]);
    }
    expectSame("9/7 ", [&](auto row) {
      for (std::size_t p = 0; p < 3; ++p) convert.floatTo8Bit(row(floats, p), row(expected, p), w);
    });
    kel::InverseDwt97To8Bit(bands97[0], at, out[0]);
    const std::vector<double> direct = bytes[0].Values(), general = expected[0].Values();
    for (std::size_t i = 0; i < direct.size(); ++i) ASSERT_NEAR(direct[i], general[i], 1);
    kel::InverseDwt53RctTo8Bit(bands53, at, out);
    expectSame("RCT ", [&](auto row) {
      convert.inverseRctTo8Bit(row(ints, 0), row(ints, 1), row(ints, 2), row(expected, 0),
                               row(expected, 1), row(expected, 2), w);
    });
    kel::InverseDwt97IctTo8Bit(bands97, at, out, kel::Sums97::kSingle);
    const std::vector<double> single = bytes[1].Values();
    kel::InverseDwt97IctTo8Bit(bands97, at, out);
    const std::vector<double> colors = bytes[1].Values();
    for (std::size_t i = 0; i < colors.size(); ++i) ASSERT_NEAR(single[i], colors[i], 1);
    expectSame("ICT ", [&](auto row) {
      convert.inverseIctTo8Bit(row(floats, 0), row(floats, 1), row(floats, 2), row(expected, 0),
                               row(expected, 1), row(expected, 2), w);
    });
  }
}

// Cells of 16 bits must give what those of 32 give up to the limit that is stated for them: bands
// of the largest values that fit, with signs that add up, are grown until no band can be larger.
TEST_F(Wavelet, ShortCellsHoldWhatFitsThem) {
  const Box box = {3, 70, 2, 45};
  for (int round = 0; round < 60; ++round) {
    const int levels = round % 6;
    std::uint8_t bits[kel::NumSubbands(6)] = {};
    for (int tries = 0; tries < 60; ++tries) {
      std::uint8_t& some = bits[Random()() % AsUnsigned(kel::NumSubbands(levels))];
      if (!kel::FitsShorts(levels, bits, INT16_MAX)) break;
      ++some;
      if (!kel::FitsShorts(levels, bits, INT16_MAX)) --some;
    }
    GuardedRows<std::int32_t> ints(box.Width(), box.Height());
    ForEachCoefficient(box, levels, [&](auto b, auto x, auto y, auto cell) {
      const int most = (1 << bits[b]) - 1;
      const bool negative = round % 2 == 0 ? ((x ^ y) & 1) != 0 : Random()() % 2 != 0;
      ints.Data()[cell / AsUnsigned(box.Width()) * ints.Stride() + cell % AsUnsigned(box.Width())] =
          negative ? -most : most;
    });
    const kel::CoefficientPlane plane = {ints.Data(), ints.Stride(), box, levels};
    const kel::ComponentBands bands = BandsOfInts(plane);
    // The same cells, narrowed, as bands of their own.
    std::vector<std::int16_t> shorts(ints.Stride() * AsUnsigned(box.Height()));
    std::copy_n(ints.Data(), shorts.size() - (ints.Stride() - AsUnsigned(box.Width())),
                shorts.begin());
    kel::ComponentBands narrow = bands;
    narrow.cells = kel::CellKind::kShorts;
    for (kel::BandRows& rows : narrow.bands) {
      if (rows.next == nullptr) continue;
      rows.next = shorts.data() + (static_cast<std::int32_t*>(rows.next) - ints.Data());
    }
    const Scratch scratch = Scratch::Make(kel::InverseDwtScratchCells(box, levels));
    GuardedRows<std::uint8_t> expected(box.Width(), box.Height()), found = expected;
    kel::InverseDwt53To8Bit(bands, scratch.Data(), {expected.Data(), expected.Stride()});
    kel::InverseDwt53To8Bit(narrow, scratch.Data(), {found.Data(), found.Stride()});
    ASSERT_TRUE(found == expected) << levels << " levels";
  }
}

// The direct path: its two rounding rules, which follow from width and stride; a low band that is
// shifted.
TEST_F(Wavelet, DirectPathTo8Bit) {
  const auto flat = [](std::int64_t width, std::int64_t padding, int levels, int index) {
    GuardedRows<std::int32_t> cells(width, 1);
    cells.Fill([] { return 0; });
    const Box box = {0, width, 0, 1};
    for (std::int64_t x = 0; x < kel::ReduceBox(box, levels).Width(); ++x) cells.At(x, 0) = index;
    GuardedRows<std::uint8_t> out(width, 1, padding);
    const float steps[] = {0.5F, 1, 1, 1};
    const Scratch scratch = Scratch::Make(kel::InverseDwtScratchCells(box, levels));
    const kel::CoefficientPlane plane = {cells.Data(), cells.Stride(), box, levels};
    kel::InverseDwt97To8Bit(BandsOfIndices(plane, kel::StepsOfIndices(steps)), scratch.Data(),
                            {out.Data(), out.Stride()});
    EXPECT_TRUE(out.MarginIntact());
    return int{out.At(0, 0)};
  };
  EXPECT_EQ(flat(4, 12, 1, 5), 130) << "130.5 to even";
  EXPECT_EQ(flat(4, 4, 1, 5), 131) << "130.5 away from zero: the stride is no multiple of 16";
  EXPECT_EQ(flat(6, 10, 1, 5), 131) << "the width is no multiple of 4";
  EXPECT_EQ(flat(6, 10, 0, 2), 129);
  EXPECT_EQ(flat(6, 10, 1, 4000), 255);
  EXPECT_EQ(flat(6, 10, 1, -4000), 0);
}

// An LL step close to 1 is not applied, one a little further off is.
TEST_F(Wavelet, NeutralSteps) {
  const Box box = {0, 1, 0, 1};
  const Scratch scratch = Scratch::Make(kel::InverseDwtScratchCells(box, 0));
  const std::int32_t index = 100000;
  float out = 0;
  for (const auto& [step, expected] :
       {std::pair{1.00009F, 100000.0F}, {0.99991F, 100000.0F}, {1.00011F, 100000.0F * 1.00011F}}) {
    kel::InverseDwt97(kel::BandsOfIndices({&index, 1, box, 0}, kel::StepsOfIndices(&step)),
                      scratch.Data(), {&out, 1});
    EXPECT_EQ(out, expected);
  }
}

}  // namespace
