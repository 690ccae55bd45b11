// The smallest host: its eleven memory callbacks, which start the library; then an option set,
// version and geometry.
#include <kel/Kel.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main() {
  KelMemFuncs memory;
  memory.Malloc = [](KelULong size) { return std::malloc(size); };
  memory.Free = [](void* address) { std::free(address); };
  memory.AlignedMalloc = [](KelULong size, KelULong alignment) {
    return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
  };
  memory.AlignedFree = memory.Free;
  memory.AllocBuf = [](KelULong size) -> KelBufID_I* {
    auto* buffer = new KelBufID_I;
    buffer->clientRef = reinterpret_cast<std::uintptr_t>(std::malloc(size));
    return buffer;
  };
  memory.AllocAlignedBuf = [](KelULong size, KelULong alignment) -> KelBufID_I* {
    auto* buffer = new KelBufID_I;
    buffer->clientRef =
        reinterpret_cast<std::uintptr_t>(KelGetMemObj()->AlignedMalloc(size, alignment));
    return buffer;
  };
  memory.LockBuf = [](KelBufID_I* b) { return reinterpret_cast<void*>(b->clientRef); };
  memory.UnlockBuf = [](KelBufID_I*) {};
  memory.FreeBuf = [](KelBufID_I* b) {
    std::free(reinterpret_cast<void*>(b->clientRef));
    delete b;
  };
  memory.MemCopy = [](void* to, const void* from, KelULong n) { std::memcpy(to, from, n); };
  memory.MemSet = [](void* to, KelLong value, KelULong n) { std::memset(to, value, n); };
  if (KelLibInit(&memory) != KelOK) return 1;
  std::printf("Kel %s, built %s\n", KelLibVersion(), KelLibBuildDate());

  KelEncOpt options;
  options.InitToDefaults(1920, 1080, 512, 512, 3, 8);
  const KelImageGeometry* geometry = options.GetGeomParams();
  std::printf("%d x %d samples, %d components, %d x %d tiles\n", geometry->Xsiz, geometry->Ysiz,
              geometry->Csiz, geometry->NumXTiles, geometry->NumYTiles);
  options.Die();
  KelLibShutDown();
  return 0;
}
