// Whole encodes through the public interface, in bytes of input per second: grey and colour,
// reversible and irreversible, small and large images, as one tile and in tiles of 512 x 512.
#include <benchmark/benchmark.h>
#include <kel/Kel.h>
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

struct Buffer : KelBufID_I {
  void* data;
};

KelBufID_I* NewBuffer(KelULong size, KelULong) {
  auto* buffer = new Buffer;
  buffer->data = std::aligned_alloc(64, (size + 63U) / 64 * 64);
  return buffer;
}

KelMemFuncs HostMemory() {
  KelMemFuncs m;
  m.AllocBuf = [](KelULong size) { return NewBuffer(size, 16); };
  m.AllocAlignedBuf = NewBuffer;
  m.LockBuf = [](KelBufID_I* b) { return static_cast<Buffer*>(b)->data; };
  m.UnlockBuf = [](KelBufID_I*) {};
  m.FreeBuf = [](KelBufID_I* b) {
    std::free(static_cast<Buffer*>(b)->data);
    delete static_cast<Buffer*>(b);
  };
  m.Malloc = [](KelULong size) { return std::malloc(size); };
  m.Free = [](void* address) { std::free(address); };
  m.AlignedMalloc = [](KelULong size, KelULong alignment) {
    return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
  };
  m.AlignedFree = m.Free;
  m.MemCopy = [](void* to, const void* from, KelULong n) { std::memcpy(to, from, n); };
  m.MemSet = [](void* to, KelLong value, KelULong n) { std::memset(to, value, n); };
  return m;
}

/// A picture whose tiles this host hands over, interleaved: shades, edges and a little noise.
struct Picture {
  KelLong side, components;
  std::vector<std::uint8_t> samples;
  KelImageGeometry* geometry;
};

Picture MakePicture(KelLong side, KelLong components) {
  Picture picture{side, components, {}, nullptr};
  std::uint32_t noise = 1;
  for (KelLong y = 0; y < side; ++y) {
    for (KelLong x = 0; x < side; ++x) {
      noise = noise * 1664525U + 1013904223U;
      const auto edge = static_cast<std::uint32_t>((x / 97 + y / 61) % 3 * 40);
      const std::uint32_t base = static_cast<std::uint32_t>(x + 2 * y) / 23 % 120 + edge;
      for (KelLong c = 0; c < components; ++c) {
        const std::uint32_t grain = (noise >> (24 + 2 * c)) % 7;
        picture.samples.push_back(static_cast<std::uint8_t>(base + grain + 9U * c));
      }
    }
  }
  return picture;
}

KelBufID_I* Fetch(void* client, KelLong tile, KelLong*) {
  const auto& picture = *static_cast<const Picture*>(client);
  const KelTileGeometry box(picture.geometry, 0, tile);
  const auto row = static_cast<std::size_t>(box.X1 - box.X0) * picture.components;
  KelBufID_I* buffer = NewBuffer(static_cast<KelULong>(row * (box.Y1 - box.Y0)), 16);
  auto* out = static_cast<std::uint8_t*>(static_cast<Buffer*>(buffer)->data);
  for (KelLong y = box.Y0; y < box.Y1; ++y, out += row) {
    const auto first = (static_cast<std::size_t>(y) * picture.side + box.X0) * picture.components;
    std::memcpy(out, &picture.samples[first], row);
  }
  return buffer;
}

/// Arguments: side, side of a tile, components, irreversible.
void BM_Encode(benchmark::State& state) {
  // The process keeps the memory that it frees, as one that encodes many images does; else the
  // system's clearing of fresh pages would be most of what is measured.
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_TOP_PAD, 1 << 28);
  static KelMemFuncs memory = HostMemory();
  KelLibInit(&memory);
  const auto side = static_cast<KelLong>(state.range(0));
  const auto tile = static_cast<KelLong>(state.range(1));
  Picture picture = MakePicture(side, static_cast<KelLong>(state.range(2)));
  KelEncOpt options;
  options.InitToDefaults(side, side, tile, tile, picture.components, 8);
  options.ComponentTransform = picture.components == 3;
  options.Irreversible = static_cast<KelLong>(state.range(3));
  options.TargetQuality = 70;
  picture.geometry = options.GeomParams;

  std::int64_t written = 0;
  KelStreamProcs output{};
  output.clientData = &written;
  output.Write = [](void* client, const void*, KelLong n) {
    *static_cast<std::int64_t*>(client) += n;
    return n;
  };
  output.Seek = [](void*, KelLong, KelLong offset) { return offset; };
  KelImageDataProcs source{};
  source.clientData = &picture;
  source.GetTileInterleaved = Fetch;
  source.GetNumInterleaved = [](void* client) { return static_cast<Picture*>(client)->components; };
  KelClientProcs procs{};
  procs.ImageDataProcs = &source;
  for (auto _ : state) {
    written = 0;
    KelCodeStm stream;
    stream.InitKelCodeStm(0, true, true, false, true, &output);
    KelImage image;
    if (image.InitEncoder(&options, &stream, &procs) != KelOK) state.SkipWithError("initialising");
    for (KelLong t = 0; t < image.GetNumTiles(); ++t) {
      if (image.CompressTile(t) != KelOK) state.SkipWithError("coding");
    }
    image.Die();
  }
  const auto bytes = static_cast<std::int64_t>(picture.samples.size());
  state.SetBytesProcessed(state.iterations() * bytes);
  state.counters["bits per sample"] = static_cast<double>(written) * 8 / static_cast<double>(bytes);
  options.Die();
  KelLibShutDown();
}
BENCHMARK(BM_Encode)
    ->ArgNames({"side", "tile", "components", "irreversible"})
    ->ArgsProduct({{512}, {512}, {1, 3}, {0, 1}})
    ->ArgsProduct({{4096}, {512, 4096}, {1, 3}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
