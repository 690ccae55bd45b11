// Speed of the sample kernels, scalar and by instruction set, on rows that stay in the cache and
// on a photograph's worth of memory, beside memcpy; and of what is built on them.
//
// items_per_second counts samples: a pixel of three components is three of them.
#include <benchmark/benchmark.h>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kel/KelImageData.h"
#include "kernels/KelKernels.h"
#include "samples/KelCompTransform.h"

namespace {

using namespace kel;

constexpr std::size_t kRow = 1000;
constexpr std::size_t kWidth = 5632, kHeight = 3168;

/// Three components of every kind of sample; bytes also for four, or for packed deeper samples.
struct Samples {
  explicit Samples(std::size_t count)
      : bytes(4 * count, 100),
        words(3 * count, 30000),
        shorts(3 * count, 9),
        ints(3 * count, -77),
        floats(3 * count, 9) {}
  std::vector<std::uint8_t> bytes;
  std::vector<std::uint16_t> words;
  std::vector<std::int16_t> shorts;
  std::vector<std::int32_t> ints;
  std::vector<float> floats;
};

struct Memory {
  explicit Memory(std::size_t samples) : count(samples), in(samples), out(samples) {}
  std::size_t count;  ///< of each component
  Samples in, out;
};

/// The memory for so many samples, made once.
Memory& Shared(std::size_t samples) {
  static Memory row(kRow), image(kWidth * kHeight);
  return samples == kRow ? row : image;
}

/// Where sample x of each component stands; interleaved samples take the place of all three.
struct Rows {
  Rows(Samples& samples, std::size_t count, std::size_t x)
      : pixels(samples.bytes.data() + 3 * x), wordPixels(samples.words.data() + 3 * x) {
    for (std::size_t c = 0; c < 3; ++c) {
      bytes[c] = samples.bytes.data() + c * count + x;
      words[c] = samples.words.data() + c * count + x;
      shorts[c] = samples.shorts.data() + c * count + x;
      ints[c] = samples.ints.data() + c * count + x;
      floats[c] = samples.floats.data() + c * count + x;
    }
  }
  std::uint8_t *pixels, *bytes[3];
  std::uint16_t *wordPixels, *words[3];
  std::int16_t* shorts[3];
  std::int32_t* ints[3];
  float* floats[3];
};

struct Bench {
  const char* call;  ///< its name ends at the parenthesis
  int components;
  void (*run)(const SamplesKernels& k, const Rows& in, const Rows& out, std::size_t n);
};

#define KEL_BENCH(components, call)                                  \
  Bench {                                                            \
#call, components,                                               \
        [](const SamplesKernels& k, const Rows& in, const Rows& out, \
           std::size_t n) { static_cast<void>(in), k.call; }         \
  }

constexpr LevelScale kScale = {255.0F, 4095.0F, 0.0F, 0, 255};

const Bench kKernels[] = {
    {"memcpy of 32-bit cells(", 1,
     [](const SamplesKernels&, const Rows& in, const Rows& out, std::size_t n) {
       std::memcpy(out.ints[0], in.ints[0], n * 4);
     }},
    KEL_BENCH(3, splitBytes(in.pixels, 3, out.bytes[0], out.bytes[1], out.bytes[2], n)),
    KEL_BENCH(3, splitWords(in.wordPixels, 3, out.words[0], out.words[1], out.words[2], n)),
    KEL_BENCH(1, bytesToShorts(in.bytes[0], out.shorts[0], n)),
    KEL_BENCH(1, floatsToShorts(in.floats[0], out.shorts[0], n)),
    KEL_BENCH(1, bytesToInts(in.bytes[0], out.ints[0], n)),
    KEL_BENCH(1, wordsToInts(in.words[0], out.ints[0], n)),
    KEL_BENCH(1, bytesToFloats(in.bytes[0], out.floats[0], n)),
    KEL_BENCH(1, wordsToFloats(in.words[0], out.floats[0], n)),
    KEL_BENCH(3, forwardRct8(in.bytes[0], in.bytes[1], in.bytes[2], out.shorts[0], out.shorts[1],
                             out.shorts[2], n)),
    KEL_BENCH(3, forwardRct16(in.words[0], in.words[1], in.words[2], out.ints[0], out.ints[1],
                              out.ints[2], n)),
    KEL_BENCH(3, forwardRct32(in.ints[0], in.ints[1], in.ints[2], out.ints[0], out.ints[1],
                              out.ints[2], n)),
    KEL_BENCH(3, forwardIct8(in.bytes[0], in.bytes[1], in.bytes[2], out.floats[0], out.floats[1],
                             out.floats[2], n)),
    KEL_BENCH(3, forwardIct16(in.words[0], in.words[1], in.words[2], out.floats[0], out.floats[1],
                              out.floats[2], n)),
    KEL_BENCH(3, forwardIct32(in.ints[0], in.ints[1], in.ints[2], out.floats[0], out.floats[1],
                              out.floats[2], n)),
    KEL_BENCH(3, inverseRct(out.ints[0], out.ints[1], out.ints[2], n)),
    KEL_BENCH(3, inverseIct(out.floats[0], out.floats[1], out.floats[2], n)),
    KEL_BENCH(3, inverseRctTo8Bit(in.ints[0], in.ints[1], in.ints[2], out.bytes[0], out.bytes[1],
                                  out.bytes[2], n)),
    KEL_BENCH(3, inverseRctShortsTo8Bit(in.shorts[0], in.shorts[1], in.shorts[2], out.bytes[0],
                                        out.bytes[1], out.bytes[2], n)),
    KEL_BENCH(3, inverseIctTo8Bit(in.floats[0], in.floats[1], in.floats[2], out.bytes[0],
                                  out.bytes[1], out.bytes[2], n)),
    KEL_BENCH(1, intTo8Bit(in.ints[0], out.bytes[0], n)),
    KEL_BENCH(1, shortTo8Bit(in.shorts[0], out.bytes[0], n)),
    KEL_BENCH(1, floatTo8Bit(in.floats[0], out.bytes[0], n)),
    KEL_BENCH(1, intsToLevels(in.ints[0], out.ints[0], n, -2048, 2047, 2048)),
    KEL_BENCH(1, floatsToLevels(in.floats[0], out.ints[0], n, -2048, 2047, 2048)),
    KEL_BENCH(1, scaleLevels(out.ints[0], n, kScale)),
    KEL_BENCH(1, levelsToBytes(in.ints[0], out.bytes[0], n)),
    KEL_BENCH(1, levelsToWords(in.ints[0], out.words[0], n, 4)),
};

void CountSamples(benchmark::State& state, std::size_t samples) {
  state.SetItemsProcessed(static_cast<std::int64_t>(samples) * state.iterations());
}

void RegisterKernels() {
  for (const auto& kernel : kKernels) {
    for (const KernelSet& set : KernelSets()) {
      KernelTable table;
      if (!FillKernelTable(set, table)) continue;
      for (const std::size_t rows : {std::size_t{1}, kHeight}) {
        const std::size_t width = rows == 1 ? kRow : kWidth;
        const std::string call = kernel.call;
        const std::string name =
            call.substr(0, call.find('(')) + '/' + set.name + (rows == 1 ? "/cached" : "/image");
        benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
          Memory& memory = Shared(width * rows);
          for (auto _ : state) {
            for (std::size_t y = 0; y < rows; ++y) {
              kernel.run(table.samples, Rows(memory.in, memory.count, y * width),
                         Rows(memory.out, memory.count, y * width), width);
            }
            benchmark::ClobberMemory();
          }
          CountSamples(state, width * rows * static_cast<std::size_t>(kernel.components));
        });
      }
    }
  }
}

/// The host's memory for the operations that need one: plain blocks.
struct Host : KelMemFuncs {
  struct Buffer : KelBufID_I {
    void* data;
  };
  Host() {
#if defined(__GLIBC__)
    // Keep what is freed: fetching fresh pages from the system would drown what is measured.
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    mallopt(M_TRIM_THRESHOLD, INT32_MAX);
#endif
    Malloc = [](KelULong size) { return std::malloc(size); };
    Free = [](void* block) { std::free(block); };
    AlignedMalloc = [](KelULong size, KelULong) { return std::malloc(size); };
    AlignedFree = Free;
    AllocBuf = [](KelULong size) -> KelBufID_I* {
      auto* buffer = new Buffer;
      buffer->data = std::malloc(size);
      return buffer;
    };
    AllocAlignedBuf = [](KelULong size, KelULong) { return KelGetMemObj()->AllocBuf(size); };
    LockBuf = [](KelBufID_I* buffer) { return static_cast<Buffer*>(buffer)->data; };
    UnlockBuf = [](KelBufID_I*) {};
    FreeBuf = [](KelBufID_I* buffer) {
      std::free(static_cast<Buffer*>(buffer)->data);
      delete static_cast<Buffer*>(buffer);
    };
    MemCopy = [](void* to, const void* from, KelULong count) { std::memcpy(to, from, count); };
    MemSet = [](void* to, KelLong value, KelULong count) { std::memset(to, value, count); };
    KelLibInit(this);
  }
};

Host host;

void Prepare(benchmark::State& state, int depth, std::uint32_t channels, CellKind cells) {
  Memory& memory = Shared(kWidth * kHeight);
  SampleSource sources[3];
  for (std::uint32_t c = 0; c < 3; ++c) {
    const std::uint8_t* samples = memory.in.bytes.data() + (channels == 1 ? c * memory.count : 0);
    sources[c] = MakeSampleSource(samples, kWidth, depth, channels, channels == 1 ? 0 : c);
  }
  CodingPlane planes[3];
  for (std::size_t c = 0; c < 3; ++c) {
    planes[c].strideCells = kWidth;
    planes[c].cells = memory.out.ints.data() + c * memory.count;
    if (cells == CellKind::kShorts) planes[c].cells = memory.out.shorts.data() + c * memory.count;
    if (cells == CellKind::kFloats) planes[c].cells = memory.out.floats.data() + c * memory.count;
  }
  for (auto _ : state) {
    PrepareColorPlanes(sources, planes, {kWidth, kHeight}, cells);
    benchmark::ClobberMemory();
  }
  CountSamples(state, 3 * memory.count);
}
BENCHMARK_CAPTURE(Prepare, rct_planar_8, 8, 1, CellKind::kShorts);
BENCHMARK_CAPTURE(Prepare, rct_interleaved_8, 8, 3, CellKind::kShorts);
BENCHMARK_CAPTURE(Prepare, rct_interleaved_8_of_4, 8, 4, CellKind::kShorts);
BENCHMARK_CAPTURE(Prepare, ict_interleaved_8, 8, 3, CellKind::kFloats);
BENCHMARK_CAPTURE(Prepare, rct_packed_12, 12, 1, CellKind::kInts);
BENCHMARK_CAPTURE(Prepare, rct_packed_interleaved_10, 10, 3, CellKind::kShorts);

void Recast(benchmark::State& state, KelLong depth, KelLong numBits, KelLong turn, bool floats) {
  for (auto _ : state) {
    state.PauseTiming();
    KelImageData image;
    image.InitKelImageData(kWidth, kHeight, 4, floats ? 1 : 0, nullptr);
    state.ResumeTiming();
    image.RecastData_Rotation(depth, false, numBits, (1 << numBits) - 1, 0, KelRecastNominal,
                              static_cast<KelImageOrientation>(turn));
    state.PauseTiming();
    image.FreeImageBuffer();
    state.ResumeTiming();
  }
  CountSamples(state, kWidth * kHeight);
}
BENCHMARK_CAPTURE(Recast, int_8_to_8, 8, 8, 0, false);
BENCHMARK_CAPTURE(Recast, float_8_to_8, 8, 8, 0, true);
BENCHMARK_CAPTURE(Recast, int_12_to_8, 12, 8, 0, false);
BENCHMARK_CAPTURE(Recast, int_12_to_16, 12, 16, 0, false);
BENCHMARK_CAPTURE(Recast, float_16_to_16, 16, 16, 0, true);
BENCHMARK_CAPTURE(Recast, int_12_to_12_packed, 12, 12, 0, false);
BENCHMARK_CAPTURE(Recast, int_8_to_8_by_90, 8, 8, 90, false);
BENCHMARK_CAPTURE(Recast, int_8_to_8_by_180, 8, 8, 180, false);

const bool registered = (RegisterKernels(), true);

}  // namespace
