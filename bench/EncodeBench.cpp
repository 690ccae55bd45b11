// Whole encodes through the public interface, in bytes of input per second: grey and colour,
// reversible and irreversible, small and large images, as one tile and in tiles of 512 x 512.
#include <benchmark/benchmark.h>

#include "BenchHost.h"

namespace {

/// Arguments: side, side of a tile, components, irreversible.
void BM_Encode(benchmark::State& state) {
  bench::KeepFreedMemory();
  static KelMemFuncs memory = bench::HostMemory();
  KelLibInit(&memory);
  bench::Picture picture = bench::MakePicture(static_cast<KelLong>(state.range(0)),
                                              static_cast<KelLong>(state.range(2)));
  std::int64_t written = 0;
  const auto count = [](void* client, const void*, KelLong n) {
    *static_cast<std::int64_t*>(client) += n;
    return n;
  };
  for (auto _ : state) {
    written = 0;
    if (!bench::EncodePicture(picture, static_cast<KelLong>(state.range(1)), state.range(3) != 0,
                              &written, count)) {
      state.SkipWithError("coding failed");
    }
  }
  const auto bytes = static_cast<std::int64_t>(picture.samples.size());
  state.SetBytesProcessed(state.iterations() * bytes);
  state.counters["bits per sample"] = static_cast<double>(written) * 8 / static_cast<double>(bytes);
  KelLibShutDown();
}
BENCHMARK(BM_Encode)
    ->ArgNames({"side", "tile", "components", "irreversible"})
    ->ArgsProduct({{512}, {512}, {1, 3}, {0, 1}})
    ->ArgsProduct({{4096}, {512, 4096}, {1, 3}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
