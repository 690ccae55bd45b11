// PNG, through libpng.
//
// libpng reports failures by longjmp. So every call into it stands in a function that holds
// nothing with a destructor; what such functions need is in a record that outlives them, and
// memory is obtained between them.
//
// Depths that PNG lacks (3, 5, 10, 12, ...) are scaled up to the next it has, with the true depth
// noted in the file (the sBIT chunk); a reader that finds all samples to be of that form scales
// them back, so such images survive exactly.
#include <png.h>
#include <kel/host/convert.hpp>
#include <kel/host/errors.hpp>
#include <kel/host/rows.hpp>

#include <algorithm>
#include <bit>
#include <csetjmp>
#include <cstring>

#include "ImageFile.hpp"
#include "Metadata.hpp"

namespace kel::tool {
namespace {

using host::Bytes;
using host::ByteView;
using host::ChannelRole;
using host::Error;
using host::Failure;
using host::Image;
using host::Plane;

constexpr double kInchesPerMetre = 39.37007874015748;
constexpr const char* kXmpKeyword = "XML:com.adobe.xmp";
constexpr int kCompression = 4;  // nearly as small as the default, in half the time
constexpr png_uint_32 kMostSide = 0x7FFFFFFF;

struct Failures {
  char message[200] = {};
};

void OnError(png_structp png, png_const_charp message) {
  auto& failures = *static_cast<Failures*>(png_get_error_ptr(png));
  std::strncpy(failures.message, message, sizeof failures.message - 1);
  png_longjmp(png, 1);
}

void OnWarning(png_structp, png_const_charp) {}

// ---- Reading ----

/// What the file says, as far as an image needs it.
struct PngReader {
  explicit PngReader(ByteView all) : bytes(all) {}
  ~PngReader() { png_destroy_read_struct(&png, &info, nullptr); }

  ByteView bytes;
  std::size_t at = 0;
  Failures failures;
  png_structp png = nullptr;
  png_infop info = nullptr;
  png_uint_32 width = 0, height = 0;
  int depth = 0, colourType = 0, passes = 1;
  std::size_t rowBytes = 0;
};

void ReadBytes(png_structp png, png_bytep to, png_size_t count) {
  auto& reader = *static_cast<PngReader*>(png_get_io_ptr(png));
  if (count > reader.bytes.size() - reader.at) png_error(png, "the file is cut off");
  std::memcpy(to, reader.bytes.data() + reader.at, count);
  reader.at += count;
}

bool ReadHeader(PngReader& r) {
  r.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &r.failures, OnError, OnWarning);
  r.info = r.png == nullptr ? nullptr : png_create_info_struct(r.png);
  if (r.info == nullptr) return false;
  if (setjmp(png_jmpbuf(r.png)) != 0) return false;
  png_set_read_fn(r.png, &r, ReadBytes);
  png_set_user_limits(r.png, kMostSide, kMostSide);
  png_read_info(r.png, r.info);
  int interlace = 0;
  png_get_IHDR(r.png, r.info, &r.width, &r.height, &r.depth, &r.colourType, &interlace, nullptr,
               nullptr);
  if (std::endian::native == std::endian::little) png_set_swap(r.png);
  png_set_packing(r.png);
  r.passes = png_set_interlace_handling(r.png);
  png_read_update_info(r.png, r.info);
  r.rowBytes = png_get_rowbytes(r.png, r.info);
  return true;
}

/// One row, or with a row pointer for every row all of an interlaced image.
bool ReadRow(PngReader& r, png_bytep row) {
  if (setjmp(png_jmpbuf(r.png)) != 0) return false;
  png_read_row(r.png, row, nullptr);
  return true;
}

bool ReadAllRows(PngReader& r, png_bytepp rows) {
  if (setjmp(png_jmpbuf(r.png)) != 0) return false;
  png_read_image(r.png, rows);
  return true;
}

bool ReadEnd(PngReader& r) {
  if (setjmp(png_jmpbuf(r.png)) != 0) return false;
  png_read_end(r.png, r.info);
  return true;
}

void Require(const PngReader& reader, bool success) {
  if (success) return;
  throw Error(Failure::kInput, std::string("damaged PNG file: ") + reader.failures.message);
}

void SplitPngRow(const PngReader& reader, const png_byte* row, Image& image, std::uint32_t y) {
  if (reader.depth == 16) {
    host::SplitRow(reinterpret_cast<const std::uint16_t*>(row), image, y);
  } else {
    host::SplitRow(row, image, y);
  }
}

void ReadSamples(PngReader& reader, Image& image) {
  const std::size_t numRows = reader.passes > 1 ? reader.height : 1;
  Bytes buffer(reader.rowBytes * numRows);
  if (reader.passes > 1) {
    std::vector<png_bytep> rows;
    for (std::size_t y = 0; y < numRows; ++y) rows.push_back(&buffer[y * reader.rowBytes]);
    Require(reader, ReadAllRows(reader, rows.data()));
    for (std::uint32_t y = 0; y < reader.height; ++y) SplitPngRow(reader, rows[y], image, y);
    return;
  }
  for (std::uint32_t y = 0; y < reader.height; ++y) {
    Require(reader, ReadRow(reader, buffer.data()));
    SplitPngRow(reader, buffer.data(), image, y);
  }
}

/// Turns the one colour that the file declares transparent into an opacity plane.
void AddOpacityOfKey(const Image& image, const png_color_16& key, Plane& opacity) {
  const std::uint32_t values[] = {image.planes.size() == 1 ? key.gray : key.red, key.green,
                                  key.blue};
  for (std::uint32_t y = 0; y < image.height; ++y) {
    for (std::uint32_t x = 0; x < image.width; ++x) {
      bool matches = true;
      for (std::size_t c = 0; c < image.planes.size(); ++c) {
        matches = matches && image.planes[c].At(x, y) == values[c];
      }
      opacity.Set(x, y, matches ? 0 : opacity.MaxValue());
    }
  }
}

/// The palette; one with opacity is applied to the image at once.
void ReadPalette(PngReader& reader, Image& image) {
  png_colorp entries = nullptr;
  int count = 0;
  png_get_PLTE(reader.png, reader.info, &entries, &count);
  png_bytep opacity = nullptr;
  int opacityCount = 0;
  png_get_tRNS(reader.png, reader.info, &opacity, &opacityCount, nullptr);
  host::Palette& palette = image.palette.emplace();
  palette.columns.resize(opacityCount > 0 ? 4 : 3);
  for (int i = 0; i < count; ++i) {
    palette.columns[0].entries.push_back(entries[i].red);
    palette.columns[1].entries.push_back(entries[i].green);
    palette.columns[2].entries.push_back(entries[i].blue);
    if (opacityCount > 0) {
      palette.columns[3].entries.push_back(i < opacityCount ? opacity[i] : 255U);
    }
  }
  image.colourSpace = host::ColourSpace::kSrgb;
  if (opacityCount == 0) return;
  palette.columns[3].role = ChannelRole::kOpacity;
  host::ExpandPalette(image);
}

void ReadTransparency(PngReader& reader, Image& image) {
  png_color_16p key = nullptr;
  png_get_tRNS(reader.png, reader.info, nullptr, nullptr, &key);
  if (key == nullptr || host::OpacityPlane(image) != nullptr) return;
  Plane opacity(image.width, image.height, image.planes[0].Depth());
  opacity.role = ChannelRole::kOpacity;
  opacity.colour = 0;
  AddOpacityOfKey(image, *key, opacity);
  image.planes.push_back(std::move(opacity));
}

/// The depth that the sBIT chunk notes for all channels; 0 without one or when they differ.
unsigned NotedDepth(const PngReader& reader) {
  png_color_8p bits = nullptr;
  if (png_get_sBIT(reader.png, reader.info, &bits) == 0) return 0;
  const bool colour = (reader.colourType & PNG_COLOR_MASK_COLOR) != 0;
  const bool opacity = (reader.colourType & PNG_COLOR_MASK_ALPHA) != 0;
  const unsigned depth = colour ? bits->red : bits->gray;
  const bool same = (!colour || (bits->green == depth && bits->blue == depth)) &&
                    (!opacity || bits->alpha == depth);
  return same ? depth : 0;
}

/// Brings the image back to the noted depth if that loses nothing.
void ApplyNotedDepth(Image& image, unsigned noted) {
  const unsigned depth = image.planes[0].Depth();
  if (noted == 0 || noted >= depth || image.palette) return;
  Image reduced;
  reduced.width = image.width;
  reduced.height = image.height;
  reduced.planes = image.planes;
  host::ChangeDepth(reduced, noted);
  Image restored = reduced;
  host::ChangeDepth(restored, depth);
  if (host::Compare(restored, image).identical) image.planes = std::move(reduced.planes);
}

void ReadMetadata(PngReader& reader, Image& image) {
  png_charp name = nullptr;
  int compression = 0;
  png_bytep profile = nullptr;
  png_uint_32 profileBytes = 0;
  if (png_get_iCCP(reader.png, reader.info, &name, &compression, &profile, &profileBytes) != 0) {
    image.iccProfile.assign(profile, profile + profileBytes);
  }
  png_uint_32 x = 0, y = 0;
  int unit = 0;
  if (png_get_pHYs(reader.png, reader.info, &x, &y, &unit) != 0 && unit == PNG_RESOLUTION_METER) {
    image.resolution = {x / kInchesPerMetre, y / kInchesPerMetre};
  }
  png_bytep exif = nullptr;
  png_uint_32 exifBytes = 0;
  if (png_get_eXIf_1(reader.png, reader.info, &exifBytes, &exif) != 0) {
    AddExif(image, {exif, exifBytes});
  }
  png_textp texts = nullptr;
  const int numTexts = png_get_text(reader.png, reader.info, &texts, nullptr);
  for (int i = 0; i < numTexts; ++i) {
    if (std::strcmp(texts[i].key, kXmpKeyword) == 0) AddXmp(image, texts[i].text);
  }
}

// ---- Writing ----

struct PngWriter {
  PngWriter(const Image& source, host::Sink& to) : image(source), sink(to) {}
  ~PngWriter() { png_destroy_write_struct(&png, &info); }

  const Image& image;
  host::Sink& sink;
  Bytes waiting;
  bool outOfMemory = false;
  Failures failures;
  png_structp png = nullptr;
  png_infop info = nullptr;
  int depth = 8, colourType = PNG_COLOR_TYPE_GRAY;
  png_color entries[256] = {};
  int numEntries = 0;
  const std::string* xmp = nullptr;
};

void WriteBytes(png_structp png, png_bytep from, png_size_t count) {
  auto& writer = *static_cast<PngWriter*>(png_get_io_ptr(png));
  try {
    writer.waiting.insert(writer.waiting.end(), from, from + count);
    return;
  } catch (const std::exception&) {
    writer.outOfMemory = true;
  }
  png_error(png, "out of memory");
}

void Flush(png_structp) {}

/// The smallest depth of PNG that holds samples of this depth.
int PngDepth(unsigned depth, bool anyDepth) {
  for (const int possible : {1, 2, 4, 8}) {
    if (depth <= static_cast<unsigned>(possible) && (anyDepth || possible == 8)) return possible;
  }
  return 16;
}

void ChooseForm(PngWriter& writer) {
  const Image& image = writer.image;
  const bool colour = host::NumColours(image) == 3;
  const bool opacity = host::OpacityPlane(image) != nullptr;
  writer.depth = PngDepth(image.planes[0].Depth(), !colour && !opacity);
  if (!image.palette) {
    writer.colourType = (colour ? PNG_COLOR_MASK_COLOR : 0) | (opacity ? PNG_COLOR_MASK_ALPHA : 0);
    return;
  }
  writer.colourType = PNG_COLOR_TYPE_PALETTE;
  const auto& columns = image.palette->columns;
  writer.numEntries = static_cast<int>(
      std::min<std::size_t>(columns[0].entries.size(), std::size_t{1} << writer.depth));
  const auto byte = [&](std::size_t column, std::size_t i) {
    const host::Palette::Column& from = columns[column];
    const std::uint64_t most = UINT32_MAX >> (32 - from.depth);
    return static_cast<png_byte>((from.entries[i] * std::uint64_t{255} + most / 2) / most);
  };
  for (int i = 0; i < writer.numEntries; ++i) {
    const auto entry = static_cast<std::size_t>(i);
    writer.entries[i] = {byte(0, entry), byte(1, entry), byte(2, entry)};
  }
}

void SetMetadata(PngWriter& w) {
  const Image& image = w.image;
  if (!image.iccProfile.empty()) {
    png_set_iCCP(w.png, w.info, "ICC profile", PNG_COMPRESSION_TYPE_BASE, image.iccProfile.data(),
                 static_cast<png_uint_32>(image.iccProfile.size()));
  }
  if (image.resolution) {
    png_set_pHYs(w.png, w.info,
                 static_cast<png_uint_32>(image.resolution->x * kInchesPerMetre + 0.5),
                 static_cast<png_uint_32>(image.resolution->y * kInchesPerMetre + 0.5),
                 PNG_RESOLUTION_METER);
  }
  const ByteView exif = FindExif(image);
  if (!exif.empty()) {
    png_set_eXIf_1(w.png, w.info, static_cast<png_uint_32>(exif.size()),
                   const_cast<png_bytep>(exif.data()));
  }
  if (w.xmp != nullptr) {
    png_text text{};
    text.compression = PNG_ITXT_COMPRESSION_NONE;
    text.key = const_cast<png_charp>(kXmpKeyword);
    text.text = const_cast<png_charp>(w.xmp->c_str());
    png_set_text(w.png, w.info, &text, 1);
  }
}

bool WriteHeader(PngWriter& w) {
  w.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &w.failures, OnError, OnWarning);
  w.info = w.png == nullptr ? nullptr : png_create_info_struct(w.png);
  if (w.info == nullptr) return false;
  if (setjmp(png_jmpbuf(w.png)) != 0) return false;
  png_set_write_fn(w.png, &w, WriteBytes, Flush);
  png_set_benign_errors(w.png, 1);  // a profile that libpng does not like is left out
  png_set_user_limits(w.png, kMostSide, kMostSide);
  png_set_compression_level(w.png, kCompression);
  png_set_IHDR(w.png, w.info, w.image.width, w.image.height, w.depth, w.colourType,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (w.numEntries != 0) png_set_PLTE(w.png, w.info, w.entries, w.numEntries);
  const auto noted = static_cast<png_byte>(w.image.planes[0].Depth());
  if (w.numEntries == 0 && noted != w.depth) {
    const png_color_8 bits{noted, noted, noted, noted, noted};
    png_set_sBIT(w.png, w.info, &bits);
  }
  SetMetadata(w);
  png_write_info(w.png, w.info);
  if (std::endian::native == std::endian::little) png_set_swap(w.png);
  png_set_packing(w.png);
  return true;
}

bool WriteRow(PngWriter& w, const std::uint8_t* row) {
  if (setjmp(png_jmpbuf(w.png)) != 0) return false;
  png_write_row(w.png, row);
  return true;
}

bool WriteEnd(PngWriter& w) {
  if (setjmp(png_jmpbuf(w.png)) != 0) return false;
  png_write_end(w.png, nullptr);  // all metadata stand in front
  return true;
}

void Require(const PngWriter& writer, bool success) {
  if (success) return;
  throw Error(writer.outOfMemory ? Failure::kMemory : Failure::kOutput,
              std::string("cannot be written as PNG: ") + writer.failures.message);
}

/// Joins a row into pixels, scaled to the depth of the file.
template <class Value>
void JoinScaled(const PngWriter& writer, std::uint32_t y, std::vector<Value>& pixels) {
  host::JoinRow(writer.image, y, pixels.data());
  if (writer.image.palette) {
    const auto last = static_cast<Value>(writer.numEntries - 1);
    for (Value& index : pixels) index = std::min(index, last);
    return;
  }
  const std::uint32_t from = writer.image.planes[0].MaxValue();
  const std::uint32_t to = (1U << writer.depth) - 1;
  if (from == to) return;
  for (Value& value : pixels) value = static_cast<Value>((value * to + from / 2) / from);
}

template <class Value>
void WriteRows(PngWriter& writer) {
  std::vector<Value> pixels(writer.image.width * writer.image.planes.size());
  for (std::uint32_t y = 0; y < writer.image.height; ++y) {
    JoinScaled(writer, y, pixels);
    Require(writer, WriteRow(writer, reinterpret_cast<const std::uint8_t*>(pixels.data())));
    writer.sink.Write(writer.waiting);
    writer.waiting.clear();
  }
}

}  // namespace

Image ReadPng(ByteView bytes) {
  PngReader reader(bytes);
  Require(reader, ReadHeader(reader));
  const bool colour = (reader.colourType & PNG_COLOR_MASK_COLOR) != 0;
  const bool opacity = (reader.colourType & PNG_COLOR_MASK_ALPHA) != 0;
  const bool palette = (reader.colourType & PNG_COLOR_MASK_PALETTE) != 0;
  Image image = host::MakeImage(reader.width, reader.height, colour && !palette ? 3 : 1,
                                static_cast<unsigned>(reader.depth), opacity);
  ReadSamples(reader, image);
  Require(reader, ReadEnd(reader));
  ReadMetadata(reader, image);
  if (palette) {
    ReadPalette(reader, image);
  } else {
    ReadTransparency(reader, image);
    ApplyNotedDepth(image, NotedDepth(reader));
  }
  return image;
}

void WritePng(const Image& image, host::Sink& sink) {
  if (!image.palette) CheckFits(image, {"PNG", 16, true, false, false});
  PngWriter writer(image, sink);
  writer.xmp = FindXmp(image);
  ChooseForm(writer);
  Require(writer, WriteHeader(writer));
  if (writer.depth == 16) {
    WriteRows<std::uint16_t>(writer);
  } else {
    WriteRows<std::uint8_t>(writer);
  }
  Require(writer, WriteEnd(writer));
  sink.Write(writer.waiting);
}

}  // namespace kel::tool
