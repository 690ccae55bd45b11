// Time per block of 8 x 8 coefficients, decoding and encoding, by the plane count of the blocks
// (-1: 0 to 10, mixed), the statistics of their coefficients and the set of kernels.
//
// The counter "ns" is the time per block, in nanoseconds whatever its unit says; "bits" is the
// code's length per coefficient. The kernels' field is 256 x 256 coefficients, which stays in the
// second-level cache, so that the figures are the coder's own. The benches of whole bands, with the
// best kernels, go through the reader and the memory layer and count everything.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "KelBlockDecode.h"
#include "KelBlockEncode.h"
#include "kel/KelMemory.h"
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

/// Blocks of one plane count, or of counts 0 to 10 for a negative one.
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

BlocksKernels KernelsOf(const kel::KernelSet& set) {
  kel::KernelTable table;
  FillKernelTable(set, table);
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

void Report(benchmark::State& state, double blocks, double bytes) {
  // A rate counter divides by the seconds that the loop took; inverted it is seconds per unit.
  state.counters["ns"] = benchmark::Counter(
      blocks * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["bits"] = bytes * 8 / (blocks * 64.0);
}

void Decode(benchmark::State& state, const kel::KernelSet& set, Statistics statistics,
            bool interleaved) {
  const BlocksKernels kernels = KernelsOf(set);
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
  Report(state, kBlocks, static_cast<double>(end - field.code.data()));
}

template <class Cell>
void Encode(benchmark::State& state, const kel::KernelSet& set, Statistics statistics,
            BlocksKernels::Encode<Cell>* BlocksKernels::*kernel) {
  const BlocksKernels kernels = KernelsOf(set);
  Field field(static_cast<int>(state.range(0)), statistics);
  const std::vector<Cell> cells(field.cells.begin(), field.cells.end());
  const std::uint8_t* end = nullptr;
  for (auto _ : state) {
    end = EncodeField(field, cells.data(), kernels.*kernel, field.code.data());
    benchmark::ClobberMemory();
  }
  Report(state, kBlocks, static_cast<double>(end - field.code.data()));
}

template <class Cell>
void CountPlanes(benchmark::State& state, const kel::KernelSet& set,
                 BlocksKernels::CountPlanes<Cell>* BlocksKernels::*kernel) {
  const BlocksKernels kernels = KernelsOf(set);
  Field field(static_cast<int>(state.range(0)), Statistics::kLaplacian);
  const std::vector<Cell> cells(field.cells.begin(), field.cells.end());
  for (auto _ : state) {
    for (int row = 0; row < kBlocksAcross; ++row) {
      (kernels.*kernel)(cells.data() + row * 8 * kSide, kSide, 8, kBlocksAcross,
                        &field.planeCounts[static_cast<std::size_t>(row * 32)]);
    }
    benchmark::ClobberMemory();
  }
  Report(state, kBlocks, 0);
}

// ---- Whole bands ----

KelMemFuncs* HostMemory() {
  static KelMemFuncs funcs;
  funcs.Malloc = [](KelULong size) { return std::malloc(size); };
  funcs.Free = [](void* block) { std::free(block); };
  funcs.AlignedMalloc = [](KelULong size, KelULong alignment) {
    return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
  };
  funcs.AlignedFree = [](void* block) { std::free(block); };
  funcs.MemCopy = [](void* to, const void* from, KelULong n) { std::memcpy(to, from, n); };
  funcs.MemSet = [](void* to, KelLong value, KelULong n) { std::memset(to, value, n); };
  return &funcs;
}

/// A square band, tiled with the field of mixed plane counts.
template <class Cell>
struct Plane {
  explicit Plane(std::int32_t size) : side(size), cells(static_cast<std::size_t>(size * size)) {
    const Field field(-1, Statistics::kLaplacian);
    for (std::int32_t i = 0; i < side * side; ++i) {
      cells[static_cast<std::size_t>(i)] = static_cast<Cell>(
          field.cells[static_cast<std::size_t>(i / side % kSide * kSide + i % side % kSide)]);
    }
  }
  /// The band, its planes counted.
  kel::EncodeBand Band() {
    kel::EncodeBand band = {0, side, 0, side, cells.data(), side, sizeof(Cell) == 2, nullptr};
    planeCounts.resize(CountBlocksOf(band));
    band.planeCounts = planeCounts.data();
    for (std::int32_t y = 0; y < side; ++y) {
      if (EndsBlocks(band, y)) CountPlanesAbove(band, y);
    }
    return band;
  }
  double Blocks() const { return side * 1.0 * side / 64; }

  std::int32_t side;
  std::vector<Cell> cells;
  std::vector<std::uint8_t> planeCounts{};
};

/// A band's code, which lives as long as this.
struct Coded : kel::CodedTileComponent {
  Coded() : CodedTileComponent{} { kel::PlaceSizes(0, sizes, *this); }
  ~Coded() { ReleaseCodedTileComponent(*this); }
  Coded(const Coded&) = delete;
  Coded& operator=(const Coded&) = delete;
  std::uint32_t sizes[kel::CountSizes(0)];
};

template <class Cell>
void EncodeBand(benchmark::State& state) {
  Plane<Cell> plane(static_cast<std::int32_t>(state.range(0)));
  Coded coded;
  for (auto _ : state) {
    const kel::EncodeBand band = plane.Band();
    EncodeTileComponent(&band, false, false, coded);
  }
  Report(state, plane.Blocks(), static_cast<double>(coded.numBytes));
}

void DecodeBand(benchmark::State& state) {
  Plane<std::int32_t> plane(static_cast<std::int32_t>(state.range(0)));
  const kel::EncodeBand band = plane.Band();
  Coded coded;
  EncodeTileComponent(&band, false, false, coded);
  // Bytes behind the band, as the next one would be.
  std::vector<std::uint8_t> bytes(coded.Bytes(), coded.Bytes() + coded.numBytes);
  bytes.resize(bytes.size() + 1000);
  static kel::KelDecDataMgr reader;
  const KelCompressedData block{bytes.data(), static_cast<KelULong>(bytes.size())};
  for (auto _ : state) {
    reader.InitFromMemory(block, kel::Flavour::kAB);
    DecodeBandBlocks(reader, {0, plane.side, 0, plane.side, 3, 3, kel::SignLayout::kSeparateSigns},
                     plane.cells.data(), plane.side);
    benchmark::ClobberMemory();
  }
  Report(state, plane.Blocks(), static_cast<double>(coded.numBytes));
}

template <class... Arguments>
void Register(const std::string& name, const std::vector<std::int64_t>& sizes,
              Arguments... arguments) {
  auto* const bench = benchmark::RegisterBenchmark(name.c_str(), arguments...);
  for (const std::int64_t size : sizes) bench->Arg(size);
  bench->ComputeStatistics("smallest", [](const std::vector<double>& values) {
    return *std::min_element(values.begin(), values.end());
  });
}

void RegisterKernels(const kel::KernelSet& set) {
  const std::vector<std::int64_t> planes = {0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 12, -1};
  const std::string in = std::string("/") + set.name;
  for (const Statistics statistics : {Statistics::kLaplacian, Statistics::kUniform}) {
    const std::string of = statistics == Statistics::kUniform ? "/uniform" : "/Laplacian";
    Register("Decode" + of + in, planes, Decode, set, statistics, false);
    Register("Encode" + of + in, planes, Encode<std::int32_t>, set, statistics,
             &BlocksKernels::encodeIntegers);
  }
  Register("DecodeInterleaved" + in, planes, Decode, set, Statistics::kLaplacian, true);
  Register("EncodeShorts" + in, planes, Encode<std::int16_t>, set, Statistics::kLaplacian,
           &BlocksKernels::encodeShorts);
  Register("CountPlanes" + in, {5}, CountPlanes<std::int32_t>, set,
           &BlocksKernels::countPlanesOfIntegers);
  Register("CountPlanesShorts" + in, {5}, CountPlanes<std::int16_t>, set,
           &BlocksKernels::countPlanesOfShorts);
}

}  // namespace

int main(int argc, char** argv) {
  KelLibInit(HostMemory());
  for (const kel::KernelSet& set : kel::KernelSets()) {
    kel::KernelTable table;
    if (FillKernelTable(set, table)) RegisterKernels(set);
  }
  const std::vector<std::int64_t> sides = {7, 256, 2048, 2056};
  Register("DecodeBand", sides, DecodeBand);
  Register("EncodeBand/integers", sides, EncodeBand<std::int32_t>);
  Register("EncodeBand/shorts", sides, EncodeBand<std::int16_t>);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  KelLibShutDown();
}
