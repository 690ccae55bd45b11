// Kel file in, PPM out. Usage: decode_file IN.kel OUT.ppm
#include <cstdio>
#include <kel/host.hpp>

int main(int argc, char** argv) {
  using namespace kel::host;
  if (argc != 3) return std::puts("usage: decode_file IN.kel OUT.ppm"), 1;
  try {
    const Session session;
    FileSource file(argv[1]);
    DecodeParams params;
    params.acceptIncomplete = true;  // a file cut short gives what is there
    DecodeReport report;
    const Image image = Decode(file, params, &report);
    if (!report.complete) std::fputs("the file is incomplete\n", stderr);
    FileSink photo(argv[2]);
    WritePnm(image, photo);
    return 0;
  } catch (const Error& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
  }
}
