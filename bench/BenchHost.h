// What the whole-codec benches share: a host whose memory is the heap, a synthetic picture, and the
// encoding of that picture through the public interface.
#ifndef BENCH_BENCH_HOST_H
#define BENCH_BENCH_HOST_H

#include <kel/Kel.h>
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace bench {

struct Buffer : KelBufID_I {
  void* data;
};

inline KelBufID_I* NewBuffer(KelULong size, KelULong) {
  auto* buffer = new Buffer;
  buffer->data = std::aligned_alloc(64, (size + 63U) / 64 * 64);
  return buffer;
}

inline KelMemFuncs HostMemory() {
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

inline Picture MakePicture(KelLong side, KelLong components) {
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

inline KelBufID_I* FetchTile(void* client, KelLong tile, KelLong*) {
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

/// The process keeps the memory that it frees, as one that codes many images does; else the
/// system's clearing of fresh pages would be most of what is measured.
inline void KeepFreedMemory() {
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_TOP_PAD, 1 << 28);
}

/// Codes `picture` in square tiles into `write` with client data `client`: quality 70, or lossless
/// when not irreversible. Returns whether everything succeeded.
inline bool EncodePicture(Picture& picture, KelLong tile, bool isIrreversible, void* client,
                          KelLong (*write)(void*, const void*, KelLong)) {
  KelEncOpt options;
  options.InitToDefaults(picture.side, picture.side, tile, tile, picture.components, 8);
  options.ComponentTransform = picture.components == 3;
  options.Irreversible = isIrreversible;
  options.TargetQuality = 70;
  picture.geometry = options.GeomParams;
  KelStreamProcs output{};
  output.clientData = client;
  output.Write = write;
  output.Seek = [](void*, KelLong, KelLong offset) { return offset; };
  KelImageDataProcs source{};
  source.clientData = &picture;
  source.GetTileInterleaved = FetchTile;
  source.GetNumInterleaved = [](void* host) { return static_cast<Picture*>(host)->components; };
  KelClientProcs procs{};
  procs.ImageDataProcs = &source;
  KelCodeStm stream;
  stream.InitKelCodeStm(0, true, true, false, true, &output);
  KelImage image;
  bool isGood = image.InitEncoder(&options, &stream, &procs) == KelOK;
  for (KelLong t = 0; isGood && t < image.GetNumTiles(); ++t) {
    isGood = image.CompressTile(t) == KelOK;
  }
  image.Die();
  options.Die();
  return isGood;
}

}  // namespace bench

#endif
