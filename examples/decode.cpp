// A complete decoding host: reads a file, decodes it, writes its first three components (or the
// first one) as PPM or PGM. Usage: decode IN OUT
#include <kel/Kel.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

/// The library obtains all its memory here.
KelMemFuncs HeapMemory() {
  KelMemFuncs m;
  m.Malloc = [](KelULong size) { return std::malloc(size); };
  m.Free = [](void* address) { std::free(address); };
  m.AlignedMalloc = [](KelULong size, KelULong alignment) {
    return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
  };
  m.AlignedFree = m.Free;
  m.AllocAlignedBuf = [](KelULong size, KelULong) {
    auto* buffer = new KelBufID_I;
    buffer->clientRef = reinterpret_cast<std::uintptr_t>(std::malloc(size));
    return buffer;
  };
  m.AllocBuf = [](KelULong size) { return KelGetMemObj()->AllocAlignedBuf(size, 16); };
  m.LockBuf = [](KelBufID_I* buffer) { return reinterpret_cast<void*>(buffer->clientRef); };
  m.UnlockBuf = [](KelBufID_I*) {};
  m.FreeBuf = [](KelBufID_I* buffer) {
    std::free(reinterpret_cast<void*>(buffer->clientRef));
    delete buffer;
  };
  m.MemCopy = [](void* to, const void* from, KelULong n) { std::memcpy(to, from, n); };
  m.MemSet = [](void* to, KelLong value, KelULong n) { std::memset(to, value, n); };
  return m;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return std::fprintf(stderr, "usage: decode IN OUT\n"), 1;
  std::ifstream in(argv[1], std::ios::binary);
  const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
  KelMemFuncs memory = HeapMemory();
  KelLibInit(&memory);

  KelDecOpt options;
  options.InitToDefaults();
  KelCompressedData data{bytes.data(), static_cast<KelULong>(bytes.size())};
  KelImage image;
  KelLong code = image.InitDecoder(nullptr, &data, &options, nullptr, nullptr, KelAspectFull);
  if (code == KelOK) {
    const KelImageGeometry& g = *image.GetGeometryParams();
    const KelLong width = g.Xsiz - g.XOsiz;
    const KelLong height = g.Ysiz - g.YOsiz;
    const auto n = static_cast<std::size_t>(g.Csiz);
    // One plane of bytes per component, whatever the component's own depth.
    const auto plane = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    std::vector<std::uint8_t> samples(n * plane);
    std::vector<void*> buffers(n);
    for (std::size_t c = 0; c < n; ++c) buffers[c] = samples.data() + c * plane;
    std::vector<KelLong> strides(n, width), eight(n, 8), isSigned(n, 0);
    std::vector<double> most(n, 255.0), least(n, 0.0);
    KelFrameData frame;
    frame.NumChannels = g.Csiz;
    frame.OutBuffers = buffers.data();
    frame.OutStrides = strides.data();
    frame.InBitDepths = frame.OutBitDepths = eight.data();
    frame.OutSigned = isSigned.data();
    frame.OutMax = most.data();
    frame.OutMin = least.data();
    code = image.GetNextFrame(nullptr, nullptr, false, false, &frame);

    std::ofstream out(argv[2], std::ios::binary);
    const std::size_t channels = n >= 3 ? 3 : 1;
    out << (channels == 3 ? "P6\n" : "P5\n") << width << ' ' << height << "\n255\n";
    for (std::size_t i = 0; i < plane; ++i) {
      for (std::size_t c = 0; c < channels; ++c) out.put(static_cast<char>(samples[c * plane + i]));
    }
  }
  if (code != KelOK) std::fprintf(stderr, "%s: result code %d\n", argv[1], code);
  image.Die();
  options.Die();
  KelLibShutDown();
  return code == KelOK ? 0 : 2;
}
