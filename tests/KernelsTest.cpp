// Every set of kernels against the scalar one, bit for bit.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "KernelRuns.h"
#include "KernelSets.h"

namespace {

using test::Bytes;

/// Cells that hide faults, as bytes, so many that no two rows of a case are alike: noise; integers
/// of a picture's size, limits and values beside them; floats between which ties of both parities
/// and values beyond 8, 23 and 32 bits stand, infinities and NaN; floats whose sums round
/// differently in another order.
Bytes HardCells(int kind, std::mt19937& random) {
  const float infinity = std::numeric_limits<float>::infinity();
  const float floats[] = {-128.5F,       -127.5F,       127.5F,         0.5F,       -0.5F,
                          1.5F,          8388607.5F,    -8388607.5F,    4194303.5F, 8388609.0F,
                          2147483520.0F, 2147483648.0F, -2147483648.0F, 3e9F,       -3e38F,
                          1e-40F,        -0.0F,         infinity,       -infinity,  std::nanf(""),
                          1e30F,         16777217.0F,   0.1F,           -3e-39F};
  const std::int32_t ints[] = {INT32_MIN, INT32_MAX, 0,    -1,  1,   2,     INT32_MAX / 2, 127,
                               128,       -128,      -129, 255, 256, 32767, -32768,        65535};
  Bytes bytes(4 * 487);
  for (std::size_t i = 0; i < bytes.size(); i += 4) {
    const auto noise = static_cast<std::int32_t>(random());
    const auto asFloat = static_cast<float>(noise);
    const bool isSpecial = random() % 3 == 0;
    const std::int32_t integer = isSpecial ? ints[random() % 16] : noise >> 22;
    const float ties = isSpecial ? floats[random() % 24] : std::round(asFloat / 0x1p21F) / 4.0F;
    const float sums = std::ldexp(asFloat / 0x1p31F, static_cast<int>(random() % 24) - 12);
    const float number = kind == 2 ? ties : sums;
    if (kind == 0) std::memcpy(&bytes[i], &noise, 4);
    if (kind == 1) std::memcpy(&bytes[i], &integer, 4);
    if (kind >= 2) std::memcpy(&bytes[i], &number, 4);
  }
  return bytes;
}

// Steps that leave cells out or write beyond the last, at all counts around the vectors' lengths;
// sums in another order; narrowing that wraps around.
TEST(Kernels, EverySetGivesTheBitsOfTheReference) {
  std::mt19937 random(1);
  for (int kind = 0; kind < 4; ++kind) {
    for (std::size_t count = 1; count <= 67; ++count) {
      const Bytes cells = HardCells(kind, random);
      for (std::uint32_t which = 0; which < 6; ++which) {
        kel::KernelTable scalar;
        ASSERT_TRUE(FillKernelTable(kel::KernelSets().front(), scalar));
        const test::Result expected = test::RunKernels(scalar, which, count, cells);
        test::WithEverySet([&](const kel::KernelTable& table) {
          ASSERT_TRUE(test::RunKernels(table, which, count, cells) == expected)
              << "kernels " << which << ", cells of kind " << kind << ", " << count;
        });
      }
    }
  }
}

// Ties in both directions and values beyond a byte are the faults that a narrowing hides.
TEST(Kernels, HalvesGoAwayFromZero) {
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
