// A photo in, a file out, and back: the host kit in a nutshell.
#include <cstdio>
#include <kel/host.hpp>

int main(int argc, char** argv) {
  using namespace kel::host;
  if (argc != 2) return std::puts("usage: hello PHOTO.ppm"), 1;
  try {
    const Session session;
    FileSource photo(argv[1]);
    const Image image = ReadPnm(photo);

    FileSink file("hello.kel");
    const EncodeReport report = Encode(image, {}, file);

    FileSource source("hello.kel");
    const Image back = Decode(source);
    std::printf("%u x %u samples in %llu bytes, %.1f dB\n", image.width, image.height,
                static_cast<unsigned long long>(report.bytes), Compare(image, back).psnr);
    FileSink copy("hello.ppm");
    WritePnm(back, copy);
    return 0;
  } catch (const Error& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
  }
}
