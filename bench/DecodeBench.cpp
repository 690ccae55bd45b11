// Whole decodes through the public interface, in bytes of output per second: grey and colour,
// reversible and irreversible, small and large images, as one tile and in tiles of 512 x 512. The
// samples land in the host's buffers, one plane of bytes per component.
#include <benchmark/benchmark.h>

#include "BenchHost.h"

namespace {

KelLong Append(void* client, const void* bytes, KelLong n) {
  const auto* first = static_cast<const std::uint8_t*>(bytes);
  auto& file = *static_cast<std::vector<std::uint8_t>*>(client);
  file.insert(file.end(), first, first + n);
  return n;
}

/// Decodes `file` into `planes`, `side` x `side` bytes each; returns the first code that is not 0.
KelLong DecodeFile(const std::vector<std::uint8_t>& file, KelLong side,
                   std::vector<std::vector<std::uint8_t>>& planes) {
  const std::size_t n = planes.size();
  std::vector<void*> buffers(n);
  for (std::size_t c = 0; c < n; ++c) buffers[c] = planes[c].data();
  std::vector<KelLong> strides(n, side), eight(n, 8), isSigned(n, 0);
  std::vector<double> most(n, 255.0), least(n, 0.0);
  KelFrameData frame;
  frame.NumChannels = static_cast<KelLong>(n);
  frame.OutBuffers = buffers.data();
  frame.OutStrides = strides.data();
  frame.InBitDepths = frame.OutBitDepths = eight.data();
  frame.OutSigned = isSigned.data();
  frame.OutMax = most.data();
  frame.OutMin = least.data();
  KelDecOpt options;
  options.InitToDefaults();
  KelCompressedData data{file.data(), static_cast<KelULong>(file.size())};
  KelImage image;
  KelLong code = image.InitDecoder(nullptr, &data, &options, nullptr, nullptr, KelAspectFull);
  if (code == KelOK) code = image.GetNextFrame(nullptr, nullptr, false, false, &frame);
  image.Die();
  options.Die();
  return code;
}

/// Arguments: side, side of a tile, components, irreversible.
void BM_Decode(benchmark::State& state) {
  bench::KeepFreedMemory();
  static KelMemFuncs memory = bench::HostMemory();
  KelLibInit(&memory);
  const auto side = static_cast<KelLong>(state.range(0));
  bench::Picture picture = bench::MakePicture(side, static_cast<KelLong>(state.range(2)));
  std::vector<std::uint8_t> file;
  if (!bench::EncodePicture(picture, static_cast<KelLong>(state.range(1)), state.range(3) != 0,
                            &file, Append)) {
    state.SkipWithError("coding failed");
  }
  const std::size_t plane = picture.samples.size() / static_cast<std::size_t>(picture.components);
  std::vector<std::vector<std::uint8_t>> planes(static_cast<std::size_t>(picture.components),
                                                std::vector<std::uint8_t>(plane));
  for (auto _ : state) {
    if (DecodeFile(file, side, planes) != KelOK) state.SkipWithError("decoding failed");
  }
  for (std::size_t i = 0; state.range(3) == 0 && i < plane; ++i) {
    for (std::size_t c = 0; c < planes.size(); ++c) {
      if (planes[c][i] != picture.samples[i * planes.size() + c]) {
        state.SkipWithError("not the samples that were coded");
      }
    }
  }
  const auto bytes = static_cast<std::int64_t>(picture.samples.size());
  state.SetBytesProcessed(state.iterations() * bytes);
  state.counters["bits per sample"] =
      static_cast<double>(file.size()) * 8 / static_cast<double>(bytes);
  KelLibShutDown();
}
BENCHMARK(BM_Decode)
    ->ArgNames({"side", "tile", "components", "irreversible"})
    ->ArgsProduct({{512}, {512}, {1, 3}, {0, 1}})
    ->ArgsProduct({{4096}, {512, 4096}, {1, 3}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
