// Time per block of 8 x 8 coefficients, decoding and encoding, by the plane count of the blocks,
// the statistics of their coefficients and the set of kernels.
//
// The counter "ns/block" is what to read. The field is 256 x 256 coefficients, which stays in the
// second-level cache, so that the figures are the coder's own.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "kernels/KelKernels.h"

namespace {

using kel::BlockSink;
using kel::BlocksKernels;
using kel::BlockSource;

constexpr int kBlocksAcross = 32;
constexpr int kSide = 8 * kBlocksAcross;
constexpr int kBlocks = kBlocksAcross * kBlocksAcross;

/// How the magnitudes of a block below its largest one are drawn.
enum class Statistics { kLaplacian, kUniform };

/// Blocks of one plane count, or of counts 0 to 12 in turn for a negative one.
struct Field {
  std::vector<std::int32_t> cells = std::vector<std::int32_t>(kSide * kSide);
  std::vector<std::uint8_t> planeCounts = std::vector<std::uint8_t>(kBlocks);
  std::vector<std::uint8_t> code = std::vector<std::uint8_t>(kBlocks * 300 + 64);

  Field(int planes, Statistics statistics) {
    std::mt19937 random(1);
    std::exponential_distribution<double> exponential(1.0);
    for (int block = 0; block < kBlocks; ++block) {
      const int n = planes >= 0 ? planes : static_cast<int>(random() % 6 + random() % 6);
      planeCounts[static_cast<std::size_t>(block)] = static_cast<std::uint8_t>(n);
      if (n == 0) continue;
      const std::int32_t most = (1 << n) - 1;
      std::int32_t* corner = &cells[static_cast<std::size_t>(block / kBlocksAcross * 8 * kSide +
                                                             block % kBlocksAcross * 8)];
      for (int i = 0; i < 64; ++i) {
        // The largest of 64 exponential variables is about 4.7 times their mean.
        const auto drawn = statistics == Statistics::kLaplacian
                               ? static_cast<std::int32_t>(exponential(random) * most / 4.7 + 0.3)
                               : static_cast<std::int32_t>(random() % (1U << n));
        const std::int32_t magnitude = std::min(most, drawn);
        corner[i / 8 * kSide + i % 8] = random() % 2 != 0 ? -magnitude : magnitude;
      }
      corner[random() % 8 * kSide + random() % 8] = most - most / 4;
    }
  }
};

BlocksKernels KernelsOf(benchmark::State& state, kel::KernelSet set) {
  kel::KernelTable table;
  if (!kel::FillKernelTable(set, table)) state.SkipWithError("not on this machine");
  return table.blocks;
}

template <class Cell>
std::uint8_t* EncodeField(const Field& field, const Cell* cells,
                          BlocksKernels::Encode<Cell>* encode, std::uint8_t* code) {
  BlockSink sink{code, 0, 0, 4, 0};
  for (int row = 0; row < kBlocksAcross; ++row) {
    encode(cells + row * 8 * kSide, kSide, &field.planeCounts[static_cast<std::size_t>(row * 32)],
           kBlocksAcross, sink);
  }
  *sink.next = static_cast<std::uint8_t>(sink.pending >> 56);
  return sink.next + 1;
}

void Report(benchmark::State& state, double bytes) {
  // A rate counter divides by the seconds that the loop took; inverted it is seconds per unit.
  state.counters["ns"] = benchmark::Counter(
      kBlocks * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["bits"] = bytes * 8 / (kBlocks * 64.0);
}

void Decode(benchmark::State& state, kel::KernelSet set, Statistics statistics, bool interleaved) {
  const BlocksKernels kernels = KernelsOf(state, set);
  if (kernels.encodeIntegers == nullptr) return;
  Field field(static_cast<int>(state.range(0)), statistics);
  const std::uint8_t* end =
      EncodeField(field, field.cells.data(), kernels.encodeIntegers, field.code.data());
  // The code has separate signs; read with interleaved ones it is another, equally valid block.
  auto* const decode = interleaved ? kernels.decodeInterleavedSigns : kernels.decodeSeparateSigns;
  for (auto _ : state) {
    BlockSource source{field.code.data(), 0, 8 * field.code.size(), 4, 0, 0};
    for (int row = 0; row < kBlocksAcross; ++row) {
      decode(source, &field.cells[static_cast<std::size_t>(row * 8 * kSide)], kSide, kBlocksAcross);
    }
    benchmark::ClobberMemory();
  }
  Report(state, static_cast<double>(end - field.code.data()));
}

template <class Cell>
void Encode(benchmark::State& state, kel::KernelSet set, Statistics statistics,
            BlocksKernels::Encode<Cell>* BlocksKernels::*kernel) {
  const BlocksKernels kernels = KernelsOf(state, set);
  if (kernels.encodeIntegers == nullptr) return;
  Field field(static_cast<int>(state.range(0)), statistics);
  const std::vector<Cell> cells(field.cells.begin(), field.cells.end());
  const std::uint8_t* end = nullptr;
  for (auto _ : state) {
    end = EncodeField(field, cells.data(), kernels.*kernel, field.code.data());
    benchmark::ClobberMemory();
  }
  Report(state, static_cast<double>(end - field.code.data()));
}

template <class Cell>
void CountPlanes(benchmark::State& state, kel::KernelSet set,
                 BlocksKernels::CountPlanes<Cell>* BlocksKernels::*kernel) {
  const BlocksKernels kernels = KernelsOf(state, set);
  if (kernels.encodeIntegers == nullptr) return;
  Field field(static_cast<int>(state.range(0)), Statistics::kLaplacian);
  const std::vector<Cell> cells(field.cells.begin(), field.cells.end());
  for (auto _ : state) {
    for (int row = 0; row < kBlocksAcross; ++row) {
      (kernels.*kernel)(cells.data() + row * 8 * kSide, kSide, 8, kBlocksAcross,
                        &field.planeCounts[static_cast<std::size_t>(row * 32)]);
    }
    benchmark::ClobberMemory();
  }
  Report(state, 0);
}

template <class... Arguments>
void Register(const std::string& name, kel::KernelSet set, Arguments... arguments) {
  auto* const bench =
      benchmark::RegisterBenchmark((name + "/" + kel::KernelSetName(set)).c_str(), arguments...);
  for (const int planes : {0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 12, -1}) bench->Arg(planes);
}

}  // namespace

int main(int argc, char** argv) {
  for (const kel::KernelSet set : kel::kAllKernelSets) {
    if (set == kel::KernelSet::kBaseVector) continue;  // it has the scalar block kernels
    for (const auto& [statistics, name] : {std::pair{Statistics::kLaplacian, "Laplacian"},
                                           std::pair{Statistics::kUniform, "Uniform"}}) {
      const std::string suffix = std::string("/") + name;
      Register("Decode" + suffix, set, Decode, set, statistics, false);
      Register("Encode" + suffix, set, Encode<std::int32_t>, set, statistics,
               &BlocksKernels::encodeIntegers);
    }
    Register("DecodeInterleaved", set, Decode, set, Statistics::kLaplacian, true);
    Register("EncodeFloats", set, Encode<float>, set, Statistics::kLaplacian,
             &BlocksKernels::encodeFloats);
    Register("CountPlanes", set, CountPlanes<std::int32_t>, set,
             &BlocksKernels::countPlanesOfIntegers);
    Register("CountPlanesFloats", set, CountPlanes<float>, set,
             &BlocksKernels::countPlanesOfFloats);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
