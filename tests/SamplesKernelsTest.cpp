// Kernels of sample values: every set against the scalar reference, bit for bit, on values that
// overflow, round, saturate or are no numbers, at every width up to 67 and at addresses of the
// least alignment, with guards around what may be written.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "kernels/KelKernels.h"

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

class SamplesKernelSets : public testing::TestWithParam<KernelSet> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(FillKernelTable(KernelSet::kScalar, scalar_));
    if (!FillKernelTable(GetParam(), vector_)) GTEST_SKIP() << "not on this machine";
  }

  /// Runs call(kernels, in, out, count) with both tables. Inputs are `perSample` cells a sample;
  /// outputs begin with the inputs' values where the types agree, for kernels in place.
  template <class In, class Out, class Call>
  void Compare(const char* name, std::size_t perSample, Call call) {
    std::mt19937 random(1);
    for (std::size_t count = 0; count <= kMostSamples; ++count) {
      const std::size_t cells = count * perSample + 2 * kGuard;
      std::vector<In> in[3];
      std::vector<Out> out[2][3];
      for (int k = 0; k < 3; ++k) {
        in[k].resize(cells);
        Fill(in[k], random);
        std::vector<Out> before(cells);
        Fill(before, random);
        out[0][k] = out[1][k] = before;
      }
      for (const int which : {0, 1}) {
        const In* ins[3];
        Out* outs[3];
        for (int k = 0; k < 3; ++k) {
          ins[k] = in[k].data() + kGuard;
          outs[k] = out[which][k].data() + kGuard;
        }
        call(which == 0 ? scalar_.samples : vector_.samples, ins, outs, count);
      }
      for (int k = 0; k < 3; ++k) {
        for (std::size_t i = 0; i < cells; ++i) {
          ASSERT_EQ(BitsOf(out[0][k][i]), BitsOf(out[1][k][i]))
              << name << ", output " << k << ", cell " << static_cast<long>(i - kGuard) << " of "
              << count;
        }
      }
    }
  }

  template <class In, class Out>
  void CompareOne(const char* name, void (*SamplesKernels::*kernel)(const In*, Out*, std::size_t)) {
    Compare<In, Out>(name, 1, [=](const SamplesKernels& table, auto& in, auto& out, auto count) {
      (table.*kernel)(in[0], out[0], count);
    });
  }

  template <class In, class Out>
  void CompareThree(const char* name,
                    void (*SamplesKernels::*kernel)(const In*, const In*, const In*, Out*, Out*,
                                                    Out*, std::size_t)) {
    Compare<In, Out>(name, 1, [=](const SamplesKernels& table, auto& in, auto& out, auto count) {
      (table.*kernel)(in[0], in[1], in[2], out[0], out[1], out[2], count);
    });
  }

  template <class Cell>
  void CompareInPlace(const char* name,
                      void (*SamplesKernels::*kernel)(Cell*, Cell*, Cell*, std::size_t)) {
    Compare<Cell, Cell>(name, 1, [=](const SamplesKernels& table, auto&, auto& out, auto count) {
      (table.*kernel)(out[0], out[1], out[2], count);
    });
  }

  KernelTable scalar_, vector_;
};

TEST_P(SamplesKernelSets, ForwardGivesTheBitsOfTheReference) {
  using K = SamplesKernels;
  for (const std::size_t step : {3U, 4U, 5U}) {
    Compare<std::uint8_t, std::uint8_t>(
        "splitBytes", step, [=](auto& table, auto& in, auto& out, auto count) {
          table.splitBytes(in[0], step, out[0], out[1], out[2], count);
        });
    Compare<std::uint16_t, std::uint16_t>(
        "splitWords", step, [=](auto& table, auto& in, auto& out, auto count) {
          table.splitWords(in[0], step, out[0], out[1], out[2], count);
        });
  }
  CompareOne("bytesToInts", &K::bytesToInts);
  CompareOne("wordsToInts", &K::wordsToInts);
  CompareOne("bytesToFloats", &K::bytesToFloats);
  CompareOne("wordsToFloats", &K::wordsToFloats);
  CompareThree("forwardRct8", &K::forwardRct8);
  CompareThree("forwardRct16", &K::forwardRct16);
  CompareThree("forwardRct32", &K::forwardRct32);
  CompareThree("forwardIct8", &K::forwardIct8);
  CompareThree("forwardIct16", &K::forwardIct16);
  CompareThree("forwardIct32", &K::forwardIct32);
}

TEST_P(SamplesKernelSets, InverseGivesTheBitsOfTheReference) {
  using K = SamplesKernels;
  CompareInPlace("inverseRct", &K::inverseRct);
  CompareInPlace("inverseIct", &K::inverseIct);
  CompareThree("inverseRctTo8Bit", &K::inverseRctTo8Bit);
  CompareThree("inverseIctTo8Bit", &K::inverseIctTo8Bit);
  CompareOne("intTo8Bit", &K::intTo8Bit);
  CompareOne("intTo8BitWrapped", &K::intTo8BitWrapped);
  CompareOne("floatTo8Bit", &K::floatTo8Bit);
}

TEST_P(SamplesKernelSets, RecastsGiveTheBitsOfTheReference) {
  const struct {
    std::int32_t lowest, highest, addend;
  } limits[] = {{-128, 127, 128}, {INT32_MIN, INT32_MAX, 1}, {-5, -5, INT32_MIN}};
  for (const auto& limit : limits) {
    Compare<std::int32_t, std::int32_t>(
        "intsToLevels", 1, [=](auto& table, auto& in, auto& out, auto count) {
          table.intsToLevels(in[0], out[0], count, limit.lowest, limit.highest, limit.addend);
        });
    Compare<float, std::int32_t>(
        "floatsToLevels", 1, [=](auto& table, auto& in, auto& out, auto count) {
          table.floatsToLevels(in[0], out[0], count, limit.lowest, limit.highest, limit.addend);
        });
  }
  const LevelScale scales[] = {{255.0F, 4095.0F, 0.0F, 0, 255},
                               {-0.5F, 1.0F, 7.0F, -1000000, 1000000},
                               {3.0F, 1.0F, -0.25F, INT32_MIN, INT32_MAX}};
  for (const LevelScale& scale : scales) {
    Compare<std::int32_t, std::int32_t>("scaleLevels", 1,
                                        [=](auto& table, auto&, auto& out, auto count) {
                                          table.scaleLevels(out[0], count, scale);
                                        });
  }
  CompareOne("levelsToBytes", &SamplesKernels::levelsToBytes);
  for (const int shift : {0, 4, 15}) {
    Compare<std::int32_t, std::uint16_t>("levelsToWords", 1,
                                         [=](auto& table, auto& in, auto& out, auto count) {
                                           table.levelsToWords(in[0], out[0], count, shift);
                                         });
  }
}

INSTANTIATE_TEST_SUITE_P(All, SamplesKernelSets,
                         testing::Values(KernelSet::kBaseVector, KernelSet::kAvx2,
                                         KernelSet::kAvx512),
                         [](const auto& named) {
                           std::string name = KernelSetName(named.param);
                           std::erase_if(name, [](char c) { return c == ' ' || c == '-'; });
                           return name;
                         });

}  // namespace
