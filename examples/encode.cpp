// A complete encoding host: makes a picture in memory, encodes it in tiles with a quality, and
// writes the file. Usage: example_encode FILE [QUALITY]
#include <kel/Kel.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

/// A buffer as this host makes them: the identifier first, the bytes behind it.
struct Buffer : KelBufID_I {
  std::vector<unsigned char> bytes;
};

KelBufID_I* NewBuffer(KelULong size) {
  auto* buffer = new Buffer;
  buffer->bytes.resize(size);
  return buffer;
}

KelMemFuncs HostMemory() {
  KelMemFuncs m{};
  m.AllocBuf = NewBuffer;
  m.AllocAlignedBuf = [](KelULong size, KelULong) { return NewBuffer(size); };
  m.LockBuf = [](KelBufID_I* b) -> void* { return static_cast<Buffer*>(b)->bytes.data(); };
  m.UnlockBuf = [](KelBufID_I*) {};
  m.FreeBuf = [](KelBufID_I* b) { delete static_cast<Buffer*>(b); };
  m.Malloc = [](KelULong size) { return std::malloc(size); };
  m.Free = [](void* address) { std::free(address); };
  m.AlignedMalloc = [](KelULong size, KelULong alignment) {
    return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
  };
  m.AlignedFree = [](void* address) { std::free(address); };
  m.MemCopy = [](void* to, const void* from, KelULong n) { std::memcpy(to, from, n); };
  m.MemSet = [](void* to, KelLong value, KelULong n) { std::memset(to, value, n); };
  return m;
}

/// Interleaved red, green and blue of one tile: here a gradient, elsewhere rows of a picture.
KelBufID_I* FetchTile(void* client, KelLong tile, KelLong*) {
  const KelTileGeometry box(static_cast<KelImageGeometry*>(client), 0, tile);
  KelBufID_I* buffer = NewBuffer(static_cast<KelULong>(3 * (box.X1 - box.X0) * (box.Y1 - box.Y0)));
  unsigned char* out = static_cast<Buffer*>(buffer)->bytes.data();
  for (KelLong y = box.Y0; y < box.Y1; ++y) {
    for (KelLong x = box.X0; x < box.X1; ++x) {
      *out++ = static_cast<unsigned char>(x / 4);
      *out++ = static_cast<unsigned char>(y / 3);
      *out++ = static_cast<unsigned char>((x ^ y) & 0xFF);
    }
  }
  return buffer;
}

}  // namespace

int main(int argc, char** argv) {
  std::FILE* file = argc > 1 ? std::fopen(argv[1], "wb") : nullptr;
  if (file == nullptr) return std::puts("usage: example_encode FILE [QUALITY]"), 2;
  KelMemFuncs memory = HostMemory();
  KelLibInit(&memory);

  KelStreamProcs output{};
  output.clientData = file;
  output.Write = [](void* client, const void* bytes, KelLong n) {
    const auto count = static_cast<std::size_t>(n);
    return static_cast<KelLong>(std::fwrite(bytes, 1, count, static_cast<std::FILE*>(client)));
  };
  output.Seek = [](void* client, KelLong, KelLong offset) {
    return std::fseek(static_cast<std::FILE*>(client), offset, SEEK_SET) == 0 ? offset : -1;
  };
  KelCodeStm stream;
  stream.InitKelCodeStm(0, true, true, false, true, &output);

  KelEncOpt options;  // 800 x 600 in tiles of 256 x 256, three 8-bit components
  options.InitToDefaults(800, 600, 256, 256, 3, 8);
  options.ComponentTransform = true;
  if (argc > 2) options.TargetQuality = static_cast<float>(std::atof(argv[2]));
  KelImageDataProcs source{};
  source.clientData = options.GetGeomParams();
  source.GetTileInterleaved = FetchTile;
  source.GetNumInterleaved = [](void*) -> KelLong { return 3; };
  KelClientProcs procs{};
  procs.ImageDataProcs = &source;

  KelImage image;
  KelLong code = image.InitEncoder(&options, &stream, &procs);
  for (KelLong tile = 0; code == KelOK && tile < image.GetNumTiles(); ++tile) {
    code = image.CompressTile(tile);
  }
  image.Die();
  options.Die();
  KelLibShutDown();
  if (std::fclose(file) != 0 && code == KelOK) code = -1;
  std::printf("%s: code %d\n", argv[1], code);
  return code == KelOK ? 0 : 1;
}
