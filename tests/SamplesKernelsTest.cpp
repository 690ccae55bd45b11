// Kernels of sample values: every set against the scalar reference, bit for bit, on values that
// overflow, round, saturate or are no numbers, at every width up to 67 and at addresses of the
// least alignment, with guards around what may be written.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "KernelSets.h"

namespace {

using namespace kel;

constexpr std::size_t kGuard = 5;  // odd, so that vectors are not aligned
constexpr std::size_t kMostSamples = 67;

/// Integers at which sums, shifts and clamps go wrong, among ordinary ones.
void Fill(std::vector<std::int32_t>& cells, std::mt19937& random) {
  const std::int32_t special[] = {
      INT32_MIN, INT32_MIN + 1, INT32_MAX, INT32_MAX - 127, -129, -128, -1, 0, 127, 128, 255, 256};
  for (auto& cell : cells) {
    const auto r = static_cast<std::int32_t>(random());
    cell = random() % 3 != 0 ? (r >> 22) : random() % 2 != 0 ? r : special[random() % 12];
  }
}

/// Ties of both parities, values beyond 8, 23 and 32 bits, infinities and NaN.
void Fill(std::vector<float>& cells, std::mt19937& random) {
  const float infinity = std::numeric_limits<float>::infinity();
  const float special[] = {-128.5F,       -127.5F,       127.5F,         0.5F,       -0.5F,
                           1.5F,          8388607.5F,    -8388607.5F,    4194303.5F, 8388609.0F,
                           2147483520.0F, 2147483648.0F, -2147483648.0F, 3e9F,       -3e38F,
                           1e-40F,        -0.0F,         infinity,       -infinity,  std::nanf(""),
                           -std::nanf("")};
  for (auto& cell : cells) {
    const auto r = static_cast<float>(static_cast<std::int32_t>(random()));
    cell = random() % 3 != 0   ? std::round(r / 0x1p21F) / 4.0F
           : random() % 2 != 0 ? r / 1000.0F
                               : special[random() % 21];
  }
}

template <class Sample>
void Fill(std::vector<Sample>& samples, std::mt19937& random) {
  for (auto& sample : samples) {
    sample = static_cast<Sample>(random() % 4 != 0 ? random() : random() % 2 != 0 ? 0 : ~0U);
  }
}

/// A float's bits, those of every NaN alike.
std::uint64_t BitsOf(float v) {
  std::uint32_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  return v != v ? 0x7FC00000U : bits;
}
template <class Cell>
std::uint64_t BitsOf(Cell v) {
  return static_cast<std::uint64_t>(v);
}

/// Runs call(kernels, in, out, count) with a table and with the scalar one. Inputs are `perSample`
/// cells a sample; outputs begin with the inputs' values where the types agree, for kernels in
/// place.
template <class In, class Out, class Call>
void Compare(const KernelTable& table, const char* name, std::size_t perSample, Call call) {
  std::mt19937 random(1);
  KernelTable scalar;
  ASSERT_TRUE(FillKernelTable(kel::KernelSets().front(), scalar));
  for (std::size_t count = 0; count <= kMostSamples; ++count) {
    const std::size_t cells = count * perSample + 2 * kGuard;
    std::vector<In> in[3];
    std::vector<Out> out[2][3];
    const In* ins[3];
    for (int k = 0; k < 3; ++k) {
      in[k].resize(cells - kGuard);  // nothing behind it: sanitizers see reads too far
      Fill(in[k], random);
      ins[k] = in[k].data() + kGuard;
      out[0][k].resize(cells);
      Fill(out[0][k], random);
      out[1][k] = out[0][k];
    }
    for (const int which : {0, 1}) {
      Out* outs[3];
      for (int k = 0; k < 3; ++k) outs[k] = out[which][k].data() + kGuard;
      call(which == 0 ? scalar.samples : table.samples, ins, outs, count);
    }
    for (int k = 0; k < 3; ++k) {
      for (std::size_t i = 0; i < cells; ++i) {
        ASSERT_EQ(BitsOf(out[0][k][i]), BitsOf(out[1][k][i]))
            << name << ", output " << k << ", cell " << i << " - " << kGuard << " of " << count;
      }
    }
  }
}

// Compares one call of a kernel, written with in, out and n; inputs have `cells` cells a sample.
#define KEL_SAME(In, Out, cells, call)                                         \
  Compare<In, Out>(table, #call, cells,                                        \
                   [&](const SamplesKernels& k, auto& in, auto& out, auto n) { \
                     static_cast<void>(in);                                    \
                     k.call;                                                   \
                   })

void CompareAll(const KernelTable& table) {
  using U8 = std::uint8_t;
  using U16 = std::uint16_t;
  using I16 = std::int16_t;
  using I32 = std::int32_t;
  for (const std::size_t step : {3U, 4U, 5U}) {
    KEL_SAME(U8, U8, step, splitBytes(in[0], step, out[0], out[1], out[2], n));
    KEL_SAME(U16, U16, step, splitWords(in[0], step, out[0], out[1], out[2], n));
  }
  KEL_SAME(U8, I16, 1, bytesToShorts(in[0], out[0], n));
  KEL_SAME(U8, I32, 1, bytesToInts(in[0], out[0], n));
  KEL_SAME(U16, I32, 1, wordsToInts(in[0], out[0], n));
  KEL_SAME(U8, float, 1, bytesToFloats(in[0], out[0], n));
  KEL_SAME(U16, float, 1, wordsToFloats(in[0], out[0], n));
  KEL_SAME(U8, I16, 1, forwardRct8(in[0], in[1], in[2], out[0], out[1], out[2], n));
  KEL_SAME(U16, I32, 1, forwardRct16(in[0], in[1], in[2], out[0], out[1], out[2], n));
  KEL_SAME(I32, I32, 1, forwardRct32(in[0], in[1], in[2], out[0], out[1], out[2], n));
  KEL_SAME(U8, float, 1, forwardIct8(in[0], in[1], in[2], out[0], out[1], out[2], n));
  KEL_SAME(U16, float, 1, forwardIct16(in[0], in[1], in[2], out[0], out[1], out[2], n));
  KEL_SAME(I32, float, 1, forwardIct32(in[0], in[1], in[2], out[0], out[1], out[2], n));
  KEL_SAME(I32, I32, 1, inverseRct(out[0], out[1], out[2], n));
  KEL_SAME(float, float, 1, inverseIct(out[0], out[1], out[2], n));
  KEL_SAME(I32, U8, 1, inverseRctTo8Bit(in[0], in[1], in[2], out[0], out[1], out[2], n));
  KEL_SAME(float, U8, 1, inverseIctTo8Bit(in[0], in[1], in[2], out[0], out[1], out[2], n));
  KEL_SAME(float, U8, 1, inverseIctSingleTo8Bit(in[0], in[1], in[2], out[0], out[1], out[2], n));
  KEL_SAME(I16, U8, 1, inverseRctShortsTo8Bit(in[0], in[1], in[2], out[0], out[1], out[2], n));
  KEL_SAME(I32, U8, 1, intTo8Bit(in[0], out[0], n));
  KEL_SAME(I16, U8, 1, shortTo8Bit(in[0], out[0], n));
  KEL_SAME(float, U8, 1, floatTo8Bit(in[0], out[0], n));
  for (const auto& [low, high, add] :
       {std::array{-128, 127, 128}, {INT32_MIN, INT32_MAX, 1}, {-5, -5, INT32_MIN}}) {
    const I32 limits[] = {low, high, add};
    KEL_SAME(I32, I32, 1, intsToLevels(in[0], out[0], n, limits[0], limits[1], limits[2]));
    KEL_SAME(float, I32, 1, floatsToLevels(in[0], out[0], n, limits[0], limits[1], limits[2]));
  }
  for (const LevelScale& scale : {LevelScale{255.0F, 4095.0F, 0.0F, 0, 255},
                                  {-0.5F, 1.0F, 7.0F, -1000000, 1000000},
                                  {3.0F, 1.0F, -0.25F, INT32_MIN, INT32_MAX}}) {
    KEL_SAME(I32, I32, 1, scaleLevels(out[0], n, scale));
  }
  KEL_SAME(float, I16, 1, floatsToShorts(in[0], out[0], n));
  KEL_SAME(I32, U8, 1, levelsToBytes(in[0], out[0], n));
  for (const int shift : {0, 4, 15}) {
    KEL_SAME(I32, U16, 1, levelsToWords(in[0], out[0], n, shift));
  }
}

TEST(SamplesKernels, GiveTheBitsOfTheReference) {
  test::WithEverySet(CompareAll);
}

}  // namespace
