// Image files of strangers, as the command reads them: from memory and by a pipe, which must agree.
// What was read is turned upright, written in every format that holds it, and read back: formats
// without loss give the samples again. The first byte of an input says how it is read.
#include "Exif.hpp"
#include "HostSupport.hpp"
#include "ImageFile.hpp"
#include "Metadata.hpp"

namespace {

using namespace kel::host;
using namespace kel::tool;
using fuzz::Require;
using fuzz::Try;

std::optional<Image> ReadPiped(ByteView bytes, const ReadSettings& settings) {
  MemorySource memory(bytes);
  CallbackSource pipe = fuzz::PipeOf(memory, 61);
  BufferedSource source(pipe);
  return Try([&] {
    const auto rows = OpenImage(source, settings);
    if (rows == nullptr) throw Error(Failure::kInput, "no such page");
    return kel::host::ReadImage(*rows);
  });
}

void WriteAndReadBack(const Image& image, const std::string& name) {
  MemorySink sink;
  if (!Try([&] { return WriteImage(image, name, sink), true; })) return;
  const auto back = Try([&] { return kel::tool::ReadImage(sink.bytes, {.keepValues = true}); });
  Require(back && back->width == image.width && back->height == image.height);
  if (name == "o.jpg" || image.palette || !IsOrdinary(image)) return;
  Require(fuzz::AreEqual(*back, image));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  static const Session session(std::uint64_t{24} << 20);
  const LimitScope limits({.maxPixels = 1 << 18, .seconds = 0});
  const ByteView bytes(data + 1, size - 1);
  ReadSettings settings;
  settings.page = data[0] & 3;
  settings.keepValues = (data[0] & 4) != 0;
  Try([&] { return ListExif(bytes).size(); });
  auto image = Try([&] { return kel::tool::ReadImage(bytes, settings); });
  const auto piped = ReadPiped(bytes, settings);
  Require(image.has_value() == piped.has_value());
  if (!image) return 0;
  Require(fuzz::AreEqual(*image, *piped) && image->iccProfile == piped->iccProfile);
  if (std::uint64_t{image->width} * image->height > 1 << 14) return 0;

  Try([&] { return ListExif(FindExif(*image)).size(); });
  Try([&] { return MakeUpright(*image), true; });
  for (const char* const name : {"o.png", "o.pam", "o.tif", "o.jpg"}) {
    LossesIn(*image, *FormatOfName(name));
    WriteAndReadBack(*image, name);
  }
  StripMetadata(*image, (data[0] & 8) != 0 ? Strip::kGps : Strip::kAll);
  WriteAndReadBack(*image, "o.tif");
  return 0;
}
