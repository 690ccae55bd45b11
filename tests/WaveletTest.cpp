// Drivers of the wavelet transform against the definition, and their outputs against each other.
#include "KelWavelet.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "GuardedRows.h"
#include "HostMemory.h"
#include "KelMemFuncDefs.h"
#include "WaveletTruth.h"
#include "kernels/KelKernels.h"

namespace {

using kel::Box;
using test::GuardedRows;
using test::HostMemory;

using Scratch = kel::ScratchArray<std::uint32_t>;

/// Distinct, not round, and one close to 1.
constexpr float kSteps[] = {0.75F, 1.37F, 0.21F, 2.5F, 1.00005F, 0.4F, 3.1F, 0.09F, 1.9F, 0.6F};

std::mt19937& Random() {
  static std::mt19937 generator(20);
  return generator;
}

int Sample() {
  return static_cast<int>(Random()() % 256) - 128;
}

/// Every size from 1 to 9 at every parity, and some that take several strips of columns.
void ForEachBox(const std::function<void(const Box&, int levels)>& run) {
  for (std::int64_t w = 1; w <= 9; ++w) {
    for (std::int64_t h = 1; h <= 9; ++h) {
      for (std::int64_t parity = 0; parity < 4; ++parity) {
        const std::int64_t x0 = 2 + (parity & 1), y0 = 4 + (parity >> 1);
        for (int levels = 0; levels <= 3; ++levels) run({x0, x0 + w, y0, y0 + h}, levels);
      }
    }
  }
  run({5, 5 + 3101, 2, 2 + 11}, 3);
  run({0, 1537, 1, 1 + 6}, 2);
  run({0, 6, 7, 7 + 301}, 3);
}

void CheckForward(const Box& box, int levels, bool irreversible) {
  SCOPED_TRACE(testing::Message() << box.x0 << " " << box.x1 << " " << box.y0 << " " << box.y1
                                  << " levels " << levels << " 9/7 " << irreversible);
  GuardedRows<std::int32_t> ints(box.Width(), box.Height()), intWork = ints;
  GuardedRows<float> floats(box.Width(), box.Height()), floatWork = floats;
  ints.Fill(Sample);
  for (std::int64_t y = 0; y < box.Height(); ++y) {
    for (std::int64_t x = 0; x < box.Width(); ++x) {
      floats.At(x, y) = static_cast<float>(ints.At(x, y));
    }
  }
  std::vector<double> truth = ints.Values();
  test::TrueForward(truth, box, levels, irreversible);
  const Scratch scratch = Scratch::Make(kel::ForwardDwtScratchCells(box));
  std::vector<kel::SubbandRecord> records(static_cast<std::size_t>(kel::NumSubbands(levels)));
  if (irreversible) {
    kel::ForwardDwt97({floats.Data(), floatWork.Data(), floats.Stride(), box, levels},
                      {kSteps, 9, true}, scratch.Data(), records.data());
  } else {
    kel::ForwardDwt53({ints.Data(), intWork.Data(), ints.Stride(), box, levels}, scratch.Data(),
                      records.data());
  }
  ASSERT_TRUE(ints.MarginIntact() && intWork.MarginIntact());
  ASSERT_TRUE(floats.MarginIntact() && floatWork.MarginIntact());
  for (int b = 0; b < kel::NumSubbands(levels); ++b) {
    const kel::SubbandRecord& band = records[static_cast<std::size_t>(b)];
    const kel::CellOffset at = kel::MallatOffset(box, levels, b);
    const double step = irreversible ? double{kSteps[b]} : 1.0;
    double energy = 0;
    for (std::int64_t y = 0; y < band.box.Height(); ++y) {
      for (std::int64_t x = 0; x < band.box.Width(); ++x) {
        const std::size_t cell =
            static_cast<std::size_t>(y) * band.strideCells + static_cast<std::size_t>(x);
        const double expected =
            truth[static_cast<std::size_t>((at.row + y) * box.Width() + at.column + x)] / step;
        energy += expected * expected;
        if (irreversible) {
          ASSERT_NEAR(static_cast<const float*>(band.data)[cell], expected, 1e-4 / step) << b;
        } else {
          ASSERT_EQ(static_cast<const std::int32_t*>(band.data)[cell], expected) << b;
        }
      }
    }
    if (irreversible) {
      ASSERT_NEAR(band.energy, energy, 1e-5 * energy + 1e-3);
    }
  }
}

TEST(Wavelet, ForwardFollowsTheDefinition) {
  HostMemory memory;
  ForEachBox([](const Box& box, int levels) {
    if (HasFatalFailure()) return;
    CheckForward(box, levels, false);
    CheckForward(box, levels, true);
  });
}

void CheckInverse(const Box& box, int levels) {
  SCOPED_TRACE(testing::Message() << box.x0 << " " << box.x1 << " " << box.y0 << " " << box.y1
                                  << " levels " << levels);
  GuardedRows<std::int32_t> cells(box.Width(), box.Height());
  cells.Fill(Sample);
  const kel::CoefficientPlane plane = {cells.Data(), cells.Stride(), box, levels};
  const Scratch scratch = Scratch::Make(kel::InverseDwtScratchCells(box, levels));

  std::vector<double> truth = cells.Values();
  test::TrueInverse(truth, box, levels, false);
  GuardedRows<std::int32_t> ints(box.Width(), box.Height(), 7);
  kel::InverseDwt53(plane, scratch.Data(), {ints.Data(), ints.Stride()});
  ASSERT_EQ(ints.Values(), truth);
  ASSERT_TRUE(ints.MarginIntact());

  truth = cells.Values();
  for (int b = 0; b < kel::NumSubbands(levels); ++b) {
    const kel::CellOffset at = kel::MallatOffset(box, levels, b);
    const Box band = kel::SubbandBox(box, levels, b);
    for (std::int64_t y = 0; y < band.Height(); ++y) {
      for (std::int64_t x = 0; x < band.Width(); ++x) {
        truth[static_cast<std::size_t>((at.row + y) * box.Width() + at.column + x)] *=
            double{kSteps[b]};
      }
    }
  }
  test::TrueInverse(truth, box, levels, true);
  GuardedRows<float> floats(box.Width(), box.Height(), 7);
  kel::InverseDwt97(plane, kSteps, scratch.Data(), {floats.Data(), floats.Stride()});
  const std::vector<double> found = floats.Values();
  for (std::size_t i = 0; i < truth.size(); ++i) ASSERT_NEAR(found[i], truth[i], 1e-3);
  ASSERT_TRUE(floats.MarginIntact());
}

TEST(Wavelet, InverseFollowsTheDefinition) {
  HostMemory memory;
  ForEachBox([](const Box& box, int levels) {
    if (HasFatalFailure()) return;
    CheckInverse(box, levels);
  });
}

/// Collects the bands of a forward transform into one plane of coefficients.
template <class Cell>
void Collect(const Box& box, int levels, const std::vector<kel::SubbandRecord>& records,
             GuardedRows<std::int32_t>& out) {
  for (int b = 0; b < kel::NumSubbands(levels); ++b) {
    const kel::SubbandRecord& band = records[static_cast<std::size_t>(b)];
    const kel::CellOffset at = kel::MallatOffset(box, levels, b);
    for (std::int64_t y = 0; y < band.box.Height(); ++y) {
      for (std::int64_t x = 0; x < band.box.Width(); ++x) {
        const Cell v =
            static_cast<const Cell*>(band.data)[static_cast<std::size_t>(y) * band.strideCells +
                                                static_cast<std::size_t>(x)];
        out.At(at.column + x, at.row + y) = static_cast<std::int32_t>(std::nearbyint(v));
      }
    }
  }
}

// 5/3 must give back any integers, those included whose sums wrap around; 9/7 must multiply by the
// very steps that it divided by.
TEST(Wavelet, RoundTrips) {
  HostMemory memory;
  ForEachBox([](const Box& box, int levels) {
    if (HasFatalFailure()) return;
    GuardedRows<std::int32_t> ints(box.Width(), box.Height()), work = ints, back = ints,
                                                               coefficients = ints;
    // A sample that nothing doubles may have all 32 bits.
    const bool halved = box.Width() == 1 || box.Height() == 1 || levels > 1;
    ints.Fill([&] { return static_cast<std::int32_t>(Random()()) / (halved ? 256 : 1); });
    const GuardedRows<std::int32_t> original = ints;
    const Scratch scratch =
        Scratch::Make(kel::ForwardDwtScratchCells(box) + kel::InverseDwtScratchCells(box, levels));
    std::vector<kel::SubbandRecord> records(static_cast<std::size_t>(kel::NumSubbands(levels)));
    kel::ForwardDwt53({ints.Data(), work.Data(), ints.Stride(), box, levels}, scratch.Data(),
                      records.data());
    Collect<std::int32_t>(box, levels, records, coefficients);
    kel::InverseDwt53({coefficients.Data(), coefficients.Stride(), box, levels}, scratch.Data(),
                      {back.Data(), back.Stride()});
    ASSERT_TRUE(back == original);

    GuardedRows<float> floats(box.Width(), box.Height()), floatWork = floats, floatBack = floats;
    floats.Fill(Sample);
    const std::vector<double> samples = floats.Values();
    const std::vector<float> steps(records.size(), 1.0F / 1000);
    kel::ForwardDwt97({floats.Data(), floatWork.Data(), floats.Stride(), box, levels},
                      {steps.data(), 8, false}, scratch.Data(), records.data());
    Collect<float>(box, levels, records, coefficients);
    kel::InverseDwt97({coefficients.Data(), coefficients.Stride(), box, levels}, steps.data(),
                      scratch.Data(), {floatBack.Data(), floatBack.Stride()});
    const std::vector<double> found = floatBack.Values();
    for (std::size_t i = 0; i < found.size(); ++i) ASSERT_NEAR(found[i], samples[i], 0.01);
  });
}

// A lower resolution is a plane of its own: same boxes, same values, same first steps.
TEST(Wavelet, ReducedResolutionIsAPlaneOfItsOwn) {
  for (const Box& box : {Box{3, 40, 6, 29}, Box{1, 2, 0, 9}, Box{7, 8, 7, 8}}) {
    for (int r = 0; r <= 4; ++r) {
      for (int b = 0; b < kel::NumSubbands(r); ++b) {
        EXPECT_EQ(kel::SubbandBox(box, 4, b), kel::SubbandBox(kel::ReduceBox(box, 4 - r), r, b));
      }
    }
  }
  EXPECT_EQ(kel::SubbandBox({3, 40, 6, 29}, 2, 1), (Box{1, 10, 2, 8}))
      << "HL of the coarsest level";
  EXPECT_EQ(kel::SubbandBox({3, 40, 6, 29}, 2, 5), (Box{2, 20, 3, 14})) << "LH of the finest level";
}

// 8-bit outputs must hold what the planes of cells hold, converted: a sink that gets a wrong row,
// strip or plane shows.
TEST(Wavelet, ByteOutputsEqualConvertedPlanes) {
  HostMemory memory;
  const kel::SamplesKernels& convert = kel::Kernels().samples;
  for (const Box& box : {Box{1, 1700, 3, 9}, Box{0, 37, 0, 6}, Box{5, 6, 2, 40}, Box{2, 9, 3, 4}}) {
    const std::int64_t w = box.Width(), h = box.Height();
    const auto bytesOf = [&](auto run) {
      GuardedRows<std::uint8_t> bytes(w, h);
      run(kel::Rows<std::uint8_t>{bytes.Data(), bytes.Stride()});
      EXPECT_TRUE(bytes.MarginIntact());
      return bytes;
    };
    std::vector<GuardedRows<std::int32_t>> cells(3, {w, h}), ints = cells;
    std::vector<GuardedRows<float>> floats(3, {w, h});
    std::vector<GuardedRows<std::uint8_t>> bytes(3, {w, h}), expected = bytes;
    const Scratch scratch = Scratch::Make(kel::InverseDwtScratchCells(box, 3, 3));
    kel::CoefficientPlane planes[3];
    for (std::size_t p = 0; p < 3; ++p) {
      cells[p].Fill([] { return Sample() / 2; });
      // One plane has no levels at all.
      planes[p] = {cells[p].Data(), cells[p].Stride(), box, p == 2 ? 0 : 3 - static_cast<int>(p)};
      kel::InverseDwt53(planes[p], scratch.Data(), {ints[p].Data(), ints[p].Stride()});
      kel::InverseDwt97(planes[p], kSteps, scratch.Data(), {floats[p].Data(), floats[p].Stride()});
      const auto narrowed = [&](auto& from, auto kernel) {
        return bytesOf([&](kel::Rows<std::uint8_t> out) {
          for (std::int64_t y = 0; y < h; ++y) {
            kernel(&from.At(0, y), out.data + y * static_cast<std::int64_t>(out.strideCells),
                   static_cast<std::size_t>(w));
          }
        });
      };
      EXPECT_TRUE(bytesOf([&](auto out) {
                    kel::InverseDwt53To8Bit(planes[p], scratch.Data(), out);
                  }) == narrowed(ints[p], convert.intTo8Bit));
      EXPECT_TRUE(bytesOf([&](auto out) {
                    kel::InverseDwt97GeneralTo8Bit(planes[p], kSteps, scratch.Data(), out);
                  }) == narrowed(floats[p], convert.floatTo8Bit));
    }
    const kel::Rows<std::uint8_t> out[3] = {{bytes[0].Data(), bytes[0].Stride()},
                                            {bytes[1].Data(), bytes[1].Stride()},
                                            {bytes[2].Data(), bytes[2].Stride()}};
    const auto convertAll = [&](auto& from, auto kernel) {
      for (std::int64_t y = 0; y < h; ++y) {
        kernel(&from[0].At(0, y), &from[1].At(0, y), &from[2].At(0, y), &expected[0].At(0, y),
               &expected[1].At(0, y), &expected[2].At(0, y), static_cast<std::size_t>(w));
      }
    };
    kel::InverseDwt53RctTo8Bit(planes, scratch.Data(), out);
    convertAll(ints, convert.inverseRctTo8Bit);
    for (std::size_t p = 0; p < 3; ++p) EXPECT_TRUE(bytes[p] == expected[p]) << "RCT " << p;
    kel::InverseDwt97IctTo8Bit(planes, {kSteps, kSteps, kSteps}, scratch.Data(), out);
    convertAll(floats, convert.inverseIctTo8Bit);
    for (std::size_t p = 0; p < 3; ++p) EXPECT_TRUE(bytes[p] == expected[p]) << "ICT " << p;
  }
}

// The direct path: its offset, its two rounding rules, which follow from width and stride alone,
// and otherwise the values of the general path within a grey level.
TEST(Wavelet, DirectPathTo8Bit) {
  HostMemory memory;
  const auto flat = [](std::int64_t width, std::int64_t padding, int levels, int index) {
    GuardedRows<std::int32_t> cells(width, 1);
    cells.Fill([] { return 0; });
    const Box box = {0, width, 0, 1};
    for (std::int64_t x = 0; x < kel::ReduceBox(box, levels).Width(); ++x) cells.At(x, 0) = index;
    GuardedRows<std::uint8_t> out(width, 1, padding);
    const float steps[] = {1, 1, 1, 1};
    const Scratch scratch = Scratch::Make(kel::InverseDwtScratchCells(box, levels));
    kel::InverseDwt97To8Bit({cells.Data(), cells.Stride(), box, levels}, steps, 0.5F,
                            scratch.Data(), {out.Data(), out.Stride()});
    EXPECT_TRUE(out.MarginIntact());
    return int{out.At(0, 0)};
  };
  EXPECT_EQ(flat(4, 12, 1, 2), 130) << "130.5 to even";
  EXPECT_EQ(flat(4, 4, 1, 2), 131) << "130.5 away from zero: the stride is no multiple of 16";
  EXPECT_EQ(flat(6, 10, 1, 2), 131) << "the width is no multiple of 4";
  EXPECT_EQ(flat(6, 10, 0, 1), 129) << "no offset without levels";
  EXPECT_EQ(flat(6, 10, 1, 4000), 255);
  EXPECT_EQ(flat(6, 10, 1, -4000), 0);

  const Box box = {3, 3 + 1601, 5, 5 + 20};
  GuardedRows<std::int32_t> cells(box.Width(), box.Height());
  cells.Fill([] { return Sample() / 4; });
  GuardedRows<std::uint8_t> direct(box.Width(), box.Height()), general = direct;
  const Scratch scratch = Scratch::Make(kel::InverseDwtScratchCells(box, 3));
  const kel::CoefficientPlane plane = {cells.Data(), cells.Stride(), box, 3};
  kel::InverseDwt97To8Bit(plane, kSteps, 0.0F, scratch.Data(), {direct.Data(), direct.Stride()});
  kel::InverseDwt97GeneralTo8Bit(plane, kSteps, scratch.Data(), {general.Data(), general.Stride()});
  for (std::int64_t y = 0; y < box.Height(); ++y) {
    for (std::int64_t x = 0; x < box.Width(); ++x) {
      ASSERT_NEAR(direct.At(x, y), general.At(x, y), 1);
    }
  }
}

// An LL step close to 1 is not applied, one a little further off is; records without steps.
TEST(Wavelet, NeutralSteps) {
  HostMemory memory;
  const Box box = {0, 1, 0, 1};
  const Scratch scratch = Scratch::Make(kel::InverseDwtScratchCells(box, 0));
  const std::int32_t index = 100000;
  float out = 0;
  for (const auto& [step, expected] :
       {std::pair{1.00009F, 100000.0F}, {0.99991F, 100000.0F}, {1.00011F, 100000.0F * 1.00011F}}) {
    kel::InverseDwt97({&index, 1, box, 0}, &step, scratch.Data(), {&out, 1});
    EXPECT_EQ(out, expected);
  }
  float source = 3, work = 0;
  kel::SubbandRecord record;
  kel::ForwardDwt97({&source, &work, 1, box, 0}, {nullptr, 7, true}, scratch.Data(), &record);
  EXPECT_EQ(source, 3);
  EXPECT_EQ(record.data, &source);
  EXPECT_EQ(record.step, 1);
  EXPECT_EQ(record.energy, 9);
  EXPECT_EQ(record.Rb, 7);
}

}  // namespace
