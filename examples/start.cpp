// The smallest host: starts the library, makes an option set, prints version and geometry.
#include <kel/Kel.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main() {
  KelMemFuncs memory{};
  memory.Malloc = [](KelULong size) { return std::malloc(size); };
  memory.Free = [](void* address) { std::free(address); };
  memory.MemCopy = [](void* to, const void* from, KelULong n) { std::memcpy(to, from, n); };
  memory.MemSet = [](void* to, KelLong value, KelULong n) { std::memset(to, value, n); };
  KelLibInit(&memory);
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
