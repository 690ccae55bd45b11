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
#include <memory>
#include <string>
#include <vector>

#include "KelCompTransform.h"
#include "KelOutputConvert.h"
#include "kel/KelImageData.h"
#include "kernels/KelKernels.h"

namespace {

using namespace kel;

constexpr std::size_t kRow = 1000;
constexpr std::size_t kWidth = 5632, kHeight = 3168;

/// Three components of every kind of sample, in and out.
struct Memory {
  explicit Memory(std::size_t samples)
      : bytes(6 * samples + 64, 100),
        words(6 * samples + 64, 30000),
        ints(3 * samples, -77),
        floats(3 * samples, 12.25F),
        outBytes(3 * samples),
        outWords(3 * samples),
        outInts(3 * samples),
        outFloats(3 * samples),
        count(samples) {}
  std::vector<std::uint8_t> bytes;
  std::vector<std::uint16_t> words;
  std::vector<std::int32_t> ints;
  std::vector<float> floats;
  std::vector<std::uint8_t> outBytes;
  std::vector<std::uint16_t> outWords;
  std::vector<std::int32_t> outInts;
  std::vector<float> outFloats;
  std::size_t count;
};

/// A kernel on samples x to x + n - 1 of each component.
using Call = void (*)(const SamplesKernels&, Memory&, std::size_t x, std::size_t n);

template <class T>
T* At(std::vector<T>& cells, const Memory& memory, std::size_t component, std::size_t x) {
  return cells.data() + component * memory.count + x;
}

#define KEL_THREE(kernel, in, out)                                                            \
  {                                                                                           \
#kernel, 3, [](const SamplesKernels& k, Memory& m, std::size_t x, std::size_t n) {          \
      k.kernel(At(m.in, m, 0, x), At(m.in, m, 1, x), At(m.in, m, 2, x), At(m.out, m, 0, x), \
               At(m.out, m, 1, x), At(m.out, m, 2, x), n);                                  \
    } \
  }
#define KEL_ONE(kernel, in, out, ...)                                                                \
  {                                                                                                  \
#kernel, 1,                                                                                      \
        [](const SamplesKernels& k, Memory& m, std::size_t x,                                        \
           std::size_t                                                                               \
               n) { k.kernel(At(m.in, m, 0, x), At(m.out, m, 0, x), n __VA_OPT__(, ) __VA_ARGS__); } \
  }
#define KEL_IN_PLACE(kernel, cells)                                                                  \
  {                                                                                                  \
#kernel, 3,                                                                                      \
        [](const SamplesKernels& k, Memory& m, std::size_t x,                                        \
           std::size_t                                                                               \
               n) { k.kernel(At(m.cells, m, 0, x), At(m.cells, m, 1, x), At(m.cells, m, 2, x), n); } \
  }
#define KEL_SPLIT(kernel, in, out)                                                             \
  {                                                                                            \
#kernel, 3, [](const SamplesKernels& k, Memory& m, std::size_t x, std::size_t n) {           \
      k.kernel(m.in.data() + 3 * x, 3, At(m.out, m, 0, x), At(m.out, m, 1, x),               \
               At(m.out, m, 2, x), n);                                                       \
    } \
  }

constexpr LevelScale kScale = {255.0F, 4095.0F, 0.0F, 0, 255};

const struct {
  const char* name;
  int components;
  Call call;
} kKernels[] = {
    {"memcpy of 32-bit cells", 1,
     [](const SamplesKernels&, Memory& m, std::size_t x, std::size_t n) {
       std::memcpy(m.outInts.data() + x, m.ints.data() + x, n * 4);
     }},
    KEL_SPLIT(splitBytes, bytes, outBytes),
    KEL_SPLIT(splitWords, words, outWords),
    KEL_ONE(bytesToInts, bytes, outInts),
    KEL_ONE(wordsToInts, words, outInts),
    KEL_ONE(bytesToFloats, bytes, outFloats),
    KEL_ONE(wordsToFloats, words, outFloats),
    KEL_THREE(forwardRct8, bytes, outInts),
    KEL_THREE(forwardRct16, words, outInts),
    KEL_THREE(forwardRct32, ints, outInts),
    KEL_THREE(forwardIct8, bytes, outFloats),
    KEL_THREE(forwardIct16, words, outFloats),
    KEL_THREE(forwardIct32, ints, outFloats),
    KEL_IN_PLACE(inverseRct, outInts),
    KEL_IN_PLACE(inverseIct, outFloats),
    KEL_THREE(inverseRctTo8Bit, ints, outBytes),
    KEL_THREE(inverseIctTo8Bit, floats, outBytes),
    KEL_ONE(intTo8Bit, ints, outBytes),
    KEL_ONE(intTo8BitWrapped, ints, outBytes),
    KEL_ONE(floatTo8Bit, floats, outBytes),
    KEL_ONE(intsToLevels, ints, outInts, -2048, 2047, 2048),
    KEL_ONE(floatsToLevels, floats, outInts, -2048, 2047, 2048),
    {"scaleLevels", 1,
     [](const SamplesKernels& k, Memory& m, std::size_t x, std::size_t n) {
       k.scaleLevels(m.outInts.data() + x, n, kScale);
     }},
    KEL_ONE(levelsToBytes, ints, outBytes),
    KEL_ONE(levelsToWords, ints, outWords, 4),
};

void CountSamples(benchmark::State& state, std::size_t samples) {
  state.SetItemsProcessed(static_cast<std::int64_t>(samples) * state.iterations());
}

void RegisterKernels() {
  for (const auto& kernel : kKernels) {
    for (const KernelSet set : kAllKernelSets) {
      KernelTable table;
      if (!FillKernelTable(set, table)) continue;
      for (const std::size_t rows : {std::size_t{1}, kHeight}) {
        const std::size_t width = rows == 1 ? kRow : kWidth;
        const std::string name = std::string(kernel.name) + '/' + KernelSetName(set) +
                                 (rows == 1 ? "/cached" : "/image");
        benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
          Memory memory(width * rows);
          for (auto _ : state) {
            for (std::size_t y = 0; y < rows; ++y) {
              kernel.call(table.samples, memory, y * width, width);
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

void Prepare(benchmark::State& state, int depth, std::uint32_t channels, bool irreversible) {
  Memory memory(kWidth * kHeight);
  SampleSource sources[3];
  for (std::uint32_t c = 0; c < 3; ++c) {
    const std::uint8_t* samples = memory.bytes.data() + (channels == 1 ? c * memory.count : 0);
    sources[c] = MakeSampleSource(samples, kWidth, depth, channels, channels == 1 ? 0 : c);
  }
  CodingPlane planes[3];
  for (std::size_t c = 0; c < 3; ++c) {
    planes[c].strideCells = kWidth;
    planes[c].cells = memory.outInts.data() + c * memory.count;
    if (irreversible) planes[c].cells = memory.outFloats.data() + c * memory.count;
  }
  for (auto _ : state) {
    PrepareColorPlanes(sources, planes, {kWidth, kHeight}, irreversible);
    benchmark::ClobberMemory();
  }
  CountSamples(state, 3 * memory.count);
}
BENCHMARK_CAPTURE(Prepare, rct_planar_8, 8, 1, false);
BENCHMARK_CAPTURE(Prepare, rct_interleaved_8, 8, 3, false);
BENCHMARK_CAPTURE(Prepare, rct_interleaved_8_of_4, 8, 4, false);
BENCHMARK_CAPTURE(Prepare, ict_interleaved_8, 8, 3, true);
BENCHMARK_CAPTURE(Prepare, rct_packed_12, 12, 1, false);
BENCHMARK_CAPTURE(Prepare, rct_packed_interleaved_10, 10, 3, false);

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
