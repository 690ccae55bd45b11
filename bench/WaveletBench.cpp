// Speed of the wavelet kernels and drivers, in bytes of 32-bit samples per second, beside a copy
// of the same bytes. Drivers run with the scalar kernels and with the best of the machine.
#include <benchmark/benchmark.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "kernels/KelKernels.h"
#include "transform/KelWavelet.h"
#include "transform/KelWaveletForward.h"

namespace {

constexpr int kLevels = 5;
constexpr std::size_t kRowCells = 1024;

/// Cells on a cache line, filled with noise of 8 bits.
template <class T>
class Cells {
 public:
  explicit Cells(std::size_t count) : block_(count + 64 / sizeof(T)) {
    std::mt19937 random(1);
    for (T& v : block_) v = static_cast<T>(static_cast<int>(random() % 256) - 128);
  }
  T* Data() {
    const std::size_t misaligned = reinterpret_cast<std::uintptr_t>(block_.data()) % 64;
    return block_.data() + (64 - misaligned) % 64 / sizeof(T);
  }

 private:
  std::vector<T> block_;
};

void Report(benchmark::State& state, double samples) {
  state.SetBytesProcessed(static_cast<std::int64_t>(static_cast<double>(state.iterations()) *
                                                    samples * sizeof(std::int32_t)));
}

struct Size {
  std::int64_t width, height;
};
constexpr Size kSizes[] = {{64, 64}, {512, 512}, {4096, 4096}, {4099, 4099}, {5632, 3168}};

/// Planes of one size and what the drivers need for them.
struct Workload {
  kel::Box box;
  std::size_t stride;
  Cells<std::int32_t> ints[3];
  Cells<float> floats[2];
  Cells<std::uint8_t> bytes;
  Cells<std::uint32_t> scratch;
  Cells<std::uint8_t> rows;
  std::vector<float> steps;

  explicit Workload(Size size)
      : box{0, size.width, 0, size.height},
        stride(static_cast<std::size_t>(size.width)),
        ints{Cells<std::int32_t>(Count()), Cells<std::int32_t>(Count()),
             Cells<std::int32_t>(Count())},
        floats{Cells<float>(Count()), Cells<float>(Count())},
        bytes(3 * Count()),
        scratch(kel::InverseDwtScratchCells(box, kLevels, 3)),
        rows(kel::ForwardRowsBytes(box, kLevels, kel::CellKind::kFloats)),
        // Near 1, so that transforming the same planes again and again does not overflow.
        steps(static_cast<std::size_t>(kel::NumSubbands(kLevels)), 1.0F) {}

  std::size_t Count() const { return stride * static_cast<std::size_t>(box.Height()); }
  kel::ComponentBands Bands53(int p) {
    return kel::BandsOfInts({ints[p].Data(), stride, box, kLevels});
  }
  kel::ComponentBands Bands97(int p) {
    return kel::BandsOfIndices({ints[p].Data(), stride, box, kLevels},
                               kel::StepsOfIndices(steps.data()));
  }
  kel::Rows<std::uint8_t> Bytes(std::size_t p) { return {bytes.Data() + p * Count(), stride}; }
};

/// The rows of a plane through the forward transform, the bands' rows going nowhere.
void Forward(Workload& w, kel::CellKind kind, const void* plane) {
  kel::ForwardRows rows;
  const kel::BandRowTaker taker = {nullptr, [](void*, int, std::int64_t, void*) {}};
  kel::BeginForward({w.box, kLevels, kind, w.steps.data(), taker}, w.rows.Data(), rows);
  const auto* from = static_cast<const std::uint8_t*>(plane);
  const std::size_t rowBytes = w.stride * kel::CellBytes(kind);
  for (std::int64_t y = 0; y < w.box.Height(); ++y, from += rowBytes) {
    std::memcpy(kel::NextSampleRow(rows), from, rowBytes);
    kel::TakeSampleRow(rows);
  }
}

struct Driver {
  const char* name;
  int planes;
  std::function<void(Workload&)> run;
};

const Driver kDrivers[] = {
    {"Copy", 1,
     [](Workload& w) { std::memcpy(w.ints[1].Data(), w.ints[0].Data(), w.Count() * 4); }},
    {"Forward53Short", 1,
     [](Workload& w) { Forward(w, kel::CellKind::kShorts, w.ints[0].Data()); }},
    {"Forward53", 1, [](Workload& w) { Forward(w, kel::CellKind::kInts, w.ints[0].Data()); }},
    {"Forward97", 1, [](Workload& w) { Forward(w, kel::CellKind::kFloats, w.floats[0].Data()); }},
    {"InverseDwt53", 1,
     [](Workload& w) {
       kel::InverseDwt53(w.Bands53(0), w.scratch.Data(), {w.ints[1].Data(), w.stride});
     }},
    {"InverseDwt53To8Bit", 1,
     [](Workload& w) { kel::InverseDwt53To8Bit(w.Bands53(0), w.scratch.Data(), w.Bytes(0)); }},
    {"InverseDwt53RctTo8Bit", 3,
     [](Workload& w) {
       kel::InverseDwt53RctTo8Bit({w.Bands53(0), w.Bands53(1), w.Bands53(2)}, w.scratch.Data(),
                                  {w.Bytes(0), w.Bytes(1), w.Bytes(2)});
     }},
    {"InverseDwt97", 1,
     [](Workload& w) {
       kel::InverseDwt97(w.Bands97(0), w.scratch.Data(), {w.floats[0].Data(), w.stride});
     }},
    {"InverseDwt97GeneralTo8Bit", 1,
     [](Workload& w) {
       kel::InverseDwt97GeneralTo8Bit(w.Bands97(0), w.scratch.Data(), w.Bytes(0));
     }},
    {"InverseDwt97To8Bit", 1,
     [](Workload& w) { kel::InverseDwt97To8Bit(w.Bands97(0), w.scratch.Data(), w.Bytes(0)); }},
    {"InverseDwt97IctTo8Bit", 3,
     [](Workload& w) {
       kel::InverseDwt97IctTo8Bit({w.Bands97(0), w.Bands97(1), w.Bands97(2)}, w.scratch.Data(),
                                  {w.Bytes(0), w.Bytes(1), w.Bytes(2)});
     }},
};

void RunDriver(benchmark::State& state, const Driver& driver, Size size,
               const kel::KernelSet& last) {
  kel::ChooseKernels(last);
  Workload work(size);
  for (auto _ : state) driver.run(work);
  Report(state, static_cast<double>(work.Count()) * driver.planes);
}

/// Rows of one level as a kernel sees them; nine rows of input and three of output.
struct KernelRows {
  static constexpr std::size_t kPitch = kRowCells + 64;
  Cells<std::int32_t> ints{12 * kPitch};
  Cells<float> floats{12 * kPitch};
  Cells<double> states{2 * kPitch};
  Cells<std::uint8_t> bytes{kPitch};
  const std::int32_t* Int(std::size_t row) { return ints.Data() + row * kPitch + 16; }
  const float* Float(std::size_t row) { return floats.Data() + row * kPitch + 16; }
  std::int32_t* IntOut(std::size_t row) { return ints.Data() + (9 + row) * kPitch + 16; }
  float* FloatOut(std::size_t row) { return floats.Data() + (9 + row) * kPitch + 16; }
};

struct Kernel {
  const char* name;
  std::size_t samples;  ///< made per call
  std::function<void(const kel::WaveletKernels&, KernelRows&)> run;
};

template <class Cell>
void RunSynthesisRows(const kel::SynthesisKernels<Cell>& kernels, const Cell* const* rows,
                      Cell* odd, Cell* even) {
  kernels.rows(rows, rows + 3, rows[7], odd, even, kRowCells);
}

const Kernel kKernels[] = {
    {"synthesis53.row", kRowCells,
     [](const kel::WaveletKernels& k, KernelRows& r) {
       k.synthesis53.row(r.Int(0), r.Int(1), r.IntOut(0), kRowCells / 2);
     }},
    {"synthesis53.rows", 2 * kRowCells,
     [](const kel::WaveletKernels& k, KernelRows& r) {
       const std::int32_t* rows[8];
       for (std::size_t i = 0; i < 8; ++i) rows[i] = r.Int(i);
       RunSynthesisRows(k.synthesis53, rows, r.IntOut(0), r.IntOut(1));
     }},
    {"synthesis97.row", kRowCells,
     [](const kel::WaveletKernels& k, KernelRows& r) {
       k.synthesis97.row(r.Float(0), r.Float(1), r.FloatOut(0), kRowCells / 2);
     }},
    {"synthesis97.rows", 2 * kRowCells,
     [](const kel::WaveletKernels& k, KernelRows& r) {
       const float* rows[8];
       for (std::size_t i = 0; i < 8; ++i) rows[i] = r.Float(i);
       RunSynthesisRows(k.synthesis97, rows, r.FloatOut(0), r.FloatOut(1));
     }},
    {"synthesis97Single.row", kRowCells,
     [](const kel::WaveletKernels& k, KernelRows& r) {
       k.synthesis97Single.row(r.Float(0), r.Float(1), r.FloatOut(0), kRowCells / 2);
     }},
    {"synthesis97Single.rows", 2 * kRowCells,
     [](const kel::WaveletKernels& k, KernelRows& r) {
       const float* rows[8];
       for (std::size_t i = 0; i < 8; ++i) rows[i] = r.Float(i);
       RunSynthesisRows(k.synthesis97Single, rows, r.FloatOut(0), r.FloatOut(1));
     }},
    {"analyseRow53", kRowCells,
     [](const kel::WaveletKernels& k, KernelRows& r) {
       k.analysis53.row(r.Int(0), r.IntOut(0), r.IntOut(1), kRowCells / 2);
     }},
    {"analyseRows53", 2 * kRowCells,
     [](const kel::WaveletKernels& k, KernelRows& r) {
       const std::int32_t* const x[] = {r.Int(0), r.Int(1), r.Int(2)};
       k.analysis53.rows(x, r.Int(3), r.IntOut(0), r.IntOut(1), kRowCells);
     }},
    {"analyseRow97", kRowCells,
     [](const kel::WaveletKernels& k, KernelRows& r) {
       const double factors[] = {0.5, 0.5};
       k.analyseRow97(r.Float(0), r.FloatOut(0), r.FloatOut(1), kRowCells / 2, factors);
     }},
    {"analyseRows97", 2 * kRowCells,
     [](const kel::WaveletKernels& k, KernelRows& r) {
       const float* x[7];
       for (std::size_t i = 0; i < 7; ++i) x[i] = r.Float(i);
       float* const lowHigh[] = {r.FloatOut(0), r.FloatOut(1)};
       double* const states = r.states.Data();
       k.analyseRows97(x, states, states + kRowCells, lowHigh, kRowCells);
     }},
    {"dequantise", kRowCells,
     [](const kel::WaveletKernels& k, KernelRows& r) {
       k.dequantise(r.Int(0), r.FloatOut(0), kRowCells, 0.5F);
     }},
    {"floatTo8BitAway", kRowCells,
     [](const kel::WaveletKernels& k, KernelRows& r) {
       k.floatTo8BitAway(r.Float(0), r.bytes.Data(), kRowCells);
     }},
};

void RunKernel(benchmark::State& state, const Kernel& kernel, const kel::KernelSet& set) {
  kel::KernelTable table;
  if (!kel::FillKernelTable(set, table)) {
    state.SkipWithError("not on this machine");
    return;
  }
  KernelRows rows;
  for (auto _ : state) {
    kernel.run(table.wavelet, rows);
    benchmark::ClobberMemory();
  }
  Report(state, static_cast<double>(kernel.samples));
}

const bool registered = [] {
  for (const Kernel& kernel : kKernels) {
    for (const kel::KernelSet& set : kel::KernelSets()) {
      const std::string name = std::string("kernel/") + kernel.name + "/" + set.name;
      benchmark::RegisterBenchmark(name.c_str(), [&kernel, &set](benchmark::State& state) {
        RunKernel(state, kernel, set);
      });
    }
  }
  for (const Driver& driver : kDrivers) {
    for (const Size size : kSizes) {
      for (const bool scalar : {true, false}) {
        const kel::KernelSet& set = scalar ? kel::KernelSets().front() : kel::KernelSets().back();
        const std::string name = std::string("driver/") + driver.name + "/" +
                                 std::to_string(size.width) + "x" + std::to_string(size.height) +
                                 (scalar ? "/scalar" : "/best");
        benchmark::RegisterBenchmark(name.c_str(), [&driver, size, &set](benchmark::State& state) {
          RunDriver(state, driver, size, set);
        });
      }
    }
  }
  return true;
}();

}  // namespace
