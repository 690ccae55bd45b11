// Ten things that programs do with pictures, over the host kit; docs/cookbook.md shows them one by
// one. Usage: cookbook IN.ppm FOLDER
#include <algorithm>
#include <cstdio>
#include <functional>
#include <kel/host.hpp>
#include <string>

using namespace kel::host;

// 1. A file without loss.
void WriteLossless(const Image& image, const std::string& path) {
  EncodeParams params;
  params.lossless = true;
  FileSink file(path);
  Encode(image, params, file);
}

// 2. The best file of at most so many bytes.
std::uint64_t WriteWithin(const Image& image, std::uint64_t bytes, const std::string& path) {
  EncodeParams params;
  params.sizeLimit = bytes;
  FileSink file(path);
  return Encode(image, params, file).bytes;
}

// 3. A file of a given error.
double WriteAtError(const Image& image, double decibels, const std::string& path) {
  EncodeParams params;
  params.psnr = decibels;
  FileSink file(path);
  return Encode(image, params, file).psnr;
}

// 4. A small picture; of the file no more is read than it needs.
Image Thumbnail(const std::string& path) {
  FileSource file(path);
  DecodeParams params;
  params.fitWidth = params.fitHeight = 160;
  return Decode(file, params);
}

// 5. A part of a large picture, at half its size, again and again.
Image Part(Picture& picture, std::uint32_t x, std::uint32_t y) {
  return picture.Decode({.x = x, .y = y, .width = 256, .height = 256}, 1);
}

// 6. What is in a file, without decoding it.
std::string Describe(const std::string& path) {
  FileSource file(path);
  const Info info = Probe(file);
  return std::to_string(info.width) + " x " + std::to_string(info.height) + ", " +
         (info.lossless ? "lossless" : "lossy");
}

// 7. A picture that never stands in memory, from rows as they come to a file.
void WriteRows(RowSource& rows, const std::string& path) {
  EncodeParams params;
  params.quality = 80;
  FileSink file(path);
  Encode(rows, params, file);
}

// 8. What has arrived of a file, better with every piece.
using Show = std::function<void(const Image&, const Region&)>;
Image ShowWhileItArrives(ByteView bytes, std::size_t piece, const Show& show) {
  ProgressiveDecoder decoder;
  for (; !bytes.empty(); bytes = bytes.subspan(std::min(piece, bytes.size()))) {
    const auto update = decoder.Feed(bytes.first(std::min(piece, bytes.size())));
    if (update.improved.width > 0) show(decoder.Look(), update.improved);
  }
  return decoder.GetImage();
}

// 9. A smaller file of the same picture, by copying bytes.
void WriteHalf(const std::string& from, const std::string& to) {
  FileRanges file(from);
  FileSink half(to);
  Trim(file, {.reduce = 1}, half);
}

// 10. A stranger's file: bounds on pixels and time, and a sentence when it fails.
bool DecodeStranger(const std::string& path, Image& image) {
  try {
    const LimitScope limits({.maxPixels = 100'000'000, .seconds = 10});
    DecodeParams params;
    params.acceptIncomplete = true;
    FileSource file(path);
    image = Decode(file, params);
    return true;
  } catch (const Error& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return false;
  }
}

int main(int argc, char** argv) {
  if (argc != 3) return std::puts("usage: cookbook IN.ppm FOLDER"), 1;
  const Session session(std::uint64_t{1} << 30);  // at most so many bytes
  const std::string folder = std::string(argv[2]) + "/";
  FileSource photo(argv[1]);
  const Image image = ReadPnm(photo);
  WriteLossless(image, folder + "exact.kel");
  const std::uint64_t bytes = WriteWithin(image, 50'000, folder + "small.kel");
  const double decibels = WriteAtError(image, 35, folder + "error.kel");
  const Image thumbnail = Thumbnail(folder + "exact.kel");
  FileRanges ranges(folder + "exact.kel");
  Picture picture(ranges);
  const Image part = Part(picture, 100, 50);
  ImageRowSource rows(image);
  WriteRows(rows, folder + "rows.kel");
  Bytes coded;
  FileSource exact(folder + "exact.kel");
  unsigned times = 0;
  const Image arrived = ShowWhileItArrives(ReadAll(exact, coded), 5000,
                                           [&](const Image&, const Region&) { ++times; });
  WriteHalf(folder + "exact.kel", folder + "half.kel");
  Image stranger;
  const bool refused = !DecodeStranger(argv[1], stranger);
  std::printf("%d bytes fit, %.1f dB, thumbnail %u x %u, part %u x %u\n", bytes <= 50'000, decibels,
              thumbnail.width, thumbnail.height, part.width, part.height);
  std::printf("%s; half: %s; arrived: %s, shown %s; stranger: %s\n",
              Describe(folder + "rows.kel").c_str(), Describe(folder + "half.kel").c_str(),
              Compare(image, arrived).identical ? "identical" : "different",
              times > 1 ? "more than once" : "once", refused ? "refused" : "decoded");
  return 0;
}
