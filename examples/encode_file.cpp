// PPM in, Kel file out. Usage: encode_file IN.ppm OUT.kel
#include <cstdio>
#include <kel/host.hpp>

int main(int argc, char** argv) {
  using namespace kel::host;
  if (argc != 3) return std::puts("usage: encode_file IN.ppm OUT.kel"), 1;
  try {
    const Session session;  // starts the library with memory from the heap
    FileSource photo(argv[1]);
    const Image image = ReadPnm(photo);
    EncodeParams params;
    params.quality = 75;  // or params.lossless = true
    FileSink file(argv[2]);
    const EncodeReport report = Encode(image, params, file);
    std::printf("%llu bytes\n", static_cast<unsigned long long>(report.bytes));
    return 0;
  } catch (const Error& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
  }
}
